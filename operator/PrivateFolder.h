// A folder that nobody else may enter, with one package in it: a child finds there exactly the
// package that was checked, whatever happens to the operator's folder meanwhile. Failures are
// Mistakes. One thread per object.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Packages.h"

namespace qvo {

class PrivateFolder {
  public:
    // Makes it below `parent`, with the bytes of the package under a new name.
    PrivateFolder(const std::string& parent, const qvf::Pieces& package);
    ~PrivateFolder();
    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;

    const std::string& Path() const { return m_path; }

    // Removes what earlier runs that were killed have left in `parent`.
    static void RemoveLeftOvers(const std::string& parent);

  private:
    std::string m_path;
};

// The private folders of a run: one for each package, made when it is first needed, removed at the
// end of the run. Any thread.
class PrivatePackages {
  public:
    explicit PrivatePackages(std::string parent) : m_parent(std::move(parent)) {}

    // The folder that holds only this package.
    std::string FolderOf(const std::shared_ptr<const PackageContents>& contents);

  private:
    struct Made {
        std::shared_ptr<const PackageContents> contents;
        std::unique_ptr<PrivateFolder> folder;
    };

    const std::string m_parent;
    std::mutex m_lock;
    std::vector<Made> m_made;
};

}  // namespace qvo
