// Upgrades the listed channels one after another: result lines, summary, and the offer to power the
// computer off. FlashEngine does each upgrade. Single-threaded.
#pragma once

struct UpgradeCounters {
    int success = 0;
    int fail = 0;
    int skip = 0;
    int cancel = 0;
};

void PrintWarning();

// Upgrades every record of the upgrade list and prints one result line each.
UpgradeCounters UpgradeListedChannels();

void PrintSummary(const UpgradeCounters& counters);

// Offers to power the computer off when something was upgraded and nothing failed.
void OfferPowerOff(const UpgradeCounters& counters);
