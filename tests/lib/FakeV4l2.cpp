// Scripted V4L2 nodes: what they answer; see FakeV4l2.h.
#include "lib/FakeV4l2.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace fake {

namespace {

// Requests of the cards' driver: identity and family information.
constexpr unsigned long kGetChannelInfo = 0x80E05806;
constexpr unsigned long kGetFamilyInfo = 0x80115807;

const char* Name(unsigned long request) {
    switch (request) {
        case VIDIOC_QUERYCAP:
            return "QUERYCAP";
        case VIDIOC_TRY_FMT:
            return "TRY_FMT";
        case VIDIOC_S_FMT:
            return "S_FMT";
        case VIDIOC_G_FMT:
            return "G_FMT";
        case VIDIOC_G_PARM:
            return "G_PARM";
        case VIDIOC_S_PARM:
            return "S_PARM";
        case VIDIOC_REQBUFS:
            return "REQBUFS";
        case VIDIOC_QUERYBUF:
            return "QUERYBUF";
        case VIDIOC_QBUF:
            return "QBUF";
        case VIDIOC_DQBUF:
            return "DQBUF";
        case VIDIOC_STREAMON:
            return "STREAMON";
        case VIDIOC_STREAMOFF:
            return "STREAMOFF";
        case VIDIOC_S_CTRL:
            return "S_CTRL";
        case VIDIOC_G_CTRL:
            return "G_CTRL";
        case VIDIOC_QUERYCTRL:
            return "QUERYCTRL";
        case VIDIOC_ENUM_FMT:
            return "ENUM_FMT";
        case VIDIOC_ENUM_FRAMESIZES:
            return "ENUM_FRAMESIZES";
        case VIDIOC_ENUM_FRAMEINTERVALS:
            return "ENUM_FRAMEINTERVALS";
        default:
            return "unknown";
    }
}

int Fail(int error) {
    errno = error;
    return -1;
}

// Answers entry index of a list, keeping the index the caller asked with.
template <class Record, class Entry>
int Listed(const std::vector<Entry>& list, bool endless, uint32_t index, Record* record,
           void (*fill)(Record*, const Entry&)) {
    if (list.empty()) return Fail(EINVAL);
    if (index >= list.size() && !endless) return Fail(EINVAL);
    fill(record, list[std::min<size_t>(index, list.size() - 1)]);
    return 0;
}

}  // namespace

V4l2& V4l2::Get() {
    static V4l2& v4l2 = *new V4l2;  // stays to the very end: files are closed until then
    return v4l2;
}

void V4l2::Reset() {
    const std::lock_guard lock(mutex);
    device = {};
    polls.clear();
    frames.clear();
    triedFormat = setFormat = {};
    setParm = {};
    askedSize = {};
    askedInterval = {};
    queued.clear();
    descriptors.clear();
    mappings.clear();
    streaming = false;
    m_nodes.clear();
    m_channels.clear();
    m_root.reset();
    ForgetCalls();
}

void V4l2::AddNode(int number, const std::string& target, const std::string& serial) {
    const std::lock_guard lock(mutex);
    const std::string name = "video" + std::to_string(number);
    m_nodes["/dev/" + name] = 0;
    if (target.empty()) return;
    MakeRoot();
    // <root>/sys/class/video4linux/videoN -> target; target/device -> interface; ../serial
    const fs::path classDir = fs::path(m_root->Path()) / "sys/class/video4linux";
    const fs::path node = (classDir / target).lexically_normal();
    fs::create_directories(classDir);
    fs::create_directories(node);
    fs::create_symlink(target, classDir / name);
    fs::create_symlink("../..", node / "device");
    if (!serial.empty()) {
        std::ofstream(node.parent_path().parent_path().parent_path() / "serial") << serial;
    }
}

void V4l2::MakeRoot() {
    if (!m_root) m_root.emplace("qv-root");
}

void V4l2::AddChannel(int number, const _QVCAP_CHANNEL_INFO& info) {
    const std::lock_guard lock(mutex);
    const std::string path = "/dev/video" + std::to_string(number);
    m_nodes[path] = 0;
    m_channels[path] = info;
}

void V4l2::AddSoundFile(const std::string& name, const std::string& content) {
    const std::lock_guard lock(mutex);
    MakeRoot();
    const fs::path path = fs::path(m_root->Path()) / "proc/asound" / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << content;
}

void V4l2::NodeHasOwnCapabilities(int number, uint32_t capabilities) {
    m_nodes["/dev/video" + std::to_string(number)] = capabilities;
}

void V4l2::Deliver(uint32_t index, uint32_t bytesUsed) {
    const std::lock_guard lock(mutex);
    frames.push_back({index, bytesUsed});
}

int V4l2::Descriptors() {
    const std::lock_guard lock(mutex);
    return static_cast<int>(descriptors.size());
}

int V4l2::Mappings() {
    const std::lock_guard lock(mutex);
    return static_cast<int>(mappings.size());
}

bool V4l2::Streaming() {
    const std::lock_guard lock(mutex);
    return streaming;
}

std::string V4l2::Redirect(const std::string& path) {
    const std::lock_guard lock(mutex);
    const bool ours =
        path.rfind("/sys/class/video4linux", 0) == 0 || path.rfind("/proc/asound", 0) == 0;
    if (!ours) return path;
    return m_root ? m_root->Path() + path : "/nonexistent";
}

