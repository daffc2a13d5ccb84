// USB devices for runs of the real tool: a scenario and a folder, and the loadable transport in the
// process that shows them. Used by one thread.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "ControlModel.h"
#include "support/PackageBuilder.h"
#include "tool/ToolProcess.h"

namespace qvtest {

class UsbDevices {
  public:
    // `common`: lines of the scenario's control table.
    explicit UsbDevices(std::string common = "") : common_(std::move(common)) {
        dir_ = testing::TempDir() + "/qvusb-XXXXXX";
        EXPECT_NE(nullptr, mkdtemp(dir_.data()));
        folder_.Preload(qvsim::ProgramFile(QV_USB_TRANSPORT_FILE));
        folder_.Environment("QVSIM_USB_SCENARIO=" + dir_ + "/usb.toml");
        folder_.Environment("QVSIM_USB_STATE=" + dir_);
    }
    ~UsbDevices() {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    UsbDevices(const UsbDevices&) = delete;
    UsbDevices& operator=(const UsbDevices&) = delete;

    // One device that has this fault, or none: the lines of a fault table.
    ToolRun Run(const std::vector<std::string>& arguments, const std::string& fault = "") {
        std::ofstream(dir_ + "/usb.toml") << Scenario(fault);
        std::filesystem::remove(dir_ + "/TV1.transfers");
        return folder_.ThroughPipe(rig_, arguments);
    }
    ToolFolder& Folder() { return folder_; }
    std::string FlashPath() const { return dir_ + "/TV1.flash"; }

    std::vector<std::string> Transfers() const {
        std::vector<std::string> lines;
        std::ifstream file(dir_ + "/TV1.transfers");
        for (std::string line; std::getline(file, line);) lines.push_back(line);
        return lines;
    }
    // The device between runs.
    std::unique_ptr<qvsim::usb::ControlModel> Device() const {
        qvsim::UsbPlan plan;
        plan.serial = "TV1";
        plan.control.emplace();
        plan.control->golden = 9;
        std::string error;
        auto device = qvsim::usb::ControlModel::Make(plan, 0, dir_, error);
        EXPECT_EQ("", error);
        return device;
    }
    Bytes Flash() const {
        Bytes bytes(1 << 20);
        EXPECT_TRUE(Device()->Flash().Read(0, bytes.data(), 1 << 20));
        return bytes;
    }
    // Pulled out and plugged in; the version that runs then.
    uint32_t PowerCycle() const {
        const auto device = Device();
        device->PowerCycle();
        return device->Version();
    }

  private:
    std::string Scenario(const std::string& fault) const {
        return "[[usb]]\nproduct = \"TAVO\"\nserial = \"TV1\"\nproduct_code = 0x0101\n"
               "[usb.control]\nfirmware = \"1.0\"\ngolden = \"0.9\"\n" +
               common_ + (fault.empty() ? "" : "[[usb.control.fault]]\n" + fault + "\n");
    }
    std::string common_;
    std::string dir_;
    qvsim::SimRig rig_;
    ToolFolder folder_;
};

}  // namespace qvtest
