// The USB devices of a scenario as a transport in the process: no kernel, no bus.
//
// Each device's path is the file of its flash, or "usb:SERIAL" in memory. A handle whose device was
// pulled out fails for ever, even when the device is back. Any thread.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ControlModel.h"
#include "QVCaptureUSB.h"

namespace qvsim::usb {

class ProcessTransport {
  public:
    // Creates the devices that have a control table. `folder`: "" for memory. Returns an error
    // message, empty on success.
    std::string Fill(const std::vector<UsbPlan>& devices, const std::string& folder);
    // For QVSetUSBTransport(), with this object as `user`.
    static const QV_USB_TRANSPORT& Table();

    // Plugs or unplugs a device; the hot-plug watcher is notified.
    void Unplug(const std::string& serial);
    void Plug(const std::string& serial);
    // Null when there is no such device. Do not use it while the library works on the device.
    ControlModel* Device(const std::string& serial);
    int Opened() const { return m_opened; }
    int Started() const { return m_started; }

  private:
    struct Socket {
        std::unique_ptr<ControlModel> device;
        std::string path;
        bool plugged = true;
        unsigned plugs = 0;  // how often it was plugged in again
    };
    struct Handle {
        Socket* socket;
        unsigned plugs;
    };
    Socket* Find(const std::string& serial);
    ControlModel* Alive(void* handle);
    int List(_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity);
    int Open(const std::string& path, QV_USB_DEVICE* device);
    void Close(void* handle);
    int Get(void* handle, unsigned char command, void* data, size_t size);
    int Set(void* handle, unsigned char command, void* data, size_t size, size_t answered);
    int Wait(int milliseconds, _QVUSBHOT_PLUG_EVETN* event, char* path);

    std::mutex m_mutex;
    std::condition_variable m_happened;
    std::vector<std::unique_ptr<Socket>> m_sockets;
    std::deque<std::pair<_QVUSBHOT_PLUG_EVETN, std::string>> m_events;
    int m_opened = 0;
    int m_started = 0;
};

}  // namespace qvsim::usb
