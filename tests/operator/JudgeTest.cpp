// What a flash holds and what it means, over flashes of bytes; the cards come in the end-to-end
// tests.
#include "Judge.h"

#include <gmock/gmock.h>

#include <cstring>
#include <filesystem>

#include "support/PackageBuilder.h"
#include "support/TempFolder.h"

namespace qvtest {
namespace {

using qvo::Content;
using qvo::Depth;
using qvo::State;

constexpr uint32_t kMain = 0x100000;
constexpr uint32_t kSafe = kMain + 4096;
constexpr uint32_t kFlashSize = 0x400000;

PackageBuilder Both() {
    return Package()
        .Firmware(1, 1)
        .Compatibility(5)
        .Section("Factory.Main", 0x200000, 70000)
        .Section("Factory.CLR.1", 0x220000, 5000)
        .Section("Upgrade.Main", 0x300000, 3000);
}

class JudgeTest : public testing::Test {
  protected:
    JudgeTest() : flash(kFlashSize, 0xFF) {
        card.identified = true;
        card.runningVersion = 0x00010000;
        card.firmwareOffset = kMain;
        Use(Both());
    }

    void Use(const PackageBuilder& builder) {
        package = builder;
        builder.Write(folder + "/a.qvf");
        const qvo::PackageSet set(folder);
        contents = qvo::ReadContents(set.Packages().at(0));
    }
    void Put(uint32_t address, const Bytes& bytes) {
        std::copy(bytes.begin(), bytes.end(), flash.begin() + address);
    }
    void PutOld(uint32_t at = kMain) {
        Put(at, Package().Firmware(1, 0).Compatibility(5).Header());
        Put(0x200000, Payload(70000, 99));
    }
    void PutMain() {
        Put(kMain, package.Header());
        Put(0x200000, package.Data(0));
        std::fill_n(flash.begin() + 0x220000, 5000, uint8_t{0xFF});
    }
    void PutSafe() {
        Put(kSafe, package.Header());
        Put(0x300000, package.Data(2));
    }
    qvo::Verdict Judge(Depth depth = Depth::kSections) {
        lastDone = 0;
        const qvo::FlashSource source = [this](uint32_t address, uint8_t* buffer, uint32_t size) {
            ++reads;
            EXPECT_LE(size, qvo::kReadChunk);
            if (address == refused || uint64_t{address} + size > flash.size()) return false;
            std::memcpy(buffer, &flash[address], size);
            if (address == flipped) {
                buffer[0] ^= 1;
                flipped = 0;
            }
            return true;
        };
        return qvo::JudgeFlash(card, source, contents.get(), depth,
                               [this](uint64_t done, uint64_t total) {
                                   EXPECT_LE(done, total);
                                   EXPECT_GE(done, lastDone);
                                   lastDone = done;
                                   lastTotal = total;
                               });
    }

