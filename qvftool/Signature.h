// Detached signatures of packages: OpenSSH signatures, made and verified by ssh-keygen over the
// bytes of the whole file. They are not part of the package format. Failures are Mistakes. One
// thread.
#pragma once

#include <string>

#include "Package.h"

namespace qvf {

// The path of a package's signature: beside it, with a name that qvcap-upgrade does not take for a
// package. "a.qvf" has "a-qvf.sig".
std::string SignaturePath(const std::string& package);

// Signs with the private key in the file `key`; ssh-keygen asks for its passphrase.
Bytes Sign(const Bytes& package, const std::string& key);

// Whether the signature of these bytes was made with one of the keys in the file `keys`, one public
// key per line.
bool IsSignedBy(const Bytes& package, const Bytes& signature, const std::string& keys);

}  // namespace qvf
