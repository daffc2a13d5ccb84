// qvcap-sim as a user starts it: its exit status, its output, and programs under the preload door.
#include <elf.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "gmock/gmock.h"
#include "sim/Shell.h"
#include "support/SimRig.h"

namespace qvsim {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

TEST_F(CommandsTest, InitLaysOutCardsOnceAndStatusShowsThem) {
    EXPECT_EQ(0, Shell("qvcap-sim init " + m_cards).status);
    const Outcome status = Shell("qvcap-sim status " + m_cards);
    EXPECT_EQ(0, status.status);
    EXPECT_THAT(status.output, HasSubstr("board 1: Lumo Capture, Lumo Quad SDI, serial LM20110001, "
                                         "hardware B, powered\n"));
    EXPECT_THAT(status.output,
                HasSubstr("/dev/video6 channel 0: running 2.0, stored 2.0 code 7 complete, "
                          "safe none, flash-b2-c0.bin\n"));
    const Outcome again = Shell("qvcap-sim init " + m_cards);
    EXPECT_EQ(2, again.status);
    EXPECT_THAT(again.output, HasSubstr("there are cards already"));
}

TEST_F(CommandsTest, AWrongScenarioWritesNothing) {
    std::ofstream(m_home + "/s.toml") << "[[board]]\nchannels = 0\n";
    const Outcome outcome =
        Shell("qvcap-sim init " + m_cards + " --scenario " + m_home + "/s.toml");
    EXPECT_EQ(2, outcome.status);
    EXPECT_THAT(outcome.output, HasSubstr("/s.toml:2: channels is a whole number from 1 to 16"));
    EXPECT_FALSE(std::filesystem::exists(m_cards));
}

TEST_F(CommandsTest, WrongArgumentsAndFoldersEndWithTwo) {
    EXPECT_EQ(2, Shell("qvcap-sim").status);
    EXPECT_EQ(2, Shell("qvcap-sim polish").status);
    EXPECT_EQ(2, Shell("qvcap-sim init").status);
    EXPECT_EQ(2, Shell("qvcap-sim init " + m_cards + " --scenario " + m_home + "/none").status);
    EXPECT_EQ(2, Shell("qvcap-sim status " + m_home).status);
    EXPECT_EQ(2, Shell("qvcap-sim journal " + m_home).status);
    EXPECT_EQ(2, Shell("qvcap-sim power-cycle " + m_home).status);
    EXPECT_EQ(2, Shell("qvcap-sim run " + m_home + " -- true").status);
    EXPECT_EQ(2, Shell("qvcap-sim serve " + m_home).status);
}

TEST_F(CommandsTest, AProgramUnderTheDoorSeesTheCardsAndNothingElseChanges) {
    Shell("qvcap-sim init " + m_cards);
    const Outcome outcome = Shell("qvcap-sim run " + m_cards + " -- " SIM_PROBE " /dev/video2");
    EXPECT_EQ("3 Lumo Quad SDI 65538\n", outcome.output);
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ("No such file or directory\n",
              Shell("qvcap-sim run " + m_cards + " -- " SIM_PROBE " /dev/video7").output);
    EXPECT_EQ("no channel\n",
              Shell("qvcap-sim run " + m_cards + " -- " SIM_PROBE " /dev/null").output);
    EXPECT_THAT(Shell("qvcap-sim journal " + m_cards).output,
                testing::MatchesRegex("1 [0-9]+ open /dev/video2 fd=3 = 0\n"
                                      "2 [0-9]+ ioctl /dev/video2 GetChannelInfo = 0\n"
                                      "3 [0-9]+ close /dev/video2 fd=3 = 0\n"
                                      "4 [0-9]+ open /dev/video7 = -1 ENOENT\n"));
}

TEST_F(CommandsTest, TheCardsTakeTheDescriptorThatAProgramWouldHaveBeenGiven) {
    Shell("qvcap-sim init " + m_cards);
    EXPECT_THAT(Shell("qvcap-sim run " + m_cards + " -- " SIM_PROBE " /dev/video0 <&-").output,
                StartsWith("0 "));
}

TEST_F(CommandsTest, CommandsKeepTheirOptionsTheirStatusAndTheirShell) {
    Shell("qvcap-sim init " + m_cards);
    EXPECT_EQ(7, Shell("qvcap-sim run --state " + m_cards + " -- sh -c 'exit 7'").status);
    const Outcome nested =
        Shell("qvcap-sim run " + m_cards + " -- sh -c '" SIM_PROBE " /dev/video0; echo done'");
    EXPECT_EQ("3 Pelix Duo HDMI 65536\ndone\n", nested.output);
    EXPECT_EQ(127, Shell("qvcap-sim run " + m_cards + " -- /no/such/program").status);
    const Outcome none = Shell("qvcap-sim run " + m_cards);
    EXPECT_EQ(2, none.status);
    EXPECT_THAT(none.output, HasSubstr("no command"));
}

TEST_F(CommandsTest, ProgramsWithTheAddressSanitizerRun) {
    Shell("qvcap-sim init " + m_cards);
    const Outcome probe =
        Shell("qvcap-sim run " + m_cards + " -- " SIM_PROBE_SANITIZED " /dev/video0");
    EXPECT_EQ("3 Pelix Duo HDMI 65536\n", probe.output);
    EXPECT_EQ(0, probe.status);
}

TEST_F(CommandsTest, PoweringOffMeansPowerCyclingTheCards) {
    Shell("qvcap-sim init " + m_cards);
    CardsState state;
    ASSERT_EQ("", LoadState(m_cards, state));
    state.boards[0].powerLost = true;
    ASSERT_EQ("", SaveState(m_cards, state));
    EXPECT_THAT(Shell("qvcap-sim status " + m_cards).output, HasSubstr("power lost"));
    // The line that the upgrade tool gives to the shell.
    const Outcome outcome = Shell("qvcap-sim run " + m_cards +
                                  " -- sh -c 'sync; if [ `id -u` -ne 0 ]; then  sudo poweroff; "
                                  "echo; else poweroff; echo; fi; sudo poweroff'");
    const std::string said =
        "poweroff: stand-in of the simulated cards: they were switched off and on; this computer "
        "stays on\n";
    EXPECT_EQ(said + "\n" + said, outcome.output);
    EXPECT_EQ(0, outcome.status);
    EXPECT_THAT(Shell("qvcap-sim status " + m_cards).output, testing::Not(HasSubstr("power lost")));
}

TEST_F(CommandsTest, ABrokenMainImageShowsByTheFactorysFirmware) {
    Shell("qvcap-sim init " + m_cards);
    std::filesystem::resize_file(m_cards + "/flash-b0-c0.bin", 0);
    Shell("qvcap-sim power-cycle " + m_cards);
    const Outcome status = Shell("qvcap-sim status " + m_cards);
    EXPECT_THAT(status.output, HasSubstr("/dev/video0 channel 0: running 0.9, stored none"));
    EXPECT_THAT(status.output, HasSubstr("/dev/video1 channel 1: running 1.0"));
}

TEST_F(CommandsTest, InitMakesPackagesForTheCards) {
    const Outcome made = Shell("qvcap-sim init " + m_cards + " --packages");
    EXPECT_EQ("", made.output);
    EXPECT_EQ("lumo-quad-sdi-1.3.qvf\npelix-duo-hdmi-1.1.qvf\npelix-safe-hdmi-2.1.qvf\n",
              Shell("ls " + m_cards + "/packages").output);
    // Header, one or two entries of the table, and their sections.
    EXPECT_EQ(157u + 28 + (256 << 10),
              std::filesystem::file_size(m_cards + "/packages/pelix-duo-hdmi-1.1.qvf"));
    EXPECT_EQ(157u + 2 * 28 + 2 * (256 << 10),
              std::filesystem::file_size(m_cards + "/packages/pelix-safe-hdmi-2.1.qvf"));
}

TEST_F(CommandsTest, CardsOfTheSameNameGetPackagesOfTheirOwn) {
    std::ofstream(m_home + "/s.toml") << "[[board]]\n[[board]]\n[[board]]\nhardware = \"B\"\n";
    Shell("qvcap-sim init " + m_cards + " --packages --scenario " + m_home + "/s.toml");
    EXPECT_EQ("pelix-sim-1.1-x.qvf\npelix-sim-1.1.qvf\n",
              Shell("LC_ALL=C ls " + m_cards + "/packages").output);
}

TEST_F(CommandsTest, AFailedInitLeavesNothing) {
    // The flash of the second board leaves no room for a package: everything else stands by then.
    std::ofstream(m_home + "/s.toml")
        << "[[board]]\n[[board]]\nproduct_code = 2\nflash_size = 0x102000\n";
    const std::string init = "qvcap-sim init " + m_cards + " --scenario " + m_home + "/s.toml";
    const Outcome failed = Shell(init + " --packages");
    EXPECT_EQ(2, failed.status);
    EXPECT_THAT(failed.output, HasSubstr("its flash has no room for the sections of a package"));
    EXPECT_FALSE(std::filesystem::exists(m_cards));
    // What was there before stays.
    std::filesystem::create_directory(m_cards);
    std::ofstream(m_cards + "/mine") << "text";
    EXPECT_EQ(2, Shell(init + " --packages").status);
    EXPECT_EQ("mine\n", Shell("ls -A " + m_cards).output);
    EXPECT_EQ(0, Shell(init).status);
}

TEST_F(CommandsTest, AFlashThatCannotBeWrittenIsARefusedRequestAndAMessage) {
    Shell("qvcap-sim init " + m_cards);
    // Beyond so many blocks no file can be written, as on a disk that is full.
    const Outcome outcome = Shell("trap '' XFSZ; ulimit -f 100; qvcap-sim run " + m_cards +
                                  " -- " SIM_PROBE " /dev/video0 0x200000; echo status $?");
    EXPECT_EQ("qvcap-sim: " + m_cards +
                  "/flash-b0-c0.bin: File too large; requests fail until that is mended\n"
                  "refused: No space left on device\nstatus 4\n",
              outcome.output);
    EXPECT_THAT(Shell("qvcap-sim journal " + m_cards).output,
                HasSubstr(" WriteFirmwareData offset=0x200000 size=4096 = -1 ENOSPC\n"));
}

TEST_F(CommandsTest, MessagesBeginWithTheProgramsName) {
    for (const char* const line : {"qvcap-sim", "qvcap-sim polish", "qvcap-sim init",
                                   "qvcap-sim status /no/such/folder", "qvcap-sim run x -- true"}) {
        SCOPED_TRACE(line);
        std::istringstream output(Shell(line).output);
        int count = 0;
        for (std::string text; std::getline(output, text); ++count)
            EXPECT_THAT(text, StartsWith("qvcap-sim: "));
        EXPECT_GE(count, 1);
    }
    EXPECT_EQ("qvcap-sim " QV_VERSION "\n", Shell("qvcap-sim --version").output);
}

TEST_F(CommandsTest, ServingWhereTheKernelCannotSaysWhatIsMissing) {
    // What it says depends on the machine's kernel; most have no such node, and run this. CuseTest
    // plays a kernel that cannot, everywhere.
    if (access("/dev/cuse", F_OK) == 0)
        GTEST_SKIP() << "this kernel can serve nodes: CuseTest plays one that cannot";
    // Nodes that no machine has, so that none of them is taken.
    std::ofstream(m_home + "/s.toml") << "event_node = false\n[[board]]\nfirst_node = 7007\n";
    Shell("qvcap-sim init " + m_cards + " --scenario " + m_home + "/s.toml");
    const Outcome outcome = Shell("qvcap-sim serve " + m_cards);
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ(
        "qvcap-sim: serve: /dev/cuse: No such file or directory: this kernel has no devices in "
        "user space, or the module is not loaded (modprobe cuse). `qvcap-sim run` needs none\n",
        outcome.output);
}

TEST_F(CommandsTest, PluggingInWhereTheKernelCannotSaysWhatIsMissing) {
    // What it says depends on the machine's kernel; most have no such controller, and run this.
    // UsbServerTest plays a kernel that cannot, everywhere.
    if (access("/sys/devices/platform/vhci_hcd.0", F_OK) == 0)
        GTEST_SKIP() << "this kernel can: UsbServerTest plays one that cannot";
    Outcome outcome = Shell("qvcap-sim usb");
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ(
        "qvcap-sim: usb: /sys/devices/platform/vhci_hcd.0/attach: No such file or directory: the "
        "kernel's virtual host controller is not loaded (modprobe vhci-hcd)\n",
        outcome.output);
    std::ofstream(m_home + "/s.toml") << "[[usb]]\nproduct = \"T\"\nserial = \"S\"\n";
    outcome = Shell("qvcap-sim usb --scenario " + m_home + "/s.toml");
    EXPECT_EQ(2, outcome.status);
    EXPECT_THAT(outcome.output,
                HasSubstr("S has neither sound, camera nor control: 'T' is no model"));
    outcome = Shell("qvcap-sim usb --played " + m_home + "/s.toml");
    EXPECT_EQ(2, outcome.status);
    EXPECT_THAT(outcome.output, HasSubstr("s.toml: is no folder"));
}

TEST_F(CommandsTest, TheStandInsDoNothingWithoutCards) {
    const std::string folder = std::filesystem::path(QVCAP_SIM).parent_path().string();
    EXPECT_EQ(1,
              Shell("env -u QVSIM_STATE -u QVSIM_PROGRAM " + folder + "/standins/poweroff").status);
    EXPECT_EQ(1, Shell(folder + "/standins/sudo -i").status);
}

// The head of a program of one word size, with a loader or without, and with these notes.
template <class Header = Elf64_Ehdr, class Segment = Elf64_Phdr>
void WriteProgram(const std::string& path, bool loader, const std::string& notes = {}) {
    Header header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = sizeof header == sizeof(Elf64_Ehdr) ? ELFCLASS64 : ELFCLASS32;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_phoff = sizeof header;
    header.e_phentsize = sizeof(Segment);
    header.e_phnum = 2;
    Segment segments[2]{};
    segments[0].p_type = loader ? PT_INTERP : PT_LOAD;
    segments[1].p_type = PT_NOTE;
    segments[1].p_offset = sizeof header + sizeof segments;
    segments[1].p_filesz = static_cast<decltype(segments[1].p_filesz)>(notes.size());
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(&header), sizeof header);
    file.write(reinterpret_cast<const char*>(segments), sizeof segments);
    file << notes;
    file.close();
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
}

