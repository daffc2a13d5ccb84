// The cards that a command applies to: all of them, those of one board, or the one of a device
// path. One thread.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "Cards.h"

namespace qvo {

struct Selection {
    bool all = false;
    int board = -1;      // -1: any
    std::string device;  // empty: any

    bool IsGiven() const { return all || board >= 0 || !device.empty(); }
    bool Takes(const Card& card) const;
    // "of board 3", "at /dev/video7", "": for the message that there is no such card.
    std::string Text() const;
};

// Refuses an empty value: a variable of a script that is empty means no cards, not all of them, and
// no folder is not the current one.
CLI::Validator NotEmpty();

// --all, --board and --device; at most one may be given.
void AddSelection(CLI::App& command, Selection& selection);

std::vector<Card> Selected(std::vector<Card> cards, const Selection& selection);

}  // namespace qvo
