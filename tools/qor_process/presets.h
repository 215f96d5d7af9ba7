// Named starting points for qor-process: lists of settings applied over the
// chain's defaults, through the same path as --set.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "dsp/chain/calvera2.h"

namespace qor::tools {

struct Preset {
  const char* name;
  const char* description;
  std::vector<const char*> settings;  // "field=value"
};

std::span<const Preset> presets();
const Preset* findPreset(std::string_view name);

// Chain defaults, then the preset's settings. False with a reason on failure.
bool presetParameters(const Preset& preset, QorCalvera2_API_V1::QorCalvera2Parameters& p, std::string& error);

}  // namespace qor::tools
