#include "qor_process/meter_table.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace qor::tools {

namespace {

std::string db(float v) {
  char buf[32];
  if (v < -200.0f) return "   -inf";
  std::snprintf(buf, sizeof buf, "%7.1f", static_cast<double>(v));
  return buf;
}

}  // namespace

std::string formatMeterTable(const std::vector<MeterSnapshot>& meters) {
  std::string out;
  char line[256];
  std::snprintf(line, sizeof line, "%-50s %-7s %9s %9s\n", "metering point", "channel", "peak dB", "level dB");
  out += line;
  out += std::string(78, '-') + "\n";
  for (const MeterSnapshot& m : meters) {
    if (m.count == 0) {
      std::snprintf(line, sizeof line, "%-50s %s\n", m.name, "(no reading)");
      out += line;
      continue;
    }
    if (m.stride != 3) {
      // Frequency response: 1024 frequencies, then 1024 magnitudes in dB.
      float lo = 1e30f, hi = -1e30f;
      for (size_t i = 1024; i < 2048 && i < m.values.size(); ++i) {
        lo = std::min(lo, m.values[i]);
        hi = std::max(hi, m.values[i]);
      }
      std::snprintf(line, sizeof line, "%-50s %-7s response %s .. %s dB\n", m.name, "-", db(lo).c_str(),
                    db(hi).c_str());
      out += line;
      continue;
    }
    for (uint32_t c = 0; c < m.count; ++c) {
      const std::string channel = m.count == 1 ? "-" : (c == 0 ? "left" : c == 1 ? "right" : std::to_string(c));
      std::snprintf(line, sizeof line, "%-50s %-7s %9s %9s\n", c == 0 ? m.name : "", channel.c_str(),
                    db(m.values[3 * c]).c_str(), db(m.values[3 * c + 1]).c_str());
      out += line;
    }
  }
  return out;
}

}  // namespace qor::tools
