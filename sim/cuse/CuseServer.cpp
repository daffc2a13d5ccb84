#include "CuseServer.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace qvsim {
namespace {

constexpr char kControl[] = "/dev/cuse";

void AnswerRequest(const CuseNode& node, uint64_t unique, const Answer& answer) {
    if (answer.error) return node.Answer(unique, answer.error);
    fuse_ioctl_out result{};
    result.result = answer.value;
    node.AnswerWith(unique, result);
}

void Wake(int eventFd) {
    const uint64_t one = 1;
    // A full counter is as good as a written one.
    if (write(eventFd, &one, sizeof one) < 0) return;
}

}  // namespace

CuseWays KernelWays() {
    CuseWays ways;
    ways.openControl = [] { return open(kControl, O_RDWR | O_NONBLOCK | O_CLOEXEC); };
    ways.complain = [](const std::string& line) {
        std::fprintf(stderr, "qvcap-sim: serve: %s\n", line.c_str());
    };
    return ways;
}

CuseServer::CuseServer(std::shared_ptr<Model> model, CuseWays ways)
    : model_(std::move(model)),
      ways_(std::move(ways)),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      changed_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    const std::lock_guard lock(model_->Mutex());
    model_->Events().Listen([this](uint64_t event) {
        const std::lock_guard guard(changing_);
        if (changedEvents_.empty()) Wake(changed_);
        changedEvents_.insert(event);
    });
}

CuseServer::~CuseServer() {
    {
        const std::lock_guard lock(model_->Mutex());
        model_->Events().Listen(nullptr);
    }
    for (const int fd : {epoll_, changed_})
        if (fd >= 0) close(fd);
}

bool CuseServer::Watch(int fd, void* what) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = what;
    return epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) == 0;
}

std::string CuseServer::Start(int stop) {
    stop_ = stop;
    if (epoll_ < 0 || changed_ < 0 || !Watch(changed_, &changed_) || !Watch(stop, &stop_))
        return std::string("no descriptors to serve with: ") + std::strerror(errno);
    const std::vector<std::string> names = model_->NodeNames();
    if (names.empty()) return "there is no node to serve: these cards have none";
    for (const std::string& name : names)
        if (std::string error = AddNode(name); !error.empty()) return error;
    return AwaitNodes();
}

std::string CuseServer::AddNode(const std::string& name) {
    const std::string place = ways_.deviceFolder + "/" + name;
    // The kernel itself would let the older node stand and say nothing.
    if (access(place.c_str(), F_OK) == 0)
        return place +
               " exists already: unload the driver or end the server that it belongs to, "
               "or give the cards other nodes (first_node in the scenario)";
    const int fd = ways_.openControl();
    if (fd < 0) {
        std::string why = std::string(kControl) + ": " + std::strerror(errno);
        if (errno == ENOENT || errno == ENODEV || errno == ENXIO)
            return why +
                   ": this kernel has no devices in user space, or the module is not loaded "
                   "(modprobe cuse). `qvcap-sim run` needs none";
        if (errno == EACCES || errno == EPERM) return why + ": serving nodes needs root";
        return why;
    }
    nodes_.push_back(std::make_unique<CuseNode>(name, fd));
    if (!Watch(fd, nodes_.back().get()))
        return name + " cannot be watched: " + std::strerror(errno);
    return {};
}

// A name alone proves nothing: somebody else may have made it meanwhile.
std::string CuseServer::AwaitNodes() {
    const Clock::time_point end = Clock::now() + ways_.patience;
    while (!stopped_) {
        const auto missing = std::find_if(nodes_.begin(), nodes_.end(), [this](const auto& node) {
            return !node->Greeted() ||
                   access((ways_.deviceFolder + "/" + node->Name()).c_str(), F_OK) != 0;
        });
        if (missing == nodes_.end()) return {};
        if (Clock::now() >= end) {
            const std::string place = ways_.deviceFolder + "/" + (*missing)->Name();
            return (*missing)->Greeted()
                       ? "the kernel has not made " + place + ": is devtmpfs mounted there?"
                       : "the kernel has not asked for " + place + ": is " + kControl +
                             " its own control device?";
        }
        if (std::string error = ServeOnce(5); !error.empty()) return error;
    }
    return {};
}

std::string CuseServer::Run() {
    std::string error;
    while (error.empty() && !stopped_) error = ServeOnce(TimeToDeadline());
    EndWaiters(ENODEV);
    for (const auto& [number, open] : files_) model_->Close(open.file, open.number);
    files_.clear();
    nodes_.clear();
    const std::lock_guard lock(settling_);
    settleDone_ = UINT64_MAX;
    settled_.notify_all();
    return error;
}

void CuseServer::Settle() {
    std::unique_lock lock(settling_);
    const uint64_t mine = ++settleAsked_;
    Wake(changed_);
    settled_.wait(lock, [&] { return settleDone_ >= mine; });
}

