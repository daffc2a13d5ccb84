// The library beside v4l2-ctl and arecord on the same devices of a real kernel; run in the lab's
// guest by `scripts/lab --bench`.
//
//   lab_peers CAMERA CARD     prints the tables; exit status 1 when a target is missed
//
// Every run is a process of its own, this program again for the library, so that both sides are
// measured the same way, with the kernel's figures. Of video the time between two frames is looked
// at, which both sides print as '<': starting is not part of it. What was lost of sound is counted
// from the content, which numbers every sample.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "AudioAlsa.h"
#include "Report.h"
#include "VideoCaptureV4l2.h"

namespace {

using qvbench::g_missed;
using qvbench::Median;
using qvbench::Row;
using qvbench::Text;

constexpr int kRounds = 3;
constexpr unsigned kBefore = 10;  // frames of the start, and as many behind the end
constexpr unsigned kFrames = 60;
constexpr unsigned kSeconds = 3;
constexpr unsigned kRate = 48000;
constexpr char kSound[] = "/tmp/bench.raw";

// ---- processes

struct Run {
    double wall = 0;  // seconds
    double cpu = 0;
};

double Now() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// Starts a program whose messages go to `messages`; it is ended when it takes too long.
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

// A run that failed is said and repeated: a machine that is held up lets devices time out.
int g_repeated = 0;
void Repeat(const std::vector<std::string>& command, const std::string& why) {
    constexpr int kMostRepeated = 6;
    std::fprintf(stderr, "lab_peers: %s: %s\n", command[0].c_str(), why.c_str());
    if (++g_repeated > kMostRepeated) exit(2);
}

// The whole of a process.
Run Whole(const std::vector<std::string>& command) {
    for (;;) {
        const double start = Now();
        int status = 0;
        rusage usage{};
        const pid_t pid = Start(command, 2);
        if (wait4(pid, &status, 0, &usage) == pid && status == 0)
            return {Now() - start,
                    static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                        static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6};
        Repeat(command, "ended with status " + std::to_string(status));
    }
}

// Seconds of processor time of all threads of a process that lives.
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

// From frame kBefore to kFrames later, as the process prints them; no time: it failed.
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

// ---- the library's side, in the process that was started for it

int CaptureVideo(const char* node, unsigned width, unsigned height, unsigned format, int fps,
                 unsigned wanted) {
    VideoCaptureV4L2Context* capture = nullptr;
    std::atomic<unsigned> frames{0};
    if (VideoCaptureV4L2Open(node, format, width, height, 1, fps, &capture) != 0) {
        std::perror("cannot be opened");
        return 2;
    }
    VideoCaptureV4L2SetCallback(
        capture,
        [](const unsigned char*, unsigned, void* param) {
            auto* count = static_cast<std::atomic<unsigned>*>(param);
            if (write(2, "<", 1) != 1) return;
            ++*count;
            count->notify_one();
        },
        &frames);
    if (VideoCaptureV4L2Start(capture) != 0) {
        std::perror("cannot be started");
        return 2;
    }
    for (unsigned seen; (seen = frames) < wanted;) frames.wait(seen);
    VideoCaptureV4L2Close(capture);
    return 0;
}

struct Recording {
    std::FILE* file;
    std::atomic<unsigned> left;  // bytes
};

int CaptureSound(const char* device) {
    Recording recording{std::fopen(kSound, "wb"), {kSeconds * kRate * 4}};
    AudioCaptureALSAContext* capture = nullptr;
    const auto onChunk = [](const unsigned char* data, int bytes, long long, void* param) {
        auto* to = static_cast<Recording*>(param);
        const auto size = std::min(static_cast<unsigned>(bytes), to->left.load());
        if (size == 0 || std::fwrite(data, 1, size, to->file) != size) return;
        to->left -= size;
        to->left.notify_one();
    };
    if (recording.file == nullptr || AudioCaptureALSACreate(&capture, onChunk, &recording) != 0 ||
        AudioCaptureALSAStart(capture, device, kRate, 16, 2, 10) != 0)
        return 2;
    for (unsigned left; (left = recording.left) > 0;) recording.left.wait(left);
    AudioCaptureALSAStop(capture);
    AudioCaptureALSADestroy(capture);
    return std::fclose(recording.file) == 0 ? 0 : 2;
}

// ---- comparing

struct Losses {
    unsigned lost = 0;    // samples missing between those recorded
    unsigned silent = 0;  // samples in whose place silence was read
};

// The right channel numbers the samples, modulo 48000; where it says 0 out of turn, nothing was
// there yet.
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
    }
};

