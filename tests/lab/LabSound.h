// The sound cards of the lab as amixer sees them, and channels of the library over them.
#pragma once

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "lab/LabChannel.h"

namespace lab {

inline LabDevices& Devices() { return LabDevices::Get(); }

inline std::string CardDevice(const char* serial) {
    return "hw:" + std::to_string(Devices()[serial].card);
}

// "capture 20 -30.00dB on": a line of amixer about one channel of an element.
inline std::string Mixer(const char* serial, const std::string& element, const char* direction,
                         const char* channel) {
    const std::string text = Output("amixer -c " + std::to_string(Devices()[serial].card) +
                                    " sget \"'" + element + "',0\"");
    const size_t line = text.find(std::string(channel) + ": ");
    const size_t part = text.find(std::string(direction) + " ", line);
    int raw = 0;
    char decibels[32] = {};
    char on[8] = {};
    if (line == std::string::npos || part == std::string::npos ||
        std::sscanf(text.c_str() + part, "%*s %d [%*[^]]] [%31[^]]] [%7[^]]]", &raw, decibels,
                    on) != 3)
        return "no such line in: " + text;
    return std::to_string(raw) + " " + decibels + " " + on;
}
inline std::string Left(const char* serial, const std::string& element, const char* direction) {
    return Mixer(serial, element, direction, "Front Left");
}
inline std::string Right(const char* serial, const std::string& element, const char* direction) {
    return Mixer(serial, element, direction, "Front Right");
}

inline void SetMixer(const char* serial, const std::string& element, const std::string& value) {
    Output("amixer -q -c " + std::to_string(Devices()[serial].card) + " sset \"'" + element +
           "',0\" -- " + value);
}

// PCIe channels beside them, of /t/sound-cards.toml, served for the time of the suite.
class SoundChannelTest : public LabChannelTest {
  protected:
    static void SetUpTestSuite() {
        std::filesystem::remove_all("/tmp/sound-cards");
        Output("qvcap-sim init /tmp/sound-cards --scenario /t/sound-cards.toml");
        server = std::make_unique<Companion>(
            std::vector<std::string>{"qvcap-sim", "serve", "/tmp/sound-cards"});
        ASSERT_EQ("ready", server->Await("ready"));
    }
    static void TearDownTestSuite() { server.reset(); }
    static Channel Pcie(const char* path) {
        Channel channel(QVOpenChannelByPath(path));
        EXPECT_NE(nullptr, channel) << path;
        return channel;
    }

    inline static std::unique_ptr<Companion> server;
};

}  // namespace lab
