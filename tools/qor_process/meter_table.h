// The chain's 31 metering points as a table a person can read.
#pragma once

#include <string>
#include <vector>

#include "qor_process/chain_runner.h"

namespace qor::tools {

std::string formatMeterTable(const std::vector<MeterSnapshot>& meters);

}  // namespace qor::tools
