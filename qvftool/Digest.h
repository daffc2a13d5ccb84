// SHA-256, computed by libcrypto if it is installed, else by a program of the system. Failures are
// Mistakes. One thread.
#pragma once

#include <string>

#include "Package.h"

namespace qvf {

// 64 hexadecimal digits.
std::string Sha256(const Pieces& pieces);
std::string Sha256(const Bytes& bytes);

}  // namespace qvf
