// Emulated devices, asked byte by byte as a kernel does; descriptors typed a second time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "EmulatedDevice.h"
#include "sim/UsbKernel.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using usbtest::Answer;
using usbtest::ControlSetup;
using usbtest::Transfer;

namespace qvsim::usb {
namespace {

class UsbDeviceTest : public testing::Test {
  protected:
    void Make(std::vector<StreamSpec> streams, std::vector<SizeSpec> sizes) {
        device = std::make_unique<EmulatedDevice>(
            DeviceSpec{"Card", "S1", std::move(streams), std::move(sizes)},
            [this](const std::string& stream, const uint8_t* data, size_t size) {
                heard.emplace_back(stream, Bytes(data, data + size));
            });
    }
    bool Send(const Bytes& bytes) { return device->Receive(bytes.data(), bytes.size(), now, out); }

    Answer Read(int type, int request, int value, int index, int length) {
        EXPECT_TRUE(
            Send(usbtest::Submit({.length = static_cast<uint32_t>(length),
                                  .setup = ControlSetup(type, request, value, index, length)})));
        return usbtest::Take(out);
    }
    int Write(int type, int request, int value, int index, const Bytes& data = {}) {
        const auto length = static_cast<int>(data.size());
        EXPECT_TRUE(
            Send(usbtest::Submit({.in = 0,
                                  .length = static_cast<uint32_t>(length),
                                  .setup = ControlSetup(type, request, value, index, length),
                                  .data = data})));
        return usbtest::Take(out, false).status;
    }
    // Lets the time go by until something is due, and does it.
    void Wait() {
        ASSERT_NE(kNever, device->NextDue());
        now = std::max(now, device->NextDue());
        device->Advance(now, out);
    }

    // A device that is controlled.
    ControlModel& MakeControlled() {
        UsbPlan plan;
        plan.control.emplace();
        plan.serial = "S1";
        std::unique_ptr<ControlModel> made;
        EXPECT_EQ("", ControlModel::Make(plan, 0, "", made));
        control = std::move(made);
        device =
            std::make_unique<EmulatedDevice>(DeviceSpec{"Card", "S1", {}, {}, control},
                                             [](const std::string&, const uint8_t*, size_t) {});
        return *control;
    }

