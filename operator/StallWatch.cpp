// Waits beside the thread that waits for the driver.
#include "StallWatch.h"

#include <chrono>
#include <cstdio>
#include <system_error>
#include <utility>

#include "Escape.h"

namespace qvo {

StallWatch::StallWatch(int seconds, Tell tell)
    : m_seconds(static_cast<uint32_t>(seconds)), m_tell(std::move(tell)) {
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
        // No thread is left: the work itself matters more than a word about it.
    }
}

StallWatch::~StallWatch() {
    {
        const std::lock_guard lock(m_mutex);
        m_over = true;
    }
    m_woken.notify_one();
    if (m_thread.joinable()) m_thread.join();
}

uint32_t StallWatch::Now() {
    using std::chrono::milliseconds;
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint32_t>(std::chrono::duration_cast<milliseconds>(since).count());
}

void StallWatch::Run() {
    std::unique_lock lock(m_mutex);
    uint32_t last = m_last;
    uint32_t told = 0;
    for (;;) {
        const uint32_t due = m_seconds * (told + 1) * 1000;
        const uint32_t spent = Now() - last;
        const std::chrono::milliseconds left(spent < due ? due - spent : 0);
        if (m_woken.wait_for(lock, left, [this] { return m_over; })) return;
        if (last == m_last) {
            ++told;
            m_tell(static_cast<int>(m_seconds * told));
        } else {
            last = m_last;
            told = 0;
        }
    }
}

StallWatch::Tell TellOnErrors(const std::string& who) {
    return [text = qvf::Escaped(who)](int seconds) {
        std::fprintf(stderr,
                     "qvcap: %s: nothing has come for %d s: a request hangs in the driver. It is "
                     "waited for; qvcap doctor says more\n",
                     text.c_str(), seconds);
    };
}

}  // namespace qvo
