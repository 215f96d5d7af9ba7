// Level conversions and the two one-pole coefficient rules.
#pragma once

#include <cstdint>

namespace qor {

// Smallest normal float: silence reads about -758.6 dB, never -infinity.
constexpr float kLevelFloor = 1.1754944e-38f;

float dbToLinear(float db);                 // 10^(0.05 dB)
float linearToDb(float x);                  // 20 log10(max(x, floor))
float powerToDb(float x);                   // 10 log10(max(x, floor)), in double
void dbToLinearArray(const float* db, float* out, uint32_t n);
float centsToRatio(float cents);            // 2^(cents / 1200)

// One-pole coefficient that closes all but 10^(targetDb/20) of a step after
// `ms` milliseconds at `rate` (samples or blocks per second). 1.0 when ms or
// rate is 0.
float settleCoefficient(float rate, float ms, float targetDb);

// 1 - exp(-1 / (rate * ms / 1000)); 1.0 unless ms > 0.
float timeConstantCoefficient(float rate, float ms);

// Sub-block lengths given for 44.1/48 kHz: doubled at 88.2/96 kHz,
// quadrupled at 176.4/192 kHz, kept at any other rate.
uint32_t scaleForRate(uint32_t length, uint32_t rate);

}  // namespace qor
