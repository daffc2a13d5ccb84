// Searches /proc for the processes that have a file open. Changes nothing.
#include "Processes.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>

#include "Escape.h"

namespace qvo {
namespace {

namespace fs = std::filesystem;

bool SameFile(const struct stat& a, const struct stat& b) {
    if (S_ISCHR(a.st_mode) || S_ISBLK(a.st_mode))
        return (a.st_mode & S_IFMT) == (b.st_mode & S_IFMT) && a.st_rdev == b.st_rdev;
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// 0 if the name is no process number.
pid_t NumberOf(const std::string& text) {
    pid_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc{} && end == text.data() + text.size() && number > 0 ? number : 0;
}

std::string NameOf(const std::string& folder) {
    std::ifstream file(folder + "/comm");
    std::string name;
    std::getline(file, name, '\0');
    if (!name.empty() && name.back() == '\n') name.pop_back();
    return name;
}

bool DescriptorHoldsLock(const std::string& folder, const std::string& descriptor) {
    std::ifstream file(folder + "/fdinfo/" + descriptor);
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("lock:") && line.find("OFDLCK") != line.npos &&
            line.find("WRITE") != line.npos)
            return true;
    return false;
}

// The names in a folder; ignores errors, because processes come and go meanwhile.
std::vector<std::string> NamesIn(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error))
        names.push_back(at->path().filename().string());
    return names;
}

using Files = std::vector<struct stat>;

// Whether the process has one of the files open; if so, with its name.
bool Look(const std::string& folder, const Files& wanted, Process* process) {
    bool found = false;
    for (const std::string& descriptor : NamesIn(folder + "/fd")) {
        struct stat open;
        if (stat((folder + "/fd/" + descriptor).c_str(), &open) != 0 ||
            std::none_of(wanted.begin(), wanted.end(),
                         [&](const struct stat& file) { return SameFile(file, open); }))
            continue;
        found = true;
        process->holdsLock = process->holdsLock || DescriptorHoldsLock(folder, descriptor);
    }
    if (found) process->name = NameOf(folder);
    return found;
}

}  // namespace

std::vector<Process> ProcessesWith(const std::vector<std::string>& paths, const std::string& proc) {
    Files wanted;
    for (const std::string& path : paths) {
        struct stat file;
        if (stat(path.c_str(), &file) == 0) wanted.push_back(file);
    }
    std::vector<Process> found;
    if (wanted.empty()) return found;
    for (const std::string& name : NamesIn(proc)) {
        Process process;
        process.pid = NumberOf(name);
        if (process.pid > 0 && Look(proc + "/" + name, wanted, &process)) found.push_back(process);
    }
    std::sort(found.begin(), found.end(),
              [](const Process& a, const Process& b) { return a.pid < b.pid; });
    return found;
}

std::string ProcessText(const Process& process) {
    return qvf::Escaped(process.name) + " (process " + std::to_string(process.pid) + ")";
}

std::string ProcessesText(const std::vector<Process>& processes) {
    std::string text;
    for (const Process& process : processes)
        text += (text.empty() ? "" : ", ") + ProcessText(process);
    return text;
}

}  // namespace qvo