    std::shared_ptr<ControlModel> control;
    std::unique_ptr<EmulatedDevice> device;
    Micros now = 1000000;
    Bytes out;
    std::vector<std::pair<std::string, Bytes>> heard;
};

// ---- what it says it is

TEST_F(UsbDeviceTest, TheDeviceDescriptorIsThatOfADeviceOfSeveralFunctions) {
    Make({{"Mic", true}}, {});
    EXPECT_THAT(Read(0x80, 6, 0x0100, 0, 64).data,
                ElementsAre(18, 1, 0x00, 0x02, 0xEF, 2, 1, 64, 0x09, 0x12, 0x01, 0x00, 0x00, 0x01,
                            1, 2, 3, 1));
    EXPECT_THAT(Read(0x80, 6, 0x0100, 0, 8).data, ElementsAre(18, 1, 0x00, 0x02, 0xEF, 2, 1, 64));
}

TEST_F(UsbDeviceTest, TextsAreProductSerialAndNamesOfStreams) {
    Make({{"Mic", true}}, {});
    EXPECT_THAT(Read(0x80, 6, 0x0300, 0, 255).data, ElementsAre(4, 3, 0x09, 0x04));
    EXPECT_THAT(Read(0x80, 6, 0x0302, 0x0409, 255).data,
                ElementsAre(10, 3, 'C', 0, 'a', 0, 'r', 0, 'd', 0));
    EXPECT_THAT(Read(0x80, 6, 0x0303, 0x0409, 255).data, ElementsAre(6, 3, 'S', 0, '1', 0));
    EXPECT_THAT(Read(0x80, 6, 0x0304, 0x0409, 255).data, ElementsAre(8, 3, 'M', 0, 'i', 0, 'c', 0));
    EXPECT_EQ(-32, Read(0x80, 6, 0x0305, 0x0409, 255).status) << "no such text";
    EXPECT_EQ(-32, Read(0x80, 6, 0x0600, 0, 10).status) << "no such descriptor";
}

TEST_F(UsbDeviceTest, ACaptureStreamIsDescribedFromItsTerminalToItsEndpoint) {
    Make({{"Mic", true}}, {});
    const Bytes expected{
        9,    2,    164,  0,    2,    1,    0,    0x80, 50,                // configuration
        8,    11,   0,    2,    1,    1,    0,    0,                       // association
        9,    4,    0,    0,    0,    1,    1,    0,    0,                 // audio control
        9,    0x24, 1,    0x00, 0x01, 40,   0,    1,    1,                 // header
        12,   0x24, 2,    1,    0x01, 0x02, 0,    2,    3,    0,    0, 0,  // microphone
        10,   0x24, 6,    2,    1,    1,    0x01, 0x02, 0x02, 4,           // mute and volumes
        9,    0x24, 3,    3,    0x01, 0x01, 0,    2,    0,                 // to USB
        9,    4,    1,    0,    0,    1,    2,    0,    0,                 // silent
        9,    4,    1,    1,    1,    1,    2,    0,    0,                 // 16 bits
        7,    0x24, 1,    3,    1,    1,    0,                             //
        14,   0x24, 2,    1,    2,    2,    16,   2,    0x44, 0xAC, 0, 0x80,
        0xBB, 0,    9,    5,    0x81, 0x05, 200,  0,    4,    0,    0,  //
        7,    0x25, 1,    1,    0,    0,    0,                          //
        9,    4,    1,    2,    1,    1,    2,    0,    0,              // 32 bits
        7,    0x24, 1,    3,    1,    1,    0,                          //
        11,   0x24, 2,    1,    2,    4,    32,   1,    0x80, 0xBB, 0,  //
        9,    5,    0x81, 0x05, 0x90, 0x01, 4,    0,    0,              //
        7,    0x25, 1,    1,    0,    0,    0,                          //
    };
    EXPECT_THAT(Read(0x80, 6, 0x0200, 0, 4096).data, ElementsAreArray(expected));
}

TEST_F(UsbDeviceTest, APlaybackStreamComesFromUsb) {
    Make({{"Headphone", false}}, {});
    const Bytes described = device->ConfigurationDescriptor();
    const Bytes terminal{12, 0x24, 2, 1, 0x01, 0x01, 0, 2, 3, 0, 0, 0};
    const Bytes speaker{9, 0x24, 3, 3, 0x01, 0x03, 0, 2, 0};
    const Bytes endpoint{9, 5, 0x01, 0x09, 200, 0, 4, 0, 0};
    for (const Bytes& part : {terminal, speaker, endpoint})
        EXPECT_NE(described.end(),
                  std::search(described.begin(), described.end(), part.begin(), part.end()))
            << testing::PrintToString(part);
}

TEST_F(UsbDeviceTest, ACameraIsDescribedWithItsSizesAndRates) {
    Make({}, {{640, 360, {30, 60}}, {64, 32, {15}}});
    const Bytes expected{
        9,    2,    204,  0,    2,    1,    0,    0x80, 50,                         // configuration
        8,    11,   0,    2,    0x0E, 3,    0,    4,                                // association
        9,    4,    0,    0,    0,    0x0E, 1,    0,    4,                          // video control
        13,   0x24, 1,    0x00, 0x01, 51,   0,    0x00, 0x6C, 0xDC, 0x02, 1,    1,  // header
        18,   0x24, 2,    1,    0x01, 0x02, 0,    0,    0,    0,    0,    0,    0,    0,
        3,    0,    0,    0,                                            // camera
        11,   0x24, 5,    2,    1,    0,    0,    2,    0x0F, 0x00, 0,  // four controls
        9,    0x24, 3,    3,    0x01, 0x01, 0,    2,    0,              // to USB
        9,    4,    1,    0,    1,    0x0E, 2,    0,    0,              // stream
        14,   0x24, 1,    1,    111,  0,    0x81, 0,    3,    0,    0,    0,    1,    0,  // header
        27,   0x24, 4,    1,    2,    'Y',  'U',  'Y',  '2',  0,    0,    0x10, 0,    0x80,
        0,    0,    0xAA, 0,    0x38, 0x9B, 0x71, 16,   1,    0,    0,    0,    0,  // format
        34,   0x24, 5,    1,    0,    0x80, 0x02, 0x68, 0x01,                       // 640x360
        0x00, 0x80, 0x97, 0x06, 0x00, 0x00, 0x2F, 0x0D, 0x00, 0x08, 0x07, 0x00, 0x15, 0x16,
        0x05, 0x00, 2,    0x0A, 0x8B, 0x02, 0x00, 0x15, 0x16, 0x05, 0x00, 30,   0x24, 5,
        2,    0,    64,   0,    32,   0,  // 64x32
        0x00, 0x80, 0x07, 0x00, 0x00, 0x80, 0x07, 0x00, 0x00, 0x10, 0x00, 0x00, 0x2A, 0x2C,
        0x0A, 0x00, 1,    0x2A, 0x2C, 0x0A, 0x00, 6,    0x24, 0x0D, 1,    1,    4,  // colours
        7,    5,    0x81, 0x02, 0x00, 0x02, 0,                                      // bulk
    };
    EXPECT_THAT(device->ConfigurationDescriptor(), ElementsAreArray(expected));
}

// ---- standard requests

TEST_F(UsbDeviceTest, ConfigurationAndSettingsAreKept) {
    Make({{"Mic", true}}, {});
    EXPECT_FALSE(device->Configured());
    EXPECT_EQ(0, Write(0x00, 9, 1, 0));
    EXPECT_TRUE(device->Configured());
    EXPECT_THAT(Read(0x80, 8, 0, 0, 1).data, ElementsAre(1));
    EXPECT_EQ(-32, Write(0x00, 9, 2, 0)) << "one configuration";
    EXPECT_EQ(0, Write(0x01, 11, 2, 1));
    EXPECT_THAT(Read(0x81, 10, 0, 1, 1).data, ElementsAre(2));
    EXPECT_EQ(-32, Write(0x01, 11, 3, 1)) << "no such setting";
    EXPECT_EQ(-32, Write(0x01, 11, 0, 2)) << "no such interface";
    EXPECT_EQ(-32, Write(0x01, 11, 1, 0)) << "the control interface has one";
    EXPECT_THAT(Read(0x80, 0, 0, 0, 2).data, ElementsAre(0, 0));
    EXPECT_EQ(-32, Read(0x80, 99, 0, 0, 2).status) << "no such request";
    EXPECT_EQ(-32, Read(0xC0, 1, 0, 0, 2).status) << "a maker's request";
}

TEST_F(UsbDeviceTest, DataThatIsShorterThanItsRequestSaysIsRefused) {
    Make({{"Mic", true}}, {});
    ASSERT_TRUE(Send(usbtest::Submit(
        {.in = 0, .length = 1, .setup = ControlSetup(0x21, 1, 0x0201, 0x0200, 2), .data = {7}})));
    EXPECT_EQ(-32, usbtest::Take(out, false).status);
    EXPECT_THAT(Read(0xA1, 0x81, 0x0201, 0x0200, 2).data, ElementsAre(0x00, 0xEC)) << "as before";
}

TEST_F(UsbDeviceTest, BytesThatMakeNoSenseEndTheConversation) {
    Make({{"Mic", true}}, {});
    EXPECT_FALSE(Send(Bytes(48, 0xFF)));
    EXPECT_TRUE(out.empty());
}

TEST_F(UsbDeviceTest, MessagesMayComeInAnyPieces) {
    Make({{"Mic", true}}, {});
    Bytes bytes = usbtest::Submit({.length = 1, .setup = ControlSetup(0x80, 8, 0, 0, 1)});
    const Bytes again =
        usbtest::Submit({.sequence = 2, .length = 2, .setup = ControlSetup(0x80, 0, 0, 0, 2)});
    bytes.insert(bytes.end(), again.begin(), again.end());
    for (const uint8_t byte : bytes) ASSERT_TRUE(Send({byte}));
    EXPECT_EQ(1u, usbtest::Take(out).sequence);
    EXPECT_EQ(2u, usbtest::Take(out).sequence);
    EXPECT_TRUE(out.empty());
}

// ---- sound

TEST_F(UsbDeviceTest, VolumesGoFromMinusFiftyToNoDecibelsInSteps) {
    Make({{"Mic", true}}, {});
    EXPECT_THAT(Read(0xA1, 0x82, 0x0201, 0x0200, 2).data, ElementsAre(0x00, 0xCE));  // -50 dB
    EXPECT_THAT(Read(0xA1, 0x83, 0x0201, 0x0200, 2).data, ElementsAre(0x00, 0x00));
    EXPECT_THAT(Read(0xA1, 0x84, 0x0201, 0x0200, 2).data, ElementsAre(0x00, 0x01));  // 1 dB
    EXPECT_EQ(0, Write(0x21, 1, 0x0202, 0x0200, {0x00, 0xF6}));  // right: -10 dB
    EXPECT_THAT(Read(0xA1, 0x81, 0x0202, 0x0200, 2).data, ElementsAre(0x00, 0xF6));
    EXPECT_THAT(Read(0xA1, 0x81, 0x0201, 0x0200, 2).data, ElementsAre(0x00, 0xEC)) << "left stays";
    EXPECT_EQ(0, Write(0x21, 1, 0x0201, 0x0200, {0x00, 0x80})) << "-128 dB";
    EXPECT_THAT(Read(0xA1, 0x81, 0x0201, 0x0200, 2).data, ElementsAre(0x00, 0xCE)) << "the least";
    EXPECT_EQ(-32, Write(0x21, 4, 0x0201, 0x0200, {0, 1})) << "steps cannot be set";
    EXPECT_EQ(-32, Read(0xA1, 0x81, 0x0203, 0x0200, 2).status) << "no third channel";
    EXPECT_EQ(-32, Read(0xA1, 0x81, 0x0200, 0x0200, 2).status) << "no common volume";
    EXPECT_EQ(-32, Read(0xA1, 0x81, 0x0201, 0x0500, 2).status) << "no such unit";
}

TEST_F(UsbDeviceTest, MuteIsOneSwitchForAllChannels) {
    Make({{"Mic", true}, {"HDMI", true}}, {});
    EXPECT_THAT(Read(0xA1, 0x81, 0x0100, 0x0500, 1).data, ElementsAre(0));
    EXPECT_EQ(0, Write(0x21, 1, 0x0100, 0x0500, {1}));
    EXPECT_THAT(Read(0xA1, 0x81, 0x0100, 0x0500, 1).data, ElementsAre(1));
    EXPECT_THAT(Read(0xA1, 0x81, 0x0100, 0x0200, 1).data, ElementsAre(0)) << "the other stream's";
    EXPECT_EQ(-32, Read(0xA1, 0x81, 0x0101, 0x0500, 1).status) << "none for a channel";
}

TEST_F(UsbDeviceTest, RatesAreThoseOfTheSetting) {
    Make({{"Mic", true}}, {});
    EXPECT_EQ(-32, Write(0x22, 1, 0x0100, 0x81, {0x44, 0xAC, 0})) << "silent";
    EXPECT_EQ(0, Write(0x01, 11, 1, 1));
    EXPECT_EQ(0, Write(0x22, 1, 0x0100, 0x81, {0x44, 0xAC, 0}));
    EXPECT_THAT(Read(0xA2, 0x81, 0x0100, 0x81, 3).data, ElementsAre(0x44, 0xAC, 0));
    EXPECT_EQ(-32, Write(0x22, 1, 0x0100, 0x81, {0x00, 0x77, 1})) << "96 kHz";
    EXPECT_EQ(0, Write(0x01, 11, 2, 1));
    EXPECT_THAT(Read(0xA2, 0x81, 0x0100, 0x81, 3).data, ElementsAre(0x80, 0xBB, 0)) << "only 48";
}

std::vector<int16_t> Samples(const Bytes& bytes) {
    std::vector<int16_t> samples(bytes.size() / 2);
    std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
    return samples;
}

TEST_F(UsbDeviceTest, ACaptureIsASineAndTheNumberOfTheSampleInRealTime) {
    Make({{"Mic", true}}, {});
    EXPECT_EQ(0, Write(0x01, 11, 1, 1));
    ASSERT_TRUE(Send(usbtest::Submit(
        {.sequence = 5, .endpoint = 1, .length = 400, .packets = {{0, 200}, {200, 200}}})));
    EXPECT_TRUE(out.empty()) << "two milliseconds of sound take two milliseconds";
    const Micros asked = now;
    Wait();
    EXPECT_EQ(asked + 2000, now);
    const Answer answer = usbtest::Take(out);
    EXPECT_THAT(answer.lengths, ElementsAre(192, 192));
    const std::vector<int16_t> samples = Samples(answer.data);
    ASSERT_EQ(192u, samples.size());
    const int16_t kilohertz[13] = {0,    1566,  3106,  4592,  6000,  7305, 8485,
                                   9520, 10392, 11087, 11591, 11897, 12000};
    for (size_t i = 0; i < 13; ++i) {
        EXPECT_EQ(kilohertz[i], samples[2 * i]) << i;
        EXPECT_EQ(-kilohertz[i], samples[2 * (i + 24)]) << i;
    }
    for (int i = 0; i < 96; ++i) EXPECT_EQ(i, samples[static_cast<size_t>(2 * i + 1)]);
}

TEST_F(UsbDeviceTest, EachCaptureStreamHasASineOfItsOwn) {
    for (uint32_t i = 0; i < 200; ++i) {
        const auto [first, marker] = CapturedFrame(0, i);
        EXPECT_EQ(CapturedFrame(1, i)[0], CapturedFrame(0, 2 * i)[0]);
        EXPECT_EQ(CapturedFrame(2, i)[0], CapturedFrame(0, 3 * i)[0]);
        EXPECT_EQ(static_cast<int32_t>(i << 16), marker);
        EXPECT_EQ(first, CapturedFrame(0, i + 48000)[0]) << "numbers begin anew";
    }
}

TEST_F(UsbDeviceTest, PacketsOfARateThatIsNoMultipleOfAThousandDiffer) {
    Make({{"Mic", true}}, {});
    EXPECT_EQ(0, Write(0x01, 11, 1, 1));
    EXPECT_EQ(0, Write(0x22, 1, 0x0100, 0x81, {0x44, 0xAC, 0}));
    Transfer transfer{.endpoint = 1, .length = 2000};
    for (uint32_t i = 0; i < 10; ++i) transfer.packets.emplace_back(200 * i, 200);
    ASSERT_TRUE(Send(usbtest::Submit(transfer)));
    Wait();
    const Answer answer = usbtest::Take(out);
    EXPECT_EQ(441u * 4, answer.actual);
    EXPECT_THAT(answer.lengths, ElementsAre(176, 176, 176, 176, 176, 176, 176, 176, 176, 180));
    for (int i = 0; i < 441; ++i)
        EXPECT_EQ(i, Samples(answer.data)[static_cast<size_t>(2 * i + 1)]);
}

TEST_F(UsbDeviceTest, ThirtyTwoBitSamplesHaveTheSameInTheirUpperHalf) {
    Make({{"Mic", true}}, {});
    EXPECT_EQ(0, Write(0x01, 11, 2, 1));
    ASSERT_TRUE(Send(usbtest::Submit({.endpoint = 1, .length = 400, .packets = {{0, 400}}})));
    Wait();
    const std::vector<int16_t> halves = Samples(usbtest::Take(out).data);
    ASSERT_EQ(48u * 4, halves.size());
    for (size_t i = 0; i < 48; ++i) {
        EXPECT_EQ(0, halves[4 * i]);
        EXPECT_EQ(CapturedFrame(0, i)[0] >> 16, halves[4 * i + 1]);
        EXPECT_EQ(static_cast<int>(i), halves[4 * i + 3]);
    }
}

TEST_F(UsbDeviceTest, APacketNeverHoldsMoreThanTheControllerHasRoomFor) {
    Make({{"Mic", true}}, {});
    EXPECT_EQ(0, Write(0x01, 11, 1, 1));
    ASSERT_TRUE(Send(usbtest::Submit({.endpoint = 1, .length = 100, .packets = {{0, 100}}})));
    Wait();
    const Answer answer = usbtest::Take(out);
    EXPECT_THAT(answer.lengths, ElementsAre(100));
    EXPECT_EQ(100u, answer.data.size());
}

TEST_F(UsbDeviceTest, ASilentStreamStalls) {
    Make({{"Mic", true}}, {});
    ASSERT_TRUE(Send(usbtest::Submit({.endpoint = 1, .length = 200, .packets = {{0, 200}}})));
    Wait();
    EXPECT_EQ(-32, usbtest::Take(out).status);
}

TEST_F(UsbDeviceTest, WhatIsPlayedIsHeardInOrder) {
    Make({{"Headphone", false}}, {});
    EXPECT_EQ(0, Write(0x01, 11, 1, 1));
    ASSERT_TRUE(Send(usbtest::Submit({.in = 0,
                                      .endpoint = 1,
                                      .length = 6,
                                      .data = {1, 2, 3, 4, 5, 6},
                                      .packets = {{0, 2}, {4, 2}}})));
    Wait();
    const Answer answer = usbtest::Take(out, false);
    EXPECT_EQ(4u, answer.actual);
    EXPECT_THAT(answer.lengths, ElementsAre(2, 2));
    ASSERT_EQ(1u, heard.size());
    EXPECT_EQ("Headphone", heard[0].first);
    EXPECT_THAT(heard[0].second, ElementsAre(1, 2, 5, 6));
}

TEST_F(UsbDeviceTest, AStreamThatFellFarBehindGoesOnFromNow) {
    Make({{"Mic", true}}, {});
    EXPECT_EQ(0, Write(0x01, 11, 1, 1));
    const Transfer transfer{.endpoint = 1, .length = 200, .packets = {{0, 200}}};
    ASSERT_TRUE(Send(usbtest::Submit(transfer)));
    Wait();
    out.clear();
    now += 1000000;
    ASSERT_TRUE(Send(usbtest::Submit(transfer)));
    EXPECT_EQ(192u, usbtest::Take(out).actual) << "late, but answered";
    ASSERT_TRUE(Send(usbtest::Submit(transfer)));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(now + 1000, device->NextDue());
}

TEST_F(UsbDeviceTest, ATransferThatIsGivenUpIsNotAnswered) {
    Make({{"Mic", true}}, {});
    EXPECT_EQ(0, Write(0x01, 11, 1, 1));
    ASSERT_TRUE(Send(
        usbtest::Submit({.sequence = 5, .endpoint = 1, .length = 200, .packets = {{0, 200}}})));
    ASSERT_TRUE(Send(usbtest::Unlink(6, 5)));
    const Answer answer = usbtest::Take(out);
    EXPECT_EQ(4u, answer.command);
    EXPECT_EQ(6u, answer.sequence);
    EXPECT_EQ(-104, answer.status);
    EXPECT_EQ(kNever, device->NextDue());
    ASSERT_TRUE(Send(usbtest::Unlink(7, 5)));
    EXPECT_EQ(0, usbtest::Take(out).status) << "there is nothing any more";
}

TEST_F(UsbDeviceTest, TransfersBeyondAllBoundsAreRefused) {
    Make({{"Mic", true}}, {});
    EXPECT_EQ(0, Write(0x01, 11, 1, 1));
    for (int i = 0; i < 256; ++i)
        ASSERT_TRUE(Send(usbtest::Submit({.endpoint = 1, .length = 200, .packets = {{0, 200}}})));
    EXPECT_TRUE(out.empty());
    ASSERT_TRUE(Send(
        usbtest::Submit({.sequence = 9, .endpoint = 1, .length = 200, .packets = {{0, 200}}})));
    const Answer answer = usbtest::Take(out);
    EXPECT_EQ(9u, answer.sequence);
    EXPECT_EQ(-12, answer.status);
}

TEST_F(UsbDeviceTest, AnEndpointThatIsNotThereStalls) {
    Make({{"Mic", true}}, {});
    ASSERT_TRUE(Send(usbtest::Submit({.endpoint = 2, .length = 10})));
    EXPECT_EQ(-32, usbtest::Take(out).status);
}

// ---- camera

class UsbCameraTest : public UsbDeviceTest {
  protected:
    UsbCameraTest() { Make({}, {{64, 32, {30, 15}}, {640, 360, {30, 60}}}); }