TEST_F(CommandsTest, AProgramThatLoadsNoDoorIsNotStartedAndItIsSaidWhy) {
    Shell("qvcap-sim init " + m_cards);
    WriteProgram(m_home + "/static", false);
    const std::string said = "qvcap-sim: run: " + m_home +
                             "/static is linked statically and loads no door; `qvcap-sim "
                             "serve` makes nodes for any program\n";
    Outcome outcome = Shell("qvcap-sim run " + m_cards + " -- " + m_home + "/static");
    EXPECT_EQ(2, outcome.status);
    EXPECT_EQ(said, outcome.output);
    outcome = Shell("PATH=" + m_home + ":$PATH; qvcap-sim run " + m_cards + " -- static");
    EXPECT_EQ(said, outcome.output) << "found as the shell finds it";
    std::ofstream(m_home + "/script") << "#! " << m_home << "/static -x\n";
    std::filesystem::permissions(m_home + "/script", std::filesystem::perms::owner_all);
    outcome = Shell("qvcap-sim run " + m_cards + " -- " + m_home + "/script");
    EXPECT_EQ(said, outcome.output) << "by its interpreter";
    // What has a loader is tried; this one is no program at all.
    WriteProgram(m_home + "/broken", true);
    outcome = Shell("qvcap-sim run " + m_cards + " -- " + m_home + "/broken");
    EXPECT_THAT(outcome.output, testing::Not(HasSubstr("linked statically")));
}

