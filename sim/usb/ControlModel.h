// Executes the commands of a USB device: identity, settings, flash, and its faults.
//
// Transfers arrive as commands and bytes, from endpoint 0 of an emulated device or from a transport
// in the process. As on the device, a write is a read when an address came before it; while the
// device is busy it accepts neither. Flash and running version are kept in a folder, or in memory;
// settings last as long as the object. One thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FaultSet.h"
#include "NorFlash.h"
#include "QVCaptureTypes.h"
#include "UsbPlan.h"
#include "UsbWire.h"

namespace qvsim::usb {

class ControlModel {
  public:
    // `number` distinguishes the devices of a scenario: the index of its board. `folder`: "" for
    // memory. Returns an error message, empty on success.
    static std::string Make(const UsbPlan& plan, int number, const std::string& folder,
                            std::unique_ptr<ControlModel>& out);

    const std::string& Serial() const { return m_serial; }
    // The file of the flash; "" in memory.
    const std::string& FlashPath() const { return m_flashPath; }
    NorFlash& Flash() { return *m_flash; }
    uint32_t Version() const { return m_info.firmwareVersion; }
    _QVCAP_CHANNEL_INFO Info() const { return m_info; }

    // False when it was pulled out or has lost its power.
    bool Present() const { return !m_gone && !m_lost; }
    // Plugs it in again after it was pulled out or lost its power: the firmware in the flash runs.
    void PowerCycle();

    // Called when a program opens it. False: it does not answer.
    bool Open();
    // Its answer; nothing when it refuses.
    std::optional<Bytes> Get(uint8_t command, size_t size);
    // Whether it accepts the payload. The answer, if there is one, must be fetched before the next
    // transfer.
    bool Set(uint8_t command, const Bytes& payload);
    std::optional<Bytes> Answer();

    // Every transfer, one per line: "erase 0x1000+4096", "poll", "get 0x01". With a folder they are
    // also in the file SERIAL.transfers.
    const std::vector<std::string>& Transfers() const { return m_transfers; }

  private:
    ControlModel() = default;
    std::string OpenFiles(const UsbPlan& plan, const std::string& folder);
    std::string FillNew(const UsbControl& control);
    void Save() const;
    // Finds the faults that hit this transfer. False when the device does not even see it.
    bool Meet(const std::string& name, const std::string& line);
    bool Has(FaultKind kind) const { return EffectOf(m_effects, kind).has_value(); }
    // How many of `size` bytes are done before the power fails or the work stops half-way.
    uint32_t Share(uint32_t size) const;
    // The end of a transfer that was carried out: whether it reports success.
    bool Finish();
    std::optional<Bytes> Payload(uint8_t command, size_t size) const;
    bool Erase(const Bytes& payload);
    bool Firmware(const Bytes& payload);
    bool ReadFirmware(uint32_t address, uint32_t size, const Bytes& payload);
    bool WriteFirmware(uint32_t address, uint32_t size, const uint8_t* data);
    bool Poll();
    bool Option(uint8_t option);

    std::string m_serial;
    std::string m_flashPath;
    std::string m_statePath;
    std::string m_transfersPath;
    _QVCAP_CHANNEL_INFO m_info{};
    _QVCAP_FIRMWARE_STORAGE m_storage{};
    uint32_t m_golden = 0;
    int m_busyPolls = 0;
    std::unique_ptr<NorFlash> m_flash;
    FaultSet m_faults;
    std::vector<FaultEffect> m_effects;  // of the current transfer
    std::map<uint8_t, Bytes> m_settings;
    std::map<uint8_t, Bytes> m_saved;
    std::optional<Bytes> m_answer;
    std::optional<uint32_t> m_readAddress;  // the next firmware packet is a read
    uint32_t m_lastAddress = 0;
    int m_busy = 0;
    bool m_gone = false;
    bool m_lost = false;
    std::vector<std::string> m_transfers;
};

}  // namespace qvsim::usb
