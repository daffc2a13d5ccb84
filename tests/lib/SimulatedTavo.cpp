// A simulated USB capture device; see SimulatedTavo.h.
#include "lib/SimulatedTavo.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace fake {

namespace {

std::string Text(unsigned char command, unsigned size) {
    char text[32];
    snprintf(text, sizeof text, "0x%02X, %u", command, size);
    return text;
}

uint32_t Word(const unsigned char* data) {
    uint32_t word = 0;
    memcpy(&word, data, sizeof word);
    return word;
}

}  // namespace

Tavo& Tavo::Get() {
    static Tavo tavo;
    return tavo;
}

void Tavo::Reset() {
    devices.clear();
    cannotTell = false;
    scribbles = false;
    values.clear();
    flash.assign(1 << 16, 0xFF);
    busyPolls = 0;
    handlesOpen = 0;
    wrongAnswers = 0;
    lastSet = 0;
    lastPayload.clear();
    payloads.clear();
    m_texts.clear();
    m_reading = false;
    m_busy = 0;
    ForgetCalls();
}

void Tavo::AddDevice(const std::string& path, const std::string& product, const std::string& usbBus,
                     const std::string& serial) {
    _QVUSBCAP_CHANNEL_ENTRY entry{};
    snprintf(entry.path, sizeof entry.path, "%s", path.c_str());
    snprintf(entry.info.familyName, sizeof entry.info.familyName, "Tavo Capture");
    snprintf(entry.info.productName, sizeof entry.info.productName, "%s", product.c_str());
    entry.family = {0x11111111, 0x22222222, 0x3333};
    devices.push_back(entry);
    m_texts[path] = {usbBus, serial};
    const auto* info = reinterpret_cast<const unsigned char*>(&entry.info);
    values[1].assign(info, info + sizeof entry.info);
}

int Tavo::GetData(unsigned char command, unsigned char* data, unsigned size) {
    const std::lock_guard lock(mutex);
    int result = 0;
    if (Enter("get", Text(command, size), &result)) {
        if (scribbles) memset(data, 0x77, size);
        return result;
    }
    const std::vector<unsigned char>& value = values[command];
    memset(data, 0, size);
    if (!value.empty()) memcpy(data, value.data(), std::min<size_t>(size, value.size()));
    return static_cast<int>(size);
}

int Tavo::SetData(unsigned char command, unsigned char* data, unsigned size, unsigned answered) {
    const std::lock_guard lock(mutex);
    int result = 0;
    if (Enter("set", Text(command, size), &result)) return result;
    // Of all commands two are answered, and a firmware packet when it is a read.
    const bool isAnswered = command == 0xF4 || (command == 0xF3 && m_reading);
    if (answered != (isAnswered ? size : 0)) ++wrongAnswers;
    if (command != 0xF4) {
        lastSet = command;
        lastPayload.assign(data, data + size);
    }
    switch (command) {
        case 0xF1:
            std::fill_n(flash.begin() + Word(data), Word(data + 4), 0xFF);
            m_busy = busyPolls;
            break;
        case 0xF2:
            m_reading = true;
            break;
        case 0xF3:
            payloads.emplace_back(data, data + size);
            Firmware(data, size);
            break;
        case 0xF4:
            data[0] = m_busy > 0 ? 1 : 0;
            m_busy = std::max(m_busy - 1, 0);
            break;
        default:
            values[command].assign(data, data + size);
    }
    return static_cast<int>(size);
}

void Tavo::Firmware(unsigned char* data, unsigned size) {
    const uint32_t address = Word(data);
    const uint32_t count = Word(data + 4);
    if (size != 2056 || count > 2048 || uint64_t{address} + count > flash.size()) return;
    if (m_reading)
        std::copy_n(flash.begin() + address, count, data + 8);
    else
        std::copy_n(data + 8, count, flash.begin() + address);
    if (!m_reading) m_busy = busyPolls;
    m_reading = false;
}

int Tavo::Find(_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity) const {
    const int count = std::min<int>(capacity, static_cast<int>(devices.size()));
    std::copy_n(devices.begin(), count, entries);
    return cannotTell ? -1 : static_cast<int>(devices.size());
}

int Tavo::Open(const std::string& path, QV_USB_DEVICE* device) {
    const auto found = m_texts.find(path);
    if (found == m_texts.end()) return -1;
    device->handle = this;
    // As many characters as there is room for, without a terminator: a device need not be kind.
    const auto& [usbBus, serial] = found->second;
    memcpy(device->usbBus, usbBus.data(), std::min(usbBus.size(), sizeof device->usbBus));
    memcpy(device->serial, serial.data(), std::min(serial.size(), sizeof device->serial));
    ++handlesOpen;
    return 0;
}

QV_RESULT Tavo::Supply() {
    QV_USB_TRANSPORT transport{};
    transport.size = sizeof transport;
    transport.find = [](_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity, void* user) {
        return static_cast<Tavo*>(user)->Find(entries, capacity);
    };
    transport.open = [](const char* path, QV_USB_DEVICE* device, void* user) {
        return static_cast<Tavo*>(user)->Open(path, device);
    };
    transport.close = [](void*, void* user) { --static_cast<Tavo*>(user)->handlesOpen; };
    transport.get = [](void*, unsigned char command, void* data, unsigned int size, void* user) {
        return static_cast<Tavo*>(user)->GetData(command, static_cast<unsigned char*>(data), size);
    };
    transport.set = [](void*, unsigned char command, void* data, unsigned int size,
                       unsigned int answered, void* user) {
        return static_cast<Tavo*>(user)->SetData(command, static_cast<unsigned char*>(data), size,
                                                 answered);
    };
    return QVSetUSBTransport(&transport, this);
}

}  // namespace fake
