// The console functions on a real terminal pair.
#include "Console.h"

#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include "ToolFixture.h"

namespace qvtest {
namespace {

class ConsoleTest : public ToolFixture {
  protected:
    ConsoleTest() : m_saved(dup(STDIN_FILENO)) {}
    ~ConsoleTest() override {
        if (m_saved >= 0) dup2(m_saved, STDIN_FILENO);
        if (m_saved >= 0) close(m_saved);
        clearerr(stdin);
    }
    // Standard input is `fd` until the end of the test.
    static void TakeInputFrom(int fd) {
        ASSERT_EQ(STDIN_FILENO, dup2(fd, STDIN_FILENO));
        close(fd);
        clearerr(stdin);
    }
    static void TakeInputFrom(const std::string& text) {
        int ends[2];
        ASSERT_EQ(0, pipe(ends));
        ASSERT_EQ(static_cast<ssize_t>(text.size()), write(ends[1], text.data(), text.size()));
        close(ends[1]);
        TakeInputFrom(ends[0]);
    }

  private:
    int m_saved;
};

TEST_F(ConsoleTest, PrintClearErasesAsManyColumnsAsAskedUpTo256) {
    for (const int n : {1, 2, 27, 80, 255, 256})
        EXPECT_EQ(Clear(static_cast<size_t>(n)), Printed([&] { PrintClear(n); })) << n;
    for (const int n : {0, -1, 257, 1000}) EXPECT_EQ("", Printed([&] { PrintClear(n); })) << n;
}

TEST_F(ConsoleTest, AKeyIsReadAtOnceAndTheTerminalIsAsBefore) {
    int master = -1;
    int slave = -1;
    ASSERT_EQ(0, openpty(&master, &slave, nullptr, nullptr, nullptr));
    termios before;
    ASSERT_EQ(0, tcgetattr(slave, &before));
    before.c_lflag &= ~static_cast<tcflag_t>(ICANON);  // the key must not wait in the line editor
    ASSERT_EQ(0, tcsetattr(slave, TCSANOW, &before));
    ASSERT_EQ(0, tcgetattr(slave, &before));
    TakeInputFrom(slave);
    ASSERT_EQ(1, write(master, "k", 1));
    EXPECT_EQ('k', mygetch());
    termios after;
    ASSERT_EQ(0, tcgetattr(STDIN_FILENO, &after));
    EXPECT_EQ(before.c_lflag, after.c_lflag);
    EXPECT_EQ(before.c_iflag, after.c_iflag);
    EXPECT_EQ(before.c_oflag, after.c_oflag);
    close(master);
}

TEST_F(ConsoleTest, WithoutATerminalKeysAreReadAllTheSame) {
    TakeInputFrom("ab");
    EXPECT_EQ('a', mygetch());
    EXPECT_EQ('b', mygetch());
    EXPECT_EQ(-1, mygetch());
}

TEST_F(ConsoleTest, OnlyYAndNAnswerAndTheEndOfInputIsANo) {
    TakeInputFrom("xyzY-n?Nq");
    EXPECT_TRUE(AskYesNo());
    EXPECT_TRUE(AskYesNo());
    EXPECT_FALSE(AskYesNo());
    EXPECT_FALSE(AskYesNo());
    EXPECT_FALSE(AskYesNo());
    EXPECT_FALSE(AskYesNo());
}

}  // namespace
}  // namespace qvtest
