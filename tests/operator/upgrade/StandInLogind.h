// A system bus with logind on it, as far as a program needs it that holds up a shutdown: a socket
// that speaks the bus's language, by libsystemd, and answers Hello and Inhibit. It tells which
// inhibitors are held. A thread of its own; may be asked from any.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qvtest {

class StandInLogind {
  public:
    // Listens at this path. With `refuses`, it answers that access is denied.
    explicit StandInLogind(const std::string& path, bool refuses = false);
    ~StandInLogind();
    StandInLogind(const StandInLogind&) = delete;
    StandInLogind& operator=(const StandInLogind&) = delete;

    // Whether there is a libsystemd for programs of this word size.
    static bool IsPossible();

    // "what|who|why|mode" of every inhibitor that was asked for.
    std::vector<std::string> Asked() const;
    // How many of them somebody still holds.
    size_t Held() const;

  private:
    void Serve();
    void Talk(int connection);
    // A descriptor for the one who asked, and -1 where it is refused.
    int Inhibit(const std::string& words);

    const bool m_refuses;
    int m_socket = -1;
    std::atomic<bool> m_end = false;
    mutable std::mutex m_lock;
    std::vector<std::string> m_asked;
    std::vector<int> m_holds;  // each ends with the last descriptor of the other side
    std::thread m_thread;
};

}  // namespace qvtest
