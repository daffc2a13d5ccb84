/** @file
 * The capture-device library for C++17: objects that release what they hold, callbacks as
 * callables.
 *
 * A thin face over QVCapture.h, whose functions take a Channel's Handle(). Header only. Compiles
 * with and without exceptions; with them, constructors throw std::bad_alloc and a Doorbell's throws
 * std::system_error. An exception that leaves a callable ends the program.
 *
 * Order of life: an Instance outlives its Channels; a Channel outlives its Worker and all that was
 * started on it; a Worker outlives what needs it. Members in this order do it by themselves.
 *
 * When the destructor of an object with a callable has returned, the callable does not run and will
 * not be called, whatever the driver answered: the destructor waits for a call that is under way.
 * So never destroy such an object while you hold a lock that its callable takes. An object may be
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

/** Result of an operation, with a text for people. */
class Result {
  public:
    Result(QV_RESULT code) : code_(code) {}
    bool Ok() const { return code_ == QV_RESULT_OK; }
    explicit operator bool() const { return Ok(); }
    QV_RESULT Code() const { return code_; }
    /** Says what the code means; lives for ever. */
    const char* Text() const { return QVResultText(code_); }

  private:
    QV_RESULT code_;
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

    /** Whether the driver's event node is there; no Worker starts without it. */
    bool HasEvents() const { return QVHasEventNode(); }
    /** Looks for channels anew. */
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
    explicit Channel(const std::string& path) : handle_(QVOpenChannelByPath(path.c_str())) {}
    Channel(int board, int channel) : handle_(QVOpenChannel(board, channel)) {}
    ~Channel() { QVCloseChannel(handle_); }
    Channel(Channel&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    /** Closes the channel that it was. */
    Channel& operator=(Channel&& other) noexcept {
        Channel taken(std::move(other));
        std::swap(handle_, taken.handle_);
        return *this;
    }

    explicit operator bool() const { return handle_ != nullptr; }
    /** For the functions of QVCapture.h. Not to be closed. */
    QV_CHANNEL Handle() const { return handle_; }
    Result GetInfo(_QVCAP_CHANNEL_INFO& info) const { return QVGetChannelInfo(handle_, &info); }

  private:
    QV_CHANNEL handle_ = nullptr;
};

/** A channel's worker thread, which calls back. Not to be destroyed in one of its callbacks. */
class Worker {
  public:
    explicit Worker(const Channel& channel)
        : channel_(channel.Handle()), status_(QVStartChannelThread(channel_)) {}
    ~Worker() {
        if (status_) QVStopChannelThread(channel_);
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    /** Whether it was started. */
    Result Status() const { return status_; }

  private:
    QV_CHANNEL channel_;
    Result status_;
};

namespace detail {

/** A callable behind a callback's parameter, which is the address of this. Whoever calls keeps it
 *  alive meanwhile, so that its owner may be destroyed inside it. */
template <class... Arguments>
class Callee : public std::enable_shared_from_this<Callee<Arguments...>> {
  public:
    using Function = std::function<void(Arguments...)>;
    explicit Callee(Function function) : function_(std::move(function)) {}
    static void Call(void* param, Arguments... arguments) noexcept {
        const auto kept = static_cast<Callee*>(param)->shared_from_this();
        const std::lock_guard<std::recursive_mutex> guard(kept->lock_);
        if (kept->armed_ && kept->function_) kept->function_(arguments...);
    }
    /** A parameter that the library holds until it calls Release() with it. */
    void* Lend() {
        lent_ = this->shared_from_this();
        return this;
    }
    static void Release(void* param) {
        const auto last = std::move(static_cast<Callee*>(param)->lent_);
    }
    /** Waits for a call that is under way on another thread; there will be no other. */
    void Disarm() {
        const std::lock_guard<std::recursive_mutex> guard(lock_);
        armed_ = false;
    }

