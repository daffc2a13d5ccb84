// The served door: cards that take their time, and closes, for whose answer nobody waits.
#include <set>

#include "CuseFixture.h"

namespace qvsim {
namespace {

// --- cards that take their time ----------------------------------------------------------------

TEST_F(CuseTest, ASlowCardHoldsUpNobodyButItsCaller) {
    m_rig.AddFault({.request = "GetTemperature", .effect = Slow(300)});
    Serve();
    const uint64_t video = Open(kVideo);
    uint32_t temperature = 0;
    _QVCAP_CHANNEL_INFO info{};
    uint64_t slow = 0;
    uint64_t quick = 0;
    {
        const Model::Locked both(*m_model);  // are there before either is served
        slow = Send(kVideo, FUSE_IOCTL, Ioctl(video, qv::kGetTemperature.code, &temperature));
        quick = Send(kVideo, FUSE_IOCTL, Ioctl(video, qv::kGetChannelInfo.code, &info));
    }
    EXPECT_EQ(quick, Receive(kVideo).header.unique);
    EXPECT_EQ(0u, temperature) << "nothing is done before its time";
    const Reply late = Receive(kVideo);
    EXPECT_EQ(slow, late.header.unique);
    EXPECT_EQ(0, late.Error());
    EXPECT_NE(0u, temperature);
    EXPECT_EQ(0, Do(kVideo, video, qv::kGetTemperature, &temperature).Error());
    EXPECT_THAT(m_rig.Journal(),
                ElementsAre("open /dev/video0 = 0", "ioctl /dev/video0 GetChannelInfo = 0",
                            HasSubstr("GetTemperature"), HasSubstr("GetTemperature")));
}

TEST_F(CuseTest, FlashWorkIsDoneWhenItsTimeHasPassed) {
    m_rig.Delays({.erasePerSector = 100'000});
    m_rig.AddFault({.request = "EraseFirmwareData", .effect = Slow(100)});
    m_rig.AddFault({.request = "EraseFirmwareData", .nth = 2, .effect = Refuse(EPERM)});
    Serve();
    const uint64_t video = Open(kVideo);
    uint8_t byte = 0;
    const qv::FirmwareDataRecord write{0x200000, 1, qv::WireAddress(&byte)};
    ASSERT_EQ(0, Do(kVideo, video, qv::kWriteFirmwareData, &write).Error());
    const qv::FirmwareEraseRecord erase{0x200000, 1};
    qv::FirmwareDataRecord read{0x200000, 1, qv::WireAddress(&byte)};
    byte = 0xCC;
    uint64_t erasing = 0;
    uint64_t reading = 0;
    {
        const Model::Locked both(*m_model);  // are there before either is served
        erasing = Send(kVideo, FUSE_IOCTL, Ioctl(video, qv::kEraseFirmwareData.code, &erase));
        reading = Send(kVideo, FUSE_IOCTL, Ioctl(video, qv::kReadFirmwareData.code, &read));
    }
    EXPECT_EQ(reading, Receive(kVideo).header.unique);
    EXPECT_EQ(0, byte) << "not erased yet";
    const Reply erased = Receive(kVideo);
    EXPECT_EQ(erasing, erased.header.unique);
    EXPECT_EQ(0, erased.Error()) << "two delays, but one request: the second is refused";
    ASSERT_EQ(0, Do(kVideo, video, qv::kReadFirmwareData, &read).Error());
    EXPECT_EQ(0xFF, byte);
    EXPECT_EQ(EPERM, Do(kVideo, video, qv::kEraseFirmwareData, &erase).Error());
}

TEST_F(CuseTest, APowerCutComesWhenTheFlashIsAtWork) {
    m_rig.Delays({.erasePerSector = 100'000});
    m_rig.AddFault({.request = "EraseFirmwareData", .effect = PowerLoss()});
    Serve();
    const uint64_t video = Open(kVideo);
    const qv::FirmwareEraseRecord erase{0x200000, 1};
    _QVCAP_CHANNEL_INFO info{};
    uint64_t erasing = 0;
    {
        const Model::Locked both(*m_model);  // are there before either is served
        erasing = Send(kVideo, FUSE_IOCTL, Ioctl(video, qv::kEraseFirmwareData.code, &erase));
        Send(kVideo, FUSE_IOCTL, Ioctl(video, qv::kGetChannelInfo.code, &info));
    }
    EXPECT_EQ(0, Receive(kVideo).Error()) << "still powered";
    const Reply cut = Receive(kVideo);
    EXPECT_EQ(erasing, cut.header.unique);
    EXPECT_EQ(EIO, cut.Error());
    EXPECT_EQ(EIO, Do(kVideo, video, qv::kGetChannelInfo, &info).Error());
}

TEST_F(CuseTest, ACardAtWorkIsNotInterrupted) {
    m_rig.AddFault({.request = "GetTemperature", .effect = Slow(300)});
    Serve();
    const uint64_t video = Open(kVideo);
    uint32_t temperature = 0;
    fuse_interrupt_in interrupt{};
    interrupt.unique =
        Send(kVideo, FUSE_IOCTL, Ioctl(video, qv::kGetTemperature.code, &temperature));
    Send(kVideo, FUSE_INTERRUPT, interrupt);
    const Reply reply = Receive(kVideo);
    EXPECT_EQ(interrupt.unique, reply.header.unique);
    EXPECT_EQ(0, reply.Error());
    EXPECT_NE(0u, temperature);
}

TEST_F(CuseTest, WhatHangsHoldsUpNobodyButItsCallerUntilTheFaultIsCleared) {
    m_rig.AddFault({.request = "GetTemperature", .effect = Hang()});
    m_rig.AddFault({.request = "open", .nth = 2, .effect = Hang()});
    Serve();
    const uint64_t video = Open(kVideo);
    uint32_t temperature = 0;
    fuse_interrupt_in interrupt{};
    interrupt.unique =
        Send(kVideo, FUSE_IOCTL, Ioctl(video, qv::kGetTemperature.code, &temperature));
    Send(kVideo, FUSE_INTERRUPT, interrupt);  // by a signal that the caller survives
    const uint64_t opening = Send(kVideo, FUSE_OPEN, fuse_open_in{});
    usleep(60'000);  // the server looks again and again
    _QVCAP_CHANNEL_INFO info{};
    EXPECT_EQ(0, Do(kVideo, video, qv::kGetChannelInfo, &info).Error());
    EXPECT_EQ(0u, temperature);
    m_model->ClearFaults();
    std::set<uint64_t> answered;
    for (int i = 0; i < 2; ++i) {
        const Reply reply = Receive(kVideo);
        EXPECT_EQ(0, reply.Error());
        answered.insert(reply.header.unique);
    }
    EXPECT_EQ((std::set<uint64_t>{interrupt.unique, opening}), answered);
    EXPECT_NE(0u, temperature);
}

TEST_F(CuseTest, TheEndOfTheServerEndsWhatHangs) {
    m_rig.AddFault({.request = "open", .effect = Hang()});
    Serve();
    const uint64_t opening = Send(kVideo, FUSE_OPEN, fuse_open_in{});
    while (m_rig.MetFaults().empty()) usleep(1000);
    Stop();
    const Reply reply = Receive(kVideo);
    EXPECT_EQ(opening, reply.header.unique);
    EXPECT_EQ(ENODEV, reply.Error());
}

TEST_F(CuseTest, AnInterruptDuringADelayEndsTheWaitBehindIt) {
    m_rig.AddFault({.request = "WaitEvent", .count = 2, .effect = Slow(300)});
    Serve();
    const uint64_t events = Open(kEvents);
    uint64_t event = CreateEvent(events);
    m_rig.ClearJournal();
    const qv::WaitEventRecord forever{event, -1};
    fuse_interrupt_in interrupt{};
    interrupt.unique = SendWait(events, forever);
    Send(kEvents, FUSE_INTERRUPT, interrupt);
    const Reply reply = Receive(kEvents);
    EXPECT_EQ(interrupt.unique, reply.header.unique);
    EXPECT_EQ(EINTR, reply.Error()) << "the kernel does not interrupt again";
    EXPECT_THAT(m_rig.Journal(),
                ElementsAre("ioctl /dev/qv-event WaitEvent event=0x1001 timeout=-1 = -1 EINTR"));
    // What need not wait is served, interrupted or not.
    EXPECT_EQ(0, Do(kEvents, events, qv::kSetEvent, &event).Error());
    interrupt.unique = SendWait(events, forever);
    Send(kEvents, FUSE_INTERRUPT, interrupt);
    EXPECT_EQ(1, Receive(kEvents).Result());
}

TEST_F(CuseTest, TheEndOfTheServerRefusesWhatACardHasNotDone) {
    m_rig.AddFault({.request = "EraseFirmwareData", .effect = Slow(1'000'000)});
    Serve();
    const uint64_t video = Open(kVideo);
    const qv::FirmwareEraseRecord erase{0x200000, 1};
    const uint64_t erasing =
        Send(kVideo, FUSE_IOCTL, Ioctl(video, qv::kEraseFirmwareData.code, &erase));
    _QVCAP_CHANNEL_INFO info{};
    EXPECT_EQ(0, Do(kVideo, video, qv::kGetChannelInfo, &info).Error());
    Stop();
    EXPECT_EQ("", m_outcome);
    const Reply reply = Receive(kVideo);
    EXPECT_EQ(erasing, reply.header.unique);
    EXPECT_EQ(ENODEV, reply.Error());
}

// --- closes, for whose answer nobody waits ------------------------------------------------------

TEST_F(CuseTest, ACloseComesBeforeWhatItsProcessAsksOfAnotherNodeNext) {
    Serve();
    const uint64_t events = Open(kEvents);
    const uint64_t video = Open(kVideo);
    uint64_t event = CreateEvent(events);
    m_rig.ClearJournal();
    {
        // Held up in a request, the server finds both in one go, in the wrong order.
        const Model::Locked busy(*m_model);
        Send(kEvents, FUSE_IOCTL, Ioctl(events, qv::kIsSetEvent.code, &event));
        AwaitHeldUp(kEvents);
        Send(kEvents, FUSE_IOCTL, Ioctl(events, qv::kSetEvent.code, &event));
        fuse_release_in release{};
        release.fh = video;
        Send(kVideo, FUSE_RELEASE, release);
    }
    EXPECT_EQ(0, Receive(kEvents).Error());
    EXPECT_EQ(0, Receive(kEvents).Error());
    EXPECT_EQ(0, Receive(kVideo).Error());
    EXPECT_THAT(m_rig.Journal(), ElementsAre("ioctl /dev/qv-event IsSetEvent event=0x1001 = 0",
                                             "close /dev/video0 = 0",
                                             "ioctl /dev/qv-event SetEvent event=0x1001 = 0"));
}

TEST_F(CuseTest, SettlingWaitsForEverythingThatWasSent) {
    Serve();
    for (int i = 0; i < 100; ++i) {
        fuse_release_in release{};
        release.fh = Open(kVideo);
        ASSERT_EQ(1u, m_model->CountAlive().files);
        Send(kVideo, FUSE_RELEASE, release);
        m_server->Settle();
        ASSERT_EQ(0u, m_model->CountAlive().files);
        Receive(kVideo);
    }
    Stop();
    m_server->Settle();  // nobody serves any more: nothing to wait for
}

TEST_F(CuseTest, WhatWasSentBeforeTheEndIsStillServed) {
    Serve();
    fuse_release_in release{};
    release.fh = Open(kVideo);
    {
        const Model::Locked busy(*m_model);
        _QVCAP_CHANNEL_INFO info{};
        Send(kVideo, FUSE_IOCTL, Ioctl(release.fh, qv::kGetChannelInfo.code, &info));
        AwaitHeldUp(kVideo);
        TellToStop();
        Send(kVideo, FUSE_RELEASE, release);
    }
    m_thread.join();
    EXPECT_EQ("", m_outcome);
    EXPECT_EQ(0, Receive(kVideo).Error());
    EXPECT_EQ(0, Receive(kVideo).Error()) << "the release";
}

}  // namespace
}  // namespace qvsim
