// What a program sees in /dev through the door: nodes, descriptors, requests, the journal.
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "QVDriverRequests.h"
#include "gmock/gmock.h"
#include "support/SimRig.h"

namespace qvsim {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::vector<std::string> VideoNames() {
    struct dirent** list = nullptr;
    const int count = scandir(
        "/dev", &list,
        [](const struct dirent* entry) {
            return fnmatch("video*", entry->d_name, FNM_NOESCAPE) == 0 ? 1 : 0;
        },
        alphasort);
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        names.push_back(list[i]->d_name);
        free(list[i]);
    }
    free(list);
    return names;
}

TEST(DoorTest, ListsTheNodesOfTheCardsAndOfOtherDriversInDev) {
    SimRig rig;
    rig.Add(Pelix().Channels(2)).ForeignNode(7).Add(Lumo().Channels(2).FirstNode(10));
    rig.Attach();
    EXPECT_THAT(VideoNames(), ElementsAre("video0", "video1", "video10", "video11", "video7"));
}

TEST(DoorTest, AnOpenNodeAnswersItsChannelRecord) {
    SimRig rig;
    rig.Add(Pelix().Product("P4").ProductCode(0x1234).Hardware('C').Firmware(2, 5).Serial("S1"));
    rig.Attach();
    const int fd = open("/dev/video0", O_RDWR | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    _QVCAP_CHANNEL_INFO info;
    std::memset(&info, 0xCC, sizeof info);
    ASSERT_EQ(0, ioctl(fd, qv::kGetChannelInfo.code, &info));
    EXPECT_EQ(0x1234, uint16_t{info.productCode});
    EXPECT_EQ('C', info.hardwareVersion);
    EXPECT_EQ(0x00020005u, uint32_t{info.firmwareVersion});
    EXPECT_STREQ("Pelix Capture", info.familyName);
    EXPECT_STREQ("P4", info.productName);
    EXPECT_STREQ("S1", info.boardSerialNumber);
    EXPECT_EQ(0, close(fd));
    EXPECT_THAT(rig.Journal(),
                ElementsAre("open /dev/video0 = 0", "ioctl /dev/video0 GetChannelInfo = 0",
                            "close /dev/video0 = 0"));
    EXPECT_EQ(Alive{}, rig.Cards().CountAlive());
}

TEST(DoorTest, AMissingNodeIsNotThereWhateverTheMachineHas) {
    SimRig rig;
    rig.Add(Pelix()).NoEventNode();
    rig.Attach();
    EXPECT_EQ(-1, open("/dev/video1", O_RDWR));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, open("/dev/qv-event", O_RDWR));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(0, access("/dev/video0", F_OK));
    EXPECT_EQ(-1, access("/dev/video1", F_OK));
    EXPECT_THAT(rig.Journal(),
                ElementsAre("open /dev/video1 = -1 ENOENT", "open /dev/qv-event = -1 ENOENT"));
}

TEST(DoorTest, ANodeOfAnotherDriverOpensAndRefusesEveryRequest) {
    SimRig rig;
    rig.ForeignNode(3);
    rig.Attach();
    const int fd = open("/dev/video3", O_RDWR);
    ASSERT_GE(fd, 0);
    _QVCAP_CHANNEL_INFO info;
    EXPECT_EQ(-1, ioctl(fd, qv::kGetChannelInfo.code, &info));
    EXPECT_EQ(ENOTTY, errno);
    close(fd);
}

TEST(DoorTest, RequestsOfTheOtherNodeOrOfAnotherSizeAreUnknown) {
    SimRig rig;
    rig.Add(Pelix());
    rig.Attach();
    const int fd = open("/dev/video0", O_RDWR);
    uint64_t buffer[64] = {};
    EXPECT_EQ(-1, ioctl(fd, qv::kCreateEvent.code, buffer));
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_EQ(-1, ioctl(fd, qv::kGetChannelInfo.code + 0x10000, buffer));
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_EQ(-1, ioctl(fd, qv::kGetTemperature.code, nullptr));
    EXPECT_EQ(EFAULT, errno);
    close(fd);
}

TEST(DoorTest, SystemCallsByNumberReachTheCardsToo) {
    SimRig rig;
    rig.Add(Pelix().Firmware(3, 1));
    rig.Attach();
    const long fd = syscall(SYS_openat, AT_FDCWD, "/dev/video0", O_RDWR, 0);
    ASSERT_GE(fd, 0);
    _QVCAP_CHANNEL_INFO info;
    EXPECT_EQ(0,
              syscall(SYS_ioctl, fd, static_cast<unsigned long>(qv::kGetChannelInfo.code), &info));
    EXPECT_EQ(0x00030001u, uint32_t{info.firmwareVersion});
    EXPECT_EQ(0, syscall(SYS_close, fd));
    EXPECT_EQ(getpid(), syscall(SYS_getpid));
    EXPECT_EQ(0u, rig.Cards().CountAlive().files);
}

TEST(DoorTest, DescriptorsThatOutliveTheCardsAnswerNoDevice) {
    SimRig rig;
    rig.Add(Pelix());
    rig.Attach();
    const int fd = open("/dev/video0", O_RDWR);
    rig.Detach();
    uint32_t value = 0;
    EXPECT_EQ(-1, ioctl(fd, qv::kGetTemperature.code, &value));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(0, close(fd));
}

TEST(DoorTest, AFaultCanRefuseAnOpen) {
    SimRig rig;
    rig.Add(Pelix().Channels(2));
    rig.AddFault({.request = "open", .channel = 1, .effect = Refuse(EBUSY)});
    rig.Attach();
    EXPECT_EQ(0, close(open("/dev/video0", O_RDWR)));
    EXPECT_EQ(-1, open("/dev/video1", O_RDWR));
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ(0, close(open("/dev/video1", O_RDWR)));
    EXPECT_EQ(Alive{}, rig.Cards().CountAlive());
}

TEST(DoorTest, AFaultRefusesTheNamedRequestAndOnlyThat) {
    SimRig rig;
    rig.Add(Pelix());
    rig.AddFault({.request = "GetTemperature", .nth = 2, .effect = Refuse(EIO)});
    rig.Attach();
    const int fd = open("/dev/video0", O_RDWR);
    uint32_t value = 0;
    EXPECT_EQ(0, ioctl(fd, qv::kGetTemperature.code, &value));
    EXPECT_EQ(-1, ioctl(fd, qv::kGetTemperature.code, &value));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(0, ioctl(fd, qv::kGetTemperature.code, &value));
    close(fd);
    EXPECT_THAT(rig.Journal().at(2), "ioctl /dev/video0 GetTemperature = -1 EIO");
}

}  // namespace
}  // namespace qvsim
