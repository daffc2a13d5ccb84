// USB channels: registry, opening, transfers and the sound card's volume; see QVUSBCaptureBase.h.
#include "QVUSBCaptureBase.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "media/AudioVolume.h"

_QVUSBCAP_CHANNEL_ENTRY CQVUSBCaptureControlBase::m_arrUSBChannel[QV_MAX_CHANNELS];
int32_t CQVUSBCaptureControlBase::m_nUSBChannelCount;
uint32_t CQVUSBCaptureControlBase::m_bInit;
void* CQVUSBCaptureControlBase::m_ctx;
_QVUSB_HOTPLUG_ENTITY CQVUSBCaptureControlBase::m_hotplugEntity = {
    0, {}, 0, PTHREAD_MUTEX_INITIALIZER, nullptr, nullptr};

// ---- Registry --------------------------------------------------------------------------------

QV_RESULT CQVUSBCaptureControlBase::Init() {
    const QV_RESULT result = QVUSBStart();
    if (result == QV_RESULT_OK) m_bInit = 1;
    return result;
}

void CQVUSBCaptureControlBase::Exit() {
    UnRegisterHotPlug();
    m_bInit = 0;
    m_nUSBChannelCount = 0;
    QVUSBStop();
}

// The search fills a separate table: when it fails half-way the list does not change.
QV_RESULT CQVUSBCaptureControlBase::EnumDevice() {
    static _QVUSBCAP_CHANNEL_ENTRY entries[QV_MAX_CHANNELS];
    memset(entries, 0, sizeof entries);
    const int found = QVUSBFindDevices(entries, QV_MAX_CHANNELS);
    if (found < 0) return QV_RESULT_FAILED;
    memcpy(m_arrUSBChannel, entries, sizeof entries);
    m_nUSBChannelCount = found;
    return QV_RESULT_OK;
}

bool CQVUSBCaptureControlBase::Lists(const char* path) {
    const _QVUSBCAP_CHANNEL_ENTRY* begin = m_arrUSBChannel;
    return std::any_of(begin, begin + m_nUSBChannelCount,
                       [path](const _QVUSBCAP_CHANNEL_ENTRY& entry) {
                           return strncmp(entry.path, path, sizeof entry.path) == 0;
                       });
}

const _QVUSBCAP_CHANNEL_ENTRY* CQVUSBCaptureControlBase::Find(int index) {
    return index >= 0 && index < m_nUSBChannelCount ? &m_arrUSBChannel[index] : nullptr;
}

QV_RESULT CQVUSBCaptureControlBase::GetChannelInfoByIndex(int index, _QVCAP_CHANNEL_INFO* info) {
    const _QVUSBCAP_CHANNEL_ENTRY* entry = Find(index);
    if (entry == nullptr || info == nullptr) return QV_RESULT_BAD_ARGUMENT;
    *info = entry->info;
    return QV_RESULT_OK;
}

QV_RESULT CQVUSBCaptureControlBase::GetFamilyInfoByIndex(int index, _QVUSBCAP_CAPTURE_INFO* info) {
    const _QVUSBCAP_CHANNEL_ENTRY* entry = Find(index);
    if (entry == nullptr || info == nullptr) return QV_RESULT_BAD_ARGUMENT;
    *info = entry->family;
    return QV_RESULT_OK;
}

QV_RESULT CQVUSBCaptureControlBase::GetDevicePath(int index, char* path) {
    const _QVUSBCAP_CHANNEL_ENTRY* entry = Find(index);
    if (entry == nullptr || path == nullptr) return QV_RESULT_BAD_ARGUMENT;
    snprintf(path, sizeof entry->path, "%.*s", static_cast<int>(sizeof entry->path - 1),
             entry->path);
    return QV_RESULT_OK;
}

// ---- Opening and transfers -------------------------------------------------------------------

bool CQVUSBCaptureBase::OpenChannelByPath(const char* path) {
    if (m_pContext == nullptr && path != nullptr && CQVUSBCaptureControlBase::Lists(path))
        m_pContext = QVUSBOpenDevice(path);
    return m_pContext != nullptr;
}

void CQVUSBCaptureBase::CloseChannel() {
    if (m_pContext == nullptr) return;
    if (m_pContext->handle != nullptr) QVUSBCloseDevice(m_pContext->handle);
    free(m_pContext);
    m_pContext = nullptr;
}

namespace {

// out has as many bytes as the text, which may lack a terminator.
template <size_t size>
QV_RESULT CopyText(const char (&text)[size], char* out) {
    snprintf(out, size, "%.*s", static_cast<int>(size - 1), text);
    return QV_RESULT_OK;
}

}  // namespace

QV_RESULT CQVUSBCaptureBase::GetSerial(char* out) const {
    if (out == nullptr || m_pContext == nullptr) return QV_RESULT_FAILED;
    return CopyText(m_pContext->serial, out);
}

QV_RESULT CQVUSBCaptureBase::GetUsbbus(char* out) const {
    if (out == nullptr || m_pContext == nullptr) return QV_RESULT_FAILED;
    return CopyText(m_pContext->usbBus, out);
}

QV_RESULT CQVUSBCaptureBase::USBChannelGetData(unsigned char command, void* data,
                                               unsigned int size) {
    if (!IsOpen()) return QV_RESULT_FAILED;
    return QVUSBGetData(m_pContext->handle, command, data, size) < 0 ? QV_RESULT_FAILED
                                                                     : QV_RESULT_OK;
}

QV_RESULT CQVUSBCaptureBase::USBChannelSetData(unsigned char command, void* data, unsigned int size,
                                               unsigned int answered) {
    if (!IsOpen()) return QV_RESULT_FAILED;
    return QVUSBSetData(m_pContext->handle, command, data, size, answered) < 0 ? QV_RESULT_FAILED
                                                                               : QV_RESULT_OK;
}

// ---- Sound card ------------------------------------------------------------------------------

QV_RESULT CQVUSBCaptureBase::SetAudioVolume(_QVCAP_USB_AUDIO_NODE node,
                                            _QVCAP_AUDIO_VOLUME* volume) {
    if (volume == nullptr || m_pContext == nullptr) return QV_RESULT_FAILED;
    _QVCAP_CHANNEL_INFO info{};
    GetChannelInfo(&info);  // Deliberate: without it the product is unknown and no model matches
    char usbBus[sizeof m_pContext->usbBus];
    char product[sizeof info.productName];
    CopyText(m_pContext->usbBus, usbBus);
    CopyText(info.productName, product);
    QV_RESULT result = QV_RESULT_OK;
    const int count = std::min<int>(volume->channelCount, QV_AUDIO_VOLUME_CHANNELS);
    for (int i = 0; i < count; ++i)
        if (SetQVUSBSoundVolume(usbBus, product, node, i, volume->volume[i], volume->mute[i]) != 0)
            result = QV_RESULT_FAILED;
    return result;
}
