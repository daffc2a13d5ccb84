// The commands that look into a folder of cards and change it: faults, flash, journal, status,
// reset.
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "FirmwareImage.h"
#include "PlainFiles.h"
#include "gmock/gmock.h"
#include "sim/Shell.h"

namespace qvsim {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace fs = std::filesystem;

class FolderCommandsTest : public CommandsTest {
  protected:
    void SetUp() override {
        CommandsTest::SetUp();
        ASSERT_EQ(0, Shell("qvcap-sim init " + m_cards).status);
    }
    Outcome Sim(const std::string& arguments) { return Shell("qvcap-sim " + arguments); }
    // A program that writes a sector of zeros to the flash of a node.
    Outcome Write(const std::string& node, const std::string& address) {
        return Sim("run " + m_cards + " -- " SIM_PROBE " " + node + " " + address);
    }
    // Name, size, time of change and content of every file.
    std::string Snapshot() {
        return Shell("cd " + m_cards +
                     " && find . -type f | sort | xargs stat -c '%n %s %y' && "
                     "find . -type f | sort | xargs cat | cksum")
            .output;
    }
};

TEST_F(FolderCommandsTest, APowerCutStrikesOnceAndTheCardCanBeFlashedAgain) {
    const Outcome added =
        Sim("fault add " + m_cards + " request=WriteFirmwareData kind=power_loss");
    EXPECT_EQ(0, added.status);
    EXPECT_EQ("0\n", added.output);
    EXPECT_EQ("refused: Input/output error\n", Write("/dev/video0", "0x200000").output);
    EXPECT_THAT(Sim("status " + m_cards).output, HasSubstr("power lost"));
    EXPECT_EQ("refused: Input/output error\n", Write("/dev/video0", "0x200000").output);
    EXPECT_EQ(0, Sim("power-cycle " + m_cards).status);
    EXPECT_EQ("", Write("/dev/video0", "0x200000").output);
    EXPECT_EQ("0 request=WriteFirmwareData nth=1 count=1 kind=power_loss value=0 seen=3\n",
              Sim("fault list " + m_cards).output);
}

TEST_F(FolderCommandsTest, FaultsAreListedInTheWordsThatAddThem) {
    const std::string words =
        "request=open nth=2 count=-1 one_in=3 seed=9 board=1 channel=2 "
        "per=process kind=refuse value=EBUSY";
    EXPECT_EQ("0\n", Sim("fault add " + m_cards + " " + words).output);
    EXPECT_EQ("1\n",
              Sim("fault add " + m_cards + " request=any kind=refuse_late value=200").output);
    EXPECT_EQ("0 " + words + "\n1 request=any nth=1 count=1 kind=refuse_late value=200 seen=0\n",
              Sim("fault list " + m_cards).output);
    EXPECT_THAT(Sim("fault list --json " + m_cards).output,
                StartsWith(R"([{"number":0,"request":"open","nth":"2")"));
    EXPECT_EQ(0, Sim("fault clear " + m_cards + " 0").status);
    EXPECT_THAT(Sim("fault list " + m_cards).output, StartsWith("1 request=any"));
    const Outcome unknown = Sim("fault clear " + m_cards + " 0");
    EXPECT_EQ(2, unknown.status);
    EXPECT_EQ("qvcap-sim: fault clear: there is no fault 0\n", unknown.output);
    EXPECT_EQ(0, Sim("fault clear " + m_cards).status);
    EXPECT_EQ("", Sim("fault list " + m_cards).output);
}

TEST_F(FolderCommandsTest, AWrongFaultIsRefusedAndChangesNothing) {
    const std::string before = Snapshot();
    const std::pair<const char*, const char*> rows[] = {
        {"kind=refuse", "fault names no request: ''"},
        {"request=Erase kind=refuse", "fault names no request: 'Erase'"},
        {"request=open kind=melt", "fault has no kind, or one that is unknown: 'melt'"},
        {"request=open kind=refuse colour=red", "unknown key 'colour'"},
        {"request=open kind=refuse nth=0", "nth is a whole number from 1"},
        {"request=open kind=refuse nth=x", "nth is a whole number from 1"},
        {"request=open kind=refuse per=day", "per is \"folder\" or \"process\""},
        {"request=open kind", "'kind' is not key=value"},
        {"'request=\"open\"' kind=refuse", "'request=\"open\"' is not key=value"},
        {"request=open request=open kind=refuse", ""},
    };
    for (const auto& [words, said] : rows) {
        const Outcome outcome = Sim("fault add " + m_cards + " " + words);
        EXPECT_EQ(2, outcome.status) << words;
        EXPECT_THAT(outcome.output, StartsWith(std::string("qvcap-sim: fault add: ") + said));
    }
    EXPECT_EQ(2, Sim("fault add " + m_home + " request=open kind=refuse").status);
    EXPECT_EQ(before, Snapshot());
}

TEST_F(FolderCommandsTest, TheFlashComesOutAndGoesIn) {
    const std::string dump = m_home + "/dump";
    EXPECT_EQ(0, Sim("flash read " + m_cards + " 0:1 " + dump).status);
    std::string bytes = ReadText(dump);
    ASSERT_EQ(16u << 20, bytes.size());
    EXPECT_EQ("QVFH", bytes.substr(0x100000, 4));
    EXPECT_EQ(std::string(0x100000, '\xFF'), bytes.substr(0, 0x100000));

    // A dump of another card: version 7.3, a section that ends in blank pages, and one to be blank.
    std::vector<uint8_t> header = MakeHeader(7u << 16 | 3, 1, 0x0101, 'A');
    const auto section = [&](const char* name, uint32_t address, uint32_t size) {
        uint8_t entry[kHeaderSectionLength] = {};
        std::copy(name, name + strlen(name), entry);
        for (int i = 0; i < 4; ++i) entry[16 + i] = static_cast<uint8_t>(address >> 8 * i);
        for (int i = 0; i < 4; ++i) entry[20 + i] = static_cast<uint8_t>(size >> 8 * i);
        header.insert(header.end(), entry, entry + sizeof entry);
        header[156] = static_cast<uint8_t>(header[156] + 1);
        header[10] = static_cast<uint8_t>(header.size());
    };
    section("Factory.Main", 0x200000, 0x5000);
    section("Factory.CLR.x", 0x300000, 0x1000);
    std::copy(header.begin(), header.end(), bytes.begin() + 0x100000);
    bytes.replace(0x200000, 100, std::string(100, 'x'));
    bytes.resize(0x280000);
    std::ofstream(dump, std::ios::binary) << bytes;
    EXPECT_EQ(0, Sim("flash write " + m_cards + " 0:1 " + dump).status);
    EXPECT_THAT(Sim("status " + m_cards).output,
                HasSubstr("/dev/video1 channel 1: running 1.0, stored 7.3 code 1 complete"));
    Sim("power-cycle " + m_cards);
    EXPECT_THAT(Sim("status " + m_cards).output, HasSubstr("channel 1: running 7.3"));
    EXPECT_EQ(0, Sim("flash read " + m_cards + " 0:1 " + dump + "2").status);
    EXPECT_TRUE(bytes + std::string((16 << 20) - bytes.size(), '\xFF') == ReadText(dump + "2"));
}

TEST_F(FolderCommandsTest, AnIncompleteImageIsCalledSoAndDoesNotRun) {
    std::string bytes(0x200000, '\xFF');
    const std::vector<uint8_t> header = MakeHeader(7u << 16, 1, 0x0101, 'A');
    std::copy(header.begin(), header.end(), bytes.begin() + 0x100000);
    bytes[0x100000 + 156] = 1;
    bytes[0x100000 + 10] = static_cast<char>(kHeaderFixedLength + kHeaderSectionLength);
    const char entry[kHeaderSectionLength] = "Factory.Main\0\0\0\0\0\0\x30\0\0\x10\0";
    bytes.replace(0x100000 + kHeaderFixedLength, sizeof entry, entry, sizeof entry);
    std::ofstream(m_home + "/dump", std::ios::binary) << bytes;
    EXPECT_EQ(0, Sim("flash write " + m_cards + " 0:0 " + m_home + "/dump").status);
    Sim("power-cycle " + m_cards);
    EXPECT_THAT(Sim("status " + m_cards).output,
                HasSubstr("/dev/video0 channel 0: running 0.9, stored 7.0 code 1 incomplete"));
    EXPECT_THAT(Sim("status --json " + m_cards).output, HasSubstr("\"complete\":false"));
}

TEST_F(FolderCommandsTest, APlaceOrFileThatIsNoneIsRefused) {
    const std::string small = m_home + "/small";
    std::ofstream(small) << "x";
    const std::string before = Snapshot();
    for (const char* const place : {"7", "0:2", "x", "0:", ":1", "-1", "0:1:2"})
        EXPECT_EQ(2, Sim(std::string("flash write ") + m_cards + " " + place + " " + small).status)
            << place;
    EXPECT_EQ(2, Sim("flash write " + m_cards + " 0 " + m_home + "/none").status);
    EXPECT_EQ(2, Sim("flash read " + m_cards + " 0 " + m_home + "/no/such/folder").status);
    const Outcome large =
        Shell("truncate -s 17M " + small + "; qvcap-sim flash write " + m_cards + " 0 " + small);
    EXPECT_EQ(2, large.status);
    EXPECT_THAT(large.output, HasSubstr("is larger than the chip, which has 16777216 bytes"));
    EXPECT_EQ(before, Snapshot());
}

TEST_F(FolderCommandsTest, LookingChangesNothing) {
    Write("/dev/video0", "0x200000");
    const std::string before = Snapshot();
    EXPECT_EQ(0, Sim("status " + m_cards).status);
    EXPECT_EQ(0, Sim("status --json " + m_cards).status);
    EXPECT_EQ(0, Sim("journal " + m_cards).status);
    EXPECT_EQ(0, Sim("fault list " + m_cards).status);
    EXPECT_EQ(0, Sim("flash read " + m_cards + " 1 " + m_home + "/dump").status);
    EXPECT_EQ(before, Snapshot());
}

TEST_F(FolderCommandsTest, TheJournalIsOneObjectALine) {
    Write("/dev/video0", "0x200000");
    std::istringstream lines(Sim("journal --json " + m_cards).output);
    std::vector<std::string> all;
    for (std::string line; std::getline(lines, line);) all.push_back(line);
    ASSERT_EQ(3u, all.size());
    EXPECT_THAT(all[1], MatchesRegex(".\"sequence\":2,\"pid\":[0-9]+,\"action\":\"ioctl\",\"node\":"
                                     "\"/dev/video0\",\"request\":\"WriteFirmwareData\","
                                     "\"arguments\":.\"offset\":\"0x200000\",\"size\":\"4096\","
                                     "\"crc\":\"0xc71c0011\".,\"result\":0."));
    // A close line comes for what the program left open.
    EXPECT_THAT(all[2], HasSubstr("\"action\":\"close\""));
    Sim("fault add " + m_cards + " request=open kind=refuse value=EBUSY");
    Write("/dev/video0", "0");
    EXPECT_THAT(Sim("journal --json " + m_cards).output,
                HasSubstr("\"arguments\":{},\"result\":-1,\"error\":\"EBUSY\"}\n"));
}

TEST_F(FolderCommandsTest, TheJournalIsForgottenAndTheNumbersGoOn) {
    Write("/dev/video0", "0x200000");
    EXPECT_EQ(0, Sim("journal --clear " + m_cards).status);
    EXPECT_EQ("", Sim("journal " + m_cards).output);
    Write("/dev/video0", "0x200000");
    EXPECT_THAT(Sim("journal " + m_cards).output, StartsWith("4 "));
    EXPECT_EQ(2, Sim("journal --clear --follow " + m_cards).status);
}

TEST_F(FolderCommandsTest, TheJournalIsFollowed) {
    Write("/dev/video0", "0x200000");
    // Ends with the reader, who has seen a line that came after the start.
    const Outcome outcome =
        Shell("{ timeout 60 qvcap-sim journal --follow " + m_cards + " & echo $! >" + m_home +
              "/pid; } | { read a; read b; read c; "
              "qvcap-sim run " +
              m_cards + " -- " SIM_PROBE " /dev/video0 0x200000; read d; echo \"$d\"; kill $(cat " +
              m_home + "/pid); }");
    EXPECT_THAT(outcome.output, MatchesRegex("4 [0-9]+ open /dev/video0 fd=3 = 0\n"));
}

TEST_F(FolderCommandsTest, AResetMakesTheCardsWhatTheyWere) {
    const auto cards = [&] {
        return Sim("status --json " + m_cards).output + Sim("fault list " + m_cards).output +
               Sim("journal " + m_cards).output +
               Shell("cat " + m_cards + "/flash*.bin | cksum").output;
    };
    const std::string before = cards();
    Sim("fault add " + m_cards + " request=EraseFirmwareData kind=power_loss");
    Write("/dev/video0", "0x100000");
    Sim("power-cycle " + m_cards);
    EXPECT_NE(before, cards());
    EXPECT_EQ(0, Sim("reset " + m_cards).status);
    EXPECT_EQ(before, cards());
    EXPECT_EQ(2, Sim("reset " + m_home).status);
}

// A line in a file system of its own that is mounted over the folder, in a namespace of its own; it
// begins with fresh cards and a disk that is full.
Outcome OnAFullDisk(const std::string& home, const std::string& cards, const std::string& line) {
    return Shell("unshare -rm sh -c 'mount -t tmpfs -o size=12m none " + home +
                 " && qvcap-sim init " + cards + " && dd if=/dev/zero of=" + home +
                 "/fill bs=4k 2>/dev/null; " + line + "'");
}

// A machine may forbid namespaces to its users; nothing else can fill a disk without harm. CI runs
// as root, which may, in every configuration.
#define QVSIM_NEEDS_A_DISK()                                            \
    if (Shell("unshare -rm mount -t tmpfs none " + m_home).status != 0) \
    GTEST_SKIP() << "this machine gives no file systems of its own to tests"

TEST_F(FolderCommandsTest, AFullDiskRefusesRequestsAndTearsNoLine) {
    QVSIM_NEEDS_A_DISK();
    const std::string probe = "qvcap-sim run " + m_cards + " -- " SIM_PROBE " /dev/video0; ";
    const Outcome outcome =
        OnAFullDisk(m_home, m_cards,
                    probe + "rm " + m_home + "/fill; " + probe + "qvcap-sim journal " + m_cards);
    EXPECT_THAT(outcome.output, MatchesRegex("qvcap-sim: .*/cards/journal: No space left on "
                                             "device; requests fail until that is mended\n"
                                             "No space left on device\n"
                                             "3 Pelix Duo HDMI 65536\n"
                                             "[0-9]+ [0-9]+ open /dev/video0 fd=3 = 0\n"
                                             "[0-9]+ [0-9]+ ioctl /dev/video0 GetChannelInfo = 0\n"
                                             "[0-9]+ [0-9]+ close /dev/video0 fd=3 = 0\n"));
}

TEST_F(FolderCommandsTest, APowerCycleOnAFullDiskFails) {
    QVSIM_NEEDS_A_DISK();
    const Outcome outcome =
        OnAFullDisk(m_home, m_cards,
                    "qvcap-sim power-cycle " + m_cards + "; echo $?; rm " + m_home +
                        "/fill; qvcap-sim power-cycle " + m_cards + "; echo $?");
    EXPECT_EQ("qvcap-sim: " + m_cards +
                  "/cards.state: No space left on device; requests fail until that is mended\n"
                  "2\n0\n",
              outcome.output);
}

// The native configuration runs it.
TEST_F(FolderCommandsTest, AJournalThatCannotBeginAnewLosesNoLine) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a door with the thread sanitizer in it goes into no other program";
#endif
    if (sizeof(void*) == 4) GTEST_SKIP() << "this machine's bash is a 64-bit program";
    QVSIM_NEEDS_A_DISK();
    const std::string scenario = m_home + "-limit.toml";
    std::ofstream(scenario) << "journal_limit = 65536\n[[board]]\n";
    // Some 700 lines; the 33 KB after which a new file begins are reached on a disk that is full.
    const std::string ask = "qvcap-sim run " + m_cards +
                            " -- bash -c \"for i in {1..170}; do exec 5</dev/video0; exec 5<&-; "
                            "done\" 2>/dev/null; ";
    const Outcome outcome = OnAFullDisk(
        m_home, m_cards,
        "rm -r " + m_cards + " " + m_home + "/fill; qvcap-sim init " + m_cards + " --scenario " +
            scenario + "; " + ask + ask + "dd if=/dev/zero of=" + m_home +
            "/fill bs=4k 2>/dev/null; " + ask + ask + ask + "rm " + m_home + "/fill; " + ask +
            "qvcap-sim journal " + m_cards + " | cut -d\" \" -f1 | head -n 1; qvcap-sim journal " +
            m_cards + " | tail -n 1 | cut -d\" \" -f3-; ls " + m_cards);
    std::filesystem::remove(scenario);
    EXPECT_THAT(outcome.output, MatchesRegex("1\nclose /dev/video0 fd=[0-9]+ = 0\n.*"));
    EXPECT_THAT(outcome.output, HasSubstr("journal.old"));
    EXPECT_THAT(outcome.output, testing::Not(HasSubstr("journal.next")));
}

}  // namespace
}  // namespace qvsim
