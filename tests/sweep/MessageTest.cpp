// Every text that the tool can print has its row in the table of messages of docs/recovery.md: the
// texts are taken from the tool's own sources, so that a new one cannot be forgotten there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "Document.h"
#include "support/PackageBuilder.h"
#include "tool/ToolProcess.h"
#include "tool/ToolTexts.h"

namespace qvtest {
namespace {

using testing::HasSubstr;
using testing::Not;

// Options, names in packages and of files, and the command that turns off: nobody reads them.
const std::set<std::string> kNotPrinted = {
    "/dev/null",
    "ab:d:fylh",
    "all",
    "board",
    "device",
    "fource",
    "yes",
    "list",
    "help",
    ".qvf",
    "rb",
    "Upgrade.",
    "Factory.CLR.",
    "Upgrade.CLR",
    "Lumo Capture",
    "sync; if [ `id -u` -ne 0 ]; then  sudo poweroff; echo; else poweroff; echo; fi"};

// What the row says of the long ones.
const std::map<std::string, std::string> kShort = {
    {kUsage.substr(0, kUsage.size() - 1), "USAGE"},
    {kWarning, "!!! Warning !!!"},
    {kPowerOffQuestion, "Do you want to turn off your computer now?"}};

std::string ReadText(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// The escaped character behind the backslash at `at`, which is moved to its last character.
char Unescaped(const std::string& source, size_t* at) {
    const char letter = source.at(++*at);
    if (letter == 'n') return '\n';
    if (letter == 'r') return '\r';
    if (letter == 'b') return '\b';
    if (letter != '0') return letter;
    size_t digits = 0;
    const int value = std::stoi(source.substr(*at, 3), &digits, 8);
    *at += digits - 1;
    return static_cast<char>(value);
}

// The string literals of a source, neighbours joined; without those of #include and of comments.
std::set<std::string> Literals(const std::string& source) {
    std::set<std::string> found;
    std::string text;
    bool open = false;  // a literal has ended, and a neighbour may follow
    const auto end = [&] {
        if (open) found.insert(text);
        open = false;
        text.clear();
    };
    for (size_t at = 0; at < source.size(); ++at) {
        if (source.compare(at, 8, "#include") == 0 || source.compare(at, 2, "//") == 0) {
            at = source.find('\n', at);
        } else if (source[at] == '\'') {
            for (++at; source.at(at) != '\''; ++at) at += source[at] == '\\';
            end();
        } else if (source[at] == '"') {
            for (++at; source.at(at) != '"'; ++at)
                text += source[at] == '\\' ? Unescaped(source, &at) : source[at];
            open = true;
        } else if (std::isspace(static_cast<unsigned char>(source[at])) == 0) {
            end();
        }
    }
    return found;
}

// What a printed text contains whatever is printed with it: between conversions, without blanks
// around.
std::vector<std::string> FixedParts(const std::string& format) {
    std::vector<std::string> parts(1);
    for (size_t at = 0; at < format.size(); ++at) {
        if (format.compare(at, 2, "%%") == 0) {
            parts.back() += '%';
            ++at;
        } else if (format[at] == '%') {
            at = format.find_first_of("csdu", at);
            parts.emplace_back();
        } else {
            parts.back() += format[at];
        }
    }
    for (std::string& part : parts) {
        const size_t begin = part.find_first_not_of(" \n\r");
        part = begin == part.npos ? ""
                                  : part.substr(begin, part.find_last_not_of(" \n\r") + 1 - begin);
    }
    std::erase(parts, "");
    return parts;
}

bool HasWords(const std::vector<std::string>& parts) {
    for (const std::string& part : parts)
        for (const char c : part)
            if (std::isalpha(static_cast<unsigned char>(c)) != 0) return true;
    return false;
}

// First cells of the table of messages.
std::vector<std::string> Messages() {
    const std::string document = RecoveryDocument();
    std::istringstream section(document.substr(document.find("\n## Messages\n") + 1));
    std::vector<std::string> cells;
    std::string line;
    std::getline(section, line);
    while (std::getline(section, line) && !line.starts_with("## "))
        if (line.starts_with("| ")) cells.push_back(line.substr(2, line.find(" | ") - 2));
    return cells;
}

bool Holds(const std::string& cell, const std::vector<std::string>& parts) {
    size_t at = 0;
    for (const std::string& part : parts) {
        at = cell.find(part, at);
        if (at == cell.npos) return false;
        at += part.size();
    }
    return true;
}

bool InDocument(const std::string& text) {
    const auto brief = kShort.find(text);
    const std::vector<std::string> parts = FixedParts(brief == kShort.end() ? text : brief->second);
    for (const std::string& cell : Messages())
        if (Holds(cell, parts)) return true;
    return false;
}

std::set<std::string> TextsOfTheTool() {
    std::set<std::string> texts;
    for (const auto& file : std::filesystem::directory_iterator(QV_TOOL_SOURCES))
        if (file.path().extension() == ".cpp" || file.path().extension() == ".h")
            texts.merge(Literals(ReadText(file.path())));
    return texts;
}

TEST(Messages, OfTheToolHaveAllTheirRowsInTheDocument) {
    const std::set<std::string> texts = TextsOfTheTool();
    size_t printed = 0;
    for (const std::string& text : texts) {
        if (kNotPrinted.count(text) != 0 || !HasWords(FixedParts(text))) continue;
        ++printed;
        EXPECT_TRUE(InDocument(text)) << testing::PrintToString(text);
    }
    EXPECT_GT(printed, 25u);
    // Nothing is excused that is not there.
    for (const std::string& text : kNotPrinted) EXPECT_EQ(1u, texts.count(text)) << text;
    for (const auto& [text, brief] : kShort) EXPECT_EQ(1u, texts.count(text)) << brief;
    EXPECT_FALSE(InDocument("no such %s message"));
}

class CommandLine : public testing::Test {
  protected:
    CommandLine() {
        rig.Add(qvsim::Pelix());
        Package().Firmware(1, 0).Write(folder / "p.qvf");
    }

    qvsim::SimRig rig;
    ToolFolder folder;
};

// The C library prints these; the part before what was typed is fixed.
TEST_F(CommandLine, DiagnosticsOfUnknownOptionsAreInTheDocument) {
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"-x"}, {"--force"}, {"-d"}, {"--device"}, {"--all=1"}}) {
        const std::string errors = folder.ThroughPipe(rig, arguments).errors;
        ASSERT_THAT(errors, testing::StartsWith("qvcap-upgrade: "));
        const std::string fixed = errors.substr(0, errors.find('\''));
        const std::string rest = errors.substr(errors.rfind('\'') + 1);
        EXPECT_TRUE(InDocument(fixed + "%s" + rest)) << errors;
    }
}

