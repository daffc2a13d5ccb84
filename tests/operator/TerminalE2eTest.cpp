// An upgrade on a real terminal, narrow and wide: what is on its screen.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "QvcapProcess.h"
#include "support/PackageBuilder.h"

namespace qvtest {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::Not;

// As much of a terminal as the display uses: lines that wrap, the cursor's way up, and wiping.
class Screen {
  public:
    explicit Screen(size_t columns) : m_columns(columns) {}

    void Show(const std::string& bytes) {
        for (size_t at = 0; at < bytes.size(); ++at) {
            if (bytes[at] == '\n') {
                Down();
            } else if (bytes[at] == '\r') {
                m_column = 0;
            } else if (bytes[at] == '\033') {
                at = Steer(bytes, at + 1);
            } else {
                Put(bytes[at]);
            }
            m_wasBar = m_wasBar || Bars() > 0;
        }
    }
    const std::vector<std::string>& Lines() const { return m_lines; }
    size_t Bars() const {
        return static_cast<size_t>(
            std::count_if(m_lines.begin(), m_lines.end(), [](const std::string& line) {
                return line.find(" [#") != line.npos || line.find(" [.") != line.npos;
            }));
    }
    bool WasBar() const { return m_wasBar; }
    bool WasStrange() const { return m_strange; }  // an order that is not known here

  private:
    std::string& Line() {
        if (m_lines.size() <= m_row) m_lines.resize(m_row + 1);
        return m_lines[m_row];
    }
    void Down() {
        Line();
        ++m_row;
    }
    void Put(char c) {
        if (m_column == m_columns) {
            Down();
            m_column = 0;
        }
        std::string& line = Line();
        line.resize(std::max(line.size(), m_column + 1), ' ');
        line[m_column++] = c;
    }
    // Behind the escape character; gives the last byte of the order.
    size_t Steer(const std::string& bytes, size_t at) {
        const size_t end = bytes.find_first_of("AJK", at);
        if (bytes[at] != '[' || end == bytes.npos) {
            m_strange = true;
            return at;
        }
        const auto count = std::max<size_t>(1, strtoul(bytes.substr(at + 1).c_str(), nullptr, 10));
        if (bytes[end] == 'A') m_row -= std::min(m_row, count);
        if (bytes[end] == 'J') m_lines.resize(m_row);
        if (bytes[end] != 'A') Line().resize(std::min(Line().size(), m_column));
        return end;
    }

    size_t m_columns;
    size_t m_row = 0;
    size_t m_column = 0;
    std::vector<std::string> m_lines;
    bool m_wasBar = false;
    bool m_strange = false;
};

class TerminalE2eTest : public testing::TestWithParam<int> {};

TEST_P(TerminalE2eTest, BarsAreWrittenOverAndNoneIsLeft) {
    QvcapFolder folder;
    qvsim::SimRig rig;
    rig.Add(qvsim::Pelix()).Add(qvsim::Pelix());
    // Long enough for several looks at the tool's progress.
    rig.AddFault({.request = "EraseFirmwareData", .nth = 2, .effect = qvsim::Slow(250)});
    rig.AddFault({.request = "WriteFirmwareData", .nth = 2, .effect = qvsim::Slow(250)});
    Package().Firmware(1, 1).Section("Factory.Main", 0x200000, 300000).Write(folder / "a.qvf");
    const QvcapRun run = folder.OnTerminal(
        rig, {"upgrade", "--log", folder / "log", "--lock", folder / "lock"}, GetParam());
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_EQ(run.output.npos, run.output.find('\b'));
    Screen screen(static_cast<size_t>(GetParam()));
    screen.Show(run.output);
    EXPECT_TRUE(screen.WasBar()) << run.output;
    EXPECT_FALSE(screen.WasStrange()) << run.output;
    EXPECT_EQ(0u, screen.Bars()) << run.output;
    EXPECT_THAT(screen.Lines(), Each(Not(HasSubstr("total: "))));
    std::string all;
    for (const std::string& line : screen.Lines()) all += line;
    EXPECT_THAT(all, AllOf(HasSubstr("00:00: done, staged"), HasSubstr("01:00: done, staged"),
                           HasSubstr("done 2; done")));
}

INSTANTIATE_TEST_SUITE_P(Columns, TerminalE2eTest, testing::Values(12, 25, 40, 80, 200),
                         [](const auto& about) { return std::to_string(about.param); });

}  // namespace
}  // namespace qvtest
