/** @file
 * The capture-device library for C++17: objects that release what they own, and callables as
 * callbacks.
 *
 * A thin interface to QVCapture.h, whose functions accept a Channel's Handle(). Header only.
 * Compiles with and without exceptions; with them, constructors throw std::bad_alloc and a
 * Doorbell's throws std::system_error. An exception that leaves a callable ends the program.
 *
 * Lifetimes: an Instance outlives its Channels; a Channel outlives its Worker and everything that
 * was started on it; a Worker outlives the objects that need it. Members declared in this order are
 * destroyed correctly.
 *
 * After the destructor of an object with a callable has returned, the callable does not run and
 * will not be called, whatever the driver answered: the destructor waits for a running call. So
 * never destroy such an object while you hold a lock that its callable takes. An object may be
 * destroyed inside its own callable. */
#ifndef QV_CAPTURE_HPP
#define QV_CAPTURE_HPP

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "QVCapture.h"

namespace qvcapture {

/** Result of an operation, with a readable text. */
class Result {
  public:
    Result(QV_RESULT code) : m_code(code) {}
    bool Ok() const { return m_code == QV_RESULT_OK; }
    explicit operator bool() const { return Ok(); }
    QV_RESULT Code() const { return m_code; }
    /** Says what the code means; never freed. */
    const char* Text() const { return QVResultText(m_code); }

  private:
    QV_RESULT m_code;
};

/** A text field of a device's record; ends at its terminator or, without one, at its end. */
template <size_t kSize>
std::string Text(const char (&field)[kSize]) {
    return std::string(field, strnlen(field, kSize));
}

/** Code of a pixel format, such as FourCc("NV12"): first character in the low byte. */
constexpr uint32_t FourCc(const char (&code)[5]) {
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i) value = value << 8 | static_cast<unsigned char>(code[i]);
    return value;
}

/** The driver's event node and the list of channels; one at a time. */
class Instance {
  public:
    struct Listed {
        std::string path; /**< for Channel */
        _QVCAP_CHANNEL_INFO info;
    };

    Instance() { QVCaptureInitInstance(); }
    ~Instance() { QVCaptureExitInstance(); }
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    /** Whether the driver's event node is open; no Worker starts without it. */
    bool HasEvents() const { return QVHasEventNode(); }
    /** Looks for channels again. */
    Result Refresh() { return QVRefreshDevice(); }
    std::vector<Listed> Channels() const {
        std::vector<Listed> channels;
        for (int i = 0; i < QVGetChannelCount(); ++i) {
            char path[512] = {};
            Listed listed{};
            if (QVGetChannelInfoByIndex(i, &listed.info) != QV_RESULT_OK) continue;
            if (QVGetDevicePath(i, path) != QV_RESULT_OK) continue;
            listed.path = path;
            channels.push_back(std::move(listed));
        }
        return channels;
    }
};

/** One open channel, or none: false then. */
class Channel {
  public:
    Channel() = default;
    explicit Channel(const std::string& path) : m_handle(QVOpenChannelByPath(path.c_str())) {}
    Channel(int board, int channel) : m_handle(QVOpenChannel(board, channel)) {}
    ~Channel() { QVCloseChannel(m_handle); }
    Channel(Channel&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
    /** Closes the channel that it held before. */
    Channel& operator=(Channel&& other) noexcept {
        Channel taken(std::move(other));
        std::swap(m_handle, taken.m_handle);
        return *this;
    }

    explicit operator bool() const { return m_handle != nullptr; }
    /** For the functions of QVCapture.h. Do not close it. */
    QV_CHANNEL Handle() const { return m_handle; }
    Result GetInfo(_QVCAP_CHANNEL_INFO& info) const { return QVGetChannelInfo(m_handle, &info); }

  private:
    QV_CHANNEL m_handle = nullptr;
};

/** A channel's worker thread, which runs the callbacks. Do not destroy it in one of its
 * callbacks. */
class Worker {
  public:
    explicit Worker(const Channel& channel)
        : m_channel(channel.Handle()), m_status(QVStartChannelThread(m_channel)) {}
    ~Worker() {
        if (m_status) QVStopChannelThread(m_channel);
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    /** Whether it was started. */
    Result Status() const { return m_status; }

  private:
    QV_CHANNEL m_channel;
    Result m_status;
};

namespace detail {

/** Holds a callable; its address is the parameter of a callback. A running call keeps it alive, so
 *  that the callable may destroy its owner. */
template <class... Arguments>
class Callee : public std::enable_shared_from_this<Callee<Arguments...>> {
  public:
    using Function = std::function<void(Arguments...)>;
    explicit Callee(Function function) : m_function(std::move(function)) {}
    static void Call(void* param, Arguments... arguments) noexcept {
        const auto kept = static_cast<Callee*>(param)->shared_from_this();
        const std::lock_guard<std::recursive_mutex> guard(kept->m_lock);
        if (kept->m_armed && kept->m_function) kept->m_function(arguments...);
    }
    /** A parameter that the library holds until it calls Release() with it. */
    void* Lend() {
        m_lent = this->shared_from_this();
        return this;
    }
    static void Release(void* param) {
        const auto last = std::move(static_cast<Callee*>(param)->m_lent);
    }
    /** Waits for a running call on another thread; after that it is never called. */
    void Disarm() {
        const std::lock_guard<std::recursive_mutex> guard(m_lock);
        m_armed = false;
    }