// Such a program may load the C library, for the names of users for example, and open files past
// it.
TEST_F(CommandsTest, AGoProgramIsNotStartedWithOrWithoutALoader) {
    Shell("qvcap-sim init " + m_cards);
    const std::string other("\4\0\0\0\5\0\0\0\3\0\0\0GNU\0id-id\0\0\0", 24);
    const std::string go("\4\0\0\0\4\0\0\0\4\0\0\0Go\0\0a/b-", 20);
    const std::string program = m_home + "/program";
    const auto said = [&] { return Shell("qvcap-sim run " + m_cards + " -- " + program).output; };
    for (const bool loader : {false, true}) {
        for (const std::string& notes : {go, other + go}) {
            WriteProgram(program, loader, notes);
            EXPECT_EQ("qvcap-sim: run: " + program +
                          " is a Go program, which calls the kernel without the C library and so "
                          "past any door; `qvcap-sim serve` makes nodes for any program\n",
                      said());
        }
        WriteProgram<Elf32_Ehdr, Elf32_Phdr>(program, loader, go);
        EXPECT_THAT(said(), HasSubstr("is a Go program"));
        // Of another maker, of another type, cut off.
        for (const std::string& notes :
             {other, std::string("\4\0\0\0\4\0\0\0\3\0\0\0Go\0\0a/b-", 20), go.substr(0, 14),
              std::string("\xff\xff\xff\xff\xff\xff\xff\xff", 8) + go}) {
            WriteProgram(program, loader, notes);
            EXPECT_THAT(said(), testing::Not(HasSubstr("is a Go program")));
        }
    }
}

