// The options that choose cards, and the choice. Cards are found elsewhere.
#include "Selection.h"

#include <algorithm>

namespace qvo {
namespace {

constexpr int kHighestBoard = 255;

}  // namespace

bool Selection::Takes(const Card& card) const {
    if (board >= 0 && (!card.identified || card.board != board)) return false;
    return device.empty() ||
           std::find(card.paths.begin(), card.paths.end(), device) != card.paths.end();
}

std::string Selection::Text() const {
    if (board >= 0) return " of board " + std::to_string(board);
    return device.empty() ? "" : " at " + device;
}

CLI::Validator NotEmpty() {
    return CLI::Validator(
        [](const std::string& value) { return value.empty() ? std::string("is empty") : ""; }, "");
}

void AddSelection(CLI::App& command, Selection& selection) {
    CLI::Option* all = command.add_flag("--all", selection.all, "all cards");
    CLI::Option* board = command.add_option("--board", selection.board, "the cards of one board")
                             ->check(CLI::Range(0, kHighestBoard));
    CLI::Option* device =
        command.add_option("--device", selection.device, "the card of a device path")
            ->check(NotEmpty())
            ->excludes(board);
    all->excludes(board)->excludes(device);
}

std::vector<Card> Selected(std::vector<Card> cards, const Selection& selection) {
    std::erase_if(cards, [&](const Card& card) { return !selection.Takes(card); });
    return cards;
}

}  // namespace qvo
