#include "FrameWriter.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <new>
#include <utility>

#include "Picture.h"

namespace qvsim {

std::thread QuietThread(std::function<void()> body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);  // inherited by the new thread
    std::thread thread(std::move(body));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

void FrameWriter::Add(Channel& channel, FrameRequest request, uint32_t number) {
    if (stopping_) return;
    jobs_.push_back({&channel, std::move(request), number});
    if (!thread_.joinable()) thread_ = QuietThread([this] { Work(); });
    changed_.notify_all();
}

void FrameWriter::Cancel(Lock& lock, const Channel& channel) {
    std::erase_if(jobs_, [&](const Job& job) { return job.channel == &channel; });
    if (drawing_ == &channel) cancelled_ = true;
    changed_.wait(lock, [&] { return drawing_ != &channel; });
}

size_t FrameWriter::InWork(const Channel& channel) const {
    const auto queued = std::count_if(jobs_.begin(), jobs_.end(),
                                      [&](const Job& job) { return job.channel == &channel; });
    return static_cast<size_t>(queued) + (drawing_ == &channel ? 1 : 0);
}

void FrameWriter::Stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
}

void FrameWriter::BeginInChild() {
    new (&changed_) std::condition_variable;
    new (&thread_) std::thread;
    jobs_.clear();
    drawing_ = nullptr;
}

void FrameWriter::Work() {
    Lock lock(mutex_);
    while (!stopping_) {
        if (jobs_.empty()) {
            changed_.wait(lock);
            continue;
        }
        const Job job = std::move(jobs_.front());
        jobs_.pop_front();
        drawing_ = job.channel;
        cancelled_ = false;
        lock.unlock();
        const bool drawn = DrawPicture(job.request, job.number);
        lock.lock();
        drawing_ = nullptr;
        changed_.notify_all();
        if (!cancelled_) done_(*job.channel, {job.number, job.request.context, drawn});
    }
}

}  // namespace qvsim
