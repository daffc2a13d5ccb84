// The transport that the program supplied, and the devices that it has open; see QVUSBTransport.h.
#include "QVUSBTransport.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

struct libusb_device_handle {
    QV_USB_DEVICE device;
    char path[sizeof _QVUSBCAP_CHANNEL_ENTRY::path];
    int channels;           // that share it
    pthread_mutex_t order;  // recursive; held for each transfer
    libusb_device_handle* next;
};

namespace {

constexpr int kFailed = -1;

// Never destroyed: channels may be closed while the process ends.
struct Seam {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;  // everything but transfers and the search
    QV_USB_TRANSPORT transport = {};                   // zeros: none
    void* user = nullptr;
    bool instance = false;
    bool started = false;
    libusb_device_handle* devices = nullptr;
};
constinit Seam g_seam;

class Held {
  public:
    explicit Held(pthread_mutex_t* mutex) : m_mutex(mutex) { pthread_mutex_lock(m_mutex); }
    ~Held() { pthread_mutex_unlock(m_mutex); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

  private:
    pthread_mutex_t* m_mutex;
};

bool IsComplete(const QV_USB_TRANSPORT& transport) {
    return transport.size >= sizeof transport && transport.find != nullptr &&
           transport.open != nullptr && transport.close != nullptr && transport.get != nullptr &&
           transport.set != nullptr;
}

void StopWhenUnused() {
    if (!g_seam.started || g_seam.instance || g_seam.devices != nullptr) return;
    g_seam.started = false;
    if (g_seam.transport.stop != nullptr) g_seam.transport.stop(g_seam.user);
}

libusb_device_handle* FindOpen(const char* path) {
    libusb_device_handle* device = g_seam.devices;
    while (device != nullptr && strcmp(device->path, path) != 0) device = device->next;
    return device;
}

// The texts come from the transport and may lack a terminator.
template <size_t size>
void Terminate(char (&text)[size]) {
    text[size - 1] = '\0';
}

void MakeRecursive(pthread_mutex_t* mutex) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

libusb_device_handle* OpenOnce(const char* path) {
    auto* device = static_cast<libusb_device_handle*>(calloc(1, sizeof(libusb_device_handle)));
    if (device == nullptr) return nullptr;
    if (g_seam.transport.open(path, &device->device, g_seam.user) < 0 ||
        device->device.handle == nullptr) {
        free(device);
        return nullptr;
    }
    Terminate(device->device.usbBus);
    Terminate(device->device.serial);
    strcpy(device->path, path);
    MakeRecursive(&device->order);
    device->next = g_seam.devices;
    g_seam.devices = device;
    return device;
}

void CloseForLast(libusb_device_handle* device) {
    libusb_device_handle** link = &g_seam.devices;
    while (*link != device) link = &(*link)->next;
    *link = device->next;
    g_seam.transport.close(device->device.handle, g_seam.user);
    pthread_mutex_destroy(&device->order);
    free(device);
    StopWhenUnused();
}

}  // namespace

// ---- Life ------------------------------------------------------------------------------------

QV_RESULT QVUSBSetTransport(const QV_USB_TRANSPORT* transport, void* user) {
    if (transport != nullptr && !IsComplete(*transport)) return QV_RESULT_BAD_ARGUMENT;
    const Held held(&g_seam.lock);
    if (g_seam.instance || g_seam.started) return QV_RESULT_FAILED;
    g_seam.transport = transport != nullptr ? *transport : QV_USB_TRANSPORT{};
    g_seam.user = transport != nullptr ? user : nullptr;
    return QV_RESULT_OK;
}

QV_RESULT QVUSBStart() {
    const Held held(&g_seam.lock);
    g_seam.instance = true;
    if (g_seam.started) return QV_RESULT_OK;
    const QV_USB_TRANSPORT& transport = g_seam.transport;
    if (transport.find == nullptr) return QV_RESULT_FAILED;
    if (transport.start != nullptr && transport.start(g_seam.user) < 0) return QV_RESULT_FAILED;
    g_seam.started = true;
    return QV_RESULT_OK;
}

void QVUSBStop() {
    const Held held(&g_seam.lock);
    g_seam.instance = false;
    StopWhenUnused();
}

// ---- Devices ---------------------------------------------------------------------------------

int QVUSBFindDevices(_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity) {
    {
        const Held held(&g_seam.lock);
        if (!g_seam.started) return kFailed;
    }
    const int told = g_seam.transport.find(entries, capacity, g_seam.user);
    if (told < 0) return kFailed;
    // An entry without a path cannot be opened, whatever the count says.
    const auto end =
        std::remove_if(entries, entries + std::min(told, capacity),
                       [](const _QVUSBCAP_CHANNEL_ENTRY& entry) { return entry.path[0] == '\0'; });
    std::for_each(entries, end, [](_QVUSBCAP_CHANNEL_ENTRY& entry) { Terminate(entry.path); });
    return static_cast<int>(end - entries);
}

_QVUSB_DEVICE_CONTEXT* QVUSBOpenDevice(const char* path) {
    if (path[0] == '\0' || strlen(path) >= sizeof _QVUSBCAP_CHANNEL_ENTRY::path) return nullptr;
    auto* context = static_cast<_QVUSB_DEVICE_CONTEXT*>(calloc(1, sizeof(_QVUSB_DEVICE_CONTEXT)));
    if (context == nullptr) return nullptr;
    const Held held(&g_seam.lock);
    libusb_device_handle* device = g_seam.started ? FindOpen(path) : nullptr;
    if (device == nullptr && g_seam.started) device = OpenOnce(path);
    if (device == nullptr) {
        free(context);
        return nullptr;
    }
    ++device->channels;
    context->handle = device;
    memcpy(context->usbBus, device->device.usbBus, sizeof context->usbBus);
    memcpy(context->serial, device->device.serial, sizeof context->serial);
    return context;
}

void QVUSBCloseDevice(libusb_device_handle* handle) {
    const Held held(&g_seam.lock);
    if (--handle->channels == 0) CloseForLast(handle);
}

// ---- Transfers -------------------------------------------------------------------------------

QVUSBAlone::QVUSBAlone(libusb_device_handle* handle) : m_order(&handle->order) {
    pthread_mutex_lock(m_order);
}

QVUSBAlone::~QVUSBAlone() { pthread_mutex_unlock(m_order); }

int QVUSBGetData(libusb_device_handle* handle, unsigned char command, void* data,
                 unsigned int size) {
    if (handle == nullptr) return kFailed;
    const QVUSBAlone alone(handle);
    return g_seam.transport.get(handle->device.handle, command, data, size, g_seam.user);
}

int QVUSBSetData(libusb_device_handle* handle, unsigned char command, void* data, unsigned int size,
                 unsigned int answered) {
    if (handle == nullptr) return kFailed;
    const QVUSBAlone alone(handle);
    return g_seam.transport.set(handle->device.handle, command, data, size, answered, g_seam.user);
}

// ---- Coming and going ------------------------------------------------------------------------

bool QVUSBCanWatch() {
    const Held held(&g_seam.lock);
    return g_seam.started && g_seam.transport.hotPlug != nullptr;
}

int QVUSBWaitHotPlug(int milliseconds, _QVUSBHOT_PLUG_EVETN* event, char* path) {
    return g_seam.transport.hotPlug(milliseconds, event, path, g_seam.user);
}