// As where the packages are: the door beside qvcap-sim is a link to that of its architecture.
TEST_F(CommandsTest, AProgramOfAWordSizeWithoutADoorIsNotStartedAndItIsSaidWhatHelps) {
    Shell("qvcap-sim init " + m_cards);
    constexpr bool kWide = sizeof(void*) == 8;
    const std::string program = m_home + "/other";
    if (kWide)
        WriteProgram<Elf32_Ehdr, Elf32_Phdr>(program, true);
    else
        WriteProgram(program, true);
    const auto built = std::filesystem::path(QVCAP_SIM).parent_path();
    const std::string support = m_home + "/usr/lib/qvcapture/sim";
    std::filesystem::create_directories(m_home + "/usr/bin");
    std::filesystem::create_directories(support);
    std::filesystem::copy(QVCAP_SIM, m_home + "/usr/bin/qvcap-sim");
    std::filesystem::copy(built / "standins", support + "/standins");
    std::filesystem::create_symlink(built / "libqvsim-preload.so",
                                    support + "/libqvsim-preload.so");
    const Outcome outcome = Shell(m_home + "/usr/bin/qvcap-sim run " + m_cards + " -- " + program);
    EXPECT_EQ(2, outcome.status);
    EXPECT_EQ("qvcap-sim: run: " + program + " is a " + (kWide ? "32" : "64") +
                  "-bit program, and there is no door for these; install qvcapture-door of that "
                  "architecture, too; `qvcap-sim serve` makes nodes for any program\n",
              outcome.output);
}

}  // namespace
}  // namespace qvsim
