#include "ControlModel.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "FirmwareImage.h"
#include "PlainFiles.h"

namespace qvsim::usb {
namespace {

constexpr uint8_t kErase = 0xF1;
constexpr uint8_t kReadAddress = 0xF2;
constexpr uint8_t kFirmware = 0xF3;
constexpr uint8_t kBusy = 0xF4;
constexpr uint8_t kOptions = 0xFE;
constexpr uint8_t kEdid = 0x98;
constexpr uint8_t kEdidLoopThrough = 0x99;
constexpr size_t kLongestEdid = 512;
constexpr size_t kPacketData = 2048;
constexpr size_t kPacketHead = 8;

// The commands of the device: command, bytes, get, set.
struct Row {
    uint8_t command;
    size_t size;
    bool get;
    bool set;
};
constexpr Row kRows[] = {
    {0x01, 224, true, false}, {0x02, 10, true, false}, {0x03, 12, true, false},
    {0x04, 4, true, false},   {0x05, 4, false, true},  {0x07, 9, false, true},
    {0x08, 8, true, false},   {0x09, 65, true, false}, {0x0A, 65, true, false},
    {0x0B, 1, true, true},    {0x0C, 1, true, false},  {0x0D, 1, true, true},
    {0x0E, 4, true, true},    {0x0F, 4, true, true},   {0x10, 61, true, false},
    {0x11, 58, true, false},  {0x12, 33, true, false}, {0x13, 8, true, true},
    {0x14, 4, true, true},    {0x15, 4, true, true},   {0x16, 37, true, false},
    {0x17, 44, true, true},   {0x18, 13, true, true},  {0x19, 98, true, true},
    {0x1A, 34, true, true},   {0x90, 1, true, true},   {0x91, 1, true, true},
    {0x92, 1, true, true},    {0x93, 28, false, true}, {0x94, 225, true, false},
    {0x95, 27, false, true},  {0x96, 217, true, true}, {0x97, 65, true, true},
    {0x9A, 1, true, true},    {0x9B, 1, true, false},  {0xA0, 4, true, false},
    {0xA1, 31, true, false},  {0xA2, 31, true, false}, {0xA3, 31, true, false},
    {0xA4, 31, true, false},  {0xA5, 31, true, false}, {0xA6, 31, true, false},
    {0xA7, 31, true, false},  {0xA8, 31, true, false}, {0xA9, 31, true, false},
    {0xAA, 31, true, false},  {0xAB, 31, true, false}, {0xAC, 31, true, false},
    {0xB0, 56, true, false},  {0xB1, 56, true, false}, {0xB2, 56, true, false},
    {0xB3, 56, true, false},  {0xB4, 56, true, false}, {0xB5, 56, true, false},
    {0xB6, 56, true, false},  {0xB7, 56, true, false}, {0xF0, 16, true, false},
    {0xF1, 8, false, true},   {0xF2, 4, true, true},   {0xF3, 2056, false, true},
    {0xF4, 1, false, true},   {0xFC, 1, true, true},   {0xFD, 1, true, true},
    {0xFE, 1, false, true},   {0xFF, 4, true, false},
};

bool Takes(uint8_t command, size_t size, bool set) {
    if (command == kEdid) return size <= kLongestEdid;
    if (command == kEdidLoopThrough) return !set && size <= kLongestEdid;
    return std::any_of(std::begin(kRows), std::end(kRows), [=](const Row& row) {
        return row.command == command && row.size == size && (set ? row.set : row.get);
    });
}

uint32_t LittleEndianWord(const uint8_t* bytes) {
    return bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

Bytes WordBytes(uint32_t word) {
    return {static_cast<uint8_t>(word), static_cast<uint8_t>(word >> 8),
            static_cast<uint8_t>(word >> 16), static_cast<uint8_t>(word >> 24)};
}

template <class Record>
Bytes BytesOf(const Record& record) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
    return Bytes(bytes, bytes + sizeof record);
}

std::string Hex(const char* before, uint32_t value, int digits) {
    char text[48];
    std::snprintf(text, sizeof text, "%s0x%0*X", before, digits, value);
    return text;
}

std::string Range(const char* what, uint32_t address, uint32_t size) {
    return Hex(what, address, 1) + "+" + std::to_string(size);
}

template <size_t size>
void Put(char (&field)[size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(text.size(), size));
}

}  // namespace

// ---- making and keeping ----------------------------------------------------------------------

std::string ControlModel::Make(const UsbPlan& plan, int number, const std::string& folder,
                               std::unique_ptr<ControlModel>& out) {
    std::unique_ptr<ControlModel> model(new ControlModel);
    const UsbControl& control = *plan.control;
    model->m_serial = plan.serial;
    Put(model->m_info.familyName, "Tavo Capture");
    Put(model->m_info.productName, plan.product);
    Put(model->m_info.boardSerialNumber, plan.serial);
    model->m_info.productCode = plan.productCode;
    model->m_info.hardwareVersion = plan.hardware[0];
    model->m_info.boardIndex = static_cast<uint8_t>(number);
    model->m_info.firmwareVersion = control.firmware;
    model->m_storage.firmwareOffset = control.firmwareOffset;
    model->m_golden = control.golden;
    model->m_busyPolls = control.busyPolls;
    for (const Fault& fault : control.faults) model->m_faults.Add(fault);
    if (std::string error = model->OpenFiles(plan, folder); !error.empty()) return error;
    out = std::move(model);
    return {};
}

std::string ControlModel::OpenFiles(const UsbPlan& plan, const std::string& folder) {
    std::string state;
    if (!folder.empty()) {
        m_flashPath = folder + "/" + m_serial + ".flash";
        m_statePath = folder + "/" + m_serial + ".state";
        m_transfersPath = folder + "/" + m_serial + ".transfers";
        state = ReadText(m_statePath);
    }
    const uint32_t size = plan.control->flashSize;
    m_flash = m_flashPath.empty() ? std::make_unique<NorFlash>(size) : std::make_unique<NorFlash>();
    if (!m_flashPath.empty())
        if (std::string error = m_flash->Open(m_flashPath, size); !error.empty()) return error;
    if (state.empty()) return FillNew(*plan.control);
    int lost = 0;
    if (std::sscanf(state.c_str(), "version=0x%x lost=%d\n", &m_info.firmwareVersion, &lost) != 2)
        return m_statePath + ": is no state of a USB device";
    m_lost = lost != 0;
    return {};
}

std::string ControlModel::FillNew(const UsbControl& control) {
    const Bytes header = MakeHeader(control.firmware, control.storedCode, m_info.productCode,
                                    static_cast<uint8_t>(m_info.hardwareVersion));
    const uint32_t at = control.firmwareOffset;
    if (!m_flash->Program(at, header.data(), static_cast<uint32_t>(header.size())) ||
        !m_flash->SetBootAddress(at))
        return m_serial + ": its flash cannot be written";
    Save();
    return {};
}

void ControlModel::Save() const {
    if (m_statePath.empty()) return;
    char text[64];
    std::snprintf(text, sizeof text, "version=0x%08x lost=%d\n", m_info.firmwareVersion,
                  m_lost ? 1 : 0);
    ReplaceFile(m_statePath, text);
}

void ControlModel::PowerCycle() {
    m_gone = m_lost = false;
    m_busy = 0;
    m_answer.reset();
    m_readAddress.reset();
    m_settings = m_saved;
    m_info.firmwareVersion = LoadFirmware(*m_flash, m_storage.firmwareOffset, m_golden);
    Save();
}

// ---- what goes wrong -------------------------------------------------------------------------

bool ControlModel::Meet(const std::string& name, const std::string& line) {
    if (!Present()) return false;
    m_transfers.push_back(line);
    if (!m_transfersPath.empty()) AppendText(m_transfersPath, line + "\n");
    m_effects = m_faults.Hits(name, -1, -1);
    if (Has(FaultKind::kNodeGone)) m_gone = true;
    return !m_gone && !Has(FaultKind::kRefuse);
}

uint32_t ControlModel::Share(uint32_t size) const {
    if (Has(FaultKind::kHalf)) return size / 2;
    const auto cut = EffectOf(m_effects, FaultKind::kPowerLoss);
    if (!cut) return size;
    switch (static_cast<CutPoint>(*cut)) {
        case CutPoint::kStart:
            return 0;
        case CutPoint::kEnd:
            return size > 0 ? size - 1 : 0;
        default:
            return size / 2;
    }
}

bool ControlModel::Finish() {
    if (Has(FaultKind::kPowerLoss)) {
        m_lost = true;
        Save();
    }
    if (!m_lost && !Has(FaultKind::kRefuseLate)) return true;
    m_answer.reset();
    return false;
}

// ---- transfers -------------------------------------------------------------------------------

bool ControlModel::Open() { return Meet(kOpen, "open") && Finish(); }

std::optional<Bytes> ControlModel::Payload(uint8_t command, size_t size) const {
    if (command == 0x01) return BytesOf(m_info);
    if (command == 0xF0) return BytesOf(m_storage);
    if (command == kReadAddress) return WordBytes(m_lastAddress);
    if (!Takes(command, size, false)) return std::nullopt;
    // A value that was never set is zeros.
    const auto found = m_settings.find(command);
    Bytes payload = found == m_settings.end() ? Bytes() : found->second;
    payload.resize(size);
    return payload;
}

std::optional<Bytes> ControlModel::Get(uint8_t command, size_t size) {
    const std::string name = Hex("", command, 2);
    if (!Meet(name, "get " + name) || !Takes(command, size, false)) return std::nullopt;
    std::optional<Bytes> payload = Payload(command, size);
    if (!Finish()) return std::nullopt;
    if (const auto shortened = EffectOf(m_effects, FaultKind::kShortRead))
        payload->resize(std::min<size_t>(payload->size(), *shortened));
    return payload;
}

bool ControlModel::Set(uint8_t command, const Bytes& payload) {
    m_answer.reset();
    if (!Takes(command, payload.size(), true)) return false;
    switch (command) {
        case kErase:
            return Erase(payload);
        case kReadAddress:
            if (!Meet("address", Hex("address ", LittleEndianWord(payload.data()), 1)))
                return false;
            if (!Has(FaultKind::kPretend))
                m_readAddress = m_lastAddress = LittleEndianWord(payload.data());
            return Finish();
        case kFirmware:
            return Firmware(payload);
        case kBusy:
            return Poll();
        default:
            break;
    }
    const std::string name = Hex("", command, 2);
    if (!Meet(name, "set " + name)) return false;
    if (command == kOptions) return Option(payload[0]) && Finish();
    if (!Has(FaultKind::kPretend)) m_settings[command] = payload;
    return Finish();
}

std::optional<Bytes> ControlModel::Answer() {
    if (!Present()) return std::nullopt;
    return std::exchange(m_answer, std::nullopt);
}

bool ControlModel::Option(uint8_t option) {
    if (option == 0) m_settings.clear();
    if (option == 1) m_settings = m_saved;
    if (option == 2) m_saved = m_settings;
    return option <= 2;
}

bool ControlModel::Poll() {
    if (!Meet("poll", "poll")) return false;
    m_answer = Bytes{static_cast<uint8_t>(m_busy > 0 ? 1 : 0)};
    m_busy = std::max(m_busy - 1, 0);
    return Finish();
}

// ---- firmware --------------------------------------------------------------------------------

bool ControlModel::Erase(const Bytes& payload) {
    const uint32_t address = LittleEndianWord(payload.data());
    const uint32_t size = LittleEndianWord(payload.data() + 4);
    if (!Meet("erase", Range("erase ", address, size))) return false;
    if (m_busy > 0 || !m_flash->InRange(address, size)) return false;
    if (Has(FaultKind::kPretend)) return Finish();
    const uint32_t done = Share(size);
    if (!m_flash->Erase(address, done)) return false;
    constexpr uint8_t kLeft = 0x5A;
    if (Has(FaultKind::kNotBlank) && size > 0) m_flash->Program(address, &kLeft, 1);
    m_busy = m_busyPolls;
    return Finish();
}

bool ControlModel::Firmware(const Bytes& payload) {
    const uint32_t address = LittleEndianWord(payload.data());
    const uint32_t size = LittleEndianWord(payload.data() + 4);
    const bool reads = m_readAddress.has_value();
    const bool right = !reads || *m_readAddress == address;
    m_readAddress.reset();
    if (!Meet(reads ? "read" : "write", Range(reads ? "read " : "write ", address, size)))
        return false;
    if (m_busy > 0 || !right || size > kPacketData || !m_flash->InRange(address, size))
        return false;
    return reads ? ReadFirmware(address, size, payload)
                 : WriteFirmware(address, size, payload.data() + kPacketHead);
}

bool ControlModel::ReadFirmware(uint32_t address, uint32_t size, const Bytes& payload) {
    m_answer = payload;
    uint8_t* const data = m_answer->data() + kPacketHead;
    if (!m_flash->Read(address, data, size)) return false;
    const auto flip = EffectOf(m_effects, FaultKind::kFlipBit);
    if (flip && *flip / 8 < size)
        data[*flip / 8] = static_cast<uint8_t>(data[*flip / 8] ^ 1 << *flip % 8);
    if (const auto shortened = EffectOf(m_effects, FaultKind::kShortRead))
        m_answer->resize(std::min<size_t>(m_answer->size(), *shortened));
    return Finish();
}

bool ControlModel::WriteFirmware(uint32_t address, uint32_t size, const uint8_t* data) {
    const auto stuck = static_cast<uint8_t>(EffectOf(m_effects, FaultKind::kStuckBits).value_or(0));
    const uint32_t done = Has(FaultKind::kPretend) ? 0 : Share(size);
    if (!m_flash->Program(address, data, done, stuck)) return false;
    const uint32_t main = m_storage.firmwareOffset;
    const bool isHeader = address == main || address == main + kSafeHeaderDistance;
    if (isHeader && done > 0 && !m_flash->SetBootAddress(address)) return false;
    m_busy = m_busyPolls;
    return Finish();
}

}  // namespace qvsim::usb
