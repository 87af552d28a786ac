// check.h - what the library is required to show, as ratios of figures of the same run.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string_view>

namespace bench {

/// Whether a figure was asked for: by work, system and place.
using Chosen = std::function<bool(std::string_view, std::string_view, std::string_view)>;

/// Prints a line for each requirement between figures that were asked for. False when one of them
/// fails or has no figure, or when nothing could be compared.
bool MeetsRequirements(const nlohmann::json& results, const Chosen& chosen);

}  // namespace bench
