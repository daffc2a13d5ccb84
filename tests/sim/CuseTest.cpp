// The served door, message by message.
#include "CuseFixture.h"

namespace qvsim {
namespace {

TEST_F(CuseTest, TheKernelIsToldTheNodesNameAndThatArgumentsStayWhereTheyAre) {
    Serve();
    cuse_init_out out{};
    const std::string name("DEVNAME=qv-event\0", 17);
    ASSERT_EQ(sizeof out + name.size(), m_greeting.body.size());
    std::memcpy(&out, m_greeting.body.data(), sizeof out);
    EXPECT_EQ(uint32_t{FUSE_KERNEL_VERSION}, out.major);
    EXPECT_EQ(uint32_t{CUSE_UNRESTRICTED_IOCTL}, out.flags);
    EXPECT_EQ(name, std::string(m_greeting.body.begin() + sizeof out, m_greeting.body.end()));
}

TEST_F(CuseTest, AKernelOfAnotherVersionIsRefused) {
    m_rig.Add(Pelix());
    Load();
    m_offer.major = FUSE_KERNEL_VERSION + 1;
    CuseServer server(m_model, Ways());
    EXPECT_THAT(server.Start(m_stop), HasSubstr("not known here"));
    EXPECT_EQ(EPROTO, Receive(kVideo).Error());
}

TEST_F(CuseTest, ARequestReachesTheCardAndItsAnswerTheCallersMemory) {
    Serve();
    const uint64_t video = Open(kVideo);
    _QVCAP_CHANNEL_INFO info{};
    const Reply reply = Do(kVideo, video, qv::kGetChannelInfo, &info);
    EXPECT_EQ(0, reply.Error());
    EXPECT_EQ(0, reply.Result());
    EXPECT_STREQ("Pelix Capture", info.familyName);
    fuse_release_in release{};
    release.fh = video;
    EXPECT_EQ(0, Ask(kVideo, FUSE_RELEASE, release).Error());
    EXPECT_THAT(m_rig.Journal(),
                ElementsAre("open /dev/video0 = 0", "ioctl /dev/video0 GetChannelInfo = 0",
                            "close /dev/video0 = 0"));
}

TEST_F(CuseTest, FlashDataGoesThroughThePointersInsideARecord) {
    Serve();
    const uint64_t video = Open(kVideo);
    std::vector<uint8_t> data(65536);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
    const qv::FirmwareEraseRecord erase{0x200000, 65536};
    EXPECT_EQ(0, Do(kVideo, video, qv::kEraseFirmwareData, &erase).Error());
    const qv::FirmwareDataRecord write{0x200000, 65536, qv::WireAddress(data.data())};
    EXPECT_EQ(0, Do(kVideo, video, qv::kWriteFirmwareData, &write).Error());
    std::vector<uint8_t> back(65536 + 1, 0xCC);
    qv::FirmwareDataRecord read{0x200000, 65536, qv::WireAddress(back.data())};
    EXPECT_EQ(0, Do(kVideo, video, qv::kReadFirmwareData, &read).Error());
    EXPECT_EQ(0xCC, back.back());
    back.pop_back();
    EXPECT_EQ(data, back);
}

TEST_F(CuseTest, RefusalsComeBackAsTheDriversError) {
    Serve();
    const uint64_t video = Open(kVideo);
    _QVCAP_CHANNEL_INFO info{};
    EXPECT_EQ(ENOTTY, Ask(kVideo, FUSE_IOCTL, Ioctl(video, 0x5401, &info)).Error());
    EXPECT_EQ(EFAULT, Do(kVideo, video, qv::kGetChannelInfo, nullptr).Error());
    // The first page is nobody's.
    EXPECT_EQ(EFAULT, Do(kVideo, video, qv::kGetChannelInfo, reinterpret_cast<void*>(16)).Error());
    m_model->AddFault({.request = "GetChannelInfo", .effect = Refuse(EPERM)});
    EXPECT_EQ(EPERM, Do(kVideo, video, qv::kGetChannelInfo, &info).Error());
    m_model->AddFault({.request = "open", .effect = Refuse(EBUSY)});
    EXPECT_EQ(EBUSY, Ask(kVideo, FUSE_OPEN, fuse_open_in{}).Error());
}

TEST_F(CuseTest, AnErrorThatNoKernelPassesOnArrivesAsEio) {
    Serve();
    const uint64_t video = Open(kVideo);
    _QVCAP_CHANNEL_INFO info{};
    for (const auto& [error, arrives] :
         {std::pair(511, 511), std::pair(512, EIO), std::pair(4095, EIO)}) {
        m_model->ClearFaults();
        m_model->AddFault({.request = "GetChannelInfo", .effect = Refuse(error)});
        EXPECT_EQ(arrives, Do(kVideo, video, qv::kGetChannelInfo, &info).Error());
    }
}

TEST_F(CuseTest, AFullDiskRefusesRequestsAndTheServerGoesOn) {
    Serve();
    const uint64_t video = Open(kVideo);
    std::vector<uint8_t> data(65536, 0x5A);
    const qv::FirmwareEraseRecord erase{0x200000, 65536};
    const qv::FirmwareDataRecord write{0x200000, 65536, qv::WireAddress(data.data())};
    qv::CountedArrayRecord edid{};
    edid.address = qv::WireAddress(data.data());
    edid.count = 4096;
    int32_t value = 12;
    EXPECT_EQ(0, Do(kVideo, video, qv::kSetVideoBrightness, &value).Error());
    testing::internal::CaptureStderr();
    {
        // The lines of the journal still fit, nothing larger does.
        const SmallFiles small(6000);
        EXPECT_EQ(0, Do(kVideo, video, qv::kEraseFirmwareData, &erase).Error());
        EXPECT_EQ(ENOSPC, Do(kVideo, video, qv::kWriteFirmwareData, &write).Error());
        EXPECT_EQ(ENOSPC, Do(kVideo, video, qv::kSetEDID, &edid).Error());
    }
    EXPECT_EQ("qvcap-sim: " + m_rig.Dir() +
                  "/flash-b0-c0.bin: File too large; requests fail until that is mended\n",
              testing::internal::GetCapturedStderr());
    value = 0;
    EXPECT_EQ(0, Do(kVideo, video, qv::kGetVideoBrightness, &value).Error());
    EXPECT_EQ(12, value) << "the line that did not fit has damaged no other";
    EXPECT_FALSE(m_model->Flash(0, 0)->Programmed(0x200000, 65536));
    EXPECT_EQ(0, Do(kVideo, video, qv::kWriteFirmwareData, &write).Error());
    EXPECT_TRUE(m_model->Flash(0, 0)->Programmed(0x200000, 65536));
    EXPECT_EQ(0, Do(kVideo, video, qv::kSetEDID, &edid).Error());
    Stop();
    EXPECT_EQ("", m_outcome);
}

// --- callers of 32 bits

TEST_F(CuseTest, ACallerOf32BitsIsServedThroughAddressesOf32Bits) {
    struct Low {
        qv::FirmwareDataRecord write;
        qv::FirmwareDataRecord read;
        uint8_t sent[64];
        uint8_t got[64];
    };
#ifdef MAP_32BIT
    constexpr int kWhere = MAP_32BIT;  // as in a program of 32 bits
#else
    constexpr int kWhere = 0;
#endif
    void* const page = mmap(nullptr, sizeof(Low), PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | kWhere, -1, 0);
    ASSERT_NE(MAP_FAILED, page);
    ASSERT_GE(UINT32_MAX, reinterpret_cast<uintptr_t>(page));
    auto* const low = static_cast<Low*>(page);
    std::memset(low->sent, 0x5A, sizeof low->sent);
    low->write = {0x200000, 64, qv::WireAddress(low->sent)};
    low->read = {0x200000, 64, qv::WireAddress(low->got)};
    Serve();
    const uint64_t video = Open(kVideo);
    for (const auto& [code, record] : {std::pair(qv::kWriteFirmwareData.code, &low->write),
                                       std::pair(qv::kReadFirmwareData.code, &low->read)}) {
        fuse_ioctl_in request = Ioctl(video, code, record);
        request.flags = FUSE_IOCTL_COMPAT | FUSE_IOCTL_UNRESTRICTED | FUSE_IOCTL_32BIT;
        EXPECT_EQ(0, Ask(kVideo, FUSE_IOCTL, request).Error());
    }
    EXPECT_EQ(0, std::memcmp(low->sent, low->got, sizeof low->sent));
    EXPECT_EQ(0, munmap(page, sizeof(Low)));
    EXPECT_THAT(m_complaints, testing::IsEmpty());
}

TEST_F(CuseTest, ACallerOf64BitsIsServedByAServerOf64BitsAndToldOffByOneOf32) {
    Serve();
    const uint64_t video = Open(kVideo);
    _QVCAP_CHANNEL_INFO info{};
    fuse_ioctl_in request = Ioctl(video, qv::kGetChannelInfo.code, &info);
    request.flags = FUSE_IOCTL_UNRESTRICTED;
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(sizeof(void*) == 4 ? EFAULT : 0, Ask(kVideo, FUSE_IOCTL, request).Error());
    if (sizeof(void*) == 4)
        EXPECT_THAT(m_complaints, ElementsAre(HasSubstr("is a 64-bit program"))) << "once";
    else
        EXPECT_STREQ("Pelix Capture", info.familyName);
}

TEST_F(CuseTest, WhatIsNotServedIsRefusedAndEndsNothing) {
    Serve();
    const uint64_t video = Open(kVideo);
    EXPECT_EQ(ENOSYS, Ask(kVideo, FUSE_READ, fuse_read_in{}).Error());
    EXPECT_EQ(EBADF, Ask(kVideo, FUSE_IOCTL, Ioctl(video + 1, 0, nullptr)).Error());
    EXPECT_EQ(EBADF, Ask(kVideo, FUSE_IOCTL, uint32_t{0}).Error());  // cut short
    EXPECT_EQ(EBADF, Ask(kVideo, FUSE_RELEASE, fuse_release_in{}).Error());
    fuse_interrupt_in nobody{};
    nobody.unique = 7;
    Send(kVideo, FUSE_INTERRUPT, nobody);
    EXPECT_EQ(video + 1, Open(kVideo)) << "the next thing to be answered";
}

TEST_F(CuseTest, AWaiterHoldsUpNobodyAndIsAnsweredWhenTheEventIsSet) {
    Serve();
    const uint64_t events = Open(kEvents);
    const uint64_t event = CreateEvent(events);
    const qv::WaitEventRecord forever{event, -1};
    const uint64_t waiting = SendWait(events, forever);
    const uint64_t video = Open(kVideo);
    _QVCAP_CHANNEL_INFO info{};
    EXPECT_EQ(0, Do(kVideo, video, qv::kGetChannelInfo, &info).Error());
    // On the waiter's own node: the next two answers are of the set and of the wait.
    const uint64_t setting = Send(kEvents, FUSE_IOCTL, Ioctl(events, qv::kSetEvent.code, &event));
    const Reply first = Receive(kEvents);
    const Reply second = Receive(kEvents);
    EXPECT_EQ(setting, first.header.unique);
    EXPECT_EQ(waiting, second.header.unique);
    EXPECT_EQ(1, second.Result());
    uint64_t handle = event;
    EXPECT_EQ(0, Do(kEvents, events, qv::kIsSetEvent, &handle).Result()) << "the wait consumed it";
}

TEST_F(CuseTest, AWaiterIsWokenByWhatTheCardDoesOnItsOwn) {
    Serve();
    const uint64_t events = Open(kEvents);
    const uint64_t video = Open(kVideo);
    const uint64_t event = CreateEvent(events);
    qv::RegisterNotifyRecord notify{};
    notify.event = event;
    notify.enableBits = 0x1;
    ASSERT_EQ(0, Do(kVideo, video, qv::kRegisterNotify, &notify).Error());
    const qv::MultiWaitEventRecord wait{qv::WireAddress(&event), 1, -1};
    Send(kEvents, FUSE_IOCTL, Ioctl(events, qv::kMultiWaitEvent.code, &wait));
    m_model->RaiseNotification(0, 0, 0x1);
    EXPECT_EQ(1, Receive(kEvents).Result());
    uint64_t handle = event;
    EXPECT_EQ(1, Do(kEvents, events, qv::kIsSetEvent, &handle).Result()) << "nothing is consumed";
}

TEST_F(CuseTest, OfTwoWaitersForOneEventTheFirstTakesIt) {
    Serve();
    const uint64_t events = Open(kEvents);
    const uint64_t event = CreateEvent(events);
    const qv::WaitEventRecord forever{event, -1};
    const uint64_t first = SendWait(events, forever);
    const uint64_t second = SendWait(events, forever);
    uint64_t handle = event;
    for (const uint64_t expected : {first, second}) {
        Send(kEvents, FUSE_IOCTL, Ioctl(events, qv::kSetEvent.code, &handle));
        EXPECT_EQ(0, Receive(kEvents).Result());
        const Reply woken = Receive(kEvents);
        EXPECT_EQ(expected, woken.header.unique);
        EXPECT_EQ(1, woken.Result());
    }
}

TEST_F(CuseTest, WaitsEndWithTheirTimeOutAndTriesAreAnsweredAtOnce) {
    Serve();
    const uint64_t events = Open(kEvents);
    const uint64_t event = CreateEvent(events);
    const qv::WaitEventRecord atOnce{event, 0};
    const qv::WaitEventRecord soon{event, 20};
    const qv::WaitEventRecord unknown{event + 1, -1};
    EXPECT_EQ(0, Do(kEvents, events, qv::kWaitEvent, &atOnce).Result());
    EXPECT_EQ(0, Do(kEvents, events, qv::kWaitEvent, &soon).Result());
    EXPECT_EQ(EINVAL, Do(kEvents, events, qv::kWaitEvent, &unknown).Error());
}

TEST_F(CuseTest, AnInterruptedWaitEndsWithEintrAndIsJournaledOnce) {
    Serve();
    const uint64_t events = Open(kEvents);
    const uint64_t event = CreateEvent(events);
    m_rig.ClearJournal();
    const qv::WaitEventRecord forever{event, -1};
    const uint64_t waiting = SendWait(events, forever);
    fuse_interrupt_in interrupt{};
    interrupt.unique = waiting;
    Send(kEvents, FUSE_INTERRUPT, interrupt);
    const Reply reply = Receive(kEvents);
    EXPECT_EQ(waiting, reply.header.unique);
    EXPECT_EQ(EINTR, reply.Error());
    EXPECT_THAT(m_rig.Journal(),
                ElementsAre("ioctl /dev/qv-event WaitEvent event=0x1001 timeout=-1 = -1 EINTR"));
}

TEST_F(CuseTest, ClosingAnEventEndsItsWaits) {
    Serve();
    const uint64_t events = Open(kEvents);
    uint64_t event = CreateEvent(events);
    const qv::WaitEventRecord forever{event, -1};
    const uint64_t waiting = SendWait(events, forever);
    Send(kEvents, FUSE_IOCTL, Ioctl(events, qv::kCloseEvent.code, &event));
    EXPECT_EQ(0, Receive(kEvents).Error());
    const Reply reply = Receive(kEvents);
    EXPECT_EQ(waiting, reply.header.unique);
    EXPECT_EQ(EINVAL, reply.Error());
}

TEST_F(CuseTest, AFrameIsWrittenAfterTheRequestHasBeenAnswered) {
    Serve();
    const uint64_t events = Open(kEvents);
    const uint64_t video = Open(kVideo);
    uint64_t event = CreateEvent(events);
    ASSERT_EQ(0, Do(kVideo, video, qv::kStartVideoCapture, &event).Error());
    std::vector<uint8_t> frame(64 * 32 * 2 + 1, 0xCC);
    qv::VideoCaptureFrameRecord record{};
    record.fourcc = 0x32595559;
    record.width = 64;
    record.height = 32;
    record.size = 64 * 32 * 2;
    record.stride = 128;
    record.frameIndex = -1;
    record.address = qv::WireAddress(frame.data());
    ASSERT_EQ(0, Do(kVideo, video, qv::kCaptureVideoFrame, &record).Error());
    const qv::WaitEventRecord forever{event, -1};
    ASSERT_EQ(1, Do(kEvents, events, qv::kWaitEvent, &forever).Result());
    uint32_t number = 0;
    std::memcpy(&number, frame.data(), sizeof number);
    EXPECT_EQ(1u, number);
    EXPECT_EQ(0xCC, frame.back());
}

TEST_F(CuseTest, AFrameIsRefusedWhenItsMemoryCannotBeKept) {
    Serve();
    const uint64_t events = Open(kEvents);
    const uint64_t video = Open(kVideo);
    uint64_t event = CreateEvent(events);
    ASSERT_EQ(0, Do(kVideo, video, qv::kStartVideoCapture, &event).Error());
    std::vector<uint8_t> frame(64 * 32 * 2, 0xCC);
    qv::VideoCaptureFrameRecord record{};
    record.width = 64;
    record.height = 32;
    record.size = 64 * 32 * 2;
    record.stride = 128;
    record.frameIndex = -1;
    record.address = qv::WireAddress(frame.data());
    // Every descriptor that this process may have is taken: the caller's memory cannot be opened.
    rlimit before{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const rlimit few{std::min<rlim_t>(before.rlim_cur, 128), before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
    std::vector<int> taken;
    for (int fd; (fd = dup(m_stop)) >= 0;) taken.push_back(fd);
    const Reply refused = Do(kVideo, video, qv::kCaptureVideoFrame, &record);
    for (const int fd : taken) close(fd);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_EQ(ENOMEM, refused.Error());
    EXPECT_THAT(frame, testing::Each(0xCC));
    EXPECT_EQ(0, Do(kVideo, video, qv::kCaptureVideoFrame, &record).Error());
    // Nothing is written any more when this is answered.
    EXPECT_EQ(0, Do(kVideo, video, qv::kStopVideoCapture, nullptr).Error());
}

TEST_F(CuseTest, TheEndOfTheServerEndsWaitsAndClosesWhatIsOpen) {
    Serve();
    const uint64_t events = Open(kEvents);
    Open(kVideo);
    const uint64_t event = CreateEvent(events);
    const qv::WaitEventRecord forever{event, -1};
    const uint64_t waiting = SendWait(events, forever);
    // Asked after the wait on the same node: the wait stands when this is answered.
    uint64_t handle = event;
    EXPECT_EQ(0, Do(kEvents, events, qv::kIsSetEvent, &handle).Result());
    Stop();
    EXPECT_EQ("", m_outcome);
    const Reply reply = Receive(kEvents);
    EXPECT_EQ(waiting, reply.header.unique);
    EXPECT_EQ(ENODEV, reply.Error());
    EXPECT_EQ(Alive(), m_model->CountAlive());
}

TEST_F(CuseTest, ANodeNameThatIsTakenIsRefusedBeforeAnythingIsMade) {
    m_rig.Add(Pelix());
    Load();
    std::ofstream(m_folder + "/video0").put('\n');
    CuseServer server(m_model, Ways());
    EXPECT_THAT(server.Start(m_stop),
                HasSubstr(m_folder + "/video0 exists already: unload the driver"));
    EXPECT_TRUE(m_ends.empty());
}

TEST_F(CuseTest, ANodeThatTheKernelRefusesIsNamed) {
    m_rig.Add(Pelix());
    Load();
    CuseServer server(m_model, Ways(true));
    EXPECT_THAT(server.Start(m_stop),
                HasSubstr("/dev/video0 was refused or taken away by the kernel"));
}

TEST_F(CuseTest, ANodeThatTheKernelTakesAwayEndsTheServer) {
    Serve();
    close(m_ends[kVideo]);
    m_ends.erase(m_ends.begin());
    m_thread.join();
    EXPECT_THAT(m_outcome, HasSubstr("/dev/video0 was refused or taken away"));
}

TEST_F(CuseTest, ANodeThatAFaultTakesAwayIsGivenUpAndTheOthersAreServedOn) {
    m_rig.AddFault({.request = "GetTemperature", .effect = NodeGone()});
    Serve();
    const uint64_t events = Open(kEvents);
    const uint64_t video = Open(kVideo);
    uint64_t event = CreateEvent(events);
    uint32_t temperature = 0;
    EXPECT_EQ(ENODEV, Do(kVideo, video, qv::kGetTemperature, &temperature).Error());
    EXPECT_FALSE(std::filesystem::exists(m_folder + "/video0"));
    char nothing = 0;
    pollfd hungUp{m_ends[kVideo], POLLIN, 0};
    EXPECT_EQ(1, poll(&hungUp, 1, kAnswerTime));
    EXPECT_EQ(0, recv(m_ends[kVideo], &nothing, 1, MSG_DONTWAIT));
    EXPECT_EQ(0, Do(kEvents, events, qv::kSetEvent, &event).Error());
    EXPECT_EQ("close /dev/video0 = 0", m_rig.Journal().at(4));
    EXPECT_EQ(1u, m_model->CountAlive().files);
}

TEST_F(CuseTest, ANodeThatNeverAppearsIsNamed) {
    m_rig.Add(Pelix());
    Load();
    CuseWays ways = Ways();
    ways.openControl = [this, open = ways.openControl] {
        const int fd = open();
        std::filesystem::remove(m_folder + "/video0");
        return fd;
    };
    ways.patience = std::chrono::milliseconds(20);
    CuseServer server(m_model, ways);
    EXPECT_THAT(server.Start(m_stop), HasSubstr("the kernel has not made " + m_folder + "/video0"));
}

// A kernel that says nothing.
CuseWays Silent(CuseWays ways) {
    ways.openControl = [] { return eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC); };
    return ways;
}

TEST_F(CuseTest, ANodeThatSomebodyElseMadeMeanwhileIsNotTakenForTheServersOwn) {
    m_rig.Add(Pelix());
    m_rig.NoEventNode();
    Load();
    CuseWays ways = Silent(Ways());
    ways.openControl = [this, open = ways.openControl] {
        for (const std::string& name : m_model->NodeNames())
            std::ofstream(m_folder + "/" + name).put('\n');
        return open();
    };
    ways.patience = std::chrono::milliseconds(20);
    CuseServer server(m_model, ways);
    EXPECT_THAT(server.Start(m_stop),
                HasSubstr("the kernel has not asked for " + m_folder + "/video0"));
    EXPECT_FALSE(server.Stopped());
}

TEST_F(CuseTest, AServerThatIsToldToEndBeforeItsNodesStandEndsAtOnce) {
    m_rig.Add(Pelix());
    Load();
    CuseServer server(m_model, Silent(Ways()));
    TellToStop();
    EXPECT_EQ("", server.Start(m_stop)) << "long before it would lose its patience";
    EXPECT_TRUE(server.Stopped());
    EXPECT_EQ("", server.Run());
}

TEST_F(CuseTest, AMissingControlDeviceSaysWhatToDo) {
    m_rig.Add(Pelix());
    Load();
    CuseWays ways = Ways();
    const auto refuse = [&ways](int error) {
        ways.openControl = [error] {
            errno = error;
            return -1;
        };
    };
    refuse(ENOENT);
    EXPECT_THAT(CuseServer(m_model, ways).Start(m_stop), HasSubstr("modprobe cuse"));
    refuse(EACCES);
    EXPECT_THAT(CuseServer(m_model, ways).Start(m_stop), HasSubstr("needs root"));
    refuse(EMFILE);
    EXPECT_EQ("/dev/cuse: Too many open files", CuseServer(m_model, ways).Start(m_stop));
}

TEST_F(CuseTest, CardsWithoutAnyNodeCannotBeServed) {
    m_rig.NoEventNode();
    Load();
    EXPECT_THAT(CuseServer(m_model, Ways()).Start(m_stop), HasSubstr("no node"));
}

}  // namespace
}  // namespace qvsim
