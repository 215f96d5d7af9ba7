#include "dsp/core/levels.h"

#include <algorithm>
#include <cmath>

namespace qor {

float dbToLinear(float db) { return std::pow(10.0f, 0.05f * db); }

float linearToDb(float x) { return 20.0f * std::log10(std::max(x, kLevelFloor)); }

float powerToDb(float x) {
  return static_cast<float>(10.0 * std::log10(static_cast<double>(std::max(x, kLevelFloor))));
}

void dbToLinearArray(const float* db, float* out, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) out[i] = dbToLinear(db[i]);
}

float centsToRatio(float cents) { return std::exp2(cents / 1200.0f); }

float settleCoefficient(float rate, float ms, float targetDb) {
  if (ms == 0.0f || rate == 0.0f) return 1.0f;
  const double r = std::pow(10.0, static_cast<double>(targetDb) / 20.0);
  const double samples = static_cast<double>(ms) / 1000.0 * static_cast<double>(rate);
  return static_cast<float>(1.0 - std::pow(r, 1.0 / samples));
}

float timeConstantCoefficient(float rate, float ms) {
  if (!(ms > 0.0f)) return 1.0f;
  const double steps = static_cast<double>(rate) * static_cast<double>(ms) / 1000.0;
  return static_cast<float>(1.0 - std::exp(-1.0 / steps));
}

uint32_t scaleForRate(uint32_t length, uint32_t rate) {
  if (rate == 88200 || rate == 96000) return length * 2;
  if (rate == 176400 || rate == 192000) return length * 4;
  return length;
}

}  // namespace qor
