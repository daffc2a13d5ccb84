// What a card answers on which neither a request nor the scenario has set a value. Pure functions,
// any thread.
#pragma once

#include <cstdint>
#include <string>

#include "Settings.h"

namespace qvsim {

struct Channel;

// The value that was set, or else the scenario's; null when there is neither.
const Bytes* Known(const Channel& channel, const std::string& key);

// A record of `size` bytes: plausible where its meaning is known, else PatternByte() of the
// request's number.
Bytes DefaultRecord(const Channel& channel, const std::string& key, uint32_t number, size_t size);

// The known elements of an array, or else the default ones; `element` is the size of one in bytes.
Bytes ArrayOf(const Channel& channel, const std::string& key, uint32_t element);

}  // namespace qvsim
