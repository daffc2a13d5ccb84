// Judges several cards one after another, with a progress bar on a terminal. One thread; a Library
// must exist.
#pragma once

#include <vector>

#include "Cards.h"
#include "Judge.h"
#include "Packages.h"
#include "StatusReport.h"

namespace qvo {

// In the order of the cards. Each package is read once: cards that it fits are judged one after
// another.
std::vector<StatusRow> LookAt(std::vector<Card> cards, const PackageSet& packages, Depth depth);

}  // namespace qvo