struct VideoCase {
    const char* what;
    const char* node;
    int width, height;
    const char* format;
    int fps;
    bool wrapper;  // v4l2-ctl through libv4l2, too: the format is converted
};

std::string Number(double value) { return Text("%.0f", value); }

void Video(const VideoCase& row) {
    unsigned format = 0;
    std::memcpy(&format, row.format, sizeof format);
    const std::string frames = Number(2 * kBefore + kFrames);
    const std::vector<std::string> library{
        "/proc/self/exe",       "video",         row.node, Number(row.width), Number(row.height),
        std::to_string(format), Number(row.fps), frames};
    std::vector<std::string> peer{"v4l2-ctl",
                                  "-d",
                                  row.node,
                                  Text("--set-fmt-video=width=%d,height=%d,pixelformat=%s",
                                       row.width, row.height, row.format),
                                  "--set-parm=" + Number(row.fps),
                                  "--stream-mmap=4",
                                  "--stream-count=" + frames};
    if (row.wrapper) peer.push_back("-w");
    Compared both;
    for (int round = 0; round < kRounds; ++round) {
        both.Add(0, Between(library));
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
        both.AddSound(0, Whole({"/proc/self/exe", "sound", device}));
        std::vector<std::string> peer{
            "arecord", "-q", "-D", device, "-f",  "S16_LE", "-r",
            "48000",   "-c", "2",  "-t",   "raw", "-d",     Number(kSeconds)};
        peer.insert(peer.end(), options.begin(), options.end());
        peer.push_back(kSound);
        both.AddSound(1, Whole(peer));
    }
    const Losses* losses = both.losses;
    Row(what,
        Text("%.2f; %.2f s | %.1f; %.1f ms | %u; %u | %u; %u", Median(both.wall[0]),
             Median(both.wall[1]), Median(both.cpu[0]) / kSeconds * 1e3,
             Median(both.cpu[1]) / kSeconds * 1e3, losses[0].lost, losses[1].lost, losses[0].silent,
             losses[1].silent),
        "no more lost than by the other", losses[0].lost <= losses[1].lost);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "video" && argc == 8)
        return CaptureVideo(argv[2], static_cast<unsigned>(std::atoi(argv[3])),
                            static_cast<unsigned>(std::atoi(argv[4])),
                            static_cast<unsigned>(std::strtoul(argv[5], nullptr, 10)),
                            std::atoi(argv[6]), static_cast<unsigned>(std::atoi(argv[7])));
    if (mode == "sound" && argc == 3) return CaptureSound(argv[2]);
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
        {"USB camera, the same converted to I420 by libv4l2", argv[1], 640, 360, "YU12", 30, true},
    };
    for (const VideoCase& row : cases) Video(row);
    std::printf(
        "\n## Sound: the library; `arecord`\n\n"
        "| %u s from a USB card, 48 kHz, 16 bits, stereo | time of the process | CPU a second of "
        "sound "
        "| samples lost in %d runs | read as silence | target |\n|---|---|---|---|---|---|\n",
        kSeconds, kRounds);
    Sound("its own settings each", card + ",1", {});
    Sound("`arecord` in periods of 10 ms, as the library's chunks", card + ",1",
          {"--period-size=480"});
    if (g_repeated > 0) std::printf("\nRuns that failed and were repeated: %d.\n", g_repeated);
    return g_missed == 0 ? 0 : 1;
}
