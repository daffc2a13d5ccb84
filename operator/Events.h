// What happens in an upgrade, as it is shown, logged and reported: JSON objects whose key `event`
// says which one it is (docs/formats/upgrade.schema.json). A sink may be called from any thread.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

namespace qvo {

using Event = nlohmann::ordered_json;
using EventSink = std::function<void(const Event&)>;

}  // namespace qvo
