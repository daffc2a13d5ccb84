// What cards answer where a scenario has the choice: strict ones, busy ones, records by name, and
// faults that change an answer and not whether there is one.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <numeric>

#include "Hex.h"
#include "Protocol.h"
#include "Scenario.h"
#include "gmock/gmock.h"
#include "sim/Requests.h"
#include "support/SimRig.h"
#include "support/TempFolder.h"

namespace qvsim {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class CardAnswersTest : public testing::Test {
  protected:
    void Attach(const DriverWays& ways = {}) {
        m_rig.Add(Pelix().Video(16, 4, 0).Audio(0)).Driver(ways);
        m_rig.AttachInMemory();
        m_card = std::make_unique<Node>("/dev/video0");
        m_events = std::make_unique<Node>("/dev/qv-event");
    }
    SimRig m_rig;
    std::unique_ptr<Node> m_card;
    std::unique_ptr<Node> m_events;
};

TEST_F(CardAnswersTest, AStrictChipErasesWholeSectorsAlone) {
    Attach({.strictErase = true});
    EXPECT_EQ(0, m_card->Write(0x3000, std::vector<uint8_t>(4096, 0x12)));
    for (const auto& [offset, size] :
         {std::pair{0x3001u, 4096u}, {0x3000u, 4095u}, {0x3800u, 1u}}) {
        EXPECT_EQ(-1, m_card->Erase(offset, size));
        EXPECT_EQ(EINVAL, errno);
    }
    EXPECT_EQ(std::vector<uint8_t>(4096, 0x12), m_card->Read(0x3000, 4096));
    EXPECT_EQ(0, m_card->Erase(0x3000, 4096));
    EXPECT_EQ(std::vector<uint8_t>(4096, 0xFF), m_card->Read(0x3000, 4096));
}

TEST_F(CardAnswersTest, AStrictCardTakesTheSourcesThatItLists) {
    Attach({.strictValues = true});
    uint32_t source = 0x201;
    EXPECT_EQ(0, m_card->Do(qv::kSetVideoInputSource, source));
    source = 0x202;
    EXPECT_EQ(-1, m_card->Do(qv::kSetVideoInputSource, source));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, m_card->Do(qv::kGetVideoInputSource, source));
    EXPECT_EQ(0x201u, source);
    source = 0x201;
    EXPECT_EQ(-1, m_card->Do(qv::kSetAudioInputSource, source));
    source = 0x601;
    EXPECT_EQ(0, m_card->Do(qv::kSetAudioInputSource, source));
}

TEST_F(CardAnswersTest, AStrictCardTakesTheStreamsThatItHas) {
    Attach({.strictValues = true});
    uint32_t count = 0;
    ASSERT_EQ(0, m_card->Do(qv::kGetStreamCount, count));
    for (const int32_t stream : {0, static_cast<int32_t>(count) - 1})
        EXPECT_EQ(0, m_card->Do(qv::kSetCtrlStreamID, stream)) << stream;
    for (const int32_t stream : {-1, static_cast<int32_t>(count)}) {
        EXPECT_EQ(-1, m_card->Do(qv::kSetCtrlStreamID, stream)) << stream;
        EXPECT_EQ(EINVAL, errno);
    }
}

TEST_F(CardAnswersTest, AStrictCardTakesTheTimingsThatItPrefersAndSwitchesThatAreOnOrOff) {
    Attach({.strictValues = true});
    _QVCAP_VIDEO_TIMING timings[2]{};
    qv::CountedArrayRecord list{};
    list.count = 2;
    list.address = qv::WireAddress(timings);
    ASSERT_EQ(0, m_card->Do(qv::kGetVideoPreferredTimingArray, list));
    ASSERT_EQ(2u, uint32_t{list.count});
    EXPECT_EQ(0, m_card->Do(qv::kSetVideoTiming, timings[1]));
    reinterpret_cast<uint8_t&>(timings[1]) ^= 1;
    EXPECT_EQ(-1, m_card->Do(qv::kSetVideoTiming, timings[1]));
    EXPECT_EQ(EINVAL, errno);
    uint8_t value = 1;
    const auto refuses = [&](const auto& row, uint8_t wrong) {
        EXPECT_EQ(0, m_card->Do(row, value)) << row.name;
        EXPECT_EQ(-1, m_card->Do(row, wrong)) << row.name;
        EXPECT_EQ(EINVAL, errno) << row.name;
    };
    refuses(qv::kSetInputSourceScan, 2);
    refuses(qv::kSetAVInputSourceLink, 2);
    refuses(qv::kSetVideoAutoHAlign, 255);
    refuses(qv::kSetVideoSamplingPhaseAutoAdjust, 2);
    EXPECT_EQ(0, m_card->Do(qv::kSetVideoSamplingPhase, value = 255)) << "a number, not a switch";
}

