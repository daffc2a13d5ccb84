// What the processes on one folder of cards share besides its files: a lock, and a page of numbers
// that all of them have in memory.
//
// The files are the only truth; the page says when one of them has changed, so that a request reads
// one number and not the files. Its layout is the same for programs of both word sizes, and its
// file is written completely when it is created, so that a full disk cannot damage it later. Any
// thread may read and count the numbers of the page; the lock belongs to the process, and within it
// to the holder of the model's lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace qvsim {

inline constexpr size_t kMaxFaults = 1024;
inline constexpr size_t kMaxBoards = 16;
inline constexpr size_t kMaxChannelsOnBoard = 16;

struct LivePage {
    char magic[16];
    alignas(8) uint64_t sequence;  // of the journal's last line
    alignas(8) uint64_t journalBytes;
    alignas(8) uint64_t journalReserved;    // so many bytes of the journal are reserved on the disk
    alignas(8) uint64_t boot;               // the machine's start that the clocks belong to
    alignas(8) int64_t clocks[kMaxBoards];  // device time less time since the machine's start
    uint32_t journalEpoch;                  // how often the journal was restarted
    uint32_t generation;                    // of the state file
    uint32_t opens;                         // nodes that are open, or were left open
    uint32_t lastOpen;                      // number of the newest one
    uint32_t settings[kMaxBoards][kMaxChannelsOnBoard];  // generations of the settings files
    uint32_t faultSeen[kMaxFaults];                      // how often each fault's request has come
};
static_assert(offsetof(LivePage, clocks) == 48 && offsetof(LivePage, journalEpoch) == 176 &&
              offsetof(LivePage, settings) == 192 && sizeof(LivePage) == 5312);

template <class Number>
Number LoadShared(Number& shared) {
    return std::atomic_ref<Number>(shared).load(std::memory_order_acquire);
}
template <class Number>
void StoreShared(Number& shared, Number value) {
    std::atomic_ref<Number>(shared).store(value, std::memory_order_release);
}
template <class Number>
Number CountShared(Number& shared, Number step = 1) {
    return std::atomic_ref<Number>(shared).fetch_add(step) + step;
}

class Folder {
  public:
    // The page of new cards. Returns an error message, empty on success.
    static std::string Make(const std::string& dir);
    // The folder of existing cards. Returns an error message, empty on success.
    static std::string Open(const std::string& dir, std::unique_ptr<Folder>& out);
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder();

    const std::string& Dir() const { return m_dir; }
    LivePage& Page() const { return *m_page; }

    // While one exists, no other process changes a file of the folder. Nests.
    class Lock {
      public:
        explicit Lock(Folder* folder) : m_folder(folder) {
            if (m_folder) m_folder->Acquire();
        }
        ~Lock() {
            if (m_folder) m_folder->Release();
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

      private:
        Folder* m_folder;
    };

  private:
    Folder() = default;
    void Acquire();
    void Release();

    std::string m_dir;
    int m_fd = -1;
    int m_owner = 0;  // the process that owns the lock: a child must not share its parent's
    int m_depth = 0;
    LivePage* m_page = nullptr;
};

}  // namespace qvsim
