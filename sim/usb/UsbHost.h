// Where devices are plugged in: the kernel's virtual host controller, which tests can replace. One
// thread.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qvsim::usb {

// What the kernel created for a device.
struct Place {
    std::string bus;                 // "001/002", as a sound card's usbbus file has it
    int card = -1;                   // number of its sound card
    std::vector<std::string> nodes;  // "/dev/video0": camera first
};

// A line of the controller's status; only high-speed ports are used.
struct PortStatus {
    int port;
    bool free;
    std::string device;  // "1-1" when one hangs there
};
std::vector<PortStatus> ReadPortStatus(const std::string& text);

class UsbHost {
  public:
    virtual ~UsbHost() = default;
    // Plugs in the device at the other end of `socket`, which may be closed afterwards. Returns an
    // error message, empty on success.
    virtual std::string Attach(int controller, int socket, int& port) = 0;
    virtual void Detach(int port) = 0;
    // Nothing while the kernel has not yet named the device, or has not yet created all of it.
    virtual std::optional<Place> Find(int port, bool wantsCard, bool wantsCamera) = 0;
    // True when the port is free, and the kernel has removed its last device.
    virtual bool IsFree(int port) = 0;
};

// The controller of the running kernel, through its files.
class VhciHost : public UsbHost {
  public:
    // The folders of a running system; tests use others.
    struct Folders {
        std::string controller = "/sys/devices/platform/vhci_hcd.0";
        std::string devices = "/sys/bus/usb/devices";
        std::string sound = "/proc/asound";
        std::string media = "/sys/bus/media";  // missing: this kernel makes no media devices
    };
    VhciHost() = default;
    explicit VhciHost(Folders folders) : m_folders(std::move(folders)) {}

    std::string Attach(int controller, int socket, int& port) override;
    void Detach(int port) override;
    std::optional<Place> Find(int port, bool wantsCard, bool wantsCamera) override;
    bool IsFree(int port) override;

  private:
    std::string StatusText(int controller) const;
    // For a port that was attached; nothing for any other.
    std::optional<PortStatus> StatusOf(int port) const;
    // The port is free, but the kernel still has its last device. It would not notice a new one
    // now, because it still finds the port in use.
    bool IsLeaving(int port) const;
    Folders m_folders;
    std::map<int, int> m_controllerOf;          // by port
    std::map<int, std::string> m_lastDeviceOf;  // by port: "1-1"
};

}  // namespace qvsim::usb