  private:
    std::recursive_mutex m_lock;
    bool m_armed = true;
    Function m_function;
    std::shared_ptr<Callee> m_lent;  // while the library holds this
};

}  // namespace detail

/** Calls a callable on the worker whenever one of some bits (defined by the driver) is raised. */
class Notification {
  public:
    using Function = std::function<void(uint32_t bits)>;
    Notification(const Channel& channel, uint32_t bits, Function function)
        : m_channel(channel.Handle()),
          m_callee(std::make_shared<Callee>(std::move(function))),
          m_handle(QVRegisterNotifyWithRelease(m_channel, bits, OnNotify, m_callee->Lend(),
                                               Callee::Release)) {}
    ~Notification() {
        if (m_handle != 0) QVUnregisterNotify(m_channel, m_handle);
        m_callee->Disarm();
    }
    Notification(const Notification&) = delete;
    Notification& operator=(const Notification&) = delete;
    /** Whether it was registered: it needs a Worker, which has room for 27. */
    explicit operator bool() const { return m_handle != 0; }

  private:
    using Callee = detail::Callee<uint32_t>;
    static void OnNotify(unsigned long long, unsigned int bits, void* param) noexcept {
        Callee::Call(param, bits);
    }
    QV_CHANNEL m_channel;
    std::shared_ptr<Callee> m_callee;
    unsigned long long m_handle;
};

/** Time of a device's clock: 100 ns on the known cards. */
using Ticks = std::chrono::duration<long long, std::ratio<1, 10000000>>;

/** Calls a callable on the worker by the device's clock, once or periodically. */
class Timer {
  public:
    using Function = std::function<void()>;
    /** @param period  of 0: once */
    Timer(const Channel& channel, Ticks delay, Ticks period, Function function)
        : m_channel(channel.Handle()),
          m_callee(std::make_shared<Callee>(std::move(function))),
          m_handle(QVCreateTimerWithRelease(m_channel, OnTimer, delay.count(), period.count(),
                                            m_callee->Lend(), Callee::Release)) {}
    ~Timer() {
        // This fails, on purpose, for a channel's last timer and for one that fired for the last
        // time.
        if (m_handle != 0) QVDestoryTimer(m_channel, m_handle);
        m_callee->Disarm();
    }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    /** Whether it was created; it needs a Worker. */
    explicit operator bool() const { return m_handle != 0; }

  private:
    using Callee = detail::Callee<>;
    static void OnTimer(unsigned long long, void* param) noexcept { Callee::Call(param); }
    QV_CHANNEL m_channel;
    std::shared_ptr<Callee> m_callee;
    unsigned long long m_handle;
};

/** A picture in the library's memory, valid while the callable runs. */
struct VideoFrame {
    const uint8_t* data;
    uint32_t size;   /**< bytes */
    uint32_t stride; /**< bytes from line to line */
    const _QVCAP_VIDEO_FRAME_INFO& info;
};

/** What to capture. */
struct VideoFormat {
    uint32_t fourcc;
    int width;  /**< pixels */
    int height; /**< lines */
    _QV_VIDEO_CAPTURE_MODE mode = QV_VIDEO_CAPTURE_BACK_TO_BACK;
};

/** Video of a PCIe channel: passes every frame to a callable on the worker. One for each
 * channel. */
class VideoCapture {
  public:
    using Function = std::function<void(const VideoFrame&)>;
    VideoCapture(const Channel& channel, const VideoFormat& format, Function function)
        : m_channel(channel.Handle()),
          m_callee(std::make_shared<Callee>(std::move(function))),
          m_status(QVStartVideoCaptureWithRelease(m_channel, format.fourcc, format.width,
                                                  format.height, format.mode, OnFrame,
                                                  m_callee->Lend(), Callee::Release)) {}
    ~VideoCapture() {
        if (m_status) QVStopVideoCaptureWithCallback(m_channel);
        m_callee->Disarm();
    }
    VideoCapture(const VideoCapture&) = delete;
    VideoCapture& operator=(const VideoCapture&) = delete;
    /** Whether it was started; it needs a Worker. */
    Result Status() const { return m_status; }
    /** Whether the driver refused a request for a frame: none comes until a new capture starts. */
    bool Stalled() const { return m_status && QVIsVideoCaptureStalled(m_channel); }

