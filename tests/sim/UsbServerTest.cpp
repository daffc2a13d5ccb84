// Devices on a host that the test plays: plugging in and out, orders, a controller's files.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "UsbHost.h"
#include "UsbServer.h"
#include "sim/UsbKernel.h"
#include "support/TempFolder.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace qvsim::usb {
namespace {

const StreamSpec kMic{"Mic", true};

// A kernel of one port per device. It configures each device as soon as it is asked for it.
class PlayedKernel : public UsbHost {
  public:
    ~PlayedKernel() override {
        for (const int end : ends) close(end);
    }
    std::string Attach(int controller, int socket, int& port) override {
        if (!refusal.empty()) return refusal;
        ends.push_back(dup(socket));
        controllers.push_back(controller);
        port = static_cast<int>(ends.size()) - 1;
        if (silent) return {};
        const Bytes configure =
            usbtest::Submit({.in = 0, .setup = usbtest::ControlSetup(0, 9, 1, 0, 0)});
        EXPECT_EQ(48, send(ends.back(), configure.data(), configure.size(), 0));
        return {};
    }
    void Detach(int port) override { detached.push_back(port); }
    std::optional<Place> Find(int port, bool card, bool camera) override {
        if (unknown) return std::nullopt;
        if (asks > 0) {
            --asks;
            std::this_thread::sleep_for(std::chrono::milliseconds(15));
            const Bytes status = usbtest::Submit(
                {.in = 1, .length = 2, .setup = usbtest::ControlSetup(0x80, 0, 0, 0, 2)});
            EXPECT_EQ(48, send(ends.back(), status.data(), status.size(), 0));
            return std::nullopt;
        }
        return Place{"001/00" + std::to_string(port + 2), card ? port : -1,
                     camera ? std::vector<std::string>{"/dev/video0"} : std::vector<std::string>{}};
    }
    bool IsFree(int) override { return true; }

    bool silent = false;
    bool unknown = false;
    int asks = 0;  // so often it asks before it has set a device up
    std::string refusal;
    std::vector<int> ends;
    std::vector<int> controllers;
    std::vector<int> detached;
};

class UsbServerTest : public testing::Test {
  protected:
    UsbServerTest() {
        EXPECT_EQ(0, pipe(stop));
        EXPECT_EQ(0, pipe(orders));
    }
    ~UsbServerTest() override {
        for (const int fd : {stop[0], stop[1], orders[0], orders[1]}) close(fd);
    }
    void Make(std::vector<PluggedSpec> specs, const std::string& played = "") {
        server = std::make_unique<UsbServer>(std::move(specs), kernel, played,
                                             [this](const std::string& line) {
                                                 lines.push_back(line);
                                                 EXPECT_EQ(1, write(told[1], "x", 1));
                                             });
    }
    // Serves until `lines` reports have come; the orders are sent at once.
    std::string RunUntil(size_t reports, const std::string& text) {
        EXPECT_EQ(static_cast<ssize_t>(text.size()), write(orders[1], text.data(), text.size()));
        std::thread ender([this, reports] {
            char byte;
            for (size_t i = 0; i < reports; ++i) EXPECT_EQ(1, read(told[0], &byte, 1));
            EXPECT_EQ(1, write(stop[1], "x", 1));
        });
        const std::string error = server->Run(orders[0]);
        ender.join();
        return error;
    }

