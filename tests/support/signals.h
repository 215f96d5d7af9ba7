// Test signals and measurements on them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qor::test {

std::vector<float> sine(double frequency, double rate, size_t n, double amplitude = 1.0,
                        double phase = 0.0);
// Seeded uniform white noise in [-amplitude, amplitude].
std::vector<float> whiteNoise(size_t n, uint32_t seed, double amplitude = 1.0);
std::vector<float> impulse(size_t n, size_t at = 0, float value = 1.0f);

double rms(const float* x, size_t n);
double rms(const std::vector<float>& x, size_t from = 0, size_t to = SIZE_MAX);
double peakAbs(const std::vector<float>& x, size_t from = 0, size_t to = SIZE_MAX);
double toDb(double linear);

// Amplitude of the component at `frequency` (a single-bin DFT, Goertzel).
double toneAmplitude(const float* x, size_t n, double frequency, double rate);
double toneAmplitude(const std::vector<float>& x, double frequency, double rate, size_t from = 0,
                     size_t to = SIZE_MAX);

// Lag (0..maxLag) at which `output` best matches `input` delayed.
int32_t delayByCrossCorrelation(const std::vector<float>& input, const std::vector<float>& output,
                                int32_t maxLag);

}  // namespace qor::test