int V4l2::OpenNode(const std::string& path) {
    if (m_nodes.count(path) == 0) return Fail(ENOENT);
    const int fd = dup(STDIN_FILENO);
    if (fd >= 0) descriptors[fd] = path;
    return fd;
}

bool V4l2::IsNode(int fd) {
    const std::lock_guard lock(mutex);
    return descriptors.count(fd) != 0;
}

int V4l2::CloseNode(int fd) {
    if (descriptors.erase(fd) == 0) return Fail(EBADF);
    return static_cast<int>(syscall(SYS_close, fd));
}

int V4l2::Control(const char* caller, int fd, unsigned long request, void* record) {
    const std::lock_guard lock(mutex);
    int error = 0;
    if (Enter(Name(request), caller, &error)) return Fail(error);
    if (descriptors.count(fd) == 0) return Fail(EBADF);
    return Answer(fd, request, record);
}

int V4l2::Answer(int fd, unsigned long request, void* record) {
    if (const auto channel = m_channels.find(descriptors[fd]); channel != m_channels.end()) {
        if (request == kGetChannelInfo) memcpy(record, &channel->second, sizeof channel->second);
        return request == kGetChannelInfo || request == kGetFamilyInfo ? 0 : Fail(ENOTTY);
    }
    switch (request) {
        case VIDIOC_QUERYCAP: {
            auto* capability = static_cast<v4l2_capability*>(record);
            capability->capabilities = device.capabilities;
            if (const uint32_t own = m_nodes[descriptors[fd]]; own != 0) {
                capability->capabilities |= V4L2_CAP_DEVICE_CAPS;
                capability->device_caps = own;
            }
            return 0;
        }
        case VIDIOC_TRY_FMT:
            triedFormat = *static_cast<v4l2_format*>(record);
            return 0;
        case VIDIOC_S_FMT:
            setFormat = *static_cast<v4l2_format*>(record);
            return 0;
        case VIDIOC_G_FMT:
            return 0;
        case VIDIOC_G_PARM:
            static_cast<v4l2_streamparm*>(record)->parm.capture.capability = device.parmCapability;
            return 0;
        case VIDIOC_S_PARM:
            setParm = *static_cast<v4l2_streamparm*>(record);
            return 0;
        case VIDIOC_REQBUFS:
            static_cast<v4l2_requestbuffers*>(record)->count = device.granted;
            return 0;
        case VIDIOC_QUERYBUF: {
            auto* buffer = static_cast<v4l2_buffer*>(record);
            if (buffer->index >= device.granted) return Fail(EINVAL);
            buffer->length = device.lengths.at(buffer->index % device.lengths.size());
            buffer->m.offset = buffer->index * 0x10000;
            return 0;
        }
        case VIDIOC_QBUF:
            queued.push_back(static_cast<v4l2_buffer*>(record)->index);
            return 0;
        case VIDIOC_DQBUF: {
            if (frames.empty()) return Fail(EAGAIN);
            auto* buffer = static_cast<v4l2_buffer*>(record);
            buffer->index = frames.front().index;
            buffer->bytesused = frames.front().bytesUsed;
            frames.pop_front();
            return 0;
        }
        case VIDIOC_STREAMON:
            streaming = true;
            return 0;
        case VIDIOC_STREAMOFF:
            streaming = false;
            return 0;
        case VIDIOC_S_CTRL: {
            const auto* control = static_cast<v4l2_control*>(record);
            if (device.controls.count(control->id) == 0) return Fail(EINVAL);
            device.values[control->id] = control->value;
            return 0;
        }
        case VIDIOC_G_CTRL: {
            auto* control = static_cast<v4l2_control*>(record);
            if (device.controls.count(control->id) == 0) return Fail(EINVAL);
            control->value = device.values[control->id];
            return 0;
        }
        case VIDIOC_QUERYCTRL: {
            auto* query = static_cast<v4l2_queryctrl*>(record);
            const auto found = device.controls.find(query->id);
            if (found == device.controls.end()) return Fail(EINVAL);
            *query = found->second;
            return 0;
        }
        case VIDIOC_ENUM_FMT: {
            auto* description = static_cast<v4l2_fmtdesc*>(record);
            if (description->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return Fail(EINVAL);
            return Listed<v4l2_fmtdesc, uint32_t>(
                device.formats, device.endless, description->index, description,
                [](v4l2_fmtdesc* out, const uint32_t& format) { out->pixelformat = format; });
        }
        case VIDIOC_ENUM_FRAMESIZES: {
            auto* size = static_cast<v4l2_frmsizeenum*>(record);
            askedSize = *size;
            return Listed<v4l2_frmsizeenum, v4l2_frmsizeenum>(
                device.sizes, device.endless, size->index, size,
                [](v4l2_frmsizeenum* out, const v4l2_frmsizeenum& entry) {
                    out->type = entry.type;
                    out->stepwise = entry.stepwise;
                });
        }
        case VIDIOC_ENUM_FRAMEINTERVALS: {
            auto* interval = static_cast<v4l2_frmivalenum*>(record);
            askedInterval = *interval;
            return Listed<v4l2_frmivalenum, v4l2_frmivalenum>(
                device.intervals, device.endless, interval->index, interval,
                [](v4l2_frmivalenum* out, const v4l2_frmivalenum& entry) {
                    out->type = entry.type;
                    out->stepwise = entry.stepwise;
                });
        }
        default:
            return Fail(ENOTTY);
    }
}

}  // namespace fake
