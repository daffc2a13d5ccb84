// Detached signatures of packages: OpenSSH signatures, made and verified by ssh-keygen over the
// bytes of the whole file. The package format knows nothing of them. Failures are Mistakes. One
// thread.
#pragma once

#include <string>

#include "Package.h"

namespace qvf {

// Where the signature of a package stands: beside it, under a name that qvcap-upgrade does not take
// for a package. "a.qvf" has "a-qvf.sig".
std::string SignaturePath(const std::string& package);

// By the private key in the file `key`; ssh-keygen asks for its passphrase.
Bytes Sign(const Bytes& package, const std::string& key);

// Whether it was made over these bytes by one of the public keys in the file `keys`, one each line.
bool IsSignedBy(const Bytes& package, const Bytes& signature, const std::string& keys);

}  // namespace qvf