TEST_F(CardAnswersTest, AStrictCardHasTheInfoFramesThatItsFlagsName) {
    Attach({.strictValues = true});
    m_rig.Cards().SetRecord(0, 0, "HDMIInfoFrameValidFlags", {0x04, 0x08, 0, 0});
    for (int32_t id = 0; id < 12; ++id) {
        qv::InfoFrameRecord record{};
        record.id = id;
        EXPECT_EQ(id == 2 || id == 11 ? 0 : -1, m_card->Do(qv::kGetHDMIInfoFramePacket, record))
            << id;
    }
}

TEST_F(CardAnswersTest, WhatNobodyHasSetIsPlausible) {
    Attach({.strictValues = true});  // so that each may be set as it is
    uint32_t value = 0;
    ASSERT_EQ(0, m_card->Do(qv::kGetTemperature, value));
    EXPECT_EQ(45u, value);
    ASSERT_EQ(0, m_card->Do(qv::kGetVideoInputSource, value));
    EXPECT_EQ(0, m_card->Do(qv::kSetVideoInputSource, value));
    ASSERT_EQ(0, m_card->Do(qv::kGetAudioInputSource, value));
    EXPECT_EQ(0, m_card->Do(qv::kSetAudioInputSource, value));
    int32_t picture = 0;
    for (const auto& row : {qv::kGetVideoBrightness, qv::kGetVideoContrast, qv::kGetVideoHue,
                            qv::kGetVideoSaturation}) {
        ASSERT_EQ(0, m_card->Do(row, picture)) << row.name;
        EXPECT_TRUE(picture >= 0 && picture <= 100) << row.name << ": " << picture;
    }
    uint8_t on = 7;
    ASSERT_EQ(0, m_card->Do(qv::kGetVideoAutoHAlign, on));
    EXPECT_LE(on, 1);
    int32_t ratio[2] = {};
    ASSERT_EQ(0, m_card->Do(qv::kGetVideoInputAspectRatio, ratio));
    EXPECT_EQ(16, ratio[0]);
    EXPECT_EQ(9, ratio[1]);
}

// Where its frames would go is in records that only a real driver can read.
TEST_F(CardAnswersTest, LumoCaptureIsRefusedAndNotAcceptedWithoutFrames) {
    Attach();
    std::vector<uint8_t> record(64);
    for (const uint32_t code :
         {qv::kStartVideoLumoCapture.code, qv::kSetVideoLumoCaptureSettings.code,
          qv::kCaptureSetVideoLumoFrame.code, qv::kGetVideoLumoCaptureStatus.code}) {
        EXPECT_EQ(-1, ioctl(m_card->Fd(), code, record.data())) << code;
        EXPECT_EQ(EOPNOTSUPP, errno);
    }
    EXPECT_EQ(0, m_card->Do(qv::kStopVideoLumoCapture)) << "there is nothing to stop";
}

TEST_F(CardAnswersTest, APublicToolFindsNothingWrongWithTheEdid) {
    // `scripts/test` installs it, so every configuration runs this test; builds by hand may not.
    if (std::system("command -v edid-decode >/dev/null") != 0)
        GTEST_SKIP() << "there is no edid-decode; scripts/bootstrap --test installs it";
    Attach();
    uint8_t edid[256] = {};
    qv::CountedArrayRecord record{};
    record.count = sizeof edid;
    record.address = qv::WireAddress(edid);
    ASSERT_EQ(0, m_card->Do(qv::kGetEDID, record));
    ASSERT_EQ(128u, uint32_t{record.count});
    const qvtest::TempFolder folder("edid");
    const std::string file = folder.Path() + "/edid.bin";
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(edid), static_cast<std::streamsize>(128));
    const std::string check = "edid-decode --check " + file;
    EXPECT_EQ(0, std::system((check + " >" + file + ".txt && grep -q '^EDID conformity: PASS$' " +
                              file + ".txt && grep -q '1920x1080   60.0' " + file + ".txt")
                                 .c_str()))
        << check;
}

