// A simulated USB capture device, supplied to the library as a transport.
//
// After Supply() there are devices that are listed, open, keep what is set, and have flash behind
// the firmware commands. Transfers are logged
// as "get(0x01, 224)" and "set(...)"; a refused one returns the result given with the refusal.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "QVCaptureUSB.h"
#include "lib/CallLog.h"

namespace fake {

class Tavo : public CallLog {
  public:
    static Tavo& Get();
    void Reset();
    QV_RESULT Supply();  // to the library; the instance must not be there yet
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
    int wrongAnswers = 0;  // sets that expected another number of bytes back
    unsigned char lastSet = 0;
    std::vector<unsigned char> lastPayload;            // of the last set, as it was sent
    std::vector<std::vector<unsigned char>> payloads;  // of all firmware packets, as they were sent

  private:
    int Find(_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity) const;
    int Open(const std::string& path, QV_USB_DEVICE* device);
    int GetData(unsigned char command, unsigned char* data, unsigned size);
    int SetData(unsigned char command, unsigned char* data, unsigned size, unsigned answered);
    void Firmware(unsigned char* data, unsigned size);
    std::map<std::string, std::pair<std::string, std::string>> m_texts;  // bus, serial; by path
    bool m_reading = false;  // the next firmware packet is a read
    int m_busy = 0;
};

}  // namespace fake
