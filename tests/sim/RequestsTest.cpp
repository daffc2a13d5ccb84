// Every request of the wire is served, settings are kept, and the codes are what they must be.
#include <cstring>

#include "Protocol.h"
#include "gmock/gmock.h"
#include "sim/Requests.h"
#include "support/SimRig.h"

namespace qvsim {
namespace {

using testing::ElementsAre;

class RequestsTest : public testing::Test {
  protected:
    void SetUp() override {
        m_rig.Add(Pelix().Channels(2));
        m_rig.Attach();
        m_card = std::make_unique<Node>("/dev/video0");
        m_events = std::make_unique<Node>("/dev/qv-event");
    }
    SimRig m_rig;
    std::unique_ptr<Node> m_card;
    std::unique_ptr<Node> m_events;
};

TEST_F(RequestsTest, EveryNumberThatIsNeverIssuedIsUnknown) {
    uint8_t record[8192] = {};
    for (const uint32_t number :
         {3u, 5u, 23u, 24u, 28u, 29u, 30u, 40u, 42u, 46u, 106u, 107u, 108u, 110u}) {
        EXPECT_EQ(-1, ioctl(m_card->Fd(), 0x80045800 | number, record)) << number;
        EXPECT_EQ(ENOTTY, errno) << number;
    }
}

TEST_F(RequestsTest, EverySettingReadsBackWhatWasSetOnThatChannelAlone) {
    size_t count = 0;
    const Row* rows = AllRows(count);
    Node other("/dev/video1");
    int pairs = 0;
    for (size_t i = 0; i < count; ++i) {
        const std::string name = rows[i].name;
        const Row* set = FindRow("Set" + name.substr(name.size() > 3 ? 3 : 0));
        const bool pair = name.rfind("Get", 0) == 0 && set && set->Size() == rows[i].Size() &&
                          name != "GetDeviceTime" && name.find("Array") == std::string::npos &&
                          name != "GetEDID";
        if (!pair) continue;
        ++pairs;
        std::vector<uint8_t> value(rows[i].Size());
        for (size_t b = 0; b < value.size(); ++b) value[b] = static_cast<uint8_t>(b * 5 + i);
        std::vector<uint8_t> before(value.size()), got(value.size());
        ASSERT_EQ(0, ioctl(other.Fd(), rows[i].code, before.data())) << name;
        ASSERT_EQ(0, ioctl(m_card->Fd(), set->code, value.data())) << name;
        ASSERT_EQ(0, ioctl(m_card->Fd(), rows[i].code, got.data())) << name;
        EXPECT_EQ(value, got) << name;
        ASSERT_EQ(0, ioctl(other.Fd(), rows[i].code, got.data())) << name;
        EXPECT_EQ(before, got) << name;
        EXPECT_EQ(value, m_rig.Cards().LastRecord(0, 0, set->name)) << name;
    }
    EXPECT_EQ(17, pairs);
}

TEST_F(RequestsTest, SettingsOutliveTheProcessAndPresetsOutliveThePower) {
    ASSERT_EQ(0, m_card->Do(qv::kSetVideoBrightness, int32_t{42}));
    ASSERT_EQ(0, m_card->Do(qv::kSaveSettingsAsPreset));
    ASSERT_EQ(0, m_card->Do(qv::kSetVideoBrightness, int32_t{77}));
    m_card->Close();
    m_rig.Detach();
    m_rig.Attach();
    Node card("/dev/video0");
    int32_t value = 0;
    ASSERT_EQ(0, card.Do(qv::kGetVideoBrightness, value));
    EXPECT_EQ(77, value);
    m_rig.PowerCycle();
    ASSERT_EQ(0, card.Do(qv::kGetVideoBrightness, value));
    EXPECT_NE(77, value);
    ASSERT_EQ(0, card.Do(qv::kReloadPreset));
    ASSERT_EQ(0, card.Do(qv::kGetVideoBrightness, value));
    EXPECT_EQ(42, value);
}

TEST_F(RequestsTest, ArraysTellTheirCountAndFillNoMoreThanTheCapacity) {
    uint32_t sources[4] = {0xCCCCCCCC, 0xCCCCCCCC, 0xCCCCCCCC, 0xCCCCCCCC};
    qv::CountedArrayRecord record{2, qv::WireAddress(sources)};
    ASSERT_EQ(0, m_card->Do(qv::kGetVideoInputSourceArray, record));
    EXPECT_EQ(3u, uint32_t{record.count});
    EXPECT_THAT(sources, ElementsAre(0x101, 0x201, 0xCCCCCCCC, 0xCCCCCCCC));
}

TEST_F(RequestsTest, ArraysThatWereSetAreCounted) {
    const uint32_t resolutions[3] = {1, 2, 3};
    ASSERT_EQ(0, m_card->Do(qv::kSetCustomVideoResolutionsArray,
                            qv::CountedArrayRecord{3, qv::WireAddress(resolutions)}));
    uint32_t count = 0;
    ASSERT_EQ(0, m_card->Do(qv::kGetCustomVideoResolutionsCount, count));
    EXPECT_EQ(3u, count);
    EXPECT_EQ(-1, m_card->Do(qv::kSetCustomVideoResolutionsArray,
                             qv::CountedArrayRecord{0x40000001, qv::WireAddress(resolutions)}));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(RequestsTest, ImagesCountTheirReferences) {
    qv::CreateImageRecord image{64, 32, 0};
    ASSERT_EQ(0, m_card->Do(qv::kCreateImage, image));
    ASSERT_NE(0u, uint64_t{image.image});
    qv::ImageReferenceRecord reference{image.image, 0};
    ASSERT_EQ(0, m_card->Do(qv::kOpenImage, reference));
    EXPECT_EQ(2, int32_t{reference.referenceCount});
    ASSERT_EQ(0, m_card->Do(qv::kCloseImage, reference));
    EXPECT_EQ(1, int32_t{reference.referenceCount});
    ASSERT_EQ(0, m_card->Do(qv::kCloseImage, reference));
    EXPECT_EQ(-1, m_card->Do(qv::kCloseImage, reference));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(RequestsTest, InfoFramesHaveTwelveIds) {
    qv::InfoFrameRecord record{11, {}};
    EXPECT_EQ(0, m_card->Do(qv::kGetHDMIInfoFramePacket, record));
    record.id = 12;
    EXPECT_EQ(-1, m_card->Do(qv::kGetHDMIInfoFramePacket, record));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(RequestsTest, PinnedBuffersAreCountedAndUnpinnedOnce) {
    ASSERT_EQ(0, m_card->Do(qv::kPinVideoBuffer, qv::PinVideoBufferRecord{0x1000, 16, 3}));
    EXPECT_EQ(1u, m_rig.Cards().CountAlive().pinnedBuffers);
    EXPECT_EQ(-1, m_card->Do(qv::kPinVideoBuffer, qv::PinVideoBufferRecord{0x2000, 16, 1}));
    EXPECT_EQ(0, m_card->Do(qv::kUnpinVideoBuffer, uint64_t{0x1000}));
    EXPECT_EQ(-1, m_card->Do(qv::kUnpinVideoBuffer, uint64_t{0x1000}));
}

TEST_F(RequestsTest, TheDeviceClockGoesOnFromWhatItWasSetTo) {
    m_rig.Cards().FreezeClock();
    ASSERT_EQ(0, m_card->Do(qv::kSetDeviceTime, int64_t{-5000}));
    m_rig.Cards().AdvanceClock(70);
    int64_t time = 0;
    ASSERT_EQ(0, m_card->Do(qv::kGetDeviceTime, time));
    EXPECT_EQ(-4930, time);
}

TEST_F(RequestsTest, NotificationStatusGathersEnabledBitsAndClearsWhenRead) {
    const uint64_t event = m_events->CreateEvent();
    qv::RegisterNotifyRecord record{0, 0x405, event};
    ASSERT_EQ(0, m_card->Do(qv::kRegisterNotify, record));
    m_rig.Cards().RaiseNotification(0, 0, 0x2);
    EXPECT_EQ(0, m_events->Do(qv::kTryWaitEvent, event));
    m_rig.Cards().RaiseNotification(0, 0, 0x403);
    m_rig.Cards().RaiseNotification(0, 0, 0x4);
    m_rig.Cards().RaiseNotification(0, 1, 0x1);
    EXPECT_EQ(1, m_events->Do(qv::kTryWaitEvent, event));
    EXPECT_EQ(0, m_events->Do(qv::kTryWaitEvent, event));
    qv::NotifyStatusRecord status{record.notify, ~0ull};
    ASSERT_EQ(0, m_card->Do(qv::kGetNotifyStatus, status));
    EXPECT_EQ(0x405u, uint64_t{status.statusBits});
    ASSERT_EQ(0, m_card->Do(qv::kGetNotifyStatus, status));
    EXPECT_EQ(0u, uint64_t{status.statusBits});
}

TEST_F(RequestsTest, HandlesOfAnotherChannelAreUnknown) {
    Node other("/dev/video1");
    const uint64_t event = m_events->CreateEvent();
    qv::RegisterNotifyRecord notify{0, 1, event};
    qv::RegisterTimerRecord timer{0, event};
    ASSERT_EQ(0, m_card->Do(qv::kRegisterNotify, notify));
    ASSERT_EQ(0, m_card->Do(qv::kRegisterTimer, timer));
    EXPECT_EQ(-1, other.Do(qv::kUnregisterNotify, uint64_t{notify.notify}));
    EXPECT_EQ(-1, other.Do(qv::kUnregisterTimer, uint64_t{timer.timer}));
    EXPECT_EQ(-1, other.Do(qv::kScheduleTimer, qv::ScheduleTimerRecord{timer.timer, 0}));
    EXPECT_EQ(0, m_card->Do(qv::kUnregisterNotify, uint64_t{notify.notify}));
    EXPECT_EQ(0, m_card->Do(qv::kUnregisterTimer, uint64_t{timer.timer}));
}

TEST_F(RequestsTest, RegisteringOnAnEventThatIsNotThereIsRefused) {
    EXPECT_EQ(-1, m_card->Do(qv::kRegisterNotify, qv::RegisterNotifyRecord{0, 1, 3}));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, m_card->Do(qv::kRegisterTimer, qv::RegisterTimerRecord{0, 3}));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(RequestsTest, ClosingANodeReleasesWhatWasRegisteredThroughIt) {
    const uint64_t event = m_events->CreateEvent();
    ASSERT_EQ(0, m_card->Do(qv::kRegisterNotify, qv::RegisterNotifyRecord{0, 1, event}));
    ASSERT_EQ(0, m_card->Do(qv::kRegisterTimer, qv::RegisterTimerRecord{0, event}));
    Alive alive = m_rig.Cards().CountAlive();
    EXPECT_EQ(1u, alive.notifications);
    EXPECT_EQ(1u, alive.timers);
    EXPECT_EQ(1u, alive.events);
    m_card->Close();
    m_events->Close();
    EXPECT_EQ(Alive{}, m_rig.Cards().CountAlive());
}

}  // namespace
}  // namespace qvsim
