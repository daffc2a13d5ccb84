// Serves all nodes from one thread: what must wait is parked, the rest is answered at once. What a
// request does is in sim/protocol.
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
    // A full counter is also readable.
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
    : m_model(std::move(model)),
      m_ways(std::move(ways)),
      m_epoll(epoll_create1(EPOLL_CLOEXEC)),
      m_changed(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    Model::Locked(*m_model)->Events().Listen([this](uint64_t event) {
        const std::lock_guard guard(m_changing);
        if (m_changedEvents.empty()) Wake(m_changed);
        m_changedEvents.insert(event);
    });
}

CuseServer::~CuseServer() {
    Model::Locked(*m_model)->Events().Listen(nullptr);
    for (const int fd : {m_epoll, m_changed})
        if (fd >= 0) close(fd);
}

bool CuseServer::Watch(int fd, void* what) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = what;
    return epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

std::string CuseServer::Start(int stop) {
    m_stop = stop;
    if (m_epoll < 0 || m_changed < 0 || !Watch(m_changed, &m_changed) || !Watch(stop, &m_stop))
        return std::string("no descriptors to serve with: ") + std::strerror(errno);
    const std::vector<std::string> names = m_model->NodeNames();
    if (names.empty()) return "there is no node to serve: these cards have none";
    for (const std::string& name : names)
        if (std::string error = AddNode(name); !error.empty()) return error;
    return AwaitNodes();
}

std::string CuseServer::AddNode(const std::string& name) {
    const std::string place = m_ways.deviceFolder + "/" + name;
    // The kernel itself would keep the older node and report nothing.
    if (access(place.c_str(), F_OK) == 0)
        return place +
               " exists already: unload the driver or end the server that it belongs to, "
               "or give the cards other nodes (first_node in the scenario)";
    const int fd = m_ways.openControl();
    if (fd < 0) {
        std::string why = std::string(kControl) + ": " + std::strerror(errno);
        if (errno == ENOENT || errno == ENODEV || errno == ENXIO)
            return why +
                   ": this kernel has no devices in user space, or the module is not loaded "
                   "(modprobe cuse). `qvcap-sim run` needs none";
        if (errno == EACCES || errno == EPERM) return why + ": serving nodes needs root";
        return why;
    }
    m_nodes.push_back(std::make_unique<CuseNode>(name, fd));
    if (!Watch(fd, m_nodes.back().get()))
        return name + " cannot be watched: " + std::strerror(errno);
    return {};
}

