// Files as qvftool reads and writes them: whole and checked on the way in, complete or not at all
// on the way out. Failures are Mistakes that name the file. One thread per object.
#pragma once

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "Package.h"

namespace qvf {

// A regular file that knows how much of it is left.
class InputFile {
  public:
    explicit InputFile(const std::string& path);
    uint64_t Left() const { return left_; }
    // The next bytes; fewer only at the end of the file.
    Bytes Take(uint64_t size);
    void Skip(uint64_t size);

  private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::string path_;
    std::unique_ptr<std::FILE, Close> file_;
    uint64_t left_ = 0;
};

Bytes ReadFile(const std::string& path);

// Written beside its place and renamed into it: an older file stays whole until then.
void WriteFile(const std::string& path, const Bytes& bytes);

// A folder that is filled beside its place and appears in it by Commit(); without, it vanishes.
class NewFolder {
  public:
    // The place must be free, or an empty folder.
    explicit NewFolder(const std::string& place);
    ~NewFolder();
    NewFolder(const NewFolder&) = delete;
    NewFolder& operator=(const NewFolder&) = delete;

    std::string operator/(const std::string& name) const { return temporary_ + "/" + name; }
    void Commit();

  private:
    std::string place_;
    std::string temporary_;
    bool committed_ = false;
};

}  // namespace qvf