std::string CuseServer::ServeOnce(int timeout) {
    std::vector<Sent> sent;
    std::string error = Collect(timeout, sent);
    uint64_t asked = 0;
    {
        const std::lock_guard lock(settling_);
        asked = settleAsked_;
    }
    // A close returns before its release is read, so what its process asks of another node next may
    // have been read first.
    std::stable_partition(sent.begin(), sent.end(), [](const Sent& one) {
        return one.message.header.opcode == FUSE_RELEASE;
    });
    for (const auto& [node, message] : sent) {
        const std::string refused = Serve(*node, message);
        if (error.empty()) error = refused;
    }
    AskWaiters();
    TakeNodesAway();
    const std::lock_guard lock(settling_);
    settleDone_ = std::max(settleDone_, asked);
    settled_.notify_all();
    return error;
}

// Waits for messages, then takes everything that is there, of all nodes. That has an end: a caller
// has one request on its way, and none is answered here.
std::string CuseServer::Collect(int timeout, std::vector<Sent>& sent) {
    epoll_event events[16];
    for (;; timeout = 0) {
        const int count = epoll_wait(epoll_, events, 16, timeout);
        if (count < 0 && errno != EINTR)
            return std::string("waiting failed: ") + std::strerror(errno);
        if (count <= 0) return {};
        for (int i = 0; i < count; ++i) {
            void* const what = events[i].data.ptr;
            if (what == &stop_) {
                stopped_ = true;
                epoll_ctl(epoll_, EPOLL_CTL_DEL, stop_, nullptr);  // it stays readable
            } else if (what == &changed_) {
                uint64_t changes = 0;
                if (read(changed_, &changes, sizeof changes) < 0) continue;
            } else {
                CuseNode* const node = static_cast<CuseNode*>(what);
                Sent one{node, {}};
                switch (node->Receive(one.message)) {
                    case CuseNode::Received::kMessage:
                        sent.push_back(std::move(one));
                        break;
                    case CuseNode::Received::kGone:
                        return node->Path() +
                               " was refused or taken away by the kernel: is there another "
                               "node of this name?";
                    case CuseNode::Received::kNothing:
                        break;
                }
            }
        }
    }
}

std::string CuseServer::Serve(CuseNode& node, const CuseMessage& message) {
    switch (message.header.opcode) {
        case CUSE_INIT:
            if (!node.AnswerInit(message))
                return "this kernel serves devices in a way that is not known here";
            break;
        case FUSE_OPEN:
            ServeOpen(node, message);
            break;
        case FUSE_RELEASE:
            ServeRelease(node, message);
            break;
        case FUSE_IOCTL:
            ServeIoctl(node, message);
            break;
        case FUSE_INTERRUPT:
            Interrupt(node, message);
            break;
        default:
            node.Answer(message.header.unique, ENOSYS);
    }
    return {};
}

void CuseServer::ServeOpen(CuseNode& node, const CuseMessage& message) {
    int error = 0;
    const std::shared_ptr<OpenFile> file = model_->Open(node.Path(), error);
    const uint64_t number = nextFile_++;
    model_->JournalOpen(node.Path(), file ? static_cast<int>(number) : -1, error);
    if (!file) {
        NoteIfGone(node, error);
        return node.Answer(message.header.unique, error);
    }
    files_[number] = {file, static_cast<int>(number)};
    fuse_open_out opened{};
    opened.fh = number;
    opened.open_flags = FOPEN_DIRECT_IO | FOPEN_NONSEEKABLE;
    node.AnswerWith(message.header.unique, opened);
}

void CuseServer::ServeRelease(CuseNode& node, const CuseMessage& message) {
    fuse_release_in release{};
    const auto found =
        message.Get(&release, sizeof release) ? files_.find(release.fh) : files_.end();
    if (found == files_.end()) return node.Answer(message.header.unique, EBADF);
    model_->Close(found->second.file, found->second.number);
    files_.erase(found);
    node.Answer(message.header.unique, 0);
}

void CuseServer::ServeIoctl(CuseNode& node, const CuseMessage& message) {
    fuse_ioctl_in request{};
    if (!message.Get(&request, sizeof request)) return node.Answer(message.header.unique, EBADF);
    // Addresses of this process's own size reach no further.
    if (sizeof(void*) == 4 && (request.flags & FUSE_IOCTL_32BIT) == 0) {
        if (!std::exchange(complained_, true))
            ways_.complain(
                "process " + std::to_string(message.header.pid) +
                " is a 64-bit program, which a 32-bit qvcap-sim cannot serve: its requests "
                "fail with EFAULT. Serve with a 64-bit qvcap-sim, which serves both");
        return node.Answer(message.header.unique, EFAULT);
    }
    Try({&node, message.header.unique, request.fh, request.cmd, request.arg,
         static_cast<pid_t>(message.header.pid)},
        {});
}

