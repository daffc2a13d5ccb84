// Judges the cards in the order of their packages. What each holds is decided in Judge.cpp.
#include "Look.h"

#include <algorithm>
#include <functional>
#include <numeric>

#include "ReadingBar.h"
#include "StallWatch.h"

namespace qvo {

std::vector<StatusRow> LookAt(std::vector<Card> cards, const PackageSet& packages, Depth depth) {
    std::vector<StatusRow> rows;
    rows.reserve(cards.size());
    std::vector<const FirmwarePackage*> fits;
    for (Card& card : cards) {
        fits.push_back(packages.For(card).Only());
        rows.push_back({std::move(card), {}});
    }
    std::vector<size_t> order(rows.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
        return std::less<const FirmwarePackage*>()(fits[a], fits[b]);
    });
    ReadingBar bar(rows.size());
    for (const size_t i : order) {
        bar.Begin(rows[i].card.Name() + " " + rows[i].card.product);
        StallWatch watch(kPatience, TellOnErrors("reading " + rows[i].card.Name()));
        rows[i].verdict =
            JudgeCard(rows[i].card, packages, depth, [&bar, &watch](uint64_t done, uint64_t total) {
                watch.Progress();
                bar.Show(done, total);
            });
    }
    return rows;
}

}  // namespace qvo