  private:
    using Callee = detail::Callee<const VideoFrame&>;
    static void OnFrame(unsigned long long address, unsigned int size, unsigned int stride,
                        _QVCAP_VIDEO_FRAME_INFO* info, void* param) noexcept {
        const auto* data = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(address));
        Callee::Call(param, VideoFrame{data, size, stride, *info});
    }
    QV_CHANNEL m_channel;
    std::shared_ptr<Callee> m_callee;
    Result m_status;
};

/** Audio of a PCIe channel: passes every frame of the driver to a callable on the worker. One
 *  for each channel. */
class AudioCapture {
  public:
    using Function = std::function<void(const _QVCAP_AUDIO_CAPTURE_FRAME&)>;
    AudioCapture(const Channel& channel, Function function)
        : m_channel(channel.Handle()),
          m_callee(std::make_shared<Callee>(std::move(function))),
          m_status(QVStartAudioCaptureWithRelease(m_channel, OnFrame, m_callee->Lend(),
                                                  Callee::Release)) {}
    ~AudioCapture() {
        if (m_status) QVStopAudioCaptureWithCallback(m_channel);
        m_callee->Disarm();
    }
    AudioCapture(const AudioCapture&) = delete;
    AudioCapture& operator=(const AudioCapture&) = delete;
    /** Whether it was started; it needs a Worker. */
    Result Status() const { return m_status; }

  private:
    using Callee = detail::Callee<const _QVCAP_AUDIO_CAPTURE_FRAME&>;
    static void OnFrame(_QVCAP_AUDIO_CAPTURE_FRAME* frame, void* param) noexcept {
        Callee::Call(param, *frame);
    }
    QV_CHANNEL m_channel;
    std::shared_ptr<Callee> m_callee;
    Result m_status;
};

/** Bytes in the library's memory, valid while the callable runs. */
struct Chunk {
    const uint8_t* data;
    uint32_t size; /**< bytes */
};

/** Video of a channel's V4L2 node: passes every frame to a callable on its own thread. */
class NodeVideoCapture {
  public:
    using Function = std::function<void(const Chunk& frame)>;
    /** @param frameDuration  wanted time per frame */
    NodeVideoCapture(const Channel& channel, const VideoFormat& format, Ticks frameDuration,
                     Function function)
        : m_callee(std::make_shared<Callee>(std::move(function))),
          m_capture(QVCreateVideoCapture(channel.Handle(), format.width, format.height,
                                         format.fourcc, static_cast<int>(frameDuration.count()),
                                         OnFrame, m_callee.get())) {}
    ~NodeVideoCapture() {
        if (m_capture != nullptr) QVDestoryVideoCapture(m_capture);
    }
    NodeVideoCapture(const NodeVideoCapture&) = delete;
    NodeVideoCapture& operator=(const NodeVideoCapture&) = delete;
    /** Whether the node was opened and configured. */
    explicit operator bool() const { return m_capture != nullptr; }
    /** The picture controls. The handle is not public: a function of QVCapture.h that expects a
     *  channel would accept it, too. */
    Result SetControl(_QVCAP_VIDEO_PROC_PARAM_TYPE type, int value) {
        return QVSetVideoProcParam(m_capture, type, value);
    }
    Result GetControl(_QVCAP_VIDEO_PROC_PARAM_TYPE type, int& value) const {
        return QVGetVideoProcParam(m_capture, type, &value);
    }
    Result GetControlRange(_QVCAP_VIDEO_PROC_PARAM_TYPE type, int& minimum, int& maximum,
                           int& defaultValue) const {
        return QVGetVideoProcParamRange(m_capture, type, &minimum, &maximum, &defaultValue);
    }

  private:
    using Callee = detail::Callee<const Chunk&>;
    static void OnFrame(const unsigned char* frame, unsigned int size, void* param) noexcept {
        Callee::Call(param, Chunk{frame, size});
    }
    std::shared_ptr<Callee> m_callee;
    QV_VIDEO_CAPTURE m_capture;
};

/** How to record from a sound card. */
struct SoundFormat {
    unsigned int rate = 48000;         /**< Hz, at least 1000 */
    unsigned short bitsPerSample = 16; /**< 16 or 32 */
    unsigned short channels = 2;
};

/** Audio of a channel's sound card: passes chunks of 10 ms to a callable on its own thread. */
class SoundCapture {
  public:
    using Function = std::function<void(const Chunk& samples)>;
    /** @param node  of a USB device, see QVCreateAudioCapture() */
    SoundCapture(const Channel& channel, unsigned int node, const SoundFormat& format,
                 Function function)
        : m_callee(std::make_shared<Callee>(std::move(function))),
          m_capture(QVCreateAudioCapture(channel.Handle(), node, format.rate, format.bitsPerSample,
                                         format.channels, OnChunk, m_callee.get())) {}
    ~SoundCapture() {
        if (m_capture != nullptr) QVDestoryAudioCapture(m_capture);
    }
    SoundCapture(const SoundCapture&) = delete;
    SoundCapture& operator=(const SoundCapture&) = delete;
    /** Whether it runs. */
    explicit operator bool() const { return m_capture != nullptr; }

