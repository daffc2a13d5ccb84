// qvcap backup: what it saves brings a card back, byte for byte.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "Digest.h"
#include "QvcapProcess.h"
#include "support/PackageBuilder.h"

namespace qvtest {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using qvsim::Pelix;
using testing::AllOf;
using testing::HasSubstr;

constexpr uint32_t kFirmware = 0x10000;
constexpr uint32_t kFlashSize = 0x100000;

PackageBuilder Old() {
    return Package()
        .Firmware(1, 0)
        .Compatibility(5)
        .Section("Factory.Main", 0x20000, Payload(70001, 50))
        .Section("Upgrade.Main", 0x60000, Payload(5000, 51));
}
PackageBuilder New() {
    return Package()
        .Firmware(1, 1)
        .Compatibility(7)
        .Section("Factory.Main", 0x20000, Payload(80000, 60))
        .Section("Upgrade.Main", 0x60000, Payload(6000, 61));
}

class BackupE2eTest : public testing::Test {
  protected:
    // A card that runs what the package Old() brings.
    void AddCard() {
        rig.Add(Pelix()
                    .Product("Pelix HDMI")
                    .Serial("P1")
                    .Firmware(0, 5)
                    .Golden(0, 5)
                    .FirmwareOffset(kFirmware)
                    .FlashSize(kFlashSize));
        Old().Write(folder / "old.qvf");
        folder.Tool(rig, {"-a", "-y", "-f"});
        fs::remove(folder / "old.qvf");
        rig.PowerCycle();
        ASSERT_EQ(0x00010000u, rig.RunningVersion(0, 0));
    }
    QvcapRun Backup(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments = {"backup", "saved"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return folder.Run(rig, arguments);
    }
    Bytes Flash(uint32_t address, uint32_t size) { return rig.Flash(0, 0, address, size); }
    static Bytes FileBytes(const std::string& path) {
        const std::string text = ReadWholeFile(path);
        return Bytes(text.begin(), text.end());
    }
    // What a saved package ends with.
    static Bytes Mark(const std::string& image) {
        const std::string text = "saved from a " + image + " image\n";
        return Bytes(text.begin(), text.end());
    }
    // All that is in the folder of backups.
    std::vector<std::string> Files() {
        std::vector<std::string> files;
        if (!fs::exists(folder / "saved")) return files;
        for (const auto& entry : fs::recursive_directory_iterator(folder / "saved"))
            files.push_back(fs::relative(entry.path(), folder / "saved"));
        std::sort(files.begin(), files.end());
        return files;
    }

    const std::string kName = "P1-0-Pelix_HDMI-1.0-main";
    qvsim::SimRig rig;
    QvcapFolder folder;
};

TEST_F(BackupE2eTest, ThePackageIsWhatTheFlashHolds) {
    AddCard();
    const QvcapRun run = Backup();
    EXPECT_EQ(0, run.status) << run.errors;
    EXPECT_EQ("00:00: main image 1.0 saved: saved/" + kName + "/" + kName +
                  ".qvf\n00:00: the safe image has no valid header and is not saved\n",
              run.output);
    Bytes expected = Old().Header();
    const Bytes main = Old().Data(0);
    expected.insert(expected.end(), main.begin(), main.end());
    expected.resize(expected.size() + 5000, 0xFF);  // nothing is there of the other image
    const Bytes mark = Mark("main");
    expected.insert(expected.end(), mark.begin(), mark.end());
    const std::string file = folder / ("saved/" + kName + "/" + kName);
    EXPECT_EQ(expected, FileBytes(file + ".qvf"));
    EXPECT_EQ(qvf::Sha256(expected) + "  " + kName + ".qvf\n", ReadWholeFile(file + ".sha256"));
    EXPECT_EQ(0, std::system(("cd '" + folder.Dir() + "/saved/" + kName +
                              "' && sha256sum -c --quiet " + kName + ".sha256")
                                 .c_str()));
}

TEST_F(BackupE2eTest, TheToolBringsTheCardBackByteForByte) {
    AddCard();
    const uint32_t length = Old().Length();
    const Bytes header = Flash(kFirmware, length);
    const Bytes main = Flash(0x20000, 70001);
    ASSERT_EQ(Old().Data(0), main);
    ASSERT_EQ(0, Backup().status);
    for (const bool powerCycled : {false, true}) {
        New().Write(folder / "new.qvf");
        folder.Tool(rig, {"-a", "-y"});
        fs::remove(folder / "new.qvf");
        EXPECT_EQ(New().Data(0), Flash(0x20000, 80000)) << "the card is another one now";
        if (powerCycled) {
            rig.PowerCycle();
            EXPECT_EQ(0x00010001u, rig.RunningVersion(0, 0));
        }
        fs::copy(folder / ("saved/" + kName + "/" + kName + ".qvf"), folder / "back.qvf");
        const QvcapRun back = folder.Tool(rig, {"-d", "/dev/video0", "-f", "-y"});
        EXPECT_THAT(back.output, HasSubstr("successfully."));
        fs::remove(folder / "back.qvf");
        EXPECT_EQ(header, Flash(kFirmware, length));
        EXPECT_EQ(main, Flash(0x20000, 70001));
        rig.PowerCycle();
        EXPECT_EQ(0x00010000u, rig.RunningVersion(0, 0));
    }
}

TEST_F(BackupE2eTest, TheSafeImageIsSavedToo) {
    AddCard();
    New().Compatibility(5).Write(folder / "new.qvf");
    folder.Tool(rig, {"-a", "-y"});
    const QvcapRun run = Backup({"--json"});
    EXPECT_EQ("", SchemaErrors("backup.schema.json", run.output)) << run.output;
    const json images = json::parse(run.output)["cards"][0]["images"];
    ASSERT_EQ(2u, images.size());
    EXPECT_EQ("safe", images[1]["image"]);
    EXPECT_EQ("1.1", images[1]["version"]);
    const Bytes saved = FileBytes(folder / std::string(images[1]["file"]));
    const uint32_t length = New().Length();
    const Bytes mark = Mark("safe");
    ASSERT_EQ(length + 80000 + 6000 + mark.size(), saved.size());
    EXPECT_EQ(mark, Bytes(saved.begin() + length + 86000, saved.end()));
    EXPECT_EQ(New().Data(1), Bytes(saved.begin() + length + 80000, saved.begin() + length + 86000));
    EXPECT_EQ(images[1]["sha256"], qvf::Sha256(saved));
}

TEST_F(BackupE2eTest, TheSameIsNotWrittenTwiceAndAnotherStandsBeside) {
    AddCard();
    ASSERT_EQ(0, Backup().status);
    const std::vector<std::string> once = Files();
    EXPECT_EQ(3u, once.size());
    EXPECT_THAT(Backup().output, HasSubstr("main image 1.0 was saved before: "));
    EXPECT_EQ(once, Files());
    // Another firmware of the same version.
    Old().Section("Factory.More", 0x80000, 100).Compatibility(1).Write(folder / "x.qvf");
    folder.Tool(rig, {"-a", "-y", "-f"});
    ASSERT_EQ(0, Backup().status);
    EXPECT_THAT(Files(), testing::Contains(kName + "-2/" + kName + ".qvf"));
}

TEST_F(BackupE2eTest, ACardThatCannotBeReadLeavesNothingBehindAndHidesNoOther) {
    rig.Add(Pelix().Serial("A")).Add(Pelix().Serial("B"));
    rig.AddFault(
        {.request = "ReadFirmwareData", .count = -1, .board = 0, .effect = qvsim::Refuse(EIO)});
    const QvcapRun run = Backup();
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("qvcap: 00:00: no backup: reading 157 bytes at 0x00100000: Input/output error\n",
              run.errors);
    EXPECT_THAT(Files(),
                testing::ElementsAre("B-0-Pelix_SIM-1.0-main",
                                     "B-0-Pelix_SIM-1.0-main/B-0-Pelix_SIM-1.0-main.qvf",
                                     "B-0-Pelix_SIM-1.0-main/B-0-Pelix_SIM-1.0-main.sha256"));
}

TEST_F(BackupE2eTest, ABitThatIsWrongOnTheWayIsNotSaved) {
    AddCard();
    ASSERT_EQ(0, Backup().status);
    const Bytes good = FileBytes(folder / ("saved/" + kName + "/" + kName + ".qvf"));
    fs::remove_all(folder / "saved");
    AddFaultNow(rig, {.request = "ReadFirmwareData", .nth = 5, .effect = qvsim::FlipBit(77)});
    ASSERT_EQ(0, Backup().status);
    EXPECT_EQ(good, FileBytes(folder / ("saved/" + kName + "/" + kName + ".qvf")));
    fs::remove_all(folder / "saved");
    AddFaultNow(rig, {.request = "ReadFirmwareData",
                      .nth = 9,
                      .count = -1,
                      .oneIn = 2,
                      .seed = 3,
                      .effect = qvsim::FlipBit(77)});
    const QvcapRun run = Backup();
    if (run.status == 0)
        EXPECT_EQ(good, FileBytes(folder / ("saved/" + kName + "/" + kName + ".qvf")));
    else
        EXPECT_THAT(run.errors, HasSubstr("the flash reads differently each time"));
}

TEST_F(BackupE2eTest, AHeaderThatAsksForTooMuchIsRefused) {
    rig.Add(Pelix().FirmwareOffset(kFirmware).FlashSize(kFlashSize));
    std::shared_ptr<qvsim::Model> model;
    ASSERT_EQ("", qvsim::Model::Load(rig.Dir(), model));
    const Bytes header = Package().Section("A", 0x20000, 10).ClaimSize(0xFFFFFFFF).Header();
    ASSERT_TRUE(model->Flash(0, 0)->Erase(kFirmware, 4096));
    ASSERT_TRUE(model->Flash(0, 0)->Program(kFirmware, header.data(),
                                            static_cast<uint32_t>(header.size())));
    const QvcapRun run = Backup();
    EXPECT_EQ(1, run.status);
    EXPECT_THAT(run.errors, HasSubstr("a header in the flash tells of 4294967295 bytes"));
    EXPECT_TRUE(Files().empty());
}

TEST_F(BackupE2eTest, NamesCannotLeaveTheFolder) {
    rig.Add(Pelix().RawInfo([](_QVCAP_CHANNEL_INFO& info) {
        std::strcpy(info.productName, "../../x\x1b y");
        std::strcpy(info.boardSerialNumber, "/etc/z");
    }));
    EXPECT_EQ(0, Backup().status);
    EXPECT_THAT(Files(), testing::Contains("_etc_z-0-.._.._x__y-1.0-main"));
}

TEST_F(BackupE2eTest, WithoutRoomNothingIsLeft) {
    AddCard();
    fs::create_symlink("/proc/self", folder / "saved");  // a folder that takes no file
    const QvcapRun run = Backup();
    EXPECT_EQ(1, run.status);
    EXPECT_THAT(run.errors, AllOf(HasSubstr("qvcap: saved/" + kName), HasSubstr("cannot be made")));
    fs::remove(folder / "saved");
    PackageBuilder::WriteBytes(folder / "saved", {1});
    const QvcapRun file = Backup();
    EXPECT_EQ(1, file.status);
    EXPECT_THAT(file.errors, HasSubstr("qvcap: saved: cannot be made: "));
}

TEST_F(BackupE2eTest, ItOnlyAsksAndReads) {
    AddCard();
    rig.ClearJournal();
    ASSERT_EQ(0, Backup().status);
    for (const qvsim::JournalLine& line : rig.JournalLines())
        EXPECT_THAT(line.request, testing::AnyOf("", "GetChannelInfo", "GetFamilyInfo",
                                                 "GetFirmwareStorageInfo", "ReadFirmwareData"));
}

TEST_F(BackupE2eTest, WithoutACardItSaysSo) {
    EXPECT_EQ(3, Backup().status);
    EXPECT_EQ(64, folder.Run(rig, {"backup"}).status);
}

}  // namespace
}  // namespace qvtest
