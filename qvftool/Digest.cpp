#include "Digest.h"

#include <array>
#include <cstdio>

#include "OptionalLibrary.h"
#include "Program.h"

namespace qvf {
namespace {

constexpr size_t kBytes = 32;

// The few functions of libcrypto that are needed. It knows the processor's own instructions, which
// sha256sum often does not: that takes several times as long.
class LibCrypto {
  public:
    LibCrypto() {
        m_library.Find("EVP_sha256", m_sha256);
        m_library.Find("EVP_MD_CTX_new", m_new);
        m_library.Find("EVP_MD_CTX_free", m_free);
        m_library.Find("EVP_DigestInit_ex", m_begin);
        m_library.Find("EVP_DigestUpdate", m_add);
        m_library.Find("EVP_DigestFinal_ex", m_end);
    }

    // Empty when it is not here, or will not.
    std::string Digest(const Pieces& pieces) const {
        if (!m_library.IsComplete()) return "";
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
    OptionalLibrary m_library{"libcrypto.so.3"};
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
