#include "lab/LabDevices.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "QVCapture.h"

namespace lab {
namespace {

constexpr char kScenario[] = "/t/usb.toml";
constexpr char kPlayed[] = "/tmp/played";
constexpr int kDeviceCount = 6;

// Devices stand while the tests run, and are unplugged after the last one.
class Plugged : public testing::Environment {
  public:
    void SetUp() override { ASSERT_TRUE(LabDevices::Get().Start()); }
    void TearDown() override { LabDevices::Get().Stop(); }
};
[[maybe_unused]] const auto* g_plugged = testing::AddGlobalTestEnvironment(new Plugged);

}  // namespace

LabDevices& LabDevices::Get() {
    static LabDevices devices;
    return devices;
}

bool LabDevices::Start() {
    std::filesystem::create_directories(kPlayed);
    m_server = std::make_unique<Companion>(
        std::vector<std::string>{"qvcap-sim", "usb", "--scenario", kScenario, "--played", kPlayed});
    for (int i = 0; i < kDeviceCount; ++i) Note(m_server->Await("plugged "));
    return m_server->Await("ready") == "ready";
}

void LabDevices::Stop() { m_server.reset(); }

// "plugged SERIAL: PRODUCT, bus 001/002, sound card 0, /dev/video0, /dev/video1"
void LabDevices::Note(const std::string& line) {
    char serial[32] = {};
    char product[64] = {};
    char bus[16] = {};
    const int found =
        std::sscanf(line.c_str(), "plugged %31[^:]: %63[^,], bus %15[^,]", serial, product, bus);
    EXPECT_EQ(3, found) << line;
    LabDevice device{product, bus, -1, {}};
    if (const size_t at = line.find("sound card "); at != std::string::npos)
        device.card = std::atoi(line.c_str() + at + 11);
    for (size_t at = line.find("/dev/"); at != std::string::npos; at = line.find("/dev/", at + 1))
        device.nodes.push_back(line.substr(at, line.find(',', at) - at));
    m_devices[serial] = device;
}

void LabDevices::Unplug(const std::string& serial) {
    m_server->Tell("unplug " + serial);
    EXPECT_EQ("unplugged " + serial, m_server->Await("unplugged "));
}

void LabDevices::Plug(const std::string& serial) {
    m_server->Tell("plug " + serial);
    Note(m_server->Await("plugged " + serial));
}

void* LabDevices::OpenChannel(const std::string& serial) {
    const LabDevice& device = Get()[serial];
    const std::string path = "usb:" + serial;
    fake::Tavo& tavo = fake::Tavo::Get();
    tavo.Reset();
    tavo.AddDevice(path, device.product, device.bus, serial);
    QVRefreshDevice();
    void* channel = QVOpenChannelByPath(path.c_str());
    EXPECT_NE(nullptr, channel);
    return channel;
}

std::string LabDevices::Played(const std::string& serial, const std::string& stream) {
    std::ifstream file(std::string(kPlayed) + "/" + serial + "-" + stream + ".raw",
                       std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace lab
