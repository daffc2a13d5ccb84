// The parts of a scenario file, one function each; Scenario.cpp puts them together.
//
// Each function reads one table of the file and throws TomlMistake for what is wrong in it. Whether
// the parts fit each other, such as two boards with one number, is checked by CompletePlan().
#pragma once

#include "CardsPlan.h"
#include "Toml.h"

namespace qvsim {

BoardPlan ReadBoard(const toml::node& node);    // [[board]]
Fault ReadFault(const toml::node& node);        // [[fault]]
Fault ReadUsbFault(const toml::node& node);     // [[usb.control.fault]]
UsbPlan ReadUsbDevice(const toml::node& node);  // [[usb]]

}  // namespace qvsim
