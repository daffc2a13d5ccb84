#include "Console.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr int kMaxClear = 256;

void PrintRun(char character, int n) {
    char run[kMaxClear + 1] = {};
    if (n > 0) memset(run, character, static_cast<size_t>(n));
    printf("%s", run);
}

}  // namespace

void PrintClear(int n) {
    if (n > kMaxClear) return;
    PrintRun('\b', n);
    PrintRun(' ', n);
    PrintRun('\b', n);
}

int mygetch() {
    // Deliberate: results are not checked. Input that is not a terminal has no settings to change,
    // but a key can still be read from it.
    termios saved = {};
    tcgetattr(STDIN_FILENO, &saved);
    termios raw = saved;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    const int key = getchar();
    tcsetattr(STDIN_FILENO, TCSANOW, &saved);
    return key;
}

bool AskYesNo() {
    for (;;) {
        switch (mygetch()) {
            case 'y':
            case 'Y':
                return true;
            case 'n':
            case 'N':
            case EOF:  // Deliberate: nothing is flashed without consent, and nothing spins.
                return false;
        }
    }
}