TEST_F(CardAnswersTest, ABusyChannelRefusesASecondCapture) {
    Attach({.busyCapture = true});
    const Node other("/dev/video0");
    uint64_t event = m_events->CreateEvent();
    ASSERT_EQ(0, m_card->Do(qv::kStartVideoCapture, event));
    EXPECT_EQ(-1, other.Do(qv::kStartVideoCapture, event));
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ(0, m_card->Do(qv::kStopVideoCapture));
    EXPECT_EQ(0, other.Do(qv::kStartVideoCapture, event));
    ASSERT_EQ(0, m_card->Do(qv::kStartAudioCapture));
    EXPECT_EQ(-1, other.Do(qv::kStartAudioCapture));
    EXPECT_EQ(EBUSY, errno);
}

TEST_F(CardAnswersTest, AnEraseOrAWriteIsDoneByHalfAndSaidToBeWhole) {
    m_rig.AddFault({.request = "EraseFirmwareData", .effect = Half()});
    m_rig.AddFault({.request = "WriteFirmwareData", .nth = 2, .effect = Half()});
    Attach();
    ASSERT_EQ(0, m_card->Write(0, std::vector<uint8_t>(8192, 0)));
    ASSERT_EQ(0, m_card->Erase(0, 8192));
    std::vector<uint8_t> expected(8192, 0);
    std::fill_n(expected.begin(), 4096, 0xFF);
    EXPECT_EQ(expected, m_card->Read(0, 8192));
    ASSERT_EQ(0, m_card->Write(0, std::vector<uint8_t>(4096, 0x33)));
    std::fill_n(expected.begin(), 2048, 0x33);
    EXPECT_EQ(expected, m_card->Read(0, 8192));
    EXPECT_FALSE(m_rig.Cards().Flash(0, 0)->Programmed(0, 4096));
}

TEST_F(CardAnswersTest, ATornFrameKeepsWhatWasInItsSecondHalf) {
    m_rig.AddFault({.request = "CaptureVideoFrame", .effect = Half()});
    Attach();
    uint64_t event = m_events->CreateEvent();
    ASSERT_EQ(0, m_card->Do(qv::kStartVideoCapture, event));
    std::vector<uint8_t> memory(128, 0xCC);
    qv::VideoCaptureFrameRecord record{};
    record.address = qv::WireAddress(memory.data());
    record.size = 128;
    record.stride = 32;
    record.width = 16;
    record.height = 4;
    record.fourcc = 0x32595559;
    record.frameIndex = qv::kFrameNextLowLatency;
    ASSERT_EQ(0, m_card->Do(qv::kCaptureVideoFrame, record));
    ASSERT_EQ(1, m_events->Wait(event, -1));
    _QVCAP_VIDEO_CAPTURE_STATUS status{};
    ASSERT_EQ(0, m_card->Do(qv::kGetVideoCaptureStatus, status));
    EXPECT_EQ(1, status.frameCompleted);
    EXPECT_EQ(1, memory[0]) << "the number of the frame";
    EXPECT_EQ(std::vector<uint8_t>(64, 0xCC),
              std::vector<uint8_t>(memory.begin() + 64, memory.end()));
}

TEST_F(CardAnswersTest, AnAudioFrameHasAWrongMarkerAndTextsHaveNoEnd) {
    m_rig.AddFault({.request = "CaptureAudioFrame", .effect = WrongMarker()});
    m_rig.AddFault({.request = "GetChannelInfo", .effect = NoEnd()});
    Attach();
    ASSERT_EQ(0, m_card->Do(qv::kStartAudioCapture));
    auto frame = std::make_unique<_QVCAP_AUDIO_CAPTURE_FRAME>();
    ASSERT_EQ(0, m_card->Do(qv::kCaptureAudioFrame, *frame));
    EXPECT_EQ(~QV_AUDIO_FRAME_MARKER, uint32_t{frame->marker});
    ASSERT_EQ(0, m_card->Do(qv::kCaptureAudioFrame, *frame));
    EXPECT_EQ(QV_AUDIO_FRAME_MARKER, uint32_t{frame->marker});
    _QVCAP_CHANNEL_INFO info{};
    ASSERT_EQ(0, m_card->Do(qv::kGetChannelInfo, info));
    EXPECT_EQ(nullptr, std::memchr(info.productName, 0, sizeof info.productName));
    EXPECT_EQ(nullptr, std::memchr(info.boardSerialNumber, 0, sizeof info.boardSerialNumber));
    EXPECT_THAT(std::string(info.familyName, sizeof info.familyName),
                StartsWith("Pelix Capture##"));
    ASSERT_EQ(0, m_card->Do(qv::kGetChannelInfo, info));
    EXPECT_STREQ("Pelix Capture", info.familyName);
}

