// Compares the library with v4l2-ctl and arecord on the same devices of a real kernel; `scripts/lab
// --bench` runs it in the lab's guest.
//
//   lab_peers CAMERA CARD     prints the tables; exit status 1 when a target is missed
//
// Every run is a separate process (for the library this program again), so that both sides are
// measured in the same way, with the kernel's figures. For video the time between two frames
// counts; both sides print a frame as '<', and the start is not included. Lost sound is counted
// from the content, which numbers every sample. Neither side is trusted: every frame of the library
// and the frames that the other program writes must have the size of the format, and a recording
// must have all of its samples.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "LabSides.h"
#include "Report.h"

namespace {

using qvbench::BytesOf;
using qvbench::g_missed;
using qvbench::kRate;
using qvbench::kSeconds;
using qvbench::kSound;
using qvbench::kSoundBytes;
using qvbench::Median;
using qvbench::Row;
using qvbench::Text;

constexpr int kRounds = 3;
constexpr unsigned kBefore = 10;  // frames at the start, and as many after the end
constexpr unsigned kFrames = 60;
constexpr char kFramesFile[] = "/tmp/bench.frames";
constexpr char kMessages[] = "/tmp/bench.messages";

// ---- processes

struct Run {
    double wall = 0;  // seconds
    double cpu = 0;
    unsigned overruns = 0;  // reported by the process
};

double Now() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// Starts a program whose messages go to `messages`; ends it when it takes too long.
pid_t Start(const std::vector<std::string>& command, int messages) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    dup2(messages, 1);
    dup2(messages, 2);
    std::vector<char*> words;
    for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    alarm(120);
    execvp(words[0], words.data());
    _exit(127);
}

// A failed run is reported and repeated: on a delayed machine devices time out.
int g_repeated = 0;
void Repeat(const std::vector<std::string>& command, const std::string& why) {
    constexpr int kMostRepeated = 6;
    std::fprintf(stderr, "lab_peers: %s: %s\n", command[0].c_str(), why.c_str());
    if (++g_repeated > kMostRepeated) exit(2);
}

uintmax_t SizeOf(const char* file) {
    std::error_code missing;
    const uintmax_t size = std::filesystem::file_size(file, missing);
    return missing ? 0 : size;
}

unsigned Overruns(const std::string& messages) {
    unsigned count = 0;
    for (size_t at = 0; (at = messages.find("overrun", at)) != messages.npos; ++at) ++count;
    return count;
}

// A whole process, which writes so many bytes to a file.
Run Whole(const std::vector<std::string>& command, const char* file, uintmax_t bytes) {
    for (;;) {
        std::filesystem::remove(file);
        const int messages = open(kMessages, O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
        const double start = Now();
        int status = 0;
        rusage usage{};
        const pid_t pid = Start(command, messages);
        const bool ended = wait4(pid, &status, 0, &usage) == pid;
        const double wall = Now() - start;
        close(messages);
        std::ifstream told(kMessages);
        const std::string text{std::istreambuf_iterator<char>(told), {}};
        const uintmax_t written = SizeOf(file);
        if (ended && status == 0 && written == bytes)
            return {wall,
                    static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                        static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6,
                    Overruns(text)};
        Repeat(command, "status " + std::to_string(status) + ", " + std::to_string(written) +
                            " bytes of " + std::to_string(bytes) + ": " + text);
    }
}

// Seconds of processor time of all threads of a running process.
double CpuOf(pid_t pid) {
    double seconds = 0;
    std::error_code ignored;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks, ignored)) {
        double nanoseconds = 0;
        std::ifstream(task.path() / "schedstat") >> nanoseconds;
        seconds += nanoseconds / 1e9;
    }
    return seconds;
}

