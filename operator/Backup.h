// Saves a card's images from its flash as ordinary packages, each in its own folder together with
// its SHA-256: qvcap-upgrade with -f, run in that folder, restores the image. Reads the card,
// writes below one folder. Failures are Mistakes; files written before a failure stay. One
// thread per card.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Cards.h"
#include "Judge.h"

namespace qvo {

struct SavedImage {
    bool safe = false;  // the safe image; else the main one
    uint32_t version = 0;
    std::string path;  // of the package
    std::string sha256;
    bool wasThere = false;  // the same image was saved before, and nothing was written
};

struct Backup {
    std::vector<SavedImage> images;
    // What was not saved and why, one sentence each: without a valid header there is no image.
    std::vector<std::string> notes;
};

// Makes the folder if it is missing. A package appears there complete, with its digest, or not at
// all.
Backup BackUpCard(const Card& card, const std::string& folder, const Progress& progress = nullptr);

// "PX20110001-0-Pelix_Duo_HDMI-1.0-main": letters, digits, dots, dashes and underscores.
std::string BackupName(const Card& card, uint32_t version, bool safe);

}  // namespace qvo
