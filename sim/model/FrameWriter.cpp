// The queue of pictures to write, and the thread that writes them. What a picture shows is in
// Picture.cpp.
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
    if (m_stopping) return;
    m_jobs.push_back({&channel, std::move(request), number});
    if (!m_thread.joinable()) m_thread = QuietThread([this] { Work(); });
    m_changed.notify_all();
}

void FrameWriter::Cancel(Lock& lock, const Channel& channel) {
    std::erase_if(m_jobs, [&](const Job& job) { return job.channel == &channel; });
    if (m_drawing == &channel) m_cancelled = true;
    m_changed.wait(lock, [&] { return m_drawing != &channel; });
}

size_t FrameWriter::InWork(const Channel& channel) const {
    const auto queued = std::count_if(m_jobs.begin(), m_jobs.end(),
                                      [&](const Job& job) { return job.channel == &channel; });
    return static_cast<size_t>(queued) + (m_drawing == &channel ? 1 : 0);
}

void FrameWriter::Stop() {
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
        m_changed.notify_all();
    }
    if (m_thread.joinable()) m_thread.join();
}

void FrameWriter::BeginInChild() {
    new (&m_changed) std::condition_variable;
    new (&m_thread) std::thread;
    m_jobs.clear();
    m_drawing = nullptr;
}

void FrameWriter::Work() {
    Lock lock(m_mutex);
    while (!m_stopping) {
        if (m_jobs.empty()) {
            m_changed.wait(lock);
            continue;
        }
        const Job job = std::move(m_jobs.front());
        m_jobs.pop_front();
        m_drawing = job.channel;
        m_cancelled = false;
        lock.unlock();
        const bool drawn = DrawPicture(job.request, job.number);
        lock.lock();
        m_drawing = nullptr;
        m_changed.notify_all();
        if (!m_cancelled) m_done(*job.channel, {job.number, job.request.context, drawn});
    }
}

}  // namespace qvsim
