// Messages of the virtual host controller: what is understood, what is waited for, what is refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "UsbWire.h"
#include "sim/UsbKernel.h"

using testing::ElementsAre;
using usbtest::Transfer;

namespace qvsim::usb {
namespace {

Decoded DecodeAll(const Bytes& bytes, Message& message, size_t& used) {
    return Decode(bytes.data(), bytes.size(), message, used);
}

TEST(UsbWireTest, AControlReadIsTakenApart) {
    const Bytes bytes =
        usbtest::Submit({.sequence = 0x01020304,
                         .length = 18,
                         .setup = usbtest::ControlSetup(0x80, 6, 0x0102, 0x0403, 18)});
    Message message;
    size_t used = 0;
    ASSERT_EQ(Decoded::kMessage, DecodeAll(bytes, message, used));
    EXPECT_EQ(48u, used);
    EXPECT_FALSE(message.unlink);
    EXPECT_EQ(0x01020304u, message.urb.sequence);
    EXPECT_TRUE(message.urb.in);
    EXPECT_EQ(0, message.urb.endpoint);
    EXPECT_EQ(18u, message.urb.length);
    EXPECT_EQ(0x80, message.urb.setup.type);
    EXPECT_EQ(6, message.urb.setup.request);
    EXPECT_EQ(0x0102, message.urb.setup.value);
    EXPECT_EQ(0x0403, message.urb.setup.index);
    EXPECT_EQ(18, message.urb.setup.length);
}

TEST(UsbWireTest, AnOutgoingTransferBringsDataAndPackets) {
    Bytes bytes = usbtest::Submit({.sequence = 7,
                                   .in = 0,
                                   .endpoint = 2,
                                   .length = 5,
                                   .data = {1, 2, 3, 4, 5},
                                   .packets = {{0, 2}, {2, 3}}});
    bytes.push_back(0xEE);  // the next message
    Message message;
    size_t used = 0;
    ASSERT_EQ(Decoded::kMessage, DecodeAll(bytes, message, used));
    EXPECT_EQ(48u + 5 + 32, used);
    EXPECT_FALSE(message.urb.in);
    EXPECT_EQ(2, message.urb.endpoint);
    EXPECT_THAT(message.urb.data, ElementsAre(1, 2, 3, 4, 5));
    ASSERT_EQ(2u, message.urb.packets.size());
    EXPECT_EQ(2u, message.urb.packets[1].offset);
    EXPECT_EQ(3u, message.urb.packets[1].length);
}

TEST(UsbWireTest, AMessageIsWaitedForUntilItsLastByteIsThere) {
    const Bytes bytes = usbtest::Submit(
        {.in = 0, .endpoint = 1, .length = 3, .data = {1, 2, 3}, .packets = {{0, 3}}});
    Message message;
    message.urb.sequence = 99;
    size_t used = 77;
    for (size_t size = 0; size < bytes.size(); ++size)
        ASSERT_EQ(Decoded::kIncomplete, Decode(bytes.data(), size, message, used)) << size;
    EXPECT_EQ(99u, message.urb.sequence) << "untouched";
    EXPECT_EQ(77u, used);
    EXPECT_EQ(Decoded::kMessage, DecodeAll(bytes, message, used));
}

TEST(UsbWireTest, BothWordsForNoPacketsMeanTheSame) {
    for (const uint32_t count : {0u, 0xFFFFFFFEu + 1}) {
        Bytes bytes = usbtest::Submit({.endpoint = 1, .length = 512});
        for (int i = 0; i < 4; ++i)
            bytes[32 + static_cast<size_t>(i)] = static_cast<uint8_t>(count);
        Message message;
        size_t used = 0;
        ASSERT_EQ(Decoded::kMessage, DecodeAll(bytes, message, used)) << count;
        EXPECT_EQ(0u, message.urb.packets.size());
    }
}

TEST(UsbWireTest, AnUnlinkNamesItsVictim) {
    Message message;
    size_t used = 0;
    ASSERT_EQ(Decoded::kMessage, DecodeAll(usbtest::Unlink(12, 5), message, used));
    EXPECT_TRUE(message.unlink);
    EXPECT_EQ(12u, message.urb.sequence);
    EXPECT_EQ(5u, message.victim);
    EXPECT_EQ(48u, used);
}

struct Malformed {
    const char* what;
    Transfer transfer;
};

class UsbMalformedTest : public testing::TestWithParam<Malformed> {};

TEST_P(UsbMalformedTest, IsRefused) {
    Message message;
    size_t used = 0;
    EXPECT_EQ(Decoded::kMalformed, DecodeAll(usbtest::Submit(GetParam().transfer), message, used))
        << GetParam().what;
    EXPECT_EQ(0u, used);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, UsbMalformedTest,
    testing::Values(
        Malformed{"a direction that is none", {.in = 2}},
        Malformed{"an endpoint that no device has", {.endpoint = 16}},
        Malformed{"more data than any transfer has", {.length = (1 << 20) + 1}},
        Malformed{"more data than a process has", {.in = 0, .endpoint = 1, .length = 0xFFFFFFFF}},
        Malformed{"more packets than a transfer has", {.endpoint = 1, .packetCount = 1025}},
        Malformed{"a packet that begins behind its transfer",
                  {.endpoint = 1, .length = 10, .packets = {{11, 0}}}},
        Malformed{"a packet that ends behind its transfer",
                  {.endpoint = 1, .length = 10, .packets = {{5, 6}}}},
        Malformed{"a packet whose end does not fit 32 bits",
                  {.endpoint = 1, .length = 10, .packets = {{8, 0xFFFFFFFF}}}}),
    [](const auto& row) { return "Row" + std::to_string(row.index); });

TEST(UsbWireTest, AnUnknownCommandIsRefused) {
    for (const uint32_t command : {0u, 3u, 4u, 0x00010000u}) {
        Bytes bytes;
        usbtest::Put(bytes, {command, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        Message message;
        size_t used = 0;
        EXPECT_EQ(Decoded::kMalformed, DecodeAll(bytes, message, used)) << command;
    }
}

TEST(UsbWireTest, AnAnswerBringsAtMostWhatWasAskedFor) {
    Urb urb;
    urb.sequence = 9;
    urb.in = true;
    urb.length = 2;
    Bytes out;
    AppendAnswer(urb, 0, {1, 2, 3}, out);
    EXPECT_EQ(50u, out.size());
    const usbtest::Answer answer = usbtest::Take(out);
    EXPECT_EQ(3u, answer.command);
    EXPECT_EQ(9u, answer.sequence);
    EXPECT_EQ(0, answer.status);
    EXPECT_THAT(answer.data, ElementsAre(1, 2));
}

TEST(UsbWireTest, AStallBringsNothing) {
    Urb urb;
    urb.in = true;
    urb.length = 8;
    Bytes out;
    AppendAnswer(urb, kStall, {1, 2}, out);
    EXPECT_EQ(48u, out.size());
    const usbtest::Answer answer = usbtest::Take(out);
    EXPECT_EQ(-32, answer.status);
    EXPECT_EQ(0u, answer.actual);
}

TEST(UsbWireTest, AnOutgoingTransferIsTakenWhole) {
    Urb urb;
    urb.length = 300;
    Bytes out;
    AppendAnswer(urb, 0, {}, out);
    EXPECT_EQ(48u, out.size());
    EXPECT_EQ(300u, usbtest::Take(out, false).actual);
}

TEST(UsbWireTest, AnIsochronousAnswerHasItsDataPackedAndALengthForEachPacket) {
    Urb urb;
    urb.in = true;
    urb.length = 20;
    urb.packets = {{0, 10}, {10, 10}};
    Bytes out;
    AppendIsoAnswer(urb, {2, 1}, {7, 8, 9}, out);
    EXPECT_EQ(48u + 3 + 32, out.size());
    const usbtest::Answer answer = usbtest::Take(out);
    EXPECT_EQ(3u, answer.actual);
    EXPECT_THAT(answer.data, ElementsAre(7, 8, 9));
    EXPECT_THAT(answer.lengths, ElementsAre(2, 1));
}

}  // namespace
}  // namespace qvsim::usb
