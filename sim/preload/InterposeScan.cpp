// Interposes reading of the folder /dev: it shows the real entries without the real video nodes,
// and then the simulated nodes.
#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "DevFolders.h"
#include "Interposed.h"
#include "Next.h"

namespace {

using qvsim::door::DevFolder;
using qvsim::door::FindDevFolder;
using qvsim::door::Inside;
using qvsim::door::Next;

template <class Entry>
using Filter = int (*)(const Entry*);
template <class Entry>
using Compare = int (*)(const Entry**, const Entry**);
template <class Entry>
using Scan = int(const char*, Entry***, Filter<Entry>, Compare<Entry>);

constinit Next<Scan<dirent>> g_scandir{"scandir"};

template <class Entry>
void FillEntry(const std::string& name, Entry& entry) {
    std::memset(&entry, 0, sizeof entry);
    if (name.size() >= sizeof entry.d_name) return;
    entry.d_ino = 1;
    entry.d_type = DT_CHR;
    entry.d_reclen = sizeof(Entry);
    std::memcpy(entry.d_name, name.c_str(), name.size() + 1);
}

// An entry that free() releases, as scandir returns them; null without memory.
template <class Entry>
Entry* MakeEntry(const std::string& name) {
    auto* entry = static_cast<Entry*>(std::malloc(sizeof(Entry)));
    if (entry) FillEntry(name, *entry);
    return entry;
}

// The filter of this thread's scan; scandir() passes no parameter to a filter.
template <class Entry>
constinit thread_local Filter<Entry> t_wanted = nullptr;

// Real entries that stay visible. Filtered while the folder is read, so that other entries are not
// copied.
template <class Entry>
int KeepsReal(const Entry* entry) {
    if (qvsim::Model::AnswersName(entry->d_name)) return 0;
    const Filter<Entry> wanted = t_wanted<Entry>;
    return wanted ? wanted(entry) : 1;
}

template <class Entry>
int CompareEntries(Compare<Entry> compare, const Entry* a, const Entry* b) {
    return compare(&a, &b);
}

// The names of the nodes, where `dir` is /dev under any name and there are cards.
bool NodesIn(const char* dir, std::vector<std::string>& names) {
    if (!dir || Inside::Is()) return false;
    const Inside inside;
    if (!qvsim::door::IsDevFolder(dir)) return false;
    const auto model = qvsim::CurrentModel();
    if (model) names = model->NodeNames();
    return model != nullptr;
}

template <class Entry>
int ScanDev(Next<Scan<Entry>>& next, const char* dir, Entry*** list, Filter<Entry> filter,
            Compare<Entry> compare) {
    std::vector<std::string> names;
    if (!NodesIn(dir, names)) return next.Get()(dir, list, filter, compare);

    Entry** real = nullptr;
    t_wanted<Entry> = filter;
    const int count = next.Get()(dir, &real, KeepsReal<Entry>, nullptr);
    if (count < 0) return count;
    std::vector<Entry*> kept(real, real + count);
    std::free(real);
    for (const std::string& name : names) {
        Entry* const entry = MakeEntry<Entry>(name);
        if (entry && (!filter || filter(entry) != 0))
            kept.push_back(entry);
        else
            std::free(entry);
    }
    if (compare) {
        // The caller's comparison may be no strict order: an insertion sort works with any.
        for (size_t i = 1; i < kept.size(); ++i)
            for (size_t j = i; j > 0 && CompareEntries(compare, kept[j - 1], kept[j]) > 0; --j)
                std::swap(kept[j - 1], kept[j]);
    }
    // One slot more than needed: an empty list is still a pointer to free.
    auto** out = static_cast<Entry**>(std::malloc((kept.size() + 1) * sizeof(Entry*)));
    if (!out) {
        for (Entry* entry : kept) std::free(entry);
        return -1;
    }
    std::copy(kept.begin(), kept.end(), out);
    *list = out;
    return static_cast<int>(kept.size());
}

template <class Entry>
Entry* ReadEntry(Next<Entry*(DIR*)>& next, DIR* stream) {
    const std::shared_ptr<DevFolder> folder = FindDevFolder(stream);
    if (!folder) return next.Get()(stream);
    if (folder->next == 0) {
        while (Entry* const real = next.Get()(stream))
            if (!qvsim::Model::AnswersName(real->d_name)) return real;
    }
    if (folder->next >= folder->names.size()) return nullptr;
    // As in the C library: valid until the next read of the same stream.
    static_assert(sizeof(Entry) <= sizeof folder->entry);
    auto* const entry = reinterpret_cast<Entry*>(folder->entry);
    FillEntry(folder->names[folder->next++], *entry);
    return entry;
}

template <class Entry>
int ReadEntryInto(Next<Entry*(DIR*)>& next, DIR* stream, Entry* to, Entry** result) {
    const int before = errno;
    errno = 0;
    const Entry* const entry = ReadEntry(next, stream);
    const int error = errno;
    errno = before;
    *result = nullptr;
    if (!entry) return error;
    std::memcpy(to, entry, std::min<size_t>(sizeof *to, entry->d_reclen));
    *result = to;
    return 0;
}

constinit Next<dirent*(DIR*)> g_readdir{"readdir"};

// After the real entries, a position is one of these.
constexpr long kFirstPlace = 0x7F000000;

}  // namespace

