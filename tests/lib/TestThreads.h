// Waiting for another thread, and looking for capture threads left behind, in tests.
//
// The wait is bounded only to turn a hang into a failure; no test asserts how long a thing took.
#pragma once

#include <dirent.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

template <class Predicate>
bool Eventually(Predicate predicate) {
    for (int i = 0; i < 20000; ++i) {
        if (predicate()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

// Threads that carry the name of a capture thread; others may belong to a sanitizer.
inline int CaptureThreadsNow() {
    int threads = 0;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return -1;
    while (const dirent* entry = readdir(tasks)) {
        std::ifstream file("/proc/self/task/" + std::string(entry->d_name) + "/comm");
        std::string name;
        if (std::getline(file, name) && (name == "AudioCapture" || name == "VideoCapture"))
            ++threads;
    }
    closedir(tasks);
    return threads;
}

// A joined thread may stay visible for a moment.
inline bool NoCaptureThreadIsLeft() {
    return Eventually([] { return CaptureThreadsNow() == 0; });
}
