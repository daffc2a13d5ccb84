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
#include "support/TempFolder.h"
#include "tool/ToolProcess.h"

namespace qvtest {

class UsbDevices {
  public:
    // `common`: lines of the scenario's control table.
    explicit UsbDevices(std::string common = "") : m_common(std::move(common)) {
        m_folder.Preload(qvsim::ProgramFile(QV_USB_TRANSPORT_FILE));
        m_folder.Environment("QVSIM_USB_SCENARIO=" + m_dir + "/usb.toml");
        m_folder.Environment("QVSIM_USB_STATE=" + m_dir);
    }

    // One device that has this fault, or none: the lines of a fault table.
    ToolRun Run(const std::vector<std::string>& arguments, const std::string& fault = "") {
        std::ofstream(m_dir + "/usb.toml") << Scenario(fault);
        std::filesystem::remove(m_dir + "/TV1.transfers");
        return m_folder.ThroughPipe(m_rig, arguments);
    }
    ToolFolder& Folder() { return m_folder; }
    std::string FlashPath() const { return m_dir + "/TV1.flash"; }

    std::vector<std::string> Transfers() const {
        std::vector<std::string> lines;
        std::ifstream file(m_dir + "/TV1.transfers");
        for (std::string line; std::getline(file, line);) lines.push_back(line);
        return lines;
    }
    // The device between runs.
    std::unique_ptr<qvsim::usb::ControlModel> Device() const {
        qvsim::UsbPlan plan;
        plan.serial = "TV1";
        plan.control.emplace();
        plan.control->golden = 9;
        std::unique_ptr<qvsim::usb::ControlModel> device;
        EXPECT_EQ("", qvsim::usb::ControlModel::Make(plan, 0, m_dir, device));
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
               m_common + (fault.empty() ? "" : "[[usb.control.fault]]\n" + fault + "\n");
    }
    std::string m_common;
    const TempFolder m_temporary{"qvusb"};
    const std::string m_dir = m_temporary.Path();
    qvsim::SimRig m_rig;
    ToolFolder m_folder;
};

}  // namespace qvtest
