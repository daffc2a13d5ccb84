#include "Digest.h"

#include <dlfcn.h>

#include <array>
#include <cstdio>

#include "Program.h"

namespace qvf {
namespace {

constexpr size_t kBytes = 32;

// The few functions of libcrypto that are needed, by the names and types of its stable interface.
// It knows the processor's own instructions, which sha256sum often does not: that takes several
// times as long. Looked up when it is wanted, so that programs start, and are built, without it;
// never closed, as it keeps what it has once set up.
class LibCrypto {
  public:
    LibCrypto() : m_library(dlopen("libcrypto.so.3", RTLD_NOW | RTLD_LOCAL)) {
        Find("EVP_sha256", m_sha256);
        Find("EVP_MD_CTX_new", m_new);
        Find("EVP_MD_CTX_free", m_free);
        Find("EVP_DigestInit_ex", m_begin);
        Find("EVP_DigestUpdate", m_add);
        Find("EVP_DigestFinal_ex", m_end);
    }

    // Empty when it is not here, or will not.
    std::string Digest(const Pieces& pieces) const {
        if (m_library == nullptr || m_missing) return "";
        void* const state = m_new();
        if (state == nullptr) return "";
        std::array<unsigned char, kBytes> digest{};
        bool good = m_begin(state, m_sha256(), nullptr) == 1;
        for (const auto& piece : pieces)
            good = good && m_add(state, piece.data(), piece.size()) == 1;
        good = good && m_end(state, digest.data(), nullptr) == 1;
        m_free(state);
        std::string text;
        for (const unsigned char byte : digest) {
            char digits[3];
            std::snprintf(digits, sizeof digits, "%02x", unsigned{byte});
            text += digits;
        }
        return good ? text : "";
    }

  private:
    template <class Function>
    void Find(const char* name, Function*& function) {
        void* const found = m_library == nullptr ? nullptr : dlsym(m_library, name);
        m_missing = m_missing || found == nullptr;
        function = reinterpret_cast<Function*>(found);
    }

    void* m_library;
    bool m_missing = false;
    const void* (*m_sha256)() = nullptr;
    void* (*m_new)() = nullptr;
    void (*m_free)(void* state) = nullptr;
    int (*m_begin)(void* state, const void* kind, void* engine) = nullptr;
    int (*m_add)(void* state, const void* data, size_t size) = nullptr;
    int (*m_end)(void* state, unsigned char* digest, unsigned* size) = nullptr;
};

std::string ByProgram(const Pieces& pieces) {
    MemoryFile input;
    for (const auto& piece : pieces) input.Append(piece);
    const ProgramRun run = RunProgram({"sha256sum"}, input, "coreutils");
    const std::string text(run.output.begin(), run.output.end());
    std::string digest = text.substr(0, 2 * kBytes);
    if (run.status != 0 || digest.size() != 2 * kBytes ||
        digest.find_first_not_of("0123456789abcdef") != digest.npos)
        throw Mistake("sha256sum failed: " + run.errors);
    return digest;
}

}  // namespace

std::string Sha256(const Pieces& pieces) {
    static const LibCrypto library;
    std::string digest = library.Digest(pieces);
    return digest.empty() ? ByProgram(pieces) : digest;
}

std::string Sha256(const Bytes& bytes) { return Sha256(Pieces{bytes}); }

}  // namespace qvf
