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
    if (m.count > 2) {
      // Per-band readings (the noise reduction's 32 bands): their spread.
      float lo[2] = {1e30f, 1e30f}, hi[2] = {-1e30f, -1e30f};
      for (uint32_t e = 0; e < m.count; ++e) {
        for (int k = 0; k < 2; ++k) {
          lo[k] = std::min(lo[k], m.values[3 * e + k]);
          hi[k] = std::max(hi[k], m.values[3 * e + k]);
        }
      }
      std::snprintf(line, sizeof line, "%-50s %-7s %u bands: %s .. %s / %s .. %s dB\n", m.name, "-", m.count,
                    db(lo[0]).c_str(), db(hi[0]).c_str(), db(lo[1]).c_str(), db(hi[1]).c_str());
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
