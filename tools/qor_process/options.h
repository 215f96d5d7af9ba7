// Command line of qor-process.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qor::tools {

struct Options {
  std::string input;
  std::string output;
  std::string preset = "defaults";
  std::vector<std::string> settings;  // FIELD=VALUE, applied in order after the preset
  uint32_t blockFrames = 0;           // 0: 10 ms at the input's rate
  bool list = false;
  bool help = false;
  bool meters = false;
  bool keepLatency = false;
  bool quiet = false;
};

// False with a one-line reason for a malformed command line.
bool parseOptions(const std::vector<std::string>& args, Options& options, std::string& error);

std::string usage();

}  // namespace qor::tools
