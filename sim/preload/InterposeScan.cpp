// scandir() of "/dev": the real entries without the real video nodes, and the simulated nodes.
#include <dirent.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Door.h"
#include "Next.h"

namespace {

using qvsim::door::Next;

template <class Entry>
using Filter = int (*)(const Entry*);
template <class Entry>
using Compare = int (*)(const Entry**, const Entry**);
template <class Entry>
using Scan = int(const char*, Entry***, Filter<Entry>, Compare<Entry>);

constinit Next<Scan<dirent>> g_scandir{"scandir"};

// An entry that free() releases, as scandir hands them out; null without memory.
template <class Entry>
Entry* MakeEntry(const std::string& name) {
    auto* entry = static_cast<Entry*>(std::calloc(1, sizeof(Entry)));
    if (!entry || name.size() >= sizeof entry->d_name) return entry;
    entry->d_ino = 1;
    entry->d_type = DT_CHR;
    entry->d_reclen = sizeof(Entry);
    std::memcpy(entry->d_name, name.c_str(), name.size() + 1);
    return entry;
}

// What the caller of this thread's scan wants to see; scandir() hands nothing through to a filter.
template <class Entry>
constinit thread_local Filter<Entry> t_wanted = nullptr;

// Real entries that stay visible. Chosen while the folder is read: what is not wanted is not
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

template <class Entry>
int ScanDev(Next<Scan<Entry>>& next, const char* dir, Entry*** list, Filter<Entry> filter,
            Compare<Entry> compare) {
    const bool isDev = dir && (std::strcmp(dir, "/dev") == 0 || std::strcmp(dir, "/dev/") == 0);
    const auto model = isDev ? qvsim::CurrentModel() : nullptr;
    if (!model) return next.Get()(dir, list, filter, compare);

    Entry** real = nullptr;
    t_wanted<Entry> = filter;
    const int count = next.Get()(dir, &real, KeepsReal<Entry>, nullptr);
    if (count < 0) return count;
    std::vector<Entry*> kept(real, real + count);
    std::free(real);
    for (const std::string& name : model->NodeNames()) {
        Entry* const entry = MakeEntry<Entry>(name);
        if (entry && (!filter || filter(entry) != 0))
            kept.push_back(entry);
        else
            std::free(entry);
    }
    if (compare) {
        // The caller's order may be no strict order at all: an insertion sort stands anything.
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

}  // namespace

extern "C" {

int scandir(const char* dir, struct dirent*** list, Filter<dirent> filter,
            Compare<dirent> compare) {
    return ScanDev<dirent>(g_scandir, dir, list, filter, compare);
}

#ifndef scandir64
int scandir64(const char* dir, struct dirent64*** list, Filter<dirent64> filter,
              Compare<dirent64> compare) {
    static constinit Next<Scan<dirent64>> next{"scandir64"};
    return ScanDev<dirent64>(next, dir, list, filter, compare);
}
#endif

}  // extern "C"
