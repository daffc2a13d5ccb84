#include "QVPelixCapture.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "QVDriverCall.h"
#include "QVEventNode.h"

CQVCaptureControlBase::ChannelRecord CQVCaptureControlBase::m_arrChannelInfo[QV_MAX_CHANNELS];
int CQVCaptureControlBase::m_nChannelCount = 0;
int CQVCaptureControlBase::m_hEventFD = qv::kClosed;
qv::EventNodeFile* CQVCaptureControlBase::m_eventNode = nullptr;

namespace {

constexpr char kEventNode[] = "/dev/qv-event";
constexpr int kProbesBeyondNodesSeen = 32;

int IsVideoNode(const dirent* entry) {
    return fnmatch("video*", entry->d_name, FNM_NOESCAPE) == 0 ? 1 : 0;
}

// How many entries of /dev look like video nodes, -1 when it cannot be scanned.
int CountVideoNodes() {
    dirent** entries = nullptr;
    const int count = scandir("/dev", &entries, IsVideoNode, alphasort);
    if (count < 0) return -1;
    for (int i = 0; i < count; ++i) free(entries[i]);
    free(entries);
    return count;
}

}  // namespace

void CQVCaptureControlBase::Empty(int count) {
    for (int i = 0; i < count; ++i) m_arrChannelInfo[i].path[0] = '\0';
    m_nChannelCount = 0;
}

bool CQVCaptureControlBase::Init() {
    Empty(QV_MAX_CHANNELS);
    if (m_hEventFD != qv::kClosed) return true;
    const int fd = open(kEventNode, O_RDWR | O_CLOEXEC);
    // Deliberate: descriptor 0 counts as a failure. See docs/decisions.md, "Event node".
    if (fd > 0) m_eventNode = new (std::nothrow) qv::EventNodeFile(fd);
    if (m_eventNode == nullptr) {
        if (fd >= 0) close(fd);
        return false;
    }
    m_eventNode->AddRef();
    m_hEventFD = fd;
    return true;
}

void CQVCaptureControlBase::Exit() {
    Empty(m_nChannelCount);
    if (m_hEventFD == qv::kClosed) return;
    m_hEventFD = qv::kClosed;
    // Closes, unless a channel worker still runs.
    std::exchange(m_eventNode, nullptr)->Release();
}

qv::Ref<qv::EventNodeFile> CQVCaptureControlBase::EventNodeReference() {
    return qv::Ref(m_eventNode);
}

// Opens one node, asks for both identity records and closes it again.
bool CQVCaptureControlBase::Probe(int node, ChannelRecord* record) {
    *record = {};
    const int length = snprintf(record->path, sizeof record->path, "/dev/video%d", node);
    if (length < 0 || length >= kPathSize) return false;
    const int fd = open(record->path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    const bool isChannel = qv::Do(fd, qv::kGetChannelInfo, &record->info) == QV_RESULT_OK &&
                           qv::Do(fd, qv::kGetFamilyInfo, &record->family) == QV_RESULT_OK;
    close(fd);
    return isChannel;
}

bool CQVCaptureControlBase::EnumDevice() {
    m_nChannelCount = 0;
    // The names only decide the size of the range: a number is probed even if its name was not
    // seen.
    const int seen = CountVideoNodes();
    if (seen < 0) return false;
    for (int node = 0; node < seen + kProbesBeyondNodesSeen; ++node) {
        if (m_nChannelCount == QV_MAX_CHANNELS) break;
        ChannelRecord record;
        if (Probe(node, &record)) m_arrChannelInfo[m_nChannelCount++] = record;
    }
    return true;
}

const CQVCaptureControlBase::ChannelRecord* CQVCaptureControlBase::Find(int index) {
    return index >= 0 && index < m_nChannelCount ? &m_arrChannelInfo[index] : nullptr;
}

QV_RESULT CQVCaptureControlBase::GetChannelInfoByIndex(int index, _QVCAP_CHANNEL_INFO* out) {
    const ChannelRecord* record = Find(index);
    if (record == nullptr || out == nullptr) return QV_RESULT_BAD_ARGUMENT;
    *out = record->info;
    return QV_RESULT_OK;
}

QV_RESULT CQVCaptureControlBase::GetFamilyInfoByIndex(int index, _QVCAP_PELIX_CAPTURE_INFO* out) {
    const ChannelRecord* record = Find(index);
    if (record == nullptr || out == nullptr) return QV_RESULT_BAD_ARGUMENT;
    *out = record->family;
    return QV_RESULT_OK;
}

QV_RESULT CQVCaptureControlBase::GetDevicePath(int index, char* out) {
    const ChannelRecord* record = Find(index);
    if (record == nullptr || out == nullptr) return QV_RESULT_BAD_ARGUMENT;
    strcpy(out, record->path);  // terminated by Probe, at most kPathSize bytes
    return QV_RESULT_OK;
}
