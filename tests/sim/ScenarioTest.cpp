// Scenario files: what they can say, and what is said about a wrong one.
#include "Scenario.h"

#include "gmock/gmock.h"

namespace qvsim {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

TEST(ScenarioTest, TheDefaultOneHasACardOfEverySort) {
    CardsPlan plan;
    ASSERT_EQ("", ParseScenario(kDefaultScenario, "default", plan));
    ASSERT_EQ(3u, plan.boards.size());
    EXPECT_EQ("Pelix Capture", plan.boards[0].family);
    EXPECT_EQ(2, plan.boards[0].channels);
    EXPECT_EQ("Lumo Capture", plan.boards[1].family);
    EXPECT_EQ(4, plan.boards[1].channels);
    ASSERT_TRUE(plan.boards[2].stored.has_value());
    EXPECT_EQ(plan.boards[2].firmware, plan.boards[2].stored->version);
    EXPECT_NE(1, plan.boards[2].stored->compatibilityCode);
    EXPECT_GT(plan.latencies.erasePerSector, 0u);
}

TEST(ScenarioTest, EverythingThatABoardCanSayArrives) {
    CardsPlan plan;
    ASSERT_EQ("", ParseScenario(R"(
event_node = false
foreign_nodes = [4, 9]
driver = { reuse_handles = true, frames_after_stop = "at_start" }
[[board]]
family = "Pelix Capture"
product = "P"
product_code = 0x1234
hardware = "C"
serial = "S"
index = 3
channels = 2
firmware = "2.10"
golden = "1.9"
stored = "none"
storage = [1, 2, 3, 0x200000]
flash_size = 0x400000
first_node = 20
video = { width = 640, height = 480, fps = "max" }
audio = { fps = 12.5 }
signal = [{ at_ms = 100, present = false }, { at_ms = 200 }]
[[fault]]
request = "EraseFirmwareData"
nth = 2
count = -1
one_in = 4
seed = 5
board = 3
channel = 1
kind = "refuse"
value = "ENODEV"
[[usb]]
product = "T"
[[usb]]
product = "Tavo Capture SDI 4K"
serial = "S"
controller = 2
camera = [{ width = 64, height = 32, fps = [30, 15] }]
[[usb]]
product = "Lumo Capture SDI"
playbacks = ["Out"]
)",
                                "x", plan));
    EXPECT_FALSE(plan.eventNode);
    EXPECT_THAT(plan.foreignNodes, ElementsAre(4, 9));
    EXPECT_TRUE(plan.driver.reuseHandles);
    EXPECT_EQ(AfterStop::kWriteAtStart, plan.driver.afterStop);
    const BoardPlan& board = plan.boards.at(0);
    EXPECT_EQ(0x1234, board.productCode);
    EXPECT_EQ('C', board.hardware);
    EXPECT_EQ(3, board.index);
    EXPECT_EQ(Version(2, 10), board.firmware);
    EXPECT_EQ(Version(1, 9), board.golden);
    EXPECT_TRUE(board.noStoredHeader);
    EXPECT_THAT(board.storageWords, ElementsAre(1, 2, 3));
    EXPECT_EQ(0x200000u, board.firmwareOffset);
    EXPECT_EQ(20, board.firstNode);
    EXPECT_EQ(640u, board.video.width);
    EXPECT_EQ(0, board.video.framesPerSecond);
    EXPECT_EQ(12.5, board.audio.framesPerSecond);
    ASSERT_EQ(2u, board.signal.size());
    EXPECT_FALSE(board.signal[0].present);
    const Fault& fault = plan.faults.at(0);
    EXPECT_EQ(-1, fault.count);
    EXPECT_EQ(4u, fault.oneIn);
    EXPECT_EQ(5u, fault.seed);
    EXPECT_EQ(FaultKind::kRefuse, fault.effect.kind);
    EXPECT_EQ(static_cast<uint32_t>(ENODEV), fault.effect.value);
    EXPECT_EQ("T", plan.usbDevices.at(0).product);
    EXPECT_EQ("USB0", plan.usbDevices[0].serial);
    EXPECT_THAT(*plan.usbDevices[0].captures, IsEmpty()) << "no model known";
    const UsbPlan& model = plan.usbDevices.at(1);
    EXPECT_EQ("S", model.serial);
    EXPECT_EQ(2, model.controller);
    EXPECT_THAT(*model.captures, ElementsAre("SDI", "Line In"));
    EXPECT_EQ(64, model.camera->at(0).width);
    EXPECT_THAT(model.camera->at(0).fps, ElementsAre(30, 15));
    const UsbPlan& card = plan.usbDevices.at(2);
    EXPECT_THAT(*card.captures, ElementsAre("SDI"));
    EXPECT_THAT(*card.playbacks, ElementsAre("Out"));
    EXPECT_THAT(*card.camera, IsEmpty());
}

struct Wrong {
    const char* text;
    const char* message;
};

class WrongScenarioTest : public testing::TestWithParam<Wrong> {};

