// How a thread sleeps in a request: for an event, for a slow card, or in one that hangs. What it
// waits for is decided by the model.
#include "Waiting.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <thread>
#include <vector>

#include "PlainFiles.h"

namespace qvsim::door {
namespace {

using Clock = std::chrono::steady_clock;

// Each sleeping thread is woken through a descriptor, because only ppoll() unblocks signals and
// starts to sleep in one step. Covered by the model's lock; there is one model at a time.
std::vector<int>& Bells() {
    static std::vector<int>& bells = *new std::vector<int>;
    return bells;
}

void RingAll() {
    const uint64_t one = 1;
    for (const int bell : Bells())
        if (write(bell, &one, sizeof one) < 0) continue;  // full: it is already readable
}

// 1 when something may have changed, 0 when the time is over, -1 when a signal came.
int SleepUntil(int bell, const std::optional<Clock::time_point>& deadline, const sigset_t& outer) {
    timespec time{};
    if (deadline) {
        const auto left = std::max(*deadline - Clock::now(), Clock::duration::zero());
        const auto count = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
        time.tv_sec = static_cast<time_t>(count / 1000000000);
        time.tv_nsec = static_cast<long>(count % 1000000000);
    }
    pollfd waiting{bell, POLLIN, 0};
    const int ready = ppoll(&waiting, 1, deadline ? &time : nullptr, &outer);
    uint64_t rung = 0;
    if (ready > 0 && read(bell, &rung, sizeof rung) < 0) return 1;
    return ready;
}

// What ends the program still ends it while its request hangs; what it handles itself waits.
void SleepInHang(std::chrono::microseconds time, sigset_t mask) {
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action {};
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_DFL &&
            action.sa_handler != SIG_IGN)
            sigaddset(&mask, signal);
    }
    timespec span{};
    span.tv_nsec = static_cast<long>(time.count() * 1000);  // less than a second
    ppoll(nullptr, 0, &span, &mask);
}

Answer SleepOn(Model& model, const ParkedWait& wait, const sigset_t& outer) {
    Answer answer = Refused(EINTR);
    std::optional<Clock::time_point> deadline;
    if (wait.timeout > 0) deadline = Clock::now() + std::chrono::milliseconds(wait.timeout);
    const int bell = OutOfTheWay(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (bell < 0) {
        AskAgain(model, wait, true, ENOMEM, answer);
        return answer;
    }
    {
        const Model::Locked cards(model);
        Bells().push_back(bell);
        cards->Events().Listen([](uint64_t) { RingAll(); });
    }
    for (bool late = false; !AskAgain(model, wait, late, 0, answer);) {
        const int came = SleepUntil(bell, deadline, outer);
        if (came < 0 && AskAgain(model, wait, true, EINTR, answer)) break;
        late = came == 0;
    }
    {
        const Model::Locked cards(model);
        std::erase(Bells(), bell);
    }
    CloseOwn(bell);
    return answer;
}

}  // namespace

Answer Serve(Model& model, OpenFile& file, uint32_t code, uint64_t address, CallerMemory& memory,
             const sigset_t* outer) {
    if (!outer) return ServeRequest(model, file, code, address, memory);
    ParkedWait wait;
    Answer answer = ServeRequest(model, file, code, address, memory, &wait);
    // A working card is not interrupted.
    while (wait.ForCard()) {
        if (wait.hangs)
            SleepInHang(wait.delay, *outer);
        else
            std::this_thread::sleep_for(wait.delay);
        wait.DelayOver();
        answer = ServeRequest(model, file, code, address, memory, &wait);
    }
    return wait.ForEvent() ? SleepOn(model, wait, *outer) : answer;
}

std::shared_ptr<OpenFile> Open(Model& model, const std::string& node, int& error,
                               const sigset_t* outer) {
    if (!outer) return model.Open(node, error);
    ParkedOpen open;
    std::shared_ptr<OpenFile> file = model.Open(node, error, &open);
    while (open.delay.count() > 0) {
        if (open.Hangs())
            SleepInHang(open.delay, *outer);
        else
            std::this_thread::sleep_for(open.delay);
        file = model.Open(node, error, &open);
    }
    return file;
}

void ForgetSleepers() { Bells().clear(); }

}  // namespace qvsim::door
