// A card's images, read out of its flash into ordinary packages, each in a folder of its own
// together with its SHA-256: qvcap-upgrade with -f, run in that folder, brings the image back.
// Reads the card, writes below one folder. Failures are Mistakes; what was written before stays.
// One thread.
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
    bool wasThere = false;  // the very same was saved before, and nothing was written
};

struct Backup {
    std::vector<SavedImage> images;
    // What was not saved and why, a sentence each: an image without a valid header is none.
    std::vector<std::string> notes;
};

// Makes the folder where it is missing. A package appears there complete, with its digest, or not
// at all.
Backup BackUpCard(const Card& card, const std::string& folder, const Progress& progress = nullptr);

// "PX20110001-0-Pelix_Duo_HDMI-1.0-main": letters, digits, dots, dashes and underscores.
std::string BackupName(const Card& card, uint32_t version, bool safe);

}  // namespace qvo