  private:
    std::recursive_mutex lock_;
    bool armed_ = true;
    Function function_;
    std::shared_ptr<Callee> lent_;  // while the library holds this
};

}  // namespace detail

/** Calls a callable on the worker whenever one of some bits (defined by the driver) is raised. */
class Notification {
  public:
    using Function = std::function<void(uint32_t bits)>;
    Notification(const Channel& channel, uint32_t bits, Function function)
        : channel_(channel.Handle()),
          callee_(std::make_shared<Callee>(std::move(function))),
          handle_(QVRegisterNotifyWithRelease(channel_, bits, OnNotify, callee_->Lend(),
                                              Callee::Release)) {}
    ~Notification() {
        if (handle_ != 0) QVUnregisterNotify(channel_, handle_);
        callee_->Disarm();
    }
    Notification(const Notification&) = delete;
    Notification& operator=(const Notification&) = delete;
    /** Whether it was registered: it needs a Worker, which has room for 27. */
    explicit operator bool() const { return handle_ != 0; }

  private:
    using Callee = detail::Callee<uint32_t>;
    static void OnNotify(unsigned long long, unsigned int bits, void* param) noexcept {
        Callee::Call(param, bits);
    }
    QV_CHANNEL channel_;
    std::shared_ptr<Callee> callee_;
    unsigned long long handle_;
};

/** Time of a device's clock: 100 ns on the cards known. */
using Ticks = std::chrono::duration<long long, std::ratio<1, 10000000>>;

/** Calls a callable on the worker by the device's clock, once or periodically. */
class Timer {
  public:
    using Function = std::function<void()>;
    /** @param period  of 0: once */
    Timer(const Channel& channel, Ticks delay, Ticks period, Function function)
        : channel_(channel.Handle()),
          callee_(std::make_shared<Callee>(std::move(function))),
          handle_(QVCreateTimerWithRelease(channel_, OnTimer, delay.count(), period.count(),
                                           callee_->Lend(), Callee::Release)) {}
    ~Timer() {
        // A failure, on purpose, for a channel's last timer and for one that fired for the last
        // time.
        if (handle_ != 0) QVDestoryTimer(channel_, handle_);
        callee_->Disarm();
    }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    /** Whether it was created; it needs a Worker. */
    explicit operator bool() const { return handle_ != 0; }

  private:
    using Callee = detail::Callee<>;
    static void OnTimer(unsigned long long, void* param) noexcept { Callee::Call(param); }
    QV_CHANNEL channel_;
    std::shared_ptr<Callee> callee_;
    unsigned long long handle_;
};

/** A picture in memory that is the library's: valid while the callable runs. */
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

/** Video of a PCIe channel: every frame to a callable on the worker. One for each channel. */
class VideoCapture {
  public:
    using Function = std::function<void(const VideoFrame&)>;
    VideoCapture(const Channel& channel, const VideoFormat& format, Function function)
        : channel_(channel.Handle()),
          callee_(std::make_shared<Callee>(std::move(function))),
          status_(QVStartVideoCaptureWithRelease(channel_, format.fourcc, format.width,
                                                 format.height, format.mode, OnFrame,
                                                 callee_->Lend(), Callee::Release)) {}
    ~VideoCapture() {
        if (status_) QVStopVideoCaptureWithCallback(channel_);
        callee_->Disarm();
    }
    VideoCapture(const VideoCapture&) = delete;
    VideoCapture& operator=(const VideoCapture&) = delete;
    /** Whether it was started; it needs a Worker. */
    Result Status() const { return status_; }
    /** Whether the driver refused a request for a frame: none comes until a new capture is made. */
    bool Stalled() const { return status_ && QVIsVideoCaptureStalled(channel_); }

