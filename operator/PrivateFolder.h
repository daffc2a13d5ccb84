// A folder that nobody else may enter, with one package in it: what a child can find there is what
// was checked, whatever happens to the operator's folder meanwhile. Failures are Mistakes. One
// thread per object.
#pragma once

#include <string>

#include "Package.h"

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

}  // namespace qvo
