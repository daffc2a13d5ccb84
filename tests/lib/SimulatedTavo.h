// A simulated USB capture device in place of the placeholder transport.
//
// Defines the functions of QVUSBTransport.h: a test program that links this gets devices that are
// listed, open, keep what is set, and have flash behind the firmware commands. Transfers are logged
// as "get(0x01, 224)" and "set(...)"; a refused one returns the result given with the refusal.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "QVUSBTransport.h"
#include "lib/CallLog.h"

namespace fake {

class Tavo : public CallLog {
  public:
    static Tavo& Get();
    void Reset();
    using CallLog::ForgetCalls;

    // Lists one device; its channel information answers command 1.
    void AddDevice(const std::string& path, const std::string& product, const std::string& usbBus,
                   const std::string& serial);

    std::vector<_QVUSBCAP_CHANNEL_ENTRY> devices;
    bool cannotTell = false;                           // finding devices fails, late
    bool scribbles = false;                            // a refused get has written into its buffer
    std::map<int, std::vector<unsigned char>> values;  // by command; unset ones read as zeros
    std::vector<unsigned char> flash;
    int busyPolls = 0;  // how often the device says busy after an erase or write
    int handlesOpen = 0;
    unsigned char lastSet = 0;
    std::vector<unsigned char> lastPayload;            // of the last set, as it was sent
    std::vector<std::vector<unsigned char>> payloads;  // of all firmware packets, as they were sent

    // Used by the transport functions.
    int GetData(unsigned char command, unsigned char* data, unsigned size);
    int SetData(unsigned char command, unsigned char* data, unsigned size);
    _QVUSB_DEVICE_CONTEXT* Open(const std::string& path);

  private:
    void Firmware(unsigned char* data, unsigned size);
    std::map<std::string, std::pair<std::string, std::string>> m_texts;  // bus, serial; by path
    bool m_reading = false;  // the next firmware packet is a read
    int m_busy = 0;
};

}  // namespace fake
