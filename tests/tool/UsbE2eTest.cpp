// The real binary on a USB device, over the transport in the process: what it prints, every
// transfer that the device sees, and its flash afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ToolTexts.h"
#include "UsbDevices.h"
#include "support/PackageBuilder.h"

namespace qvtest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Lines = std::vector<std::string>;

constexpr uint32_t kHeader = 0x1000;  // where the simulated devices keep their header

std::string Hex(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", value);
    return text;
}

void Erase(Lines& lines, uint32_t address, uint32_t size) {
    lines.push_back("erase " + Hex(address) + "+" + std::to_string(size));
    lines.insert(lines.end(), 2, "poll");
}

void Write(Lines& lines, uint32_t address, uint32_t size) {
    for (uint32_t done = 0; done < size; done += 2048) {
        const uint32_t length = std::min<uint32_t>(size - done, 2048);
        lines.push_back("write " + Hex(address + done) + "+" + std::to_string(length));
        lines.insert(lines.end(), 2, "poll");
    }
}

void Read(Lines& lines, uint32_t address, uint32_t size) {
    for (uint32_t done = 0; done < size; done += 64) {
        lines.push_back("address " + Hex(address + done));
        lines.push_back("read " + Hex(address + done) + "+" +
                        std::to_string(std::min<uint32_t>(size - done, 64)));
    }
}

// The transport of the test goes into the tool by preloading, which the served door does without.
class UsbE2eTest : public testing::Test {
  protected:
    void SetUp() override {
        if (qvsim::ThroughServedNodes()) GTEST_SKIP() << "the suite usb has real devices";
    }
};

TEST_F(UsbE2eTest, AUsbDeviceIsListed) {
    UsbDevices usb;
    Package().Firmware(1, 1).Section("Factory.Main", 0x8000, 100).Write(usb.Folder() / "t.qvf");
    const ToolRun run = usb.Run({"-l"});
    EXPECT_EQ("", run.errors);
    EXPECT_THAT(run.output, HasSubstr("total 1  need upgrade 1\n"));
    EXPECT_THAT(run.output, HasSubstr("00:00 TAVO                     |1.0             |A"));
}

TEST_F(UsbE2eTest, AnUpgradeWritesPacketsOf2048BytesAndEndsWithoutReconfiguration) {
    UsbDevices usb;
    PackageBuilder package = Package()
                                 .Firmware(1, 1)
                                 .Section("Factory.Main", 0x8000, 70000)
                                 .Section("Factory.CLR.Log", 0x30000, 100);
    package.Write(usb.Folder() / "t.qvf");
    const ToolRun run = usb.Run({"-y", "-a"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("", run.errors);
    EXPECT_THAT(run.output, HasSubstr("[1/1] [00:00 TAVO]  Upgrade from 1.0 to 1.1   "));
    EXPECT_THAT(run.output, HasSubstr("Set post reconfig failed"));
    EXPECT_THAT(run.output, HasSubstr("total 1,  success 0,  fail 0,  skip 0,  cancel 0\n"));
    EXPECT_THAT(usb.Folder().Commands(), ElementsAre()) << "nothing is turned off";

    const auto size = static_cast<uint32_t>(package.Header().size());
    // Listed with the instance and again by the tool, asked, upgraded.
    Lines wanted = {"get 0x01", "get 0x02", "get 0x01", "get 0x02",
                    "open",     "get 0x01", "get 0x01", "get 0xF0"};
    Read(wanted, kHeader, 157);
    wanted.insert(wanted.end(), {"open", "get 0x01", "get 0x01", "get 0xF0"});
    Erase(wanted, kHeader, size);
    Erase(wanted, 0x8000, 65536);
    Erase(wanted, 0x18000, 70000 - 65536);
    Erase(wanted, 0x30000, 100);
    Read(wanted, 0x30000, 100);
    Write(wanted, kHeader, size);
    Write(wanted, 0x8000, 65536);
    Write(wanted, 0x18000, 70000 - 65536);
    Read(wanted, kHeader, size);
    Read(wanted, 0x8000, 65536);
    Read(wanted, 0x18000, 70000 - 65536);
    EXPECT_EQ(wanted, usb.Transfers());

    Bytes flash(1 << 20, 0xFF);
    const Bytes header = package.Header(), data = package.Data(0);
    std::copy(header.begin(), header.end(), flash.begin() + kHeader);
    std::copy(data.begin(), data.end(), flash.begin() + 0x8000);
    EXPECT_TRUE(flash == usb.Flash()) << "byte for byte, and nothing else";
    EXPECT_EQ(0x00010000u, usb.Device()->Version()) << "until it is plugged in again";
    EXPECT_EQ(0x00010001u, usb.PowerCycle());
    EXPECT_THAT(usb.Run({"-l"}).output, HasSubstr("total 1  need upgrade 0\n"));
}

TEST_F(UsbE2eTest, ADeviceIsChosenByItsPath) {
    UsbDevices usb;
    Package().Firmware(1, 1).Section("Factory.Main", 0x8000, 100).Write(usb.Folder() / "t.qvf");
    usb.Run({"-l"});
    const ToolRun run = usb.Run({"-y", "-d", usb.FlashPath()});
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output, HasSubstr("Set post reconfig failed"));
    EXPECT_EQ(0x00010001u, usb.PowerCycle());
}

TEST_F(UsbE2eTest, ADeviceThatStaysOpenForWantOfAPackageIsListedAgain) {
    UsbDevices usb;
    Package().ProductCode(0x7777).Firmware(1, 1).Write(usb.Folder() / "t.qvf");
    const ToolRun run = usb.Run({"-l", "-a"});
    EXPECT_EQ("", run.errors);
    EXPECT_THAT(run.output, HasSubstr("00:00 TAVO"));
}

}  // namespace
}  // namespace qvtest