TEST_F(CommandLine, BehindAnUnknownOptionIsIgnoredAndTheRunGoesOn) {
    const ToolRun run = folder.ThroughPipe(rig, {"-a", "-x", "-f", "-y"});
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output, HasSubstr("Needn't upgrade"));
    const ToolRun forced = folder.ThroughPipe(rig, {"-a", "-f", "-x", "-y"});
    EXPECT_THAT(forced.output, HasSubstr("Do you want to upgrade from "));
    EXPECT_THAT(forced.output, HasSubstr(" cancled."));
    const ToolRun listed = folder.ThroughPipe(rig, {"-a", "-f", "-x", "-l"});
    EXPECT_THAT(listed.output, HasSubstr("Do you want to upgrade from "));
    const ToolRun first = folder.ThroughPipe(rig, {"-x", "-a", "-f", "-y"});
    EXPECT_EQ(kUsage, first.output);
}

TEST_F(CommandLine, FilterThatMatchesNothingReportsTotals) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"-b", "7"}, {"-d", "7:0"}, {"-d", "0:7"}}) {
        const ToolRun run = folder.ThroughPipe(rig, arguments);
        EXPECT_EQ("total 0, need upgrade 0\n", run.output);
        EXPECT_EQ(0, run.status);
    }
}

}  // namespace
}  // namespace qvtest