// The time from frame kBefore to kFrames later, as the process prints them; no value if it failed.
Run TryBetween(const std::vector<std::string>& command) {
    int messages[2];
    if (pipe2(messages, O_CLOEXEC) != 0) exit(2);
    const pid_t pid = Start(command, messages[1]);
    close(messages[1]);
    Run run;
    unsigned frames = 0;
    std::string text;
    char letter = 0;
    while (read(messages[0], &letter, 1) == 1) {
        if (letter != '<') {
            text += letter;
            continue;
        }
        ++frames;
        if (frames == kBefore) run = {-Now(), -CpuOf(pid)};
        if (frames == kBefore + kFrames) run = {run.wall + Now(), run.cpu + CpuOf(pid)};
    }
    close(messages[0]);
    int status = 0;
    if (waitpid(pid, &status, 0) == pid && status == 0 && frames >= kBefore + kFrames) return run;
    Repeat(command,
           std::to_string(frames) + " frames, status " + std::to_string(status) + ": " + text);
    return {};
}

Run Between(const std::vector<std::string>& command) {
    Run run;
    while (run.wall == 0) run = TryBetween(command);
    return run;
}

// ---- comparing

struct Losses {
    unsigned lost = 0;      // samples missing between those recorded
    unsigned silent = 0;    // samples that were read as silence
    unsigned overruns = 0;  // as reported; nothing else shows a loss of whole seconds
};

// The right channel numbers the samples, modulo 48000; an unexpected 0 means that the sample was
// not there yet.
Losses CountLosses() {
    Losses losses;
    std::FILE* file = std::fopen(kSound, "rb");
    if (file == nullptr) return losses;
    bool first = true;
    uint16_t frame[2];
    for (unsigned next = 0; std::fread(frame, sizeof frame, 1, file) == 1;
         next = (next + 1) % kRate) {
        if (frame[0] == 0 && frame[1] == 0 && next != 0) {
            ++losses.silent;
            continue;
        }
        if (!first) losses.lost += (frame[1] + kRate - next) % kRate;
        first = false;
        next = frame[1];
    }
    std::fclose(file);
    return losses;
}

struct Compared {
    std::vector<double> wall[2];  // library, peer
    std::vector<double> cpu[2];
    Losses losses[2];

    void Add(int side, const Run& run) {
        wall[side].push_back(run.wall);
        cpu[side].push_back(run.cpu);
    }
    void AddSound(int side, const Run& run) {
        Add(side, run);
        const Losses more = CountLosses();
        losses[side].lost += more.lost;
        losses[side].silent += more.silent;
        losses[side].overruns += run.overruns;
    }
};

struct VideoCase {
    const char* what;
    const char* node;
    int width, height;
    const char* format;
    int fps;
    bool converted;  // by libv4l2: compared with a bare loop over it, because v4l2-ctl never
                     // converts
};

std::string Number(double value) { return Text("%.0f", value); }

void Video(const VideoCase& row) {
    unsigned format = 0;
    std::memcpy(&format, row.format, sizeof format);
    const std::string frames = Number(2 * kBefore + kFrames);
    const auto own = [&](const char* mode) -> std::vector<std::string> {
        return {"/proc/self/exe",   mode,
                row.node,           Number(row.width),
                Number(row.height), std::to_string(format),
                Number(row.fps),    frames};
    };
    std::vector<std::string> peer{"v4l2-ctl",
                                  "-d",
                                  row.node,
                                  Text("--set-fmt-video=width=%d,height=%d,pixelformat=%s",
                                       row.width, row.height, row.format),
                                  "--set-parm=" + Number(row.fps),
                                  "--stream-mmap=4",
                                  "--stream-count=" + frames};
    if (row.converted) {
        peer = own("read");
    } else {
        // Writing takes time: done once, not in a run that counts.
        std::vector<std::string> writing = peer;
        writing.push_back(std::string("--stream-to=") + kFramesFile);
        Whole(writing, kFramesFile,
              uintmax_t{2 * kBefore + kFrames} * BytesOf(format, static_cast<unsigned>(row.width),
                                                         static_cast<unsigned>(row.height)));
        std::filesystem::remove(kFramesFile);
    }
    Compared both;
    for (int round = 0; round < kRounds; ++round) {
        both.Add(0, Between(own("video")));
        both.Add(1, Between(peer));
    }
    const double fps[2] = {kFrames / Median(both.wall[0]), kFrames / Median(both.wall[1])};
    Row(row.what,
        Text("%.1f; %.1f frames/s | %.2f; %.2f ms", fps[0], fps[1],
             Median(both.cpu[0]) / kFrames * 1e3, Median(both.cpu[1]) / kFrames * 1e3),
        "frames/s at least 0.95 of the other's", fps[0] >= 0.95 * fps[1]);
}

