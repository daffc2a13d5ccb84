// The USB devices of tests/lab/usb.toml on this machine's kernel, for the time of a test program;
// what the kernel made of each is what `qvcap-sim usb` says, never what the library says.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lab/Companion.h"
#include "lib/SimulatedTavo.h"

namespace lab {

struct LabDevice {
    std::string product;
    std::string bus;                 // "001/002"
    int card = -1;                   // of the sound card
    std::vector<std::string> nodes;  // camera's first, then that of its metadata
};

class LabDevices {
  public:
    static LabDevices& Get();
    // Plugs all devices in; false when that failed.
    bool Start();
    void Stop();

    const LabDevice& operator[](const std::string& serial) const { return m_devices.at(serial); }
    void Unplug(const std::string& serial);
    void Plug(const std::string& serial);

    // Opens the device as a channel of the library, with a transport that answers for it.
    static void* OpenChannel(const std::string& serial);

    // What was played to a stream so far.
    static std::string Played(const std::string& serial, const std::string& stream);

  private:
    void Note(const std::string& line);
    std::unique_ptr<Companion> m_server;
    std::map<std::string, LabDevice> m_devices;
};

// Serials of tests/lab/usb.toml.
inline constexpr char kHdmi[] = "TV0012345";
inline constexpr char kPelix[] = "PX0000001";
inline constexpr char kSdi[] = "TV0067890";
inline constexpr char kLumo[] = "LM0000001";
inline constexpr char kDvi[] = "TV0000003";
inline constexpr char kAio[] = "TV0000004";

}  // namespace lab