TEST_P(WrongScenarioTest, IsRefusedWithItsLine) {
    CardsPlan plan;
    EXPECT_THAT(ParseScenario(GetParam().text, "f.toml", plan), StartsWith(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, WrongScenarioTest,
    testing::Values(
        Wrong{"\n[[board", "f.toml:2: "},
        Wrong{"[[board]]\n\ncolour = 1",
              "f.toml:3: unknown key 'colour'; known are: family, product"},
        Wrong{"[[board]]\nprodct = \"P\"",
              "f.toml:2: unknown key 'prodct'; misspelt for 'product'?"},
        Wrong{"[latency]\nerase_sectors = 1",
              "f.toml:2: unknown key 'erase_sectors'; misspelt for 'erase_sector'?"},
        // Not that the fault lacks what the misspelt key was to say.
        Wrong{"[[fault]]\nreqest = \"open\"\nkind = \"refuse\"",
              "f.toml:2: unknown key 'reqest'; misspelt for 'request'?"},
        Wrong{"[[board]]\nchannels = 17", "f.toml:2: channels is a whole number from 1 to 16"},
        Wrong{"[[board]]\nchannels = \"2\"", "f.toml:2: channels is a whole number"},
        Wrong{"[[board]]\nfirmware = \"1\"", "f.toml:2: firmware is \"major.minor\""},
        Wrong{"[[board]]\nfirmware = \"1.65536\"", "f.toml:2: firmware is \"major.minor\""},
        Wrong{"[[board]]\nhardware = \"AB\"", "f.toml:1: hardware is one character"},
        Wrong{"[[board]]\nserial = \"1234567890123456\"", "f.toml:1: board 1: serial is longer"},
        Wrong{"[[board]]\nindex = 1\n[[board]]\nindex = 1",
              "f.toml:3: board index 1 is given twice"},
        Wrong{"[[board]]\nflash_size = 5000", "f.toml:1: board 1: flash size is not a multiple"},
        Wrong{"[[board]]\nstorage = [0, 0, 0, 0xFFF000]",
              "f.toml:1: board 1: the firmware area lies outside the flash"},
        Wrong{"[[board]]\nfirst_node = 3\n[[board]]\nfirst_node = 3",
              "f.toml:3: board 2: /dev/video3 is given twice"},
        Wrong{"foreign_nodes = [1, 1]", "f.toml:1: a foreign node is given twice"},
        Wrong{"[[fault]]\nrequest = \"Erase\"\nkind = \"refuse\"",
              "f.toml:1: fault names no request: 'Erase'; known are: open, any, GetStreamCount, "},
        Wrong{
            "[[fault]]\nrequest = \"EraseFirmware\"\nkind = \"refuse\"",
            "f.toml:1: fault names no request: 'EraseFirmware'; misspelt for 'EraseFirmwareData'?"},
        Wrong{"[[fault]]\nrequest = \"open\"\nkind = \"melt\"",
              "f.toml:1: fault has no kind, or one that is unknown: 'melt'; known are: refuse, "
              "short_read, flip_bit, "},
        Wrong{"[[fault]]\nrequest = \"open\"\nkind = \"refuse\"\nvalue = \"EFOO\"",
              "f.toml:4: value 'EFOO' is no errno known here"},
        Wrong{"[[fault]]\nrequest = \"open\"\nkind = \"refuse\"\nvalue = 512",
              "f.toml:4: value is a whole number from 1 to 511"},
        Wrong{"[[fault]]\nrequest = \"FrameSignal\"\nkind = \"refuse\"",
              "f.toml:1: FrameSignal is a signal: the only kind for it is \"pretend\""},
        Wrong{"[[fault]]\nrequest = \"any\"\nkind = \"pretend\"\none_in = 0",
              "f.toml:4: one_in is a whole number from 1"},
        Wrong{"driver = { frames_after_stop = \"drop\" }", "f.toml:1: frames_after_stop is"},
        Wrong{"[driver]\nmood = 1", "f.toml:2: unknown key 'mood'"},
        Wrong{"[[board]]\nvideo = { fps = 0 }", "f.toml:2: fps is a number of 0 to 10000"},
        Wrong{"[[board]]\nvideo = 5", "f.toml:2: video is a table"},
        Wrong{"[[board]]\nstored = \"some\"", "f.toml:2: stored is \"none\" or a table"},
        Wrong{"event_node = 1", "f.toml:1: event_node is true or false"},
        Wrong{"board = 5", "f.toml:1: board is a list"},
        Wrong{"[[usb]]\nserial = \"A\"\n[[usb]]\nserial = \"A\"",
              "f.toml:3: serial 'A' is another USB device's"},
        Wrong{"[[usb]]\nserial = \"../x\"", "f.toml:1: serial is 1 to 31 characters"},
        Wrong{"[[usb]]\nproduct = \"a\\nb\"", "f.toml:1: product is 1 to 63 characters"},
        Wrong{"[[usb]]\ncontroller = 16", "f.toml:2: controller is a whole number from 0 to 15"},
        Wrong{"[[usb]]\ncaptures = \"Mic\"", "f.toml:2: captures is a list of texts"},
        Wrong{"[[usb]]\ncaptures = [\"\"]", "f.toml:1: captures and playbacks are up to 7 names"},
        Wrong{"[[usb]]\ncamera = [{ width = 63 }]", "f.toml:1: the width of a camera's picture"},
        Wrong{"[[usb]]\ncamera = [{ fps = [] }]", "f.toml:1: fps is a list of 1 to 16 numbers"},
        Wrong{"[[usb]]\ncamera = [{ fps = [0] }]", "f.toml:2: fps is a whole number from 1 to 240"},
        // What the parser takes for granted, and what it takes for impossible.
        Wrong{"[[[", "f.toml: this is not TOML"},
        Wrong{"# a\n\xE2\x80\xB0", "f.toml:2: only ASCII characters are allowed"}));

}  // namespace
}  // namespace qvsim
