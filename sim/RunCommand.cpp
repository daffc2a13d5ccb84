// `qvcap-sim run`: executes the command under the preload door.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "CardsState.h"
#include "Commands.h"
#include "ProgramFile.h"

namespace qvsim {
namespace {

constexpr char kPreloadName[] = "libqvsim-preload.so";
constexpr char kInstalledDoor[] = "/qvcapture/libqvsim-preload.so";

std::string OwnPath() {
    char path[PATH_MAX];
    const ssize_t size = readlink("/proc/self/exe", path, sizeof path);
    return size > 0 ? std::string(path, static_cast<size_t>(size)) : std::string();
}

// The folder with the door and the stand-ins: beside the program in a build tree, under lib when
// installed. Empty when neither exists.
std::string SupportFolder(const std::string& own) {
    const std::string folder = own.substr(0, own.rfind('/'));
    for (const char* place : {"", "/../lib/qvcapture/sim"}) {
        std::string candidate = folder + place;
        if (access((candidate + "/standins/poweroff").c_str(), X_OK) == 0) return candidate;
    }
    return {};
}

// Where packages of both architectures have their doors beside each other, by the loader's names
// of their folders.
bool HasBothDoors(const std::string& support) {
    for (const char* triplet : {"x86_64-linux-gnu", "i386-linux-gnu"})
        if (access((support + "/../../" + triplet + kInstalledDoor).c_str(), R_OK) != 0)
            return false;
    return true;
}

void Prepend(const char* variable, const std::string& value, char separator) {
    const char* before = std::getenv(variable);
    const std::string whole = before && *before ? value + separator + before : value;
    setenv(variable, whole.c_str(), 1);
}

// A name of the folder that the loader does not split: its own, or a link in the folder of cards.
// Empty when there is none.
std::string NamedForLoader(const std::string& folder, const std::string& cards) {
    const auto whole = [](const std::string& name) {
        return name.find_first_of(" :") == std::string::npos;
    };
    if (whole(folder)) return folder;
    const std::string link = cards + "/run";
    if (!whole(cards)) return {};
    unlink(link.c_str());
    return symlink(folder.c_str(), link.c_str()) == 0 || errno == EEXIST ? link : std::string();
}

}  // namespace

int RunCommand(const std::string& dir, const std::vector<std::string>& command) {
    if (command.empty()) return Fail("run: no command; give it after `--`");
    CardsState state;
    if (std::string error = LoadState(dir, state); !error.empty()) return Fail(error);
    char absolute[PATH_MAX];
    if (!realpath(dir.c_str(), absolute)) return Fail(dir + ": " + std::strerror(errno));
    const std::string own = OwnPath();
    const std::string folder = SupportFolder(own);
    if (folder.empty()) return Fail("its door and stand-ins are not beside " + own);

    const std::string named = NamedForLoader(folder, absolute);
    if (named.empty())
        return Fail("run: " + folder + " and " + absolute + " have a space or a colon in their " +
                    "names, at which the loader takes paths apart; put one of them elsewhere");
    const std::string program = FindProgram(command[0]);
    if (std::string why = WhyNoDoor(program, folder); !why.empty()) return Fail("run: " + why);

    setenv("QVSIM_STATE", absolute, 1);
    setenv("QVSIM_PROGRAM", own.c_str(), 1);
    // The loader replaces $LIB with each program's own library folder: programs of the other word
    // size find their own door there, or else an empty object, so that they print no error.
    Prepend("LD_PRELOAD",
            HasBothDoors(folder) ? named + "/../../../$LIB" + kInstalledDoor
                                 : named + "/door/$LIB/" + kPreloadName,
            ':');
    Prepend("PATH", named + "/standins", ':');
    // In programs with the address sanitizer the door is loaded before its run-time library, which
    // is harmless; other programs ignore this.
    Prepend("ASAN_OPTIONS", "verify_asan_link_order=0", ':');
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    std::fprintf(stderr, "qvcap-sim: %s: %s\n", arguments[0], std::strerror(errno));
    return 127;
}

}  // namespace qvsim