#define QVSIM_WEAK __attribute__((weak))

extern "C" {

int scandir(const char* dir, struct dirent*** list, Filter<dirent> filter,
            Compare<dirent> compare) {
    return ScanDev<dirent>(g_scandir, dir, list, filter, compare);
}

QVSIM_WEAK DIR* opendir(const char* path) {
    static constinit Next<DIR*(const char*)> next{"opendir"};
    return qvsim::door::NoteFolder(next.Get()(path));
}

QVSIM_WEAK DIR* fdopendir(int fd) {
    static constinit Next<DIR*(int)> next{"fdopendir"};
    return qvsim::door::NoteFolder(next.Get()(fd));
}

QVSIM_WEAK int closedir(DIR* stream) {
    static constinit Next<int(DIR*)> next{"closedir"};
    qvsim::door::ForgetFolder(stream);
    return next.Get()(stream);
}

QVSIM_WEAK struct dirent* readdir(DIR* stream) { return ReadEntry<dirent>(g_readdir, stream); }

QVSIM_WEAK int readdir_r(DIR* stream, struct dirent* to, struct dirent** result) {
    return ReadEntryInto<dirent>(g_readdir, stream, to, result);
}

QVSIM_WEAK void rewinddir(DIR* stream) noexcept {
    static constinit Next<void(DIR*)> next{"rewinddir"};
    if (const auto folder = FindDevFolder(stream)) folder->next = 0;
    next.Get()(stream);
}

QVSIM_WEAK long telldir(DIR* stream) noexcept {
    static constinit Next<long(DIR*)> next{"telldir"};
    const auto folder = FindDevFolder(stream);
    if (!folder || folder->next == 0) return next.Get()(stream);
    return kFirstPlace + static_cast<long>(folder->next);
}

QVSIM_WEAK void seekdir(DIR* stream, long place) noexcept {
    static constinit Next<void(DIR*, long)> next{"seekdir"};
    const auto folder = FindDevFolder(stream);
    const bool behind = folder && place > kFirstPlace &&
                        place <= kFirstPlace + static_cast<long>(folder->names.size());
    if (folder) folder->next = behind ? static_cast<size_t>(place - kFirstPlace) : 0;
    if (!behind) next.Get()(stream, place);
}

#ifndef scandir64
int scandir64(const char* dir, struct dirent64*** list, Filter<dirent64> filter,
              Compare<dirent64> compare) {
    static constinit Next<Scan<dirent64>> next{"scandir64"};
    return ScanDev<dirent64>(next, dir, list, filter, compare);
}

QVSIM_WEAK struct dirent64* readdir64(DIR* stream) {
    static constinit Next<dirent64*(DIR*)> next{"readdir64"};
    return ReadEntry<dirent64>(next, stream);
}

QVSIM_WEAK int readdir64_r(DIR* stream, struct dirent64* to, struct dirent64** result) {
    static constinit Next<dirent64*(DIR*)> next{"readdir64"};
    return ReadEntryInto<dirent64>(next, stream, to, result);
}
#endif

}  // extern "C"
