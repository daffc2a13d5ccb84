#include "CuseServer.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace qvsim {
namespace {

constexpr char kControl[] = "/dev/cuse";

void AnswerRequest(const CuseNode& node, uint64_t unique, const Answer& answer) {
    if (answer.error) return node.Answer(unique, answer.error);
    fuse_ioctl_out result{};
    result.result = answer.value;
    node.AnswerWith(unique, result);
}

}  // namespace

CuseWays KernelWays() {
    CuseWays ways;
    ways.openControl = [] { return open(kControl, O_RDWR | O_NONBLOCK | O_CLOEXEC); };
    return ways;
}

CuseServer::CuseServer(std::shared_ptr<Model> model, CuseWays ways)
    : model_(std::move(model)),
      ways_(std::move(ways)),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      changed_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    const std::lock_guard lock(model_->Mutex());
    model_->Events().Listen([fd = changed_] {
        const uint64_t one = 1;
        // A full counter is as good as a written one.
        if (write(fd, &one, sizeof one) < 0) return;
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

std::string CuseServer::Start() {
    if (epoll_ < 0 || changed_ < 0 || !Watch(changed_, &changed_))
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
        const std::string why = std::string(kControl) + ": " + std::strerror(errno);
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

std::string CuseServer::AwaitNodes() {
    const Clock::time_point end = Clock::now() + ways_.patience;
    for (;;) {
        const auto missing = std::find_if(nodes_.begin(), nodes_.end(), [this](const auto& node) {
            return access((ways_.deviceFolder + "/" + node->Name()).c_str(), F_OK) != 0;
        });
        if (missing == nodes_.end()) return {};
        if (Clock::now() >= end)
            return "the kernel has not made " + ways_.deviceFolder + "/" + (*missing)->Name() +
                   ": is devtmpfs mounted there?";
        bool stopped = false;
        if (std::string error = ServeOnce(5, &stopped); !error.empty()) return error;
    }
}

std::string CuseServer::Run(int stop) {
    if (!Watch(stop, &epoll_)) return std::string("nothing to stop at: ") + std::strerror(errno);
    std::string error;
    for (bool stopped = false; error.empty() && !stopped;)
        error = ServeOnce(TimeToDeadline(), &stopped);
    EndWaiters(ENODEV);
    for (const auto& [number, open] : files_) model_->Close(open.file, open.number);
    files_.clear();
    nodes_.clear();
    return error;
}

std::string CuseServer::ServeOnce(int timeout, bool* stopped) {
    epoll_event events[16];
    const int count = epoll_wait(epoll_, events, 16, timeout);
    if (count < 0 && errno != EINTR) return std::string("waiting failed: ") + std::strerror(errno);
    for (int i = 0; i < count; ++i) {
        void* const what = events[i].data.ptr;
        if (what == &epoll_) {
            *stopped = true;
        } else if (what == &changed_) {
            uint64_t changes = 0;
            if (read(changed_, &changes, sizeof changes) < 0) continue;
        } else if (std::string error = Drain(*static_cast<CuseNode*>(what)); !error.empty()) {
            return error;
        }
    }
    AskWaiters();
    return {};
}

// Everything that is there: one wake-up may stand for several messages.
std::string CuseServer::Drain(CuseNode& node) {
    CuseMessage message;
    for (;;) {
        switch (node.Receive(message)) {
            case CuseNode::Received::kNothing:
                return {};
            case CuseNode::Received::kGone:
                return node.Path() +
                       " was refused or taken away by the kernel: is there another "
                       "node of this name?";
            case CuseNode::Received::kMessage:
                if (std::string error = Serve(node, message); !error.empty()) return error;
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
    if (!file) return node.Answer(message.header.unique, error);
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
    const auto found =
        message.Get(&request, sizeof request) ? files_.find(request.fh) : files_.end();
    if (found == files_.end()) return node.Answer(message.header.unique, EBADF);
    ClientMemory memory(static_cast<pid_t>(message.header.pid));
    ParkedWait wait;
    const Answer answer =
        ServeRequest(*model_, *found->second.file, request.cmd, request.arg, memory, &wait);
    if (!wait.Parked()) return AnswerRequest(node, message.header.unique, answer);
    Waiter waiter{&node, message.header.unique, std::move(wait), {}};
    if (waiter.wait.timeout > 0)
        waiter.deadline = Clock::now() + std::chrono::milliseconds(waiter.wait.timeout);
    waiters_.push_back(std::move(waiter));
}

// Without an answer the caller could not be killed. An interrupt for a request that was answered
// already, or that never waits, needs none.
void CuseServer::Interrupt(CuseNode& node, const CuseMessage& message) {
    fuse_interrupt_in interrupt{};
    if (!message.Get(&interrupt, sizeof interrupt)) return;
    std::erase_if(waiters_, [&](const Waiter& waiter) {
        if (waiter.node != &node || waiter.unique != interrupt.unique) return false;
        Answer answer;
        AskAgain(*model_, waiter.wait, true, EINTR, answer);
        AnswerRequest(node, waiter.unique, answer);
        return true;
    });
}

// In order of arrival: of several waiters for one event the first takes it.
void CuseServer::AskWaiters() {
    const Clock::time_point now = Clock::now();
    std::erase_if(waiters_, [&](const Waiter& waiter) {
        const bool late = waiter.deadline && *waiter.deadline <= now;
        Answer answer;
        if (!AskAgain(*model_, waiter.wait, late, 0, answer)) return false;
        AnswerRequest(*waiter.node, waiter.unique, answer);
        return true;
    });
}

void CuseServer::EndWaiters(int error) {
    for (const Waiter& waiter : waiters_) {
        Answer answer;
        AskAgain(*model_, waiter.wait, true, error, answer);
        AnswerRequest(*waiter.node, waiter.unique, answer);
    }
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
