// A folder that nobody else may enter, with one package in it: what a child can find there is what
// was checked, whatever happens to the operator's folder meanwhile. Failures are Mistakes. One
// thread per object.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Packages.h"

namespace qvo {

class PrivateFolder {
  public:
    // Below `parent`, with the bytes of the package under a name of its own.
    PrivateFolder(const std::string& parent, const qvf::Bytes& package);
    ~PrivateFolder();
    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;

    const std::string& Path() const { return m_path; }

    // What runs before this one have left in `parent`, which were killed.
    static void RemoveLeftOvers(const std::string& parent);

  private:
    std::string m_path;
};

// The private folders of a run: one for each package, made when it is first wanted, gone at the end
// of the run. Any thread.
class PrivatePackages {
  public:
    explicit PrivatePackages(std::string parent) : m_parent(std::move(parent)) {}

    // The folder that holds it alone.
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