void Sound(const char* what, const std::string& device, const std::vector<std::string>& options) {
    Compared both;
    for (int round = 0; round < kRounds; ++round) {
        both.AddSound(0, Whole({"/proc/self/exe", "sound", device}, kSound, kSoundBytes));
        std::vector<std::string> peer{
            "arecord", "-q", "-D", device, "-f",  "S16_LE", "-r",
            "48000",   "-c", "2",  "-t",   "raw", "-d",     Number(kSeconds)};
        peer.insert(peer.end(), options.begin(), options.end());
        peer.push_back(kSound);
        both.AddSound(1, Whole(peer, kSound, kSoundBytes));
    }
    const Losses* losses = both.losses;
    Row(what,
        Text("%.2f; %.2f s | %.1f; %.1f ms | %u; %u | %u; %u | %u", Median(both.wall[0]),
             Median(both.wall[1]), Median(both.cpu[0]) / kSeconds * 1e3,
             Median(both.cpu[1]) / kSeconds * 1e3, losses[0].lost, losses[1].lost, losses[0].silent,
             losses[1].silent, losses[1].overruns),
        "no more lost than by the other", losses[0].lost <= losses[1].lost);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if ((mode == "video" || mode == "read") && argc == 8) {
        const auto number = [argv](int at) {
            return static_cast<unsigned>(std::strtoul(argv[at], nullptr, 10));
        };
        const qvbench::VideoWish wish{argv[2],   number(3),          number(4),
                                      number(5), std::atoi(argv[6]), number(7)};
        return mode == "video" ? qvbench::CaptureVideo(wish) : qvbench::ReadVideo(wish);
    }
    if (mode == "sound" && argc == 3) return qvbench::CaptureSound(argv[2]);
    if (argc != 3) {
        std::fprintf(stderr, "usage: lab_peers CAMERA CARD\n");
        return 2;
    }
    const std::string card = std::string("hw:") + argv[2];
    std::printf(
        "## Video: the library; `v4l2-ctl`\n\n"
        "| %u frames, without the start | rate | CPU a frame | target |\n|---|---|---|---|\n",
        kFrames);
    const VideoCase cases[] = {
        {"test driver, 640x360 YUYV, 40 a second", "/dev/video20", 640, 360, "YUYV", 40, false},
        {"test driver, 1280x720 YUYV, 60 a second", "/dev/video21", 1280, 720, "YUYV", 60, false},
        {"USB camera, 640x360 YUYV, 30 a second", argv[1], 640, 360, "YUYV", 30, false},
        {"USB camera, the same converted to I420, beside a bare loop over libv4l2", argv[1], 640,
         360, "YU12", 30, true},
    };
    for (const VideoCase& row : cases) Video(row);
    std::printf(
        "\n## Sound: the library; `arecord`\n\n"
        "| %u s from a USB card, 48 kHz, 16 bits, stereo | time of the process | CPU a second of "
        "sound "
        "| samples lost in %d runs | read as silence | overruns that `arecord` tells of | target "
        "|\n|---|---|---|---|---|---|---|\n",
        kSeconds, kRounds);
    Sound("its own settings each", card + ",1", {});
    Sound("`arecord` in periods of 10 ms, as the library's chunks", card + ",1",
          {"--period-size=480"});
    if (g_repeated > 0) std::printf("\nRuns that failed and were repeated: %d.\n", g_repeated);
    return g_missed == 0 ? 0 : 1;
}
