// What kind of program a file is, by its first bytes. Starts none.
#include "ProgramFile.h"

#include <elf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace qvsim {
namespace {

const std::string kServe = "; `qvcap-sim serve` makes nodes for any program";

struct Program {
    bool elf = false;
    bool wide = false;     // 64 bits
    bool dynamic = false;  // has a loader
    bool go = false;       // with or without one
};

// Whether these notes, one after another, have the one that the Go linker writes.
bool HasGoNote(const std::string& notes) {
    constexpr char kName[] = "Go\0";  // 4 bytes
    constexpr uint32_t kBuildId = 4;
    const auto padded = [](uint64_t size) { return (size + 3) / 4 * 4; };
    uint32_t head[3];  // sizes of name and content, type
    for (uint64_t at = 0; at + sizeof head + sizeof kName <= notes.size();) {
        std::memcpy(head, notes.data() + at, sizeof head);
        const char* const name = notes.data() + at + sizeof head;
        if (head[0] == sizeof kName && head[2] == kBuildId &&
            std::memcmp(name, kName, sizeof kName) == 0)
            return true;
        at += sizeof head + padded(head[0]) + padded(head[1]);
    }
    return false;
}

template <class Header, class Segment>
void LookAtSegments(std::ifstream& file, Program& program) {
    constexpr uint64_t kMostNotes = 4096;
    Header header{};
    file.seekg(0);
    if (!file.read(reinterpret_cast<char*>(&header), sizeof header)) return;
    for (int i = 0; i < header.e_phnum; ++i) {
        Segment segment{};
        file.seekg(static_cast<std::streamoff>(header.e_phoff) +
                   static_cast<std::streamoff>(i) * header.e_phentsize);
        if (!file.read(reinterpret_cast<char*>(&segment), sizeof segment)) return;
        program.dynamic = program.dynamic || segment.p_type == PT_INTERP;
        if (segment.p_type != PT_NOTE) continue;
        std::string notes(static_cast<size_t>(std::min<uint64_t>(segment.p_filesz, kMostNotes)),
                          '\0');
        file.seekg(static_cast<std::streamoff>(segment.p_offset));
        if (!file.read(notes.data(), static_cast<std::streamsize>(notes.size()))) return;
        program.go = program.go || HasGoNote(notes);
    }
}

Program LookInto(std::ifstream& file) {
    unsigned char identity[EI_NIDENT] = {};
    Program program;
    if (!file.read(reinterpret_cast<char*>(identity), sizeof identity)) return program;
    program.elf = std::memcmp(identity, ELFMAG, SELFMAG) == 0;
    program.wide = identity[EI_CLASS] == ELFCLASS64;
    if (program.elf && program.wide)
        LookAtSegments<Elf64_Ehdr, Elf64_Phdr>(file, program);
    else if (program.elf)
        LookAtSegments<Elf32_Ehdr, Elf32_Phdr>(file, program);
    return program;
}

// The interpreter of a script; empty for another file.
std::string Interpreter(std::ifstream& file) {
    file.clear();
    file.seekg(0);
    std::string line;
    if (file.get() != '#' || file.get() != '!' || !std::getline(file, line)) return {};
    std::istringstream words(line);
    std::string interpreter;
    words >> interpreter;
    return interpreter;
}

// Whether there is a door for such programs: this program's own, which the support folder has or
// names by a link, or one installed for their architecture. In a build tree, which has one word
// size, the empty object is enough: with it a shell may start programs of the other.
bool HasDoor(const std::string& support, bool wide) {
    const bool own = wide == (sizeof(void*) == 8);
    if (own && access((support + "/libqvsim-preload.so").c_str(), R_OK) == 0) return true;
    const std::string triplet = wide ? "x86_64-linux-gnu" : "i386-linux-gnu";
    if (access((support + "/../../" + triplet + "/qvcapture/libqvsim-preload.so").c_str(), R_OK) ==
        0)
        return true;
    std::error_code none;
    const bool installed = std::filesystem::is_symlink(support + "/libqvsim-preload.so", none);
    return !installed &&
           access((support + "/door/lib/" + triplet + "/libqvsim-preload.so").c_str(), R_OK) == 0;
}

std::string WhyNot(const std::string& program, const std::string& support, bool script) {
    std::ifstream file(program, std::ios::binary);
    if (!file) return {};
    const Program kind = LookInto(file);
    if (!kind.elf) {
        const std::string interpreter = script ? "" : Interpreter(file);
        return interpreter.empty() ? "" : WhyNot(interpreter, support, true);
    }
    struct stat status {};
    if (kind.go)
        return program +
               " is a Go program, which calls the kernel without the C library and so past any "
               "door" +
               kServe;
    if (!kind.dynamic) return program + " is linked statically and loads no door" + kServe;
    if (!HasDoor(support, kind.wide))
        return program + " is a " + (kind.wide ? "64" : "32") +
               "-bit program, and there is no door for these; install qvcapture-door of that "
               "architecture, too" +
               kServe;
    const bool other = stat(program.c_str(), &status) == 0 &&
                       (((status.st_mode & S_ISUID) != 0 && status.st_uid != geteuid()) ||
                        ((status.st_mode & S_ISGID) != 0 && status.st_gid != getegid()));
    if (other) return program + " runs with another user's rights and loads no door" + kServe;
    return {};
}

}  // namespace

std::string FindProgram(const std::string& word) {
    if (word.find('/') != std::string::npos) return word;
    const char* path = std::getenv("PATH");
    std::istringstream folders(path ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');) {
        std::string file = (folder.empty() ? "." : folder) + "/" + word;
        if (access(file.c_str(), X_OK) == 0) return file;
    }
    return {};
}

std::string WhyNoDoor(const std::string& program, const std::string& support) {
    return WhyNot(program, support, false);
}

}  // namespace qvsim