  private:
    using Callee = detail::Callee<const VideoFrame&>;
    static void OnFrame(unsigned long long address, unsigned int size, unsigned int stride,
                        _QVCAP_VIDEO_FRAME_INFO* info, void* param) noexcept {
        const auto* data = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(address));
        Callee::Call(param, VideoFrame{data, size, stride, *info});
    }
    QV_CHANNEL channel_;
    std::shared_ptr<Callee> callee_;
    Result status_;
};

/** Audio of a PCIe channel: every frame of the driver to a callable on the worker. One for each
 *  channel. */
class AudioCapture {
  public:
    using Function = std::function<void(const _QVCAP_AUDIO_CAPTURE_FRAME&)>;
    AudioCapture(const Channel& channel, Function function)
        : channel_(channel.Handle()),
          callee_(std::make_shared<Callee>(std::move(function))),
          status_(QVStartAudioCaptureWithRelease(channel_, OnFrame, callee_->Lend(),
                                                 Callee::Release)) {}
    ~AudioCapture() {
        if (status_) QVStopAudioCaptureWithCallback(channel_);
        callee_->Disarm();
    }
    AudioCapture(const AudioCapture&) = delete;
    AudioCapture& operator=(const AudioCapture&) = delete;
    /** Whether it was started; it needs a Worker. */
    Result Status() const { return status_; }

  private:
    using Callee = detail::Callee<const _QVCAP_AUDIO_CAPTURE_FRAME&>;
    static void OnFrame(_QVCAP_AUDIO_CAPTURE_FRAME* frame, void* param) noexcept {
        Callee::Call(param, *frame);
    }
    QV_CHANNEL channel_;
    std::shared_ptr<Callee> callee_;
    Result status_;
};

/** Bytes of the library's, valid while the callable runs. */
struct Chunk {
    const uint8_t* data;
    uint32_t size; /**< bytes */
};

/** Video of a channel's V4L2 node: every frame to a callable on a thread of its own. */
class NodeVideoCapture {
  public:
    using Function = std::function<void(const Chunk& frame)>;
    /** @param frameDuration  wanted time per frame */
    NodeVideoCapture(const Channel& channel, const VideoFormat& format, Ticks frameDuration,
                     Function function)
        : callee_(std::make_shared<Callee>(std::move(function))),
          capture_(QVCreateVideoCapture(channel.Handle(), format.width, format.height,
                                        format.fourcc, static_cast<int>(frameDuration.count()),
                                        OnFrame, callee_.get())) {}
    ~NodeVideoCapture() {
        if (capture_ != nullptr) QVDestoryVideoCapture(capture_);
    }
    NodeVideoCapture(const NodeVideoCapture&) = delete;
    NodeVideoCapture& operator=(const NodeVideoCapture&) = delete;
    /** Whether the node was opened and configured. */
    explicit operator bool() const { return capture_ != nullptr; }
    /** The picture controls. There is no handle for the functions of QVCapture.h: one that is meant
     *  for a channel would take it, too. */
    Result SetControl(_QVCAP_VIDEO_PROC_PARAM_TYPE type, int value) {
        return QVSetVideoProcParam(capture_, type, value);
    }
    Result GetControl(_QVCAP_VIDEO_PROC_PARAM_TYPE type, int& value) const {
        return QVGetVideoProcParam(capture_, type, &value);
    }
    Result GetControlRange(_QVCAP_VIDEO_PROC_PARAM_TYPE type, int& minimum, int& maximum,
                           int& defaultValue) const {
        return QVGetVideoProcParamRange(capture_, type, &minimum, &maximum, &defaultValue);
    }

  private:
    using Callee = detail::Callee<const Chunk&>;
    static void OnFrame(const unsigned char* frame, unsigned int size, void* param) noexcept {
        Callee::Call(param, Chunk{frame, size});
    }
    std::shared_ptr<Callee> callee_;
    QV_VIDEO_CAPTURE capture_;
};

/** How to record from a sound card. */
struct SoundFormat {
    unsigned int rate = 48000;         /**< Hz, at least 1000 */
    unsigned short bitsPerSample = 16; /**< 16 or 32 */
    unsigned short channels = 2;
};

/** Audio of a channel's sound card: chunks of 10 ms to a callable on a thread of its own. */
class SoundCapture {
  public:
    using Function = std::function<void(const Chunk& samples)>;
    /** @param node  of a USB device, see QVCreateAudioCapture() */
    SoundCapture(const Channel& channel, unsigned int node, const SoundFormat& format,
                 Function function)
        : callee_(std::make_shared<Callee>(std::move(function))),
          capture_(QVCreateAudioCapture(channel.Handle(), node, format.rate, format.bitsPerSample,
                                        format.channels, OnChunk, callee_.get())) {}
    ~SoundCapture() {
        if (capture_ != nullptr) QVDestoryAudioCapture(capture_);
    }
    SoundCapture(const SoundCapture&) = delete;
    SoundCapture& operator=(const SoundCapture&) = delete;
    /** Whether it runs. */
    explicit operator bool() const { return capture_ != nullptr; }

