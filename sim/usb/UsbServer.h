// Serves emulated devices on a host: plugs them in one after another, answers the kernel, and
// unplugs them.
//
// One thread serves all devices and waits for nothing else; pictures and sounds are sent when they
// are due. While it runs it accepts orders, one per line: `unplug SERIAL`, `plug SERIAL`. On a
// terminal it accepts them while it is in the foreground; its process must block SIGTTIN, or the
// first key for another program stops it.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "EmulatedDevice.h"
#include "UsbHost.h"

namespace qvsim::usb {

struct PluggedSpec {
    DeviceSpec device;
    int controller = 0;
};

class UsbServer {
  public:
    using Report = std::function<void(const std::string& line)>;
    // `played`: a folder for the sound played to the devices, in files SERIAL-STREAM.raw; "": not
    // stored.
    UsbServer(std::vector<PluggedSpec> specs, UsbHost& host, std::string played, Report report);
    ~UsbServer();
    UsbServer(const UsbServer&) = delete;
    UsbServer& operator=(const UsbServer&) = delete;

    // Plugs in all devices, in order: the kernel knows each completely before the next comes.
    // Returns an error message, empty on success. Ends early, see Stopped(), when `stop` is
    // readable.
    std::string Start(int stop);
    // Serves until `stop`, the same descriptor, is readable, and accepts orders from `orders` (-1:
    // none) until that ends. All devices are unplugged when it returns. Returns an error message,
    // empty when `stop` ended it.
    std::string Run(int orders);
    // Whether `stop` was readable.
    bool Stopped() const { return m_stopped; }

    // How long the kernel may ask a device nothing before the device is set up.
    std::chrono::milliseconds patience{20000};

  private:
    struct Plug {
        PluggedSpec spec;
        std::unique_ptr<EmulatedDevice> device;  // null: unplugged
        int socket = -1;
        int port = -1;
        bool plugged = false;  // has been plugged in before
        bool asked = false;    // something, since Announce() last looked
    };

    std::string PlugIn(Plug& plug);
    std::string Announce(Plug& plug);
    void Unplug(Plug& plug);
    void ServeSocket(Plug& plug);
    bool Send(Plug& plug, const Bytes& bytes);
    void GiveUp(Plug& plug, const char* why);
    // False: an error of a descriptor.
    bool ServeOnce(int timeout);
    void TakeOrders();
    void Obey(const std::string& line);
    bool OrdersRest() const;
    int TimeToNext() const;
    AudioFunction::Listener ListenerFor(const DeviceSpec& spec) const;

    std::vector<Plug> m_plugs;
    UsbHost& m_host;
    std::string m_played;
    Report m_report;
    int m_stop = -1;
    bool m_stopped = false;
    int m_orders = -1;
    Micros m_ordersFrom = 0;  // no order is read before that time
    std::string m_order;      // the received part of a line
};

}  // namespace qvsim::usb
