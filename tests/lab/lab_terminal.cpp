// lab_terminal KEYS COMMAND [ARGUMENT...]: runs a command on a terminal of its own, types the next
// key of KEYS each time it asks for one (the terminal is in one-key mode), and prints what it
// prints.
//
// Exit status: the command's; 97 when a signal ended it, 98 when keys were left over, 99 when the
// terminal was left in another mode than it was found in.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <cstdio>

namespace {

bool WantsKey(int terminal) {
    termios mode{};
    return tcgetattr(terminal, &mode) == 0 && (mode.c_lflag & ICANON) == 0;
}

// Passes on what was printed so far; true when there was anything.
bool PassOn(int terminal) {
    bool printed = false;
    pollfd ready{terminal, POLLIN, 0};
    while (poll(&ready, 1, 2) > 0) {
        char text[4096];
        const ssize_t n = read(terminal, text, sizeof text);
        if (n <= 0) break;
        if (fwrite(text, 1, static_cast<size_t>(n), stdout) != static_cast<size_t>(n)) break;
        printed = true;
    }
    return printed;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: lab_terminal KEYS COMMAND [ARGUMENT...]\n");
        return 64;
    }
    alarm(600);  // a command that hangs must not hang its test
    // A terminal that alters no byte of the output.
    int terminal = -1;
    int line = -1;
    if (openpty(&terminal, &line, nullptr, nullptr, nullptr) != 0) {
        std::perror("openpty");
        return 64;
    }
    termios plain{};
    tcgetattr(line, &plain);
    plain.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    tcsetattr(line, TCSANOW, &plain);
    const pid_t child = fork();
    if (child == 0) {
        close(terminal);
        if (login_tty(line) == 0) execvp(argv[2], argv + 2);
        std::perror(argv[2]);
        _exit(127);
    }
    const char* key = argv[1];
    bool printed = false;  // since the last key: one-key mode is a new question then
    int status = 0;
    // `line` stays open here, so that the last output can be read after the command has ended.
    while (waitpid(child, &status, WNOHANG) == 0) {
        // A question is printed before its key is waited for, and the mode of the one before ends
        // before anything else is printed: asked on both sides of the output, it is a new one.
        const bool asked = WantsKey(terminal);
        printed = PassOn(terminal) || printed;
        if (!asked || !WantsKey(terminal) || !printed || !*key) continue;
        printed = false;
        if (write(terminal, key++, 1) != 1) break;
    }
    PassOn(terminal);
    termios after{};
    tcgetattr(line, &after);
    if (!WIFEXITED(status)) return 97;
    if (*key) return 98;
    if (after.c_lflag != plain.c_lflag) return 99;
    return WEXITSTATUS(status);
}
