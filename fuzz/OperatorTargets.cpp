// Target: qvcap's judge, any flash against any package.
#include <algorithm>
#include <cstring>
#include <vector>

#include "Input.h"
#include "Judge.h"
#include "Packages.h"
#include "Targets.h"

namespace qvfuzz {
namespace {

constexpr size_t kJudgedFlashSize = 64 << 10;
constexpr size_t kPrefix = 6;  // length of the package, running version

uint32_t Number(const uint8_t* at, int count) {
    uint32_t value = 0;
    for (int i = 0; i < count; ++i) value |= uint32_t{at[i]} << (8 * i);
    return value;
}

// Computed independently from the bytes: the package's image is complete at the address.
bool Holds(const std::vector<uint8_t>& flash, const qvo::PackageContents& contents, bool safe) {
    const qvf::Bytes& header = contents.header;
    const size_t address = safe ? qvo::kSafeHeaderDistance : 0;
    if (!std::equal(header.begin(), header.end(), flash.begin() + static_cast<ptrdiff_t>(address)))
        return false;
    for (const qvf::Section& section : contents.package.sections) {
        if (section.ForUpgradeImage() != safe) continue;
        if (section.End() > flash.size()) return false;
        for (uint32_t i = 0; i < section.size; ++i)
            if (flash[section.address + i] != (section.IsClear() ? 0xFF : section.data[i]))
                return false;
    }
    return true;
}

void Judge(const std::vector<uint8_t>& flash, uint32_t running,
           const qvo::PackageContents& contents, qvo::Depth depth) {
    const qvo::FlashSource source = [&](uint32_t address, uint8_t* buffer, uint32_t size) {
        Check(size <= qvo::kReadChunk, "a read of more than a chunk");
        if (uint64_t{address} + size > flash.size()) return false;
        std::memcpy(buffer, flash.data() + address, size);
        return true;
    };
    qvo::Card card;
    card.identified = true;
    card.runningVersion = running;
    const qvo::Verdict verdict = qvo::JudgeFlash(
        card, source, &contents, depth,
        [](uint64_t done, uint64_t total) { Check(done <= total, "more than all is read"); });
    if (depth == qvo::Depth::kHeaders) return;
    const bool claims =
        verdict.state == qvo::State::kStaged || verdict.state == qvo::State::kCurrent;
    const bool holds = Holds(flash, contents, false) || Holds(flash, contents, true);
    Check(!claims || holds, "an image that is not complete is called so");
    Check(verdict.state != qvo::State::kCurrent || running == contents.package.firmwareVersion,
          "current without running it");
}

}  // namespace

void JudgeFlash(const uint8_t* data, size_t size) {
    if (size < kPrefix) return;
    const uint32_t running = Number(data + 2, 4);
    const size_t cut = std::min<size_t>(Number(data, 2), size - kPrefix);
    qvo::PackageContents contents;
    try {
        contents.package = qvf::ReadPackage(AsFile(data + kPrefix, cut), qvf::Read::kEverything);
    } catch (const qvf::Mistake&) {
        return;
    }
    contents.header = qvo::HeaderBytes(contents.package);
    std::vector<uint8_t> flash(kJudgedFlashSize, 0xFF);
    const uint8_t* const rest = data + kPrefix + cut;
    std::copy_n(rest, std::min(size - kPrefix - cut, flash.size()), flash.begin());
    for (const qvo::Depth depth : {qvo::Depth::kHeaders, qvo::Depth::kSections, qvo::Depth::kCount})
        Judge(flash, running, contents, depth);
}

}  // namespace qvfuzz
