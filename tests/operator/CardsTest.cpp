// The cards as qvcap finds them: one entry for each flash, each with a reason of its own.
#include "Cards.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "Library.h"
#include "Nodes.h"
#include "support/SimRig.h"

namespace qvtest {
namespace {

using qvo::Card;
using qvo::FindCards;
using qvsim::Fault;
using qvsim::Lumo;
using qvsim::NodeGone;
using qvsim::Pelix;
using qvsim::Refuse;
using qvsim::ShortRead;
using testing::ElementsAre;
using testing::HasSubstr;

class OperatorCardsTest : public testing::Test {
  protected:
    std::vector<Card> Find() {
        rig.Attach();
        const qvo::Library library;
        return FindCards();
    }
    qvsim::SimRig rig;
};

TEST_F(OperatorCardsTest, AFlashIsOneEntry) {
    rig.Add(Pelix().Channels(2)).Add(Lumo().Channels(3)).Add(Lumo().Channels(2));
    const std::vector<Card> cards = Find();
    ASSERT_EQ(4u, cards.size());
    EXPECT_EQ("00:00", cards[0].Name());
    EXPECT_EQ("00:01", cards[1].Name());
    EXPECT_EQ("01:00", cards[2].Name());
    EXPECT_THAT(cards[2].paths, ElementsAre("/dev/video2", "/dev/video3", "/dev/video4"));
    EXPECT_THAT(cards[3].paths, ElementsAre("/dev/video5", "/dev/video6"));
    for (const Card& card : cards) EXPECT_EQ("", card.problem) << card.Name();
}

TEST_F(OperatorCardsTest, TwoLumoBoardsOfOneSerialAreTwoFlashes) {
    rig.Add(Lumo().Channels(2).Serial("SAME")).Add(Lumo().Channels(2).Serial("SAME"));
    EXPECT_EQ(2u, Find().size());
}

TEST_F(OperatorCardsTest, AnEntryHoldsWhatTheCardSays) {
    rig.Add(Pelix().Board(3).Product("A B").ProductCode(0x1234).Hardware('C').Serial("S1").Firmware(
        2, 7));
    const std::vector<Card> cards = Find();
    ASSERT_EQ(1u, cards.size());
    const Card& card = cards[0];
    EXPECT_TRUE(card.identified);
    EXPECT_EQ("03:00", card.Name());
    EXPECT_EQ("Pelix Capture", card.family);
    EXPECT_EQ("A B", card.product);
    EXPECT_EQ("S1", card.serial);
    EXPECT_EQ(0x1234, card.productCode);
    EXPECT_EQ('C', card.hardwareVersion);
    EXPECT_EQ(0x00020007u, card.runningVersion);
    EXPECT_EQ(0x100000u, card.firmwareOffset);
}

TEST_F(OperatorCardsTest, TextsWithoutAnEndAreCutAtTheirField) {
    rig.Add(Pelix().RawInfo([](_QVCAP_CHANNEL_INFO& info) {
        std::fill_n(info.productName, sizeof info.productName, 'p');
        std::fill_n(info.boardSerialNumber, sizeof info.boardSerialNumber, 's');
    }));
    const std::vector<Card> cards = Find();
    ASSERT_EQ(1u, cards.size());
    EXPECT_EQ(std::string(64, 'p'), cards[0].product);
    EXPECT_EQ(std::string(16, 's'), cards[0].serial);
}

TEST_F(OperatorCardsTest, ACardThatCannotBeAskedHidesNoOther) {
    rig.Add(Pelix()).Add(Pelix()).Add(Pelix());
    // The first question is the listing's.
    rig.AddFault({.request = "GetChannelInfo", .nth = 2, .board = 1, .effect = Refuse(EIO)});
    rig.AddFault({.request = "GetFirmwareStorageInfo", .board = 2, .effect = Refuse(EBUSY)});
    const std::vector<Card> cards = Find();
    ASSERT_EQ(3u, cards.size());
    EXPECT_EQ("", cards[0].problem);
    EXPECT_EQ("the identity cannot be asked: Input/output error", cards[1].problem);
    EXPECT_EQ("the flash layout cannot be asked: Device or resource busy", cards[2].problem);
}

TEST_F(OperatorCardsTest, ACardThatVanishedIsAnEntry) {
    rig.Add(Pelix()).Add(Pelix());
    rig.AddFault({.request = "open", .nth = 2, .board = 0, .effect = NodeGone()});
    const std::vector<Card> cards = Find();
    ASSERT_EQ(2u, cards.size());
    EXPECT_EQ("cannot be opened: No such device", cards[0].problem);
    EXPECT_EQ("", cards[1].problem);
}

TEST_F(OperatorCardsTest, ANodeThatTheLibraryCouldNotAskIsAnEntry) {
    rig.Add(Pelix()).Add(Pelix()).Add(Pelix());
    rig.AddFault({.request = "GetChannelInfo", .count = -1, .board = 0, .effect = Refuse(EIO)});
    rig.AddFault({.request = "GetFamilyInfo", .count = -1, .board = 1, .effect = Refuse(EINVAL)});
    rig.AddFault({.request = "open", .count = -1, .board = 2, .effect = Refuse(EACCES)});
    const std::vector<Card> cards = Find();
    ASSERT_EQ(3u, cards.size());
    EXPECT_FALSE(cards[0].identified);
    EXPECT_EQ("/dev/video0", cards[0].Name());
    EXPECT_EQ("the identity cannot be asked: Input/output error", cards[0].problem);
    EXPECT_TRUE(cards[1].identified) << "it said what it is";
    EXPECT_EQ("the family cannot be asked: Invalid argument", cards[1].problem);
    EXPECT_EQ("cannot be opened: Permission denied", cards[2].problem);
}

TEST_F(OperatorCardsTest, ANodeOfAnotherDriverIsNone) {
    rig.Add(Pelix()).ForeignNode(7);
    EXPECT_EQ(1u, Find().size());
}

TEST_F(OperatorCardsTest, ChannelsBeyondTheLibrarysListAreEntriesWithTheReason) {
    for (int board = 0; board < 4; ++board) rig.Add(Pelix().Channels(16));
    rig.Add(Pelix().Channels(2));
    const std::vector<Card> cards = Find();
    ASSERT_EQ(66u, cards.size());
    EXPECT_EQ("", cards[63].problem);
    EXPECT_EQ("is beyond the 64 channels that the library lists", cards[64].problem);
    EXPECT_EQ("04:01", cards[65].Name());
}

TEST_F(OperatorCardsTest, ANodeThatAnswersLateIsNamed) {
    rig.Add(Pelix());
    rig.AddFault({.request = "GetChannelInfo", .effect = Refuse(EIO)});
    const std::vector<Card> cards = Find();
    ASSERT_EQ(1u, cards.size());
    EXPECT_EQ("did not answer when the channels were listed; run it again", cards[0].problem);
}

TEST_F(OperatorCardsTest, NothingIsErasedOrWrittenOrSet) {
    rig.Add(Pelix().Channels(2)).Add(Lumo().Channels(4)).ForeignNode(9);
    Find();
    for (const std::string& line : rig.Journal()) {
        EXPECT_THAT(line, testing::Not(HasSubstr("Erase")));
        EXPECT_THAT(line, testing::Not(HasSubstr("Write")));
        EXPECT_THAT(line, testing::Not(HasSubstr("Set")));
    }
}

TEST_F(OperatorCardsTest, ARefusedAndAShortReadAreNamedByTheirPlace) {
    rig.Add(Pelix());
    rig.AddFault({.request = "ReadFirmwareData", .nth = 1, .effect = Refuse(EIO)});
    rig.AddFault({.request = "ReadFirmwareData", .nth = 2, .effect = ShortRead(10)});
    rig.Attach();
    const qvo::Library library;
    const std::vector<Card> cards = FindCards();
    qvo::CardReader reader(cards.at(0));
    uint8_t bytes[100];
    EXPECT_FALSE(reader.Read(0x100000, bytes, sizeof bytes));
    EXPECT_EQ("reading 100 bytes at 0x00100000: Input/output error", reader.Problem());
    EXPECT_FALSE(reader.Read(0x100000, bytes, sizeof bytes));
    EXPECT_EQ("reading 100 bytes at 0x00100000: only 10 came", reader.Problem());
    EXPECT_TRUE(reader.Read(0x100000, bytes, sizeof bytes));
}

}  // namespace
}  // namespace qvtest
