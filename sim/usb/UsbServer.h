// Serves emulated devices on a host: plugs them in one after another, answers what the kernel
// asks, unplugs them.
//
// One thread serves all devices and waits for nothing else; pictures and sounds come when their
// time has come. While it runs it takes orders, one a line: `unplug SERIAL`, `plug SERIAL`. On a
// terminal it takes them while it is in the foreground; its process must block SIGTTIN, or the
// first key that is meant for another program stops it.
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
    // `played`: a folder for what is played to the devices, SERIAL-STREAM.raw each; "": nowhere.
    UsbServer(std::vector<PluggedSpec> specs, UsbHost& host, std::string played, Report report);
    ~UsbServer();
    UsbServer(const UsbServer&) = delete;
    UsbServer& operator=(const UsbServer&) = delete;

    // Plugs all devices in, in order: the kernel knows each completely before the next comes. An
    // empty text, or why not. Ends early, see Stopped(), when `stop` is readable.
    std::string Start(int stop);
    // Serves until `stop`, the same, is readable, and takes orders from `orders` (-1: none) until
    // that ends. All devices are unplugged when it returns. Returns an
    // error message, empty when it was ended.
    std::string Run(int orders);
    // `stop` was readable.
    bool Stopped() const { return m_stopped; }

    // How long a device may take to become known.
    std::chrono::milliseconds patience{20000};

  private:
    struct Plug {
        PluggedSpec spec;
        std::unique_ptr<EmulatedDevice> device;  // null: unplugged
        int socket = -1;
        int port = -1;
        bool plugged = false;  // was once
    };

    std::string PlugIn(Plug& plug);
    std::string Announce(Plug& plug);
    void Unplug(Plug& plug);
    void ServeSocket(Plug& plug);
    bool Send(Plug& plug, const Bytes& bytes);
    void GiveUp(Plug& plug, const char* why);
    // False: something is wrong with the descriptors.
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
    Micros m_ordersFrom = 0;  // not looked for before that time
    std::string m_order;      // the part of a line that has come
};

}  // namespace qvsim::usb
