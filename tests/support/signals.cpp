#include "support/signals.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>

namespace qor::test {

std::vector<float> sine(double frequency, double rate, size_t n, double amplitude, double phase) {
  std::vector<float> x(n);
  const double w = 2.0 * std::numbers::pi * frequency / rate;
  for (size_t i = 0; i < n; ++i) x[i] = static_cast<float>(amplitude * std::sin(w * i + phase));
  return x;
}

std::vector<float> whiteNoise(size_t n, uint32_t seed, double amplitude) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> dist(-amplitude, amplitude);
  std::vector<float> x(n);
  for (float& v : x) v = static_cast<float>(dist(gen));
  return x;
}

std::vector<float> impulse(size_t n, size_t at, float value) {
  std::vector<float> x(n, 0.0f);
  if (at < n) x[at] = value;
  return x;
}

double rms(const float* x, size_t n) {
  double s = 0.0;
  for (size_t i = 0; i < n; ++i) s += static_cast<double>(x[i]) * x[i];
  return n > 0 ? std::sqrt(s / static_cast<double>(n)) : 0.0;
}

double rms(const std::vector<float>& x, size_t from, size_t to) {
  to = std::min(to, x.size());
  return from < to ? rms(x.data() + from, to - from) : 0.0;
}

double peakAbs(const std::vector<float>& x, size_t from, size_t to) {
  to = std::min(to, x.size());
  double p = 0.0;
  for (size_t i = from; i < to; ++i) p = std::max(p, std::fabs(static_cast<double>(x[i])));
  return p;
}

double toDb(double linear) { return 20.0 * std::log10(std::max(linear, 1e-30)); }

double toneAmplitude(const float* x, size_t n, double frequency, double rate) {
  // Goertzel over a Hann window, scaled so a full-scale sine reads 1.0.
  const double w = 2.0 * std::numbers::pi * frequency / rate;
  const double coeff = 2.0 * std::cos(w);
  double s1 = 0.0, s2 = 0.0, windowSum = 0.0;
  for (size_t i = 0; i < n; ++i) {
    const double win = n > 1 ? 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * i / (n - 1)) : 1.0;
    windowSum += win;
    const double s = x[i] * win + coeff * s1 - s2;
    s2 = s1;
    s1 = s;
  }
  const double power = s1 * s1 + s2 * s2 - coeff * s1 * s2;
  return windowSum > 0.0 ? 2.0 * std::sqrt(std::max(power, 0.0)) / windowSum : 0.0;
}

double toneAmplitude(const std::vector<float>& x, double frequency, double rate, size_t from,
                     size_t to) {
  to = std::min(to, x.size());
  return from < to ? toneAmplitude(x.data() + from, to - from, frequency, rate) : 0.0;
}

int32_t delayByCrossCorrelation(const std::vector<float>& input, const std::vector<float>& output,
                                int32_t maxLag) {
  int32_t best = 0;
  double bestValue = -1e300;
  for (int32_t lag = 0; lag <= maxLag; ++lag) {
    double s = 0.0;
    for (size_t i = 0; i + lag < output.size() && i < input.size(); ++i) {
      s += static_cast<double>(input[i]) * output[i + lag];
    }
    if (s > bestValue) {
      bestValue = s;
      best = lag;
    }
  }
  return best;
}

}  // namespace qor::test