  private:
    using Callee = detail::Callee<const Chunk&>;
    static void OnChunk(const unsigned char* data, int bytes, long long, void* param) noexcept {
        Callee::Call(param, Chunk{data, static_cast<uint32_t>(bytes)});
    }
    std::shared_ptr<Callee> m_callee;
    QV_AUDIO_CAPTURE m_capture;
};

/** A file descriptor that becomes readable when somebody has rung: for poll() and its like. */
class Doorbell {
  public:
    /** Throws std::system_error when the system has no descriptor left; without exceptions Fd() is
     *  -1 then, and nothing rings. */
    Doorbell() : m_fd(QVOpenDoorbell()) {
#if defined(__cpp_exceptions)
        if (m_fd < 0) throw std::system_error(errno, std::generic_category(), "doorbell");
#endif
    }
    ~Doorbell() {
        if (m_fd >= 0) close(m_fd);
    }
    Doorbell(const Doorbell&) = delete;
    Doorbell& operator=(const Doorbell&) = delete;
    int Fd() const { return m_fd; }
    /** Any thread; never blocks. */
    void Ring() noexcept { QVRingDoorbell(m_fd); }
    /** How often it was rung since the last call; after this call it is not readable. */
    uint64_t Answer() noexcept { return QVAnswerDoorbell(m_fd); }

  private:
    int m_fd;
};

/** The caller's own copy of a frame. */
struct FrameCopy {
    std::vector<uint8_t> bytes;
    uint32_t stride = 0;
    _QVCAP_VIDEO_FRAME_INFO info{};
    FrameCopy& operator=(const VideoFrame& frame) {
        bytes.assign(frame.data, frame.data + frame.size);
        stride = frame.stride;
        info = frame.info;
        return *this;
    }
};

/** The caller's own copy of a chunk. */
struct ChunkCopy {
    std::vector<uint8_t> bytes;
    ChunkCopy& operator=(const Chunk& chunk) {
        bytes.assign(chunk.data, chunk.data + chunk.size);
        return *this;
    }
};

/** Passes items from callbacks to another thread: a queue of fixed length with a descriptor to wait
 * on. An item that finds the queue full is dropped, and counted, so that a slow reader never stalls
 * a channel. Memory is reused: once every slot was used, no delivery allocates.
 *  @tparam Item  own copy of a delivered item, such as FrameCopy; assignable from it */
template <class Item>
class Mailbox {
  public:
    /** @param length  items that may wait, at least 1 */
    explicit Mailbox(size_t length) : m_slots(length == 0 ? 1 : length) {}

    /** A callable for the constructors of captures. The mailbox must outlive them. */
    auto Sink() {
        return [this](const auto& delivered) { Put(delivered); };
    }
    /** Any thread. */
    template <class Delivered>
    void Put(const Delivered& delivered) {
        const std::lock_guard<std::mutex> guard(m_lock);
        ++m_delivered;
        if (m_waiting == m_slots.size()) {
            ++m_dropped;
            return;
        }
        m_slots[(m_first + m_waiting) % m_slots.size()] = delivered;
        ++m_waiting;
        m_bell.Ring();
    }
    /** Takes the oldest item; false when none waits. The memory of @p item is reused. */
    bool Take(Item& item) {
        const std::lock_guard<std::mutex> guard(m_lock);
        if (m_waiting == 0) return false;
        std::swap(item, m_slots[m_first]);
        m_first = (m_first + 1) % m_slots.size();
        if (--m_waiting == 0) m_bell.Answer();
        return true;
    }
    /** Readable while items wait. */
    int Fd() const { return m_bell.Fd(); }
    /** Items that came, the dropped ones included. */
    uint64_t Delivered() const {
        const std::lock_guard<std::mutex> guard(m_lock);
        return m_delivered;
    }
    /** Items lost because the queue was full. */
    uint64_t Dropped() const {
        const std::lock_guard<std::mutex> guard(m_lock);
        return m_dropped;
    }

  private:
    mutable std::mutex m_lock;
    std::vector<Item> m_slots;
    size_t m_first = 0;
    size_t m_waiting = 0;
    uint64_t m_delivered = 0;
    uint64_t m_dropped = 0;
    Doorbell m_bell;
};

}  // namespace qvcapture

#endif
