#include "Signature.h"

#include <filesystem>
#include <sstream>

#include "Files.h"
#include "Program.h"

namespace qvf {
namespace {

constexpr char kProgram[] = "ssh-keygen";
constexpr char kDebianPackage[] = "openssh-client";
constexpr char kNamespace[] = "qvf";  // a signature made for anything else does not count
constexpr char kSigner[] = "packager";

// The keys as ssh-keygen's list of allowed signers: each with its identity and namespace.
Bytes AllowedSigners(const std::string& path) {
    const Bytes bytes = ReadFile(path);
    std::istringstream lines(std::string(bytes.begin(), bytes.end()));
    std::string allowed;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("PRIVATE KEY") != line.npos)
            throw Mistake(path + ": this is a private key; give the public one, " + path + ".pub");
        if (line.find_first_not_of(" \t\r") == line.npos || line[0] == '#') continue;
        allowed += std::string(kSigner) + " namespaces=\"" + kNamespace + "\" " + line + "\n";
    }
    if (allowed.empty()) throw Mistake(path + ": there is no public key in it");
    return Bytes(allowed.begin(), allowed.end());
}

}  // namespace

std::string SignaturePath(const std::string& package) {
    const std::filesystem::path path = package;
    std::string name = path.filename().string();
    for (size_t at; (at = name.find(".qvf")) != name.npos;) name[at] = '-';
    return (path.parent_path() / (name + ".sig")).string();
}

Bytes Sign(const Bytes& package, const std::string& key) {
    // Checked here: ssh-keygen would take a public key and look for an agent.
    if (const Bytes bytes = ReadFile(key);
        std::string(bytes.begin(), bytes.end()).find("PRIVATE KEY") == std::string::npos)
        throw Mistake(key + ": this is no private key");
    const ProgramRun run = RunProgram({kProgram, "-Y", "sign", "-f", key, "-n", kNamespace},
                                      MemoryFile(package), kDebianPackage);
    if (run.status != 0 || run.output.empty()) throw Mistake(key + ": cannot sign: " + run.errors);
    return run.output;
}

bool IsSignedBy(const Bytes& package, const Bytes& signature, const std::string& keys) {
    const MemoryFile allowed(AllowedSigners(keys));
    const MemoryFile detached(signature);
    const ProgramRun run = RunProgram({kProgram, "-Y", "verify", "-f", allowed.Path(), "-I",
                                       kSigner, "-n", kNamespace, "-s", detached.Path()},
                                      MemoryFile(package), kDebianPackage);
    return run.status == 0;
}

}  // namespace qvf