    const TempFolder temporary{"qvcap-judge"};
    const std::string folder = temporary.Path();
    qvo::Card card;
    Bytes flash;
    PackageBuilder package;
    std::shared_ptr<const qvo::PackageContents> contents;
    uint32_t refused = 1;  // an address that nothing is read at
    uint32_t flipped = 0;
    int reads = 0;
    uint64_t lastDone = 0;
    uint64_t lastTotal = 0;
};

TEST_F(JudgeTest, OlderFirmwareIsAnUpgradeThatIsAvailable) {
    PutOld();
    const qvo::Verdict verdict = Judge();
    EXPECT_EQ(State::kUpgradeAvailable, verdict.state);
    EXPECT_EQ(Content::kOther, verdict.main.content);
    EXPECT_EQ(0x00010000u, verdict.main.version);
    EXPECT_EQ(5, verdict.main.compatibilityCode);
    EXPECT_EQ(Content::kBlank, verdict.safe.content);
    EXPECT_EQ(lastTotal, lastDone) << "the bar ends at its end";
}

TEST_F(JudgeTest, ACompleteMainImageIsStagedUntilItRuns) {
    PutMain();
    EXPECT_EQ(State::kStaged, Judge().state);
    EXPECT_EQ(Content::kComplete, Judge().main.content);
    card.runningVersion = 0x00010001;
    EXPECT_EQ(State::kCurrent, Judge().state);
}

TEST_F(JudgeTest, ACompleteSafeImageIsStagedUntilItRuns) {
    PutOld();
    PutSafe();
    EXPECT_EQ(State::kStaged, Judge().state);
    EXPECT_EQ(Content::kComplete, Judge().safe.content);
    card.runningVersion = 0x00010001;
    EXPECT_EQ(State::kCurrent, Judge().state);
}

TEST_F(JudgeTest, EveryByteOfEverySectionCounts) {
    for (const uint32_t offset : {0u, 65535u, 65536u, 69999u}) {
        PutMain();
        flash[0x200000 + offset] ^= 0x40;
        const qvo::Verdict verdict = Judge();
        EXPECT_EQ(State::kInterrupted, verdict.state) << offset;
        EXPECT_EQ(Content::kPartial, verdict.main.content);
        ASSERT_EQ(1u, verdict.main.differences.size());
        EXPECT_EQ("Factory.Main", verdict.main.differences[0].name);
        EXPECT_EQ(offset, verdict.main.differences[0].firstOffset);
        EXPECT_EQ(0u, verdict.main.differences[0].section);
    }
}

TEST_F(JudgeTest, AClearSectionMustBeBlank) {
    PutMain();
    flash[0x220000 + 4999] = 0;
    const qvo::Verdict verdict = Judge();
    EXPECT_EQ(State::kInterrupted, verdict.state);
    ASSERT_EQ(1u, verdict.main.differences.size());
    EXPECT_TRUE(verdict.main.differences[0].clear);
    EXPECT_EQ(4999u, verdict.main.differences[0].firstOffset);
}

TEST_F(JudgeTest, APartialSafeImageIsInterrupted) {
    PutOld();
    PutSafe();
    flash[0x300000 + 2999] = 0xFF ^ package.Data(2)[2999];
    EXPECT_EQ(State::kInterrupted, Judge().state);
    EXPECT_EQ(Content::kPartial, Judge().safe.content);
}

TEST_F(JudgeTest, AMainImageWithoutHeaderIsInterruptedWhateverElseIsThere) {
    EXPECT_EQ(State::kInterrupted, Judge().state);
    PutSafe();
    EXPECT_EQ(State::kInterrupted, Judge().state) << "the main image is no use";
    card.runningVersion = 0x00010001;
    EXPECT_EQ(State::kInterrupted, Judge().state);
    EXPECT_EQ(Content::kComplete, Judge().safe.content);
    EXPECT_EQ(1u, Judge().main.differences.size()) << "and what is missing is named";
    flash[kMain] = 'Q';
    EXPECT_EQ(Content::kDamaged, Judge().main.content);
    EXPECT_EQ(State::kInterrupted, Judge().state);
}

TEST_F(JudgeTest, ATornSafeHeaderIsInterruptedOnlyWhereNothingElseIsComplete) {
    PutOld();
    Put(kSafe, Bytes(50, 0x55));
    EXPECT_EQ(Content::kDamaged, Judge().safe.content);
    EXPECT_EQ(State::kInterrupted, Judge().state);
    PutMain();
    EXPECT_EQ(State::kStaged, Judge().state);
}

TEST_F(JudgeTest, EveryByteOfTheHeaderCounts) {
    card.runningVersion = 0x00010001;
    for (uint32_t at = 0; at < package.Length(); ++at) {
        PutMain();
        flash[kMain + at] ^= 0x80;
        EXPECT_NE(State::kCurrent, Judge().state) << at;
        EXPECT_NE(State::kStaged, Judge().state) << at;
    }
}

TEST_F(JudgeTest, OtherFirmwareOfThePackagesVersionIsNotCalledCurrent) {
    PutOld();
    card.runningVersion = 0x00010001;
    EXPECT_EQ(State::kUnknown, Judge().state);
    EXPECT_THAT(Judge().reason, testing::HasSubstr("other firmware than the package"));
}

TEST_F(JudgeTest, NewerFirmwareThanThePackagesIsNotJudged) {
    Put(kMain, Package().Firmware(2, 0).Header());
    card.runningVersion = 0x00020000;
    EXPECT_EQ(State::kUnknown, Judge().state);
    PutSafe();
    EXPECT_EQ(State::kUnknown, Judge().state) << "the older image may be a leftover";
    flash[kMain] = 0;
    EXPECT_EQ(State::kInterrupted, Judge().state);
}

TEST_F(JudgeTest, ANewerImageBesideThePackagesIsNotCalledStaged) {
    PutSafe();
    Put(kMain, Package().Firmware(2, 0).Header());
    EXPECT_EQ(State::kUnknown, Judge().state);
}

TEST_F(JudgeTest, AForcedOlderImageIsStaged) {
    PutMain();
    card.runningVersion = 0x00020000;
    EXPECT_EQ(State::kStaged, Judge().state);
}

TEST_F(JudgeTest, HeadersOnlyReadsTwoHeadersAndSaysSo) {
    PutMain();
    const qvo::Verdict verdict = Judge(Depth::kHeaders);
    EXPECT_TRUE(verdict.headersOnly);
    EXPECT_EQ(State::kStaged, verdict.state);
    EXPECT_EQ(Content::kHeaderMatches, verdict.main.content);
    EXPECT_EQ(2, reads);
}

TEST_F(JudgeTest, CountingFindsEveryDifferenceInBothImages) {
    PutMain();
    PutSafe();
    for (const uint32_t at : {100u, 65536u, 69999u}) flash[0x200000 + at] ^= 1;
    flash[0x300000 + 7] ^= 1;
    flash[0x220000 + 1] ^= 1;
    const qvo::Verdict verdict = Judge(Depth::kCount);
    ASSERT_EQ(2u, verdict.main.differences.size());
    EXPECT_EQ(3u, verdict.main.differences[0].bytes);
    EXPECT_EQ(100u, verdict.main.differences[0].firstOffset);
    EXPECT_EQ(1u, verdict.main.differences[1].bytes);
    ASSERT_EQ(1u, verdict.safe.differences.size());
    EXPECT_EQ(7u, verdict.safe.differences[0].firstOffset);
}

TEST_F(JudgeTest, ABitThatIsWrongOnTheWayOnceIsNoDamage) {
    PutMain();
    for (const uint32_t address : {kMain, 0x200000u, 0x210000u, 0x220000u}) {
        flipped = address;
        EXPECT_EQ(State::kStaged, Judge().state) << address;
        EXPECT_EQ(0u, flipped) << "it was met";
    }
}

TEST_F(JudgeTest, WhatCannotBeReadIsUnreadableWhereverItIs) {
    PutMain();
    PutSafe();
    for (const uint32_t address : {kMain, kSafe, 0x200000u, 0x210000u, 0x220000u, 0x300000u}) {
        refused = address;
        EXPECT_EQ(State::kUnreadable, Judge().state) << address;
    }
}

TEST_F(JudgeTest, ASectionThatEndsBehindTheFlashIsUnreadable) {
    Use(Package().Firmware(1, 1).Section("A", 0xFFFFF000, 0x2000));
    Put(kMain, package.Header());
    EXPECT_EQ(State::kUnreadable, Judge().state);
}

TEST_F(JudgeTest, WithoutAPackageTheHeadersAreToldAndNothingIsSaid) {
    PutOld();
    contents.reset();
    const qvo::Verdict verdict = Judge();
    EXPECT_EQ(State::kUnknown, verdict.state);
    EXPECT_EQ(0x00010000u, verdict.main.version);
    EXPECT_EQ(Content::kBlank, verdict.safe.content);
}

TEST_F(JudgeTest, APackageOfAHeaderAloneIsJudgedByIt) {
    Use(Package().Firmware(1, 1));
    PutOld();
    EXPECT_EQ(State::kUpgradeAvailable, Judge().state);
    Put(kMain, package.Header());
    EXPECT_EQ(State::kStaged, Judge().state);
}

}  // namespace
}  // namespace qvtest