// A name alone is no proof: somebody else may have made it meanwhile.
std::string CuseServer::AwaitNodes() {
    const Clock::time_point end = Clock::now() + m_ways.patience;
    while (!m_stopped) {
        const auto missing = std::find_if(m_nodes.begin(), m_nodes.end(), [this](const auto& node) {
            return !node->Greeted() ||
                   access((m_ways.deviceFolder + "/" + node->Name()).c_str(), F_OK) != 0;
        });
        if (missing == m_nodes.end()) return {};
        if (Clock::now() >= end) {
            const std::string place = m_ways.deviceFolder + "/" + (*missing)->Name();
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
    while (error.empty() && !m_stopped) error = ServeOnce(TimeToDeadline());
    EndWaiters(ENODEV);
    for (const auto& [number, open] : m_files) m_model->Close(open.file, open.number);
    m_files.clear();
    m_nodes.clear();
    const std::lock_guard lock(m_settling);
    m_settleDone = UINT64_MAX;
    m_settled.notify_all();
    return error;
}

void CuseServer::Settle() {
    std::unique_lock lock(m_settling);
    const uint64_t mine = ++m_settleAsked;
    Wake(m_changed);
    m_settled.wait(lock, [&] { return m_settleDone >= mine; });
}

std::string CuseServer::ServeOnce(int timeout) {
    std::vector<Sent> sent;
    std::string error = Collect(timeout, sent);
    uint64_t asked = 0;
    {
        const std::lock_guard lock(m_settling);
        asked = m_settleAsked;
    }
    // A close returns before its release is read, so the next request of its process to another
    // node may have been read first.
    std::stable_partition(sent.begin(), sent.end(), [](const Sent& one) {
        return one.message.header.opcode == FUSE_RELEASE;
    });
    for (const auto& [node, message] : sent) {
        const std::string refused = Serve(*node, message);
        if (error.empty()) error = refused;
    }
    AskWaiters();
    AskOpeners();
    TakeNodesAway();
    const std::lock_guard lock(m_settling);
    m_settleDone = std::max(m_settleDone, asked);
    m_settled.notify_all();
    return error;
}

// Waits for messages, then reads all that are there, from all nodes. This ends: each caller has one
// request at a time, and none is answered here.
std::string CuseServer::Collect(int timeout, std::vector<Sent>& sent) {
    epoll_event events[16];
    for (;; timeout = 0) {
        const int count = epoll_wait(m_epoll, events, 16, timeout);
        if (count < 0 && errno != EINTR)
            return std::string("waiting failed: ") + std::strerror(errno);
        if (count <= 0) return {};
        for (int i = 0; i < count; ++i) {
            void* const what = events[i].data.ptr;
            if (what == &m_stop) {
                m_stopped = true;
                epoll_ctl(m_epoll, EPOLL_CTL_DEL, m_stop, nullptr);  // it stays readable
            } else if (what == &m_changed) {
                uint64_t changes = 0;
                if (read(m_changed, &changes, sizeof changes) < 0) continue;
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
            TryOpen({&node, message.header.unique, static_cast<pid_t>(message.header.pid), {}, {}});
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

// Serves an open, or parks it until it can be served.
void CuseServer::TryOpen(Opener opener) {
    CuseNode& node = *opener.node;
    int error = 0;
    const std::shared_ptr<OpenFile> file = m_model->Open(node.Path(), error, &opener.open);
    if (opener.open.delay.count() > 0) {
        // A program that has been killed ends only with an answer.
        if (opener.interrupted && IsEnding(opener.thread)) return node.Answer(opener.unique, EINTR);
        opener.deadline = Clock::now() + opener.open.delay;
        m_openers.push_back(std::move(opener));
        return;
    }
    const uint64_t number = m_nextFile++;
    m_model->JournalOpen(node.Path(), file ? static_cast<int>(number) : -1, error);
    if (!file) {
        NoteIfGone(node, error);
        return node.Answer(opener.unique, error);
    }
    m_files[number] = {file, static_cast<int>(number)};
    fuse_open_out opened{};
    opened.fh = number;
    opened.open_flags = FOPEN_DIRECT_IO | FOPEN_NONSEEKABLE;
    node.AnswerWith(opener.unique, opened);
}

void CuseServer::ServeRelease(CuseNode& node, const CuseMessage& message) {
    fuse_release_in release{};
    const auto found =
        message.Get(&release, sizeof release) ? m_files.find(release.fh) : m_files.end();
    if (found == m_files.end()) return node.Answer(message.header.unique, EBADF);
    m_model->Close(found->second.file, found->second.number);
    m_files.erase(found);
    node.Answer(message.header.unique, 0);
}

void CuseServer::ServeIoctl(CuseNode& node, const CuseMessage& message) {
    fuse_ioctl_in request{};
    if (!message.Get(&request, sizeof request)) return node.Answer(message.header.unique, EBADF);
    // Addresses of this process's word size go no higher.
    if (sizeof(void*) == 4 && (request.flags & FUSE_IOCTL_32BIT) == 0) {
        if (!std::exchange(m_complained, true))
            m_ways.complain(
                "process " + std::to_string(message.header.pid) +
                " is a 64-bit program, which a 32-bit qvcap-sim cannot serve: its requests "
                "fail with EFAULT. Serve with a 64-bit qvcap-sim, which serves both");
        return node.Answer(message.header.unique, EFAULT);
    }
    Try({&node, message.header.unique, request.fh, request.cmd, request.arg,
         static_cast<pid_t>(message.header.pid)},
        {});
}

// Serves a request, or parks it until it can be served.
void CuseServer::Try(const Request& request, ParkedWait wait) {
    const auto open = m_files.find(request.file);
    if (open == m_files.end()) return request.node->Answer(request.unique, EBADF);
    ClientMemory memory(request.thread);
    const Answer answer =
        ServeRequest(*m_model, *open->second.file, request.code, request.address, memory, &wait);
    if (!wait.ForEvent() && !wait.ForCard()) {
        NoteIfGone(*request.node, answer.error);
        return AnswerRequest(*request.node, request.unique, answer);
    }
    // The kernel reports this only once.
    if (wait.ForEvent() && request.interrupted) return EndWait(request, wait, EINTR);
    // A program that has been killed ends only with an answer.
    if (wait.hangs && request.interrupted && IsEnding(request.thread))
        return EndWait(request, wait, EINTR);
    Waiter waiter{request, std::move(wait), {}};
    if (waiter.wait.ForCard())
        waiter.deadline = Clock::now() + waiter.wait.delay;
    else if (waiter.wait.timeout > 0)
        waiter.deadline = Clock::now() + std::chrono::milliseconds(waiter.wait.timeout);
    m_waiters.push_back(std::move(waiter));
}

void CuseServer::EndWait(const Request& request, const ParkedWait& wait, int error) {
    Answer answer = Refused(error);
    if (wait.ForEvent()) AskAgain(*m_model, wait, true, error, answer);
    AnswerRequest(*request.node, request.unique, answer);
}

// Without an answer the caller could not be killed. An interrupt for a request that is already
// answered, or that never waits, needs none. A working card is not interrupted, but a wait of the
// caller after that is. What hangs ends with its program; the kernel does not say later that a
// program that had a signal has been killed, so Try and TryOpen look themselves.
void CuseServer::Interrupt(CuseNode& node, const CuseMessage& message) {
    fuse_interrupt_in interrupt{};
    if (!message.Get(&interrupt, sizeof interrupt)) return;
    std::erase_if(m_waiters, [&](Waiter& waiter) {
        if (waiter.request.node != &node || waiter.request.unique != interrupt.unique) return false;
        waiter.request.interrupted = true;
        if (waiter.wait.ForCard()) return false;
        EndWait(waiter.request, waiter.wait, EINTR);
        return true;
    });
    for (Opener& opener : m_openers)
        if (opener.node == &node && opener.unique == interrupt.unique) opener.interrupted = true;
}

// In order of arrival: of several waiters for one event the first one gets it.
void CuseServer::AskWaiters() {
    std::set<uint64_t> changed;
    {
        const std::lock_guard guard(m_changing);
        changed.swap(m_changedEvents);
    }
    const auto concerns = [&](const ParkedWait& wait) {
        return changed.count(EventTable::kAnyEvent) != 0 ||
               std::any_of(wait.events.begin(), wait.events.end(),
                           [&](uint64_t event) { return changed.count(event) != 0; });
    };
    const Clock::time_point now = Clock::now();
    std::vector<Waiter> asked;
    asked.swap(m_waiters);
    for (Waiter& waiter : asked) {
        const bool late = waiter.deadline && *waiter.deadline <= now;
        if (waiter.wait.ForCard() && late) {
            waiter.wait.DelayOver();
            Try(waiter.request, std::move(waiter.wait));
            continue;
        }
        Answer answer;
        if (waiter.wait.ForEvent() && (late || concerns(waiter.wait)) &&
            AskAgain(*m_model, waiter.wait, late, 0, answer))
            AnswerRequest(*waiter.request.node, waiter.request.unique, answer);
        else
            m_waiters.push_back(std::move(waiter));
    }
}

void CuseServer::AskOpeners() {
    const Clock::time_point now = Clock::now();
    std::vector<Opener> asked;
    asked.swap(m_openers);
    for (Opener& opener : asked)
        if (opener.deadline <= now)
            TryOpen(std::move(opener));
        else
            m_openers.push_back(std::move(opener));
}

void CuseServer::NoteIfGone(CuseNode& node, int error) {
    if (error != ENODEV || m_model->Exists(node.Path())) return;
    m_gone.insert(&node);
    // The name must be gone when the caller gets the answer; the kernel removes it only later, when
    // the control device is closed, but the answer still needs that device.
    unlink((m_ways.deviceFolder + "/" + node.Name()).c_str());
}

// As when a card is pulled out: the kernel removes the node and fails all further requests of
// programs that have it open.
void CuseServer::TakeNodesAway() {
    for (CuseNode* const node : m_gone) {
        std::erase_if(m_waiters, [&](const Waiter& one) { return one.request.node == node; });
        std::erase_if(m_openers, [&](const Opener& one) { return one.node == node; });
        std::erase_if(m_files, [&](const auto& item) {
            if (item.second.file->path != node->Path()) return false;
            m_model->Close(item.second.file, item.second.number);
            return true;
        });
        std::erase_if(m_nodes, [&](const auto& one) { return one.get() == node; });
    }
    m_gone.clear();
}

void CuseServer::EndWaiters(int error) {
    for (const Waiter& waiter : m_waiters) EndWait(waiter.request, waiter.wait, error);
    m_waiters.clear();
    for (const Opener& opener : m_openers) opener.node->Answer(opener.unique, error);
    m_openers.clear();
}

int CuseServer::TimeToDeadline() const {
    std::optional<Clock::time_point> first;
    for (const Waiter& waiter : m_waiters)
        if (waiter.deadline && (!first || *waiter.deadline < *first)) first = waiter.deadline;
    for (const Opener& opener : m_openers)
        if (!first || opener.deadline < *first) first = opener.deadline;
    if (!first) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*first - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, 60000));
}

}  // namespace qvsim