    PlayedKernel kernel;
    std::vector<std::string> lines;
    int stop[2];
    int orders[2];
    int told[2] = {-1, -1};
    const bool piped = pipe(told) == 0;
    std::unique_ptr<UsbServer> server;
};

TEST_F(UsbServerTest, DevicesArePluggedInInOrderAndSayWhereTheyAre) {
    Make({{{"Card", "A", {kMic}, {}}, 3}, {{"Camera", "B", {}, {{64, 32, {30}}}}, 0}});
    EXPECT_EQ("", server->Start(stop[0]));
    EXPECT_THAT(lines, ElementsAre("plugged A: Card, bus 001/002, sound card 0",
                                   "plugged B: Camera, bus 001/003, /dev/video0"));
    EXPECT_THAT(kernel.controllers, ElementsAre(3, 0));
    server.reset();
    EXPECT_THAT(kernel.detached, ElementsAre(0, 1));
}

TEST_F(UsbServerTest, ADeviceIsUnpluggedAndPluggedInByOrder) {
    Make({{{"Card", "A", {kMic}, {}}, 0}, {{"Card", "B", {kMic}, {}}, 0}});
    ASSERT_EQ("", server->Start(stop[0]));
    EXPECT_EQ("", RunUntil(8, "unplug B\nunplug B\nplug B\nplug B\nunplug C\nexplode\n"));
    EXPECT_THAT(std::vector<std::string>(lines.begin() + 2, lines.end()),
                ElementsAre("unplugged B", "B is unplugged already",
                            "plugged B: Card, bus 001/004, sound card 2", "B is plugged already",
                            HasSubstr("not understood: 'unplug C'"),
                            HasSubstr("not understood: 'explode'")));
    EXPECT_THAT(kernel.detached, ElementsAre(1, 0, 2));
}

TEST_F(UsbServerTest, TheEndOfOrdersIsNotTheEnd) {
    Make({{{"Card", "A", {kMic}, {}}, 0}});
    ASSERT_EQ("", server->Start(stop[0]));
    close(orders[1]);
    orders[1] = dup(orders[0]);
    std::thread ender([this] {
        // Asked after the end of orders: it is still there.
        const Bytes ask =
            usbtest::Submit({.length = 1, .setup = usbtest::ControlSetup(0x80, 8, 0, 0, 1)});
        EXPECT_EQ(48, send(kernel.ends[0], ask.data(), ask.size(), 0));
        Bytes answer(97);
        EXPECT_EQ(97, recv(kernel.ends[0], answer.data(), answer.size(), MSG_WAITALL));
        usbtest::Take(answer, false);  // of the configuration
        EXPECT_THAT(usbtest::Take(answer).data, ElementsAre(1));
        EXPECT_EQ(1, write(stop[1], "x", 1));
    });
    EXPECT_EQ("", server->Run(orders[0]));
    ender.join();
}

TEST_F(UsbServerTest, ADeviceThatIsToldNonsenseIsUnplugged) {
    Make({{{"Card", "A", {kMic}, {}}, 0}});
    ASSERT_EQ("", server->Start(stop[0]));
    EXPECT_EQ(48, send(kernel.ends[0], Bytes(48, 0xFF).data(), 48, 0));
    EXPECT_EQ("", RunUntil(2, ""));
    EXPECT_EQ("not understood, unplugged A", lines.back());
    EXPECT_THAT(kernel.detached, ElementsAre(0));
}

TEST_F(UsbServerTest, ADeviceThatTheKernelGivesUpIsUnplugged) {
    Make({{{"Card", "A", {kMic}, {}}, 0}});
    ASSERT_EQ("", server->Start(stop[0]));
    close(kernel.ends[0]);
    kernel.ends.clear();
    EXPECT_EQ("", RunUntil(2, ""));
    EXPECT_EQ("given up by the kernel, unplugged A", lines.back());
}

// Takes nothing more, but has not hung up: seen only when the device has something to say.
TEST_F(UsbServerTest, ADeviceThatCannotBeHeardIsUnpluggedAndThatIsReported) {
    Make({{{"Card", "A", {kMic}, {}}, 0}});
    ASSERT_EQ("", server->Start(stop[0]));
    const Bytes listen = usbtest::Submit({.in = 0, .setup = usbtest::ControlSetup(1, 11, 1, 1, 0)});
    ASSERT_EQ(48, send(kernel.ends[0], listen.data(), listen.size(), 0));
    std::thread deaf([this] {
        Bytes answers(48 + 48);
        EXPECT_EQ(static_cast<ssize_t>(answers.size()),
                  recv(kernel.ends[0], answers.data(), answers.size(), MSG_WAITALL));
        EXPECT_EQ(0, shutdown(kernel.ends[0], SHUT_RD));
        const Bytes sound =
            usbtest::Submit({.endpoint = 1,
                             .length = 200,
                             .packets = std::vector<std::pair<uint32_t, uint32_t>>{{0, 200}}});
        EXPECT_EQ(static_cast<ssize_t>(sound.size()),
                  send(kernel.ends[0], sound.data(), sound.size(), 0));
    });
    EXPECT_EQ("", RunUntil(2, ""));
    deaf.join();
    EXPECT_EQ("given up by the kernel, unplugged A", lines.back());
    EXPECT_THAT(kernel.detached, ElementsAre(0));
}

TEST_F(UsbServerTest, ToldToEndWhileADeviceIsPluggedInItUnplugsItAndEnds) {
    Make({{{"Card", "A", {kMic}, {}}, 0}, {{"Card", "B", {kMic}, {}}, 0}});
    kernel.unknown = true;
    EXPECT_EQ(1, write(stop[1], "x", 1));
    EXPECT_EQ("", server->Start(stop[0]));
    EXPECT_TRUE(server->Stopped());
    EXPECT_EQ("", server->Run(orders[0]));
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_THAT(kernel.detached, ElementsAre(0)) << "the second was never plugged in";
}

// Reading from it fails as it does in a terminal's background.
TEST_F(UsbServerTest, OrdersFromATerminalComeWhenItIsTheServersAgain) {
    int terminal = -1;
    int line = -1;
    char name[64];
    ASSERT_EQ(0, openpty(&terminal, &line, name, nullptr, nullptr));
    close(line);
    char letter = 0;
    ASSERT_EQ(-1, read(terminal, &letter, 1));
    ASSERT_EQ(EIO, errno);
    close(orders[0]);
    orders[0] = terminal;
    Make({{{"Card", "A", {kMic}, {}}, 0}});
    ASSERT_EQ("", server->Start(stop[0]));
    std::thread later([this, &name] {
        // A second question is answered behind the first look at the terminal.
        const Bytes ask =
            usbtest::Submit({.length = 1, .setup = usbtest::ControlSetup(0x80, 8, 0, 0, 1)});
        for (const ssize_t size : {48 + 49, 49}) {
            EXPECT_EQ(48, send(kernel.ends[0], ask.data(), ask.size(), 0));
            Bytes answer(static_cast<size_t>(size));
            EXPECT_EQ(size, recv(kernel.ends[0], answer.data(), answer.size(), MSG_WAITALL));
        }
        const int typed = open(name, O_RDWR | O_NOCTTY);
        termios mode{};
        cfmakeraw(&mode);
        EXPECT_EQ(0, tcsetattr(typed, TCSANOW, &mode));
        EXPECT_EQ(9, write(typed, "unplug A\n", 9));
        char byte;
        for (int i = 0; i < 2; ++i) EXPECT_EQ(1, read(told[0], &byte, 1));
        close(typed);
        EXPECT_EQ(1, write(stop[1], "x", 1));
    });
    EXPECT_EQ("", server->Run(orders[0]));
    later.join();
    EXPECT_THAT(lines, Contains("unplugged A"));
}

TEST_F(UsbServerTest, WhatIsPlayedGoesToAFile) {
    const qvtest::TempFolder folder("qv-usb");
    Make({{{"Card", "A", {{"Out", false}}, {}}, 0}}, folder.Path());
    ASSERT_EQ("", server->Start(stop[0]));
    const Bytes setting =
        usbtest::Submit({.in = 0, .setup = usbtest::ControlSetup(1, 11, 1, 1, 0)});
    const Bytes sound = usbtest::Submit(
        {.in = 0, .endpoint = 1, .length = 3, .data = {1, 2, 3}, .packets = {{0, 3}}});
    send(kernel.ends[0], setting.data(), setting.size(), 0);
    send(kernel.ends[0], sound.data(), sound.size(), 0);
    std::thread ender([this] {
        Bytes answers(48 + 48 + 48 + 16);
        EXPECT_EQ(static_cast<ssize_t>(answers.size()),
                  recv(kernel.ends[0], answers.data(), answers.size(), MSG_WAITALL));
        EXPECT_EQ(1, write(stop[1], "x", 1));
    });
    EXPECT_EQ("", server->Run(-1));
    ender.join();
    std::ifstream file(folder.Path() + "/A-Out.raw", std::ios::binary);
    const Bytes played{std::istreambuf_iterator<char>(file), {}};
    EXPECT_THAT(played, ElementsAre(1, 2, 3));
}

TEST_F(UsbServerTest, WhatCannotBePluggedInSaysWhy) {
    Make({});
    EXPECT_THAT(server->Start(stop[0]), HasSubstr("no [[usb]]"));
    Make({{{"Card", "A", {kMic}, {}}, 0}});
    kernel.refusal = "no room";
    EXPECT_EQ("no room", server->Start(stop[0]));
    kernel.refusal.clear();
    server->patience = std::chrono::milliseconds(1);
    kernel.unknown = true;
    kernel.silent = true;
    EXPECT_EQ("A: the kernel has not configured it", server->Start(stop[0]));
}

TEST_F(UsbServerTest, AKernelThatStillAsksIsNotGivenUp) {
    Make({{{"Card", "A", {kMic}, {}}, 0}});
    server->patience = std::chrono::milliseconds(200);
    kernel.asks = 20;
    EXPECT_EQ("", server->Start(stop[0]));
    EXPECT_THAT(lines, ElementsAre("plugged A: Card, bus 001/002, sound card 0"));
}

TEST_F(UsbServerTest, ADeviceWithoutDriversIsRefusedWithAdvice) {
    Make({{{"Card", "A", {kMic}, {}}, 0}});
    server->patience = std::chrono::milliseconds(200);
    kernel.unknown = true;
    EXPECT_THAT(server->Start(stop[0]), HasSubstr("modprobe snd-usb-audio"));
}

// ---- the controller's files

const char kStatus[] =
    "hub port sta spd dev      sockfd local_busid\n"
    "hs  0000 006 003 00000001 000003 1-1\n"
    "hs  0001 004 000 00000000 000000 0-0\n"
    "ss  0015 004 000 00000000 000000 0-0\n";

TEST(UsbPortStatusTest, PortsOfHighSpeedAreRead) {
    const std::vector<PortStatus> ports = ReadPortStatus(kStatus);
    ASSERT_EQ(2u, ports.size());
    EXPECT_EQ(0, ports[0].port);
    EXPECT_FALSE(ports[0].free);
    EXPECT_EQ("1-1", ports[0].device);
    EXPECT_EQ(1, ports[1].port);
    EXPECT_TRUE(ports[1].free);
    EXPECT_EQ("", ports[1].device);
    EXPECT_THAT(ReadPortStatus("nonsense\nhs\nhs 1 4\n"), IsEmpty());
}

class VhciHostTest : public testing::Test {
  protected:
    VhciHostTest() {
        fs::create_directories(root / "controller");
        fs::create_directories(root / "devices");
        fs::create_directories(root / "sound");
        Put("controller/status", kStatus);
    }
    void Put(const fs::path& path, const std::string& text) {
        fs::create_directories((root / path).parent_path());
        std::ofstream(root / path) << text;
    }
    std::string Text(const fs::path& path) {
        std::ifstream file(root / path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    const qvtest::TempFolder temporary{"qv-vhci"};
    const fs::path root = temporary.Path();
    VhciHost host{VhciHost::Folders{(root / "controller").string(), (root / "devices").string(),
                                    (root / "sound").string(), (root / "media").string()}};
    std::string error;
    int Attach(int controller, int socket) {
        int port = -1;
        error = host.Attach(controller, socket, port);
        return port;
    }
};

TEST_F(VhciHostTest, ADeviceGoesToTheFirstFreePort) {
    Put("controller/attach", "");
    EXPECT_EQ(1, Attach(0, 7)) << error;
    EXPECT_EQ("1 7 1 3", Text("controller/attach"));
    EXPECT_TRUE(host.IsFree(1));
    EXPECT_FALSE(host.Find(1, false, false).has_value()) << "nothing hangs there yet";
    Put("controller/detach", "");
    host.Detach(1);
    EXPECT_EQ("1", Text("controller/detach"));
}

TEST_F(VhciHostTest, APortWaitsUntilTheKernelHasTakenLeaveOfItsLastDevice) {
    const char* const free =
        "hs  0000 006 003 00000001 000003 1-1\n"
        "hs  0001 004 000 00000000 000000 0-0\n"
        "hs  0002 004 000 00000000 000000 0-0\n";
    Put("controller/attach", "");
    Put("controller/detach", "");
    ASSERT_EQ(1, Attach(0, 7)) << error;
    Put("controller/status",
        "hs  0001 006 003 00000001 000003 1-2\nhs  0002 004 000 00000000 000000 0-0\n");
    fs::create_directories(root / "devices/1-2");
    host.Detach(1);
    Put("controller/status", free);
    EXPECT_FALSE(host.IsFree(1));
    EXPECT_EQ(2, Attach(0, 8)) << error;
    fs::remove_all(root / "devices/1-2");
    EXPECT_TRUE(host.IsFree(1));
    EXPECT_EQ(1, Attach(0, 9)) << error;
    // Another one of that name is not its last device.
    fs::create_directories(root / "devices/1-2");
    EXPECT_TRUE(host.IsFree(1));
}

TEST_F(VhciHostTest, ADeviceThatTheKernelGaveUpIsWaitedForByItsOldName) {
    Put("controller/attach", "");
    Put("controller/detach", "");
    ASSERT_EQ(1, Attach(0, 7)) << error;
    Put("controller/status", "hs  0001 006 003 00000001 000003 1-2\n");
    Put("devices/1-2/busnum", "1\n");
    Put("devices/1-2/devnum", "12\n");
    ASSERT_TRUE(host.Find(1, false, false).has_value());
    Put("controller/status", "hs  0001 004 000 00000000 000000 0-0\n");
    host.Detach(1);
    EXPECT_FALSE(host.IsFree(1));
    fs::remove_all(root / "devices/1-2");
    EXPECT_TRUE(host.IsFree(1));
}

TEST_F(VhciHostTest, FurtherControllersHaveFilesOfTheirOwn) {
    Put("controller/attach", "");
    Put("controller/status.2", "hs  0060 004 000 00000000 000000 0-0\n");
    EXPECT_EQ(60, Attach(2, 7)) << error;
    EXPECT_EQ("60 7 1 3", Text("controller/attach"));
}

TEST_F(VhciHostTest, WhatIsMissingIsSaidWithAdvice) {
    EXPECT_EQ(-1, Attach(0, 7));
    EXPECT_THAT(error, HasSubstr("modprobe vhci-hcd"));
    Put("controller/attach", "");
    EXPECT_EQ(-1, Attach(9, 7));
    EXPECT_THAT(error, HasSubstr("no virtual host controller 9"));
    Put("controller/status", "hs  0000 006 003 00000001 000003 1-1\n");
    EXPECT_EQ(-1, Attach(0, 7));
    EXPECT_THAT(error, HasSubstr("all 1 ports of virtual host controller 0 are taken"));
}

TEST_F(VhciHostTest, ADevicesSoundCardAndNodesAreFound) {
    Put("controller/attach", "");
    ASSERT_EQ(1, Attach(0, 7)) << error;
    Put("controller/status", "hs  0001 006 003 00000001 000003 1-2\n");
    EXPECT_FALSE(host.IsFree(1));
    EXPECT_FALSE(host.Find(1, false, false).has_value()) << "no numbers yet";
    Put("devices/1-2/busnum", "1\n");
    Put("devices/1-2/devnum", "12\n");
    EXPECT_EQ("001/012", host.Find(1, false, false).value().bus);
    EXPECT_FALSE(host.Find(1, true, false).has_value());
    Put("sound/card0/usbbus", "001/002\n");
    Put("sound/card10/usbbus", "001/012\n");
    EXPECT_EQ(10, host.Find(1, true, false).value().card);
    EXPECT_FALSE(host.Find(1, true, true).has_value());
    fs::create_directories(root / "devices/1-2/1-2:1.5/video4linux/video9");
    fs::create_directories(root / "devices/1-2/1-2:1.5/video4linux/video10");
    EXPECT_THAT(host.Find(1, true, true).value().nodes, ElementsAre("/dev/video9", "/dev/video10"));
    fs::create_directory(root / "media");
    EXPECT_FALSE(host.Find(1, true, true).has_value()) << "its media device is still to come";
    fs::create_directory(root / "devices/1-2/1-2:1.5/media0");
    EXPECT_THAT(host.Find(1, true, true).value().nodes, ElementsAre("/dev/video9", "/dev/video10"));
}

}  // namespace
}  // namespace qvsim::usb