  private:
    using Callee = detail::Callee<const Chunk&>;
    static void OnChunk(const unsigned char* data, int bytes, long long, void* param) noexcept {
        Callee::Call(param, Chunk{data, static_cast<uint32_t>(bytes)});
    }
    std::shared_ptr<Callee> callee_;
    QV_AUDIO_CAPTURE capture_;
};

/** A file descriptor that becomes readable when somebody has rung: for poll() and its like. */
class Doorbell {
  public:
    /** Throws std::system_error when the system has no descriptor left; without exceptions Fd() is
     *  -1 then, and nothing rings. */
    Doorbell() : fd_(QVOpenDoorbell()) {
#if defined(__cpp_exceptions)
        if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "doorbell");
#endif
    }
    ~Doorbell() {
        if (fd_ >= 0) close(fd_);
    }
    Doorbell(const Doorbell&) = delete;
    Doorbell& operator=(const Doorbell&) = delete;
    int Fd() const { return fd_; }
    /** Any thread; never blocks. */
    void Ring() noexcept { QVRingDoorbell(fd_); }
    /** How often it was rung since the last call; it is not readable then. */
    uint64_t Answer() noexcept { return QVAnswerDoorbell(fd_); }

  private:
    int fd_;
};

/** A copy of a frame that is the caller's own. */
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

/** A copy of a chunk that is the caller's own. */
struct ChunkCopy {
    std::vector<uint8_t> bytes;
    ChunkCopy& operator=(const Chunk& chunk) {
        bytes.assign(chunk.data, chunk.data + chunk.size);
        return *this;
    }
};

/** Takes what callbacks deliver over to another thread: a queue of fixed length with a descriptor
 * to wait on. What finds the queue full is dropped, and counted, so that a slow reader never stalls
 * a channel. Memory is reused: after a round no delivery allocates.
 *  @tparam Item  own copy of what is delivered, such as FrameCopy; assignable from it */
template <class Item>
class Mailbox {
  public:
    /** @param length  items that may wait, at least 1 */
    explicit Mailbox(size_t length) : slots_(length == 0 ? 1 : length) {}

    /** A callable for the constructors of captures. The mailbox must outlive them. */
    auto Sink() {
        return [this](const auto& delivered) { Put(delivered); };
    }
    /** Any thread. */
    template <class Delivered>
    void Put(const Delivered& delivered) {
        const std::lock_guard<std::mutex> guard(lock_);
        ++delivered_;
        if (waiting_ == slots_.size()) {
            ++dropped_;
            return;
        }
        slots_[(first_ + waiting_) % slots_.size()] = delivered;
        ++waiting_;
        bell_.Ring();
    }
    /** Takes the oldest item; false when none waits. What @p item held is reused. */
    bool Take(Item& item) {
        const std::lock_guard<std::mutex> guard(lock_);
        if (waiting_ == 0) return false;
        std::swap(item, slots_[first_]);
        first_ = (first_ + 1) % slots_.size();
        if (--waiting_ == 0) bell_.Answer();
        return true;
    }
    /** Readable while items wait. */
    int Fd() const { return bell_.Fd(); }
    /** Items that came, the dropped ones included. */
    uint64_t Delivered() const {
        const std::lock_guard<std::mutex> guard(lock_);
        return delivered_;
    }
    /** Items lost because the queue was full. */
    uint64_t Dropped() const {
        const std::lock_guard<std::mutex> guard(lock_);
        return dropped_;
    }

  private:
    mutable std::mutex lock_;
    std::vector<Item> slots_;
    size_t first_ = 0;
    size_t waiting_ = 0;
    uint64_t delivered_ = 0;
    uint64_t dropped_ = 0;
    Doorbell bell_;
};

}  // namespace qvcapture

#endif
