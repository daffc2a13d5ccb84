#include "Digest.h"

#include "Program.h"

namespace qvf {

std::string Sha256(const Bytes& bytes) {
    constexpr size_t kDigits = 64;
    const ProgramRun run = RunProgram({"sha256sum"}, MemoryFile(bytes), "coreutils");
    const std::string text(run.output.begin(), run.output.end());
    std::string digest = text.substr(0, kDigits);
    if (run.status != 0 || digest.size() != kDigits ||
        digest.find_first_not_of("0123456789abcdef") != digest.npos)
        throw Mistake("sha256sum failed: " + run.errors);
    return digest;
}

}  // namespace qvf
