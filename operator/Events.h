// The events of an upgrade, for display, log and report: JSON objects whose key `event` names the
// kind (docs/formats/upgrade.schema.json). A sink may be called from any thread.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

namespace qvo {

using Event = nlohmann::ordered_json;
using EventSink = std::function<void(const Event&)>;

}  // namespace qvo
