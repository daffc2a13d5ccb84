// Where devices are plugged in: the kernel's virtual host controller, and a way to put something
// else in its place in tests. One thread.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qvsim::usb {

// What the kernel made of a device.
struct Place {
    std::string bus;                 // "001/002", as a sound card's usbbus file has it
    int card = -1;                   // number of its sound card
    std::vector<std::string> nodes;  // "/dev/video0": camera first
};

// A line of the controller's status: ports of high speed alone, others are left out.
struct PortStatus {
    int port;
    bool free;
    std::string device;  // "1-1" when one hangs there
};
std::vector<PortStatus> ReadPortStatus(const std::string& text);

class UsbHost {
  public:
    virtual ~UsbHost() = default;
    // Plugs a device in, whose other end `socket` is; it may be closed then. The port, or -1 and
    // why.
    virtual int Attach(int controller, int socket, std::string& error) = 0;
    virtual void Detach(int port) = 0;
    // Nothing yet when the kernel has no name for the device, or not all of what is wanted.
    virtual std::optional<Place> Find(int port, bool wantsCard, bool wantsCamera) = 0;
    // True when nothing hangs on the port any more, and the kernel has taken leave of what did.
    virtual bool IsFree(int port) = 0;
};

// The controller of the running kernel, through its files.
class VhciHost : public UsbHost {
  public:
    // Folders as they are in a running system; tests have their own.
    struct Folders {
        std::string controller = "/sys/devices/platform/vhci_hcd.0";
        std::string devices = "/sys/bus/usb/devices";
        std::string sound = "/proc/asound";
        std::string media = "/sys/bus/media";  // not there: this kernel makes no media devices
    };
    VhciHost() = default;
    explicit VhciHost(Folders folders) : m_folders(std::move(folders)) {}

    int Attach(int controller, int socket, std::string& error) override;
    void Detach(int port) override;
    std::optional<Place> Find(int port, bool wantsCard, bool wantsCamera) override;
    bool IsFree(int port) override;

  private:
    std::string StatusText(int controller) const;
    // Of a port that was attached; nothing for any other.
    std::optional<PortStatus> StatusOf(int port) const;
    // The port is free, but the kernel still has its last device. Another one that came now would
    // be overlooked: the kernel finds the port in use, as it was.
    bool IsLeaving(int port) const;
    Folders m_folders;
    std::map<int, int> m_controllerOf;          // by port
    std::map<int, std::string> m_lastDeviceOf;  // by port: "1-1"
};

}  // namespace qvsim::usb
