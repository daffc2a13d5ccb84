#include "ProcessTransport.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace qvsim::usb {
namespace {

constexpr int kFailed = -1;

ProcessTransport& Me(void* user) { return *static_cast<ProcessTransport*>(user); }

}  // namespace

std::string ProcessTransport::Fill(const std::vector<UsbPlan>& devices, const std::string& folder) {
    for (const UsbPlan& plan : devices) {
        if (!plan.control) continue;
        auto socket = std::make_unique<Socket>();
        if (std::string error = ControlModel::Make(plan, static_cast<int>(m_sockets.size()), folder,
                                                   socket->device);
            !error.empty())
            return error;
        socket->path = folder.empty() ? "usb:" + plan.serial : socket->device->FlashPath();
        m_sockets.push_back(std::move(socket));
    }
    return {};
}

const QV_USB_TRANSPORT& ProcessTransport::Table() {
    static const QV_USB_TRANSPORT kTable = {
        sizeof(QV_USB_TRANSPORT),
        [](void* user) { return Me(user).m_started++; },
        [](void* user) { --Me(user).m_started; },
        [](_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity, void* user) {
            return Me(user).List(entries, capacity);
        },
        [](const char* path, QV_USB_DEVICE* device, void* user) {
            return Me(user).Open(path, device);
        },
        [](void* handle, void* user) { Me(user).Close(handle); },
        [](void* handle, unsigned char command, void* data, unsigned int size, void* user) {
            return Me(user).Get(handle, command, data, size);
        },
        [](void* handle, unsigned char command, void* data, unsigned int size,
           unsigned int answered,
           void* user) { return Me(user).Set(handle, command, data, size, answered); },
        [](int milliseconds, _QVUSBHOT_PLUG_EVETN* event, char* path, void* user) {
            return Me(user).Wait(milliseconds, event, path);
        },
    };
    return kTable;
}

// ---- plugging --------------------------------------------------------------------------------

ProcessTransport::Socket* ProcessTransport::Find(const std::string& serial) {
    for (const auto& socket : m_sockets)
        if (socket->device->Serial() == serial) return socket.get();
    return nullptr;
}

ControlModel* ProcessTransport::Device(const std::string& serial) {
    Socket* const socket = Find(serial);
    return socket ? socket->device.get() : nullptr;
}

void ProcessTransport::Unplug(const std::string& serial) {
    const std::lock_guard guard(m_mutex);
    Socket& socket = *Find(serial);
    socket.plugged = false;
    m_events.emplace_back(QVUSB_HOT_PLUG_LEFT, socket.path);
    m_happened.notify_all();
}

void ProcessTransport::Plug(const std::string& serial) {
    const std::lock_guard guard(m_mutex);
    Socket& socket = *Find(serial);
    socket.plugged = true;
    ++socket.plugs;
    socket.device->PowerCycle();
    m_events.emplace_back(QVUSB_HOT_PLUG_ARRIVED, socket.path);
    m_happened.notify_all();
}

int ProcessTransport::Wait(int milliseconds, _QVUSBHOT_PLUG_EVETN* event, char* path) {
    std::unique_lock lock(m_mutex);
    if (!m_happened.wait_for(lock, std::chrono::milliseconds(milliseconds),
                             [this] { return !m_events.empty(); }))
        return 0;
    *event = m_events.front().first;
    std::snprintf(path, sizeof _QVUSBCAP_CHANNEL_ENTRY::path, "%s",
                  m_events.front().second.c_str());
    m_events.pop_front();
    return 1;
}

// ---- devices ---------------------------------------------------------------------------------

int ProcessTransport::List(_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity) {
    const std::lock_guard guard(m_mutex);
    int count = 0;
    for (const auto& socket : m_sockets) {
        if (!socket->plugged || !socket->device->Present()) continue;
        _QVUSBCAP_CHANNEL_ENTRY entry{};
        const auto info = socket->device->Get(0x01, sizeof entry.info);
        const auto family = socket->device->Get(0x02, sizeof entry.family);
        if (!info || info->size() != sizeof entry.info || !family ||
            family->size() != sizeof entry.family)
            continue;
        std::memcpy(&entry.info, info->data(), sizeof entry.info);
        std::memcpy(&entry.family, family->data(), sizeof entry.family);
        std::snprintf(entry.path, sizeof entry.path, "%s", socket->path.c_str());
        if (count < capacity) entries[count] = entry;
        ++count;
    }
    return count;
}

int ProcessTransport::Open(const std::string& path, QV_USB_DEVICE* device) {
    const std::lock_guard guard(m_mutex);
    for (const auto& socket : m_sockets) {
        if (socket->path != path || !socket->plugged || !socket->device->Open()) continue;
        device->handle = new Handle{socket.get(), socket->plugs};
        std::snprintf(device->serial, sizeof device->serial, "%s",
                      socket->device->Serial().c_str());
        ++m_opened;
        return 0;
    }
    return kFailed;
}

void ProcessTransport::Close(void* handle) {
    const std::lock_guard guard(m_mutex);
    delete static_cast<Handle*>(handle);
    --m_opened;
}

// The device of a handle, unless it was pulled out since.
ControlModel* ProcessTransport::Alive(void* handle) {
    const auto& [socket, plugs] = *static_cast<Handle*>(handle);
    return socket->plugged && socket->plugs == plugs ? socket->device.get() : nullptr;
}

int ProcessTransport::Get(void* handle, unsigned char command, void* data, size_t size) {
    const std::lock_guard guard(m_mutex);
    ControlModel* const device = Alive(handle);
    const auto payload = device ? device->Get(command, size) : std::nullopt;
    if (!payload || payload->size() != size) return kFailed;
    std::memcpy(data, payload->data(), size);
    return 0;
}

int ProcessTransport::Set(void* handle, unsigned char command, void* data, size_t size,
                          size_t answered) {
    const std::lock_guard guard(m_mutex);
    ControlModel* const device = Alive(handle);
    const auto* bytes = static_cast<const uint8_t*>(data);
    if (!device || !device->Set(command, Bytes(bytes, bytes + size))) return kFailed;
    if (answered == 0) return 0;
    const auto answer = device->Answer();
    if (!answer || answer->size() != answered) return kFailed;
    std::memcpy(data, answer->data(), answered);
    return 0;
}

}  // namespace qvsim::usb