// Serves a request, or parks it until it can be.
void CuseServer::Try(const Request& request, ParkedWait wait) {
    const auto open = files_.find(request.file);
    if (open == files_.end()) return request.node->Answer(request.unique, EBADF);
    ClientMemory memory(request.thread);
    const Answer answer =
        ServeRequest(*model_, *open->second.file, request.code, request.address, memory, &wait);
    if (!wait.ForEvent() && !wait.ForCard()) {
        NoteIfGone(*request.node, answer.error);
        return AnswerRequest(*request.node, request.unique, answer);
    }
    // The kernel has said so once, and does not say it again.
    if (wait.ForEvent() && request.interrupted) return EndWait(request, wait, EINTR);
    Waiter waiter{request, std::move(wait), {}};
    if (waiter.wait.ForCard())
        waiter.deadline = Clock::now() + waiter.wait.delay;
    else if (waiter.wait.timeout > 0)
        waiter.deadline = Clock::now() + std::chrono::milliseconds(waiter.wait.timeout);
    waiters_.push_back(std::move(waiter));
}

void CuseServer::EndWait(const Request& request, const ParkedWait& wait, int error) {
    Answer answer = Refused(error);
    if (wait.ForEvent()) AskAgain(*model_, wait, true, error, answer);
    AnswerRequest(*request.node, request.unique, answer);
}

// Without an answer the caller could not be killed. An interrupt for a request that was answered
// already, or that never waits, needs none; a card at work is not interrupted, but what its caller
// would wait for behind that is.
void CuseServer::Interrupt(CuseNode& node, const CuseMessage& message) {
    fuse_interrupt_in interrupt{};
    if (!message.Get(&interrupt, sizeof interrupt)) return;
    std::erase_if(waiters_, [&](Waiter& waiter) {
        if (waiter.request.node != &node || waiter.request.unique != interrupt.unique) return false;
        waiter.request.interrupted = true;
        if (waiter.wait.ForCard()) return false;
        EndWait(waiter.request, waiter.wait, EINTR);
        return true;
    });
}

// In order of arrival: of several waiters for one event the first takes it.
void CuseServer::AskWaiters() {
    std::set<uint64_t> changed;
    {
        const std::lock_guard guard(changing_);
        changed.swap(changedEvents_);
    }
    const auto concerns = [&](const ParkedWait& wait) {
        return changed.count(EventTable::kAnyEvent) != 0 ||
               std::any_of(wait.events.begin(), wait.events.end(),
                           [&](uint64_t event) { return changed.count(event) != 0; });
    };
    const Clock::time_point now = Clock::now();
    std::vector<Waiter> asked;
    asked.swap(waiters_);
    for (Waiter& waiter : asked) {
        const bool late = waiter.deadline && *waiter.deadline <= now;
        if (waiter.wait.ForCard() && late) {
            waiter.wait.DelayOver();
            Try(waiter.request, std::move(waiter.wait));
            continue;
        }
        Answer answer;
        if (waiter.wait.ForEvent() && (late || concerns(waiter.wait)) &&
            AskAgain(*model_, waiter.wait, late, 0, answer))
            AnswerRequest(*waiter.request.node, waiter.request.unique, answer);
        else
            waiters_.push_back(std::move(waiter));
    }
}

void CuseServer::NoteIfGone(CuseNode& node, int error) {
    if (error != ENODEV || model_->Exists(node.Path())) return;
    gone_.insert(&node);
    // Whoever has the answer finds no name any more; the kernel takes it away only later, when the
    // control device is closed, through which the answer still has to go.
    unlink((ways_.deviceFolder + "/" + node.Name()).c_str());
}

// As when a card is pulled out: the kernel removes the node and fails whatever still comes from the
// programs that have it open.
void CuseServer::TakeNodesAway() {
    for (CuseNode* const node : gone_) {
        std::erase_if(waiters_, [&](const Waiter& one) { return one.request.node == node; });
        std::erase_if(files_, [&](const auto& item) {
            if (item.second.file->path != node->Path()) return false;
            model_->Close(item.second.file, item.second.number);
            return true;
        });
        std::erase_if(nodes_, [&](const auto& one) { return one.get() == node; });
    }
    gone_.clear();
}

void CuseServer::EndWaiters(int error) {
    for (const Waiter& waiter : waiters_) EndWait(waiter.request, waiter.wait, error);
    waiters_.clear();
}

int CuseServer::TimeToDeadline() const {
    std::optional<Clock::time_point> first;
    for (const Waiter& waiter : waiters_)
        if (waiter.deadline && (!first || *waiter.deadline < *first)) first = waiter.deadline;
    if (!first) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*first - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, 60000));
}

}  // namespace qvsim