class RecordsTest : public testing::Test {
  protected:
    std::string Make(const std::string& text) {
        CardsPlan plan;
        std::string error = ParseScenario(text, "s", plan);
        if (error.empty()) error = MakeInMemory(plan, m_model);
        return error;
    }
    template <class Row>
    uint32_t Get(const Row& row) {
        uint32_t value = 0;
        OwnAnswer(row.code, &value);
        return value;
    }
    void OwnAnswer(uint32_t code, void* record) {
        int error = 0;
        const auto file = m_model->Open("/dev/video0", error);
        OwnMemory memory;
        EXPECT_EQ(0,
                  ServeRequest(*m_model, *file, code,
                               static_cast<uint64_t>(reinterpret_cast<uintptr_t>(record)), memory)
                      .error);
        m_model->Close(file, -1);
    }
    std::shared_ptr<Model> m_model;
};

TEST_F(RecordsTest, AScenarioSetsThemByName) {
    ASSERT_EQ("", Make("[[board]]\nrecords = { Temperature = 45, VideoBrightness = -3, "
                       "VideoInputSources = \"0100000002000000\", EDID = \"0a0B\" }"));
    EXPECT_EQ(45u, Get(qv::kGetTemperature));
    EXPECT_EQ(static_cast<uint32_t>(-3), Get(qv::kGetVideoBrightness));
    uint8_t edid[4] = {9, 9, 9, 9};
    qv::CountedArrayRecord record{};
    record.address = qv::WireAddress(edid);
    record.count = sizeof edid;
    OwnAnswer(qv::kGetEDID.code, &record);
    EXPECT_EQ(2u, uint32_t{record.count});
    EXPECT_EQ(0x0B, edid[1]);
    EXPECT_EQ(9, edid[2]);
}

TEST_F(RecordsTest, AWrongOneIsRefusedWithItsLine) {
    EXPECT_THAT(Make("[[board]]\n[board.records]\nColour = 1"),
                StartsWith("s:3: unknown key 'Colour'"));
    EXPECT_THAT(Make("[[board]]\n[board.records]\nTemperature = \"01\""),
                StartsWith("s:3: Temperature is a number or hexadecimal text of 4 bytes"));
    EXPECT_THAT(Make("[[board]]\n[board.records]\nVideoInputSources = \"0102\""),
                HasSubstr("of whole elements of 4 bytes"));
    EXPECT_THAT(Make("[[board]]\n[board.records]\nEDID = \"0x\""), StartsWith("s:3: EDID is"));
    EXPECT_THAT(Make("[[board]]\nrecords = 1"), StartsWith("s:2: records is a table"));
}

TEST_F(RecordsTest, TheCardsOfTheDefaultScenarioAnswerWhatRealOnesMight) {
    ASSERT_EQ("", Make(kDefaultScenario));
    EXPECT_EQ(45u, Get(qv::kGetTemperature));
    uint8_t edid[256] = {};
    qv::CountedArrayRecord record{};
    record.address = qv::WireAddress(edid);
    record.count = sizeof edid;
    OwnAnswer(qv::kGetEDID.code, &record);
    ASSERT_EQ(128u, uint32_t{record.count});
    constexpr uint8_t kHead[] = {0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0};
    EXPECT_EQ(0, std::memcmp(kHead, edid, sizeof kHead));
    EXPECT_EQ(0, std::accumulate(edid, edid + 128, 0) % 256) << "its checksum";
    EXPECT_EQ(1920, edid[56] | (edid[58] & 0xF0) << 4);
    EXPECT_EQ(1080, edid[59] | (edid[61] & 0xF0) << 4);
}

}  // namespace
}  // namespace qvsim