    // Commits to a size and rate; what the camera made of it.
    Bytes Commit(uint8_t frame, uint32_t interval) {
        Bytes record(26, 0);
        record[2] = 1;
        record[3] = frame;
        for (int i = 0; i < 4; ++i)
            record[4 + static_cast<size_t>(i)] = static_cast<uint8_t>(interval >> 8 * i);
        EXPECT_EQ(0, Write(0x21, 1, 0x0100, 1, record));
        const Bytes probed = Read(0xA1, 0x81, 0x0100, 1, 26).data;
        EXPECT_EQ(0, Write(0x21, 1, 0x0200, 1, probed));
        return probed;
    }
    Answer Payload(uint32_t length = 16384) {
        EXPECT_TRUE(Send(usbtest::Submit({.endpoint = 1, .length = length})));
        if (out.empty()) Wait();
        return usbtest::Take(out);
    }
    static uint32_t Number(const Bytes& bytes, size_t at) {
        return bytes.at(at) | uint32_t{bytes.at(at + 1)} << 8 | uint32_t{bytes.at(at + 2)} << 16 |
               uint32_t{bytes.at(at + 3)} << 24;
    }
};

TEST_F(UsbCameraTest, TheNearestRateOfASizeIsChosen) {
    const Bytes record = Commit(2, 170000);  // near 60 a second
    EXPECT_EQ(2, record[3]);
    EXPECT_EQ(166666u, Number(record, 4));
    EXPECT_EQ(640u * 360 * 2, Number(record, 18));
    EXPECT_EQ(16384u, Number(record, 22));
    EXPECT_EQ(1, Commit(9, 0)[3]) << "no such size: the first";
    EXPECT_EQ(333333u, Number(Commit(1, 0), 4)) << "no rate: the first";
    EXPECT_EQ(-32, Write(0x21, 1, 0x0100, 1, Bytes(25, 0))) << "too short";
    EXPECT_EQ(-32, Read(0xA1, 0x81, 0x0300, 1, 26).status) << "no such control";
}

TEST_F(UsbCameraTest, AFrameIsWholeAndCarriesItsNumberInEveryLine) {
    Commit(1, 333333);
    const Answer answer = Payload();
    ASSERT_EQ(2u + 64 * 32 * 2, answer.data.size());
    EXPECT_EQ(2, answer.data[0]);
    EXPECT_EQ(0x80 | 0x02 | 0x01, answer.data[1]) << "the end of a frame";
    for (size_t line = 0; line < 32; ++line) {
        EXPECT_EQ(1u, Number(answer.data, 2 + 128 * line)) << line;
        EXPECT_EQ(1u, Number(answer.data, 2 + 128 * line + 124)) << line;
    }
    EXPECT_EQ(0x82, Payload().data[1]) << "the mark changes with every frame";
}

TEST_F(UsbCameraTest, FramesComeAtTheirRate) {
    Commit(1, 666666);
    Payload();
    const Micros first = now;
    const Answer second = Payload();
    EXPECT_EQ(first + 66666, now);
    EXPECT_EQ(2u, Number(second.data, 2));
}

TEST_F(UsbCameraTest, ALargeFrameComesInSeveralPayloads) {
    Commit(2, 333333);
    Bytes frame;
    int payloads = 0;
    for (bool last = false; !last; ++payloads) {
        const Answer answer = Payload();
        last = (answer.data.at(1) & 0x02) != 0;
        EXPECT_EQ(0x81, answer.data[1] & ~0x02);
        EXPECT_TRUE(last || answer.data.size() == 16384);
        frame.insert(frame.end(), answer.data.begin() + 2, answer.data.end());
    }
    EXPECT_EQ(29, payloads);
    ASSERT_EQ(640u * 360 * 2, frame.size());
    for (size_t line = 0; line < 360; ++line) ASSERT_EQ(1u, Number(frame, 1280 * line));
}

TEST_F(UsbCameraTest, AStreamThatWasEndedBeginsWithANewFrame) {
    Commit(2, 333333);
    Payload();
    EXPECT_EQ(0, Write(0x02, 1, 0, 0x81)) << "clear halt";
    const Answer answer = Payload();
    EXPECT_EQ(2u, Number(answer.data, 2)) << "from its first line";
}

TEST_F(UsbCameraTest, ATransferWithoutRoomForAPictureStalls) {
    Commit(1, 333333);
    EXPECT_EQ(-32, Payload(2).status);
    EXPECT_EQ(3u, Payload(3).data.size());
}

TEST_F(UsbCameraTest, PictureControlsAreKeptWithinTheirRanges) {
    const auto value = [this](int request, int selector) {
        const Answer answer = Read(0xA1, request, selector << 8, 0x0200, 2);
        return answer.status ? answer.status * 1000
                             : static_cast<int16_t>(answer.data.at(0) | answer.data.at(1) << 8);
    };
    const int rows[][4] = {{2, -64, 64, 0}, {3, 0, 95, 32}, {6, -180, 180, 0}, {7, 0, 128, 64}};
    for (const auto& [selector, low, high, first] : rows) {
        EXPECT_EQ(low, value(0x82, selector));
        EXPECT_EQ(high, value(0x83, selector));
        EXPECT_EQ(1, value(0x84, selector));
        EXPECT_EQ(first, value(0x87, selector));
        EXPECT_EQ(first, value(0x81, selector));
        EXPECT_EQ(0, Write(0x21, 1, selector << 8, 0x0200, {static_cast<uint8_t>(high), 0}));
        EXPECT_EQ(high, value(0x81, selector));
        EXPECT_EQ(-32, Write(0x21, 1, selector << 8, 0x0200, {static_cast<uint8_t>(high + 1), 0}));
        EXPECT_EQ(high, value(0x81, selector)) << "as before";
    }
    EXPECT_EQ(-32000, value(0x81, 4)) << "no such control";
}

// ---- commands on endpoint 0

TEST_F(UsbDeviceTest, AControlledDeviceHasAnInterfaceOfItsOwnWithoutEndpoints) {
    MakeControlled();
    EXPECT_THAT(Read(0x80, 6, 0x0200, 0, 4096).data,
                ElementsAre(9, 2, 18, 0, 1, 1, 0, 0x80, 50, 9, 4, 0, 0, 0, 0xFF, 0, 0, 0));
}

TEST_F(UsbDeviceTest, CommandsAreGotSetAndAnsweredByRequests) {
    MakeControlled();
    EXPECT_EQ(224u, Read(0xC0, 1, 0x01, 0, 224).data.size());
    EXPECT_EQ(0, Write(0x40, 2, 0x0E, 0, {1, 2, 3, 4}));
    EXPECT_THAT(Read(0xC0, 1, 0x0E, 0, 4).data, ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(0, Write(0x40, 2, 0xF1, 0, {0, 0x40, 0, 0, 0, 0x10, 0, 0}));
    for (const int busy : {1, 0}) {
        EXPECT_EQ(0, Write(0x40, 2, 0xF4, 0, {0}));
        EXPECT_THAT(Read(0xC0, 3, 0xF4, 0, 1).data, ElementsAre(busy));
    }
    EXPECT_EQ(-32, Read(0xC0, 3, 0xF4, 0, 1).status) << "fetched already";
}

TEST_F(UsbDeviceTest, FirmwareIsWrittenAndReadByRequests) {
    ControlModel& model = MakeControlled();
    Bytes packet(2056);
    packet[1] = 0x40;  // address 0x4000
    packet[4] = 3;     // bytes
    packet[8] = 0x11, packet[9] = 0x22, packet[10] = 0x33;
    EXPECT_EQ(0, Write(0x40, 2, 0xF3, 0, packet));
    EXPECT_EQ(-32, Write(0x40, 2, 0xF3, 0, packet)) << "busy";
    Write(0x40, 2, 0xF4, 0, {0});
    EXPECT_EQ(0, Write(0x40, 2, 0xF2, 0, {0, 0x40, 0, 0}));
    const Bytes wanted = packet;
    packet[8] = packet[9] = packet[10] = 0;
    EXPECT_EQ(0, Write(0x40, 2, 0xF3, 0, packet));
    EXPECT_THAT(Read(0xC0, 3, 0xF3, 0, 2056).data, ElementsAreArray(wanted));
    EXPECT_THAT(model.Transfers(), ElementsAre("write 0x4000+3", "write 0x4000+3", "poll",
                                               "address 0x4000", "read 0x4000+3"));
}

TEST_F(UsbDeviceTest, WhatIsNoCommandStalls) {
    MakeControlled();
    EXPECT_EQ(-32, Read(0xC0, 1, 0x01, 0, 223).status) << "another size";
    EXPECT_EQ(-32, Read(0xC0, 1, 0x06, 0, 1).status) << "no such command";
    EXPECT_EQ(-32, Read(0xC0, 1, 0x101, 0, 224).status);
    EXPECT_EQ(-32, Read(0xC0, 2, 0x0E, 0, 4).status) << "a set that reads";
    EXPECT_EQ(-32, Read(0xC1, 1, 0x01, 0, 224).status) << "to an interface";
    EXPECT_EQ(-32, Write(0x40, 1, 0x0E, 0, {1, 2, 3, 4})) << "a get that writes";
    EXPECT_EQ(-32, Write(0x40, 2, 0x0E, 0, {1, 2, 3}));
    EXPECT_EQ(-32, Write(0x40, 2, 0x01, 0, Bytes(224))) << "cannot be set";
    Make({{"Mic", true}}, {});
    EXPECT_EQ(-32, Read(0xC0, 1, 0x01, 0, 224).status) << "not controlled";
}

}  // namespace
}  // namespace qvsim::usb
