#pragma once

#include <cstdint>
#include <string_view>
#include <variant>
#include <vector>

#include "velmmonitord/XpcProtocols.h"

namespace sim {

/// An argument of a call, or an answer. Text and data refer to memory of whoever tells of them and are valid
/// only while they are told.
using Value = std::variant<bool, std::int64_t, std::uint64_t, double, std::string_view, XpcData>;
using Values = std::vector<Value>;

}  // namespace sim
