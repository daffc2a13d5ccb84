// The parts of qvcap doctor that look at the computer, over files of the test's own.
#include "Doctor.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "support/TempFolder.h"

namespace qvtest {
namespace {

namespace fs = std::filesystem;
using qvo::Observation;
using qvo::Severity;

class DoctorTest : public testing::Test {
  protected:
    DoctorTest() {
        fs::create_directories(folder + "/proc/asound");
        surroundings.proc = folder + "/proc";
        surroundings.ruleFolders = {folder + "/a", folder + "/b"};
    }
    std::vector<Observation> Of(const std::string& check) {
        std::vector<Observation> seen = qvo::ExamineSystem(surroundings);
        std::erase_if(seen, [&](const Observation& one) { return one.check != check; });
        return seen;
    }
    const TempFolder temporary{"qvcap-doctor"};
    const std::string folder = temporary.Path();
    qvo::Surroundings surroundings;
};

TEST_F(DoctorTest, TheRuleOfUdevMayBeInAnyOfItsFolders) {
    ASSERT_EQ(1u, Of("udev").size());
    EXPECT_EQ(Severity::kWarning, Of("udev")[0].severity);
    EXPECT_NE("", Of("udev")[0].advice);
    fs::create_directory(folder + "/b");
    std::ofstream(folder + "/b/70-qvcapture.rules") << "x";
    EXPECT_EQ(Severity::kOk, Of("udev")[0].severity);
    EXPECT_EQ(folder + "/b/70-qvcapture.rules", Of("udev")[0].subject);
}

TEST_F(DoctorTest, SoundCardsOfTheFamiliesAreNamed) {
    ASSERT_EQ(1u, Of("sound").size());
    EXPECT_EQ(Severity::kNote, Of("sound")[0].severity) << "without any";
    std::ofstream(folder + "/proc/asound/cards")
        << " 0 [PCH            ]: Sim - Some Card\n"
           "                      Some Card at 0xe1438000 irq 145\n"
           "11 [Capture        ]: USB-Audio - Tavo Capture HDMI\n"
           "                      Tavo Capture HDMI at usb\n"
           "no bracket Pelix Capture\n"
           " 2 [Pelix          ]: qv - Pelix Capture HDMI\n";
    const std::vector<Observation> cards = Of("sound");
    ASSERT_EQ(2u, cards.size());
    EXPECT_EQ("hw:11", cards[0].subject);
    EXPECT_EQ("USB-Audio - Tavo Capture HDMI", cards[0].message);
    EXPECT_EQ("hw:2", cards[1].subject);
}

TEST_F(DoctorTest, AFolderWithoutPackagesIsNoError) {
    const std::vector<Observation> seen = qvo::ExaminePackages(folder);
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ(Severity::kNote, seen[0].severity);
    EXPECT_EQ(Severity::kError, qvo::ExaminePackages(folder + "/none").at(0).severity);
}

}  // namespace
}  // namespace qvtest
