// Takes the place of qvcap-upgrade beside a copy of qvcap: runs the tool, and appends the processor
// time of both to the file `used` in its own folder, in seconds. Ends as the tool did.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace {

double Seconds(const rusage& used) {
    return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
           static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1e6;
}

}  // namespace

int main(int, char** arguments) {
    const pid_t pid = fork();
    if (pid == 0) {
        execv(QV_TOOL_FILE, arguments);
        _exit(127);
    }
    int status = 0;
    rusage tool{};
    rusage own{};
    if (wait4(pid, &status, 0, &tool) != pid) return EXIT_FAILURE;
    getrusage(RUSAGE_SELF, &own);
    const std::filesystem::path folder =
        std::filesystem::read_symlink("/proc/self/exe").parent_path();
    std::FILE* const file = std::fopen((folder / "used").c_str(), "a");
    if (file == nullptr) return EXIT_FAILURE;
    std::fprintf(file, "%.6f\n", Seconds(tool) + Seconds(own));
    std::fclose(file);
    return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
}
