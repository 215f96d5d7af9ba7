#include "dsp/voice/reverb_network.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <numbers>

#include "dsp/core/primes.h"

namespace qor {

namespace {

constexpr int kLines = ReverbNetwork::kLines;
constexpr int kStages = ReverbNetwork::kStages;
constexpr uint32_t kRows = ReverbNetwork::kDiffusionRows;
constexpr uint32_t kRowMask = kRows - 1;
constexpr uint32_t kRingSize = ReverbNetwork::kRingSize;
constexpr uint32_t kRingMask = kRingSize - 1;

constexpr uint32_t kBase[kLines] = {1499, 1597, 1693, 1801, 1913, 2039, 2161, 2297,
                                    2447, 2593, 2767, 2939, 3121, 3319, 3527, 3739};

// Line 4m + q uses diffuser pattern q.
constexpr uint32_t kStageDelay[4][kStages] = {{47, 11, 7}, {47, 13, 5}, {11, 17, 37}, {7, 19, 41}};
constexpr float kDiffusion = 0.62f;
constexpr float kDiffusionRest = 1.0f - kDiffusion * kDiffusion;

// Swaps the two 2-bit halves of a 4-bit index; its own inverse.
constexpr int swapHalves(int i) { return ((i & 3) << 2) | (i >> 2); }

constexpr int kSignLeft[kLines] = {1, 1, -1, 1, 1, 1, 1, -1, 1, 1, -1, 1, 1, 1, 1, -1};
constexpr int kSignRight[kLines] = {1, 1, 1, -1, -1, 1, 1, 1, 1, -1, 1, 1, -1, 1, 1, 1};

constexpr std::array<float, kLines> laneGains(const int* signs) {
  std::array<float, kLines> g{};
  for (int lane = 0; lane < kLines; ++lane) g[lane] = 0.25f * static_cast<float>(signs[swapHalves(lane)]);
  return g;
}

// The same vector is a channel's input and output gains.
constexpr std::array<float, kLines> kGainLeft = laneGains(kSignLeft);
constexpr std::array<float, kLines> kGainRight = laneGains(kSignRight);

uint32_t lengthFor(int lane, float scale) {
  const double scaled = std::floor(static_cast<double>(kBase[swapHalves(lane)]) * scale);
  return static_cast<uint32_t>(nearestPrime(static_cast<int32_t>(scaled)));
}

// Unnormalised. Lanes 4q + m: first the butterflies across the four groups
// (the same for every m, so they vectorise), then those inside each group.
inline void hadamard16(float* v) {
  for (int m = 0; m < 4; ++m) {
    const float b0 = v[m] + v[4 + m];
    const float b1 = v[m] - v[4 + m];
    const float b2 = v[8 + m] + v[12 + m];
    const float b3 = v[8 + m] - v[12 + m];
    v[m] = b0 + b2;
    v[4 + m] = b1 + b3;
    v[8 + m] = b0 - b2;
    v[12 + m] = b1 - b3;
  }
  for (int q = 0; q < 16; q += 4) {
    const float b0 = v[q] + v[q + 1];
    const float b1 = v[q] - v[q + 1];
    const float b2 = v[q + 2] + v[q + 3];
    const float b3 = v[q + 2] - v[q + 3];
    v[q] = b0 + b2;
    v[q + 1] = b1 + b3;
    v[q + 2] = b0 - b2;
    v[q + 3] = b1 - b3;
  }
}

// Sum of x[j] * g[j] over 16 lanes, in four partial sums.
inline float dot16(const float* x, const float* g) {
  float acc[4];
  for (int m = 0; m < 4; ++m) {
    acc[m] = x[m] * g[m] + x[4 + m] * g[4 + m] + x[8 + m] * g[8 + m] + x[12 + m] * g[12 + m];
  }
  return (acc[0] + acc[1]) + (acc[2] + acc[3]);
}

}  // namespace

double reverbPlainDecayGain(double timeMs, double samples, double rate) {
  const double seconds = samples / rate;
  const double db = timeMs > 0.0 ? -60000.0 / timeMs * seconds : -200.0 * seconds;
  return std::pow(10.0, db / 20.0);
}

ReverbSection designReverbDecayFilter(uint32_t samples, double rate, const ReverbDecayTimes& t) {
  if (!t.timesSet) return {1.0f, 0.0f, 0.0f, 0.0f, 0.0f};
  if (t.f1 < 0.0f || t.f2 < 0.0f) {
    const double longest = std::max({t.lowMs, t.midMs, t.highMs});
    return {static_cast<float>(reverbPlainDecayGain(longest, samples, rate)), 0.0f, 0.0f, 0.0f,
            0.0f};
  }
  const double seconds = samples / rate;
  auto attenuation = [seconds](double ms) {
    return ms > 0.0 ? -60000.0 / ms * seconds : -200.0 * seconds;
  };
  const double gLow = attenuation(t.lowMs);
  const double gMid = attenuation(t.midMs);
  const double gHigh = attenuation(t.highMs);
  const double f1 = t.f1;
  const double f2 = std::max(static_cast<double>(t.f2), f1);
  auto limited = [](double g) { return std::fmin(std::fmax(g, 0.00001), 10000.0); };
  const double m = limited(std::pow(10.0, gMid / 20.0));
  const double gl = limited(std::pow(10.0, (gLow - gMid) / 20.0));
  const double gh = limited(std::pow(10.0, (gHigh - gMid) / 20.0));

  const double kl = std::tan(std::numbers::pi * f1 / rate) / std::sqrt(gl);
  const double al = (kl - 1.0) / (kl + 1.0);
  const double b0l = ((1.0 + gl) - al * (1.0 - gl)) / 2.0;
  const double b1l = (al * (1.0 + gl) - (1.0 - gl)) / 2.0;

  const double kh = std::tan(std::numbers::pi * f2 / rate) * std::sqrt(gh);
  const double ah = (kh - 1.0) / (kh + 1.0);
  const double b0h = ((1.0 + gh) + ah * (1.0 - gh)) / 2.0;
  const double b1h = (ah * (1.0 + gh) + (1.0 - gh)) / 2.0;

  return {static_cast<float>(m * b0l * b0h), static_cast<float>(m * (b0l * b1h + b1l * b0h)),
          static_cast<float>(m * b1l * b1h), static_cast<float>(al + ah),
          static_cast<float>(al * ah)};
}

void walshHadamard16(float* v) { hadamard16(v); }

uint32_t ReverbNetwork::baseLength(int line) { return kBase[line]; }

uint32_t ReverbNetwork::baseLengthSum() {
  uint32_t sum = 0;
  for (uint32_t b : kBase) sum += b;
  return sum;
}

void ReverbNetwork::layOut(InstanceLayout& lay, ReverbNetwork* net) {
  float* rings = lay.take<float>(static_cast<size_t>(kLines) * kRingSize);
  float* diffusion = lay.take<float>(static_cast<size_t>(kStages) * kRows * kLines);
  if (net != nullptr) {
    net->rings = rings;
    net->diffusion = diffusion;
  }
}

void ReverbNetwork::clear() {
  std::memset(rings, 0, sizeof(float) * kLines * kRingSize);
  clock = 0;
  std::memset(diffusion, 0, sizeof(float) * kStages * kRows * kLines);
  diffusionRow = 0;
  std::memset(x1, 0, sizeof x1);
  std::memset(x2, 0, sizeof x2);
  std::memset(y1, 0, sizeof y1);
  std::memset(y2, 0, sizeof y2);
  std::memcpy(coef, target, sizeof coef);
  std::memset(step, 0, sizeof step);
  rampLeft = 0;
}

bool ReverbNetwork::retune(float newScale, const ReverbDecayTimes& t, double rate,
                           int32_t rampSamples) {
  if (t.f1 > t.f2) return false;
  scale = newScale;
  times = t;
  for (int lane = 0; lane < kLines; ++lane) {
    const uint32_t len = lengthFor(lane, newScale);
    length[lane] = len;
    const ReverbSection s = designReverbDecayFilter(len, rate, t);
    const float values[5] = {s.b0, s.b1, s.b2, s.a1, s.a2};
    for (int k = 0; k < 5; ++k) {
      target[k][lane] = values[k];
      if (rampSamples > 0) {
        step[k][lane] = (values[k] - coef[k][lane]) / static_cast<float>(rampSamples);
      } else {
        coef[k][lane] = values[k];
        step[k][lane] = 0.0f;
      }
    }
  }
  rampLeft = rampSamples > 0 ? rampSamples : 0;

  const double longest = std::max({t.lowMs, t.midMs, t.highMs});
  for (int st = 0; st < kStages; ++st) {
    for (int q = 0; q < 4; ++q) {
      loopGain[st][q] =
          t.timesSet ? static_cast<float>(reverbPlainDecayGain(longest, kStageDelay[q][st], rate))
                     : 1.0f;
    }
  }
  return true;
}

uint32_t ReverbNetwork::lineLength(int line) const { return length[swapHalves(line)]; }

void ReverbNetwork::process(const float* inL, const float* inR, float* outL, float* outR,
                            uint32_t n) {
  // Working copies in locals, so the compiler knows nothing aliases them.
  alignas(32) float c[5][kLines];
  alignas(32) float sx1[kLines], sx2[kLines], sy1[kLines], sy2[kLines];
  alignas(32) float gain[kStages][kLines];
  std::memcpy(c, coef, sizeof c);
  std::memcpy(sx1, x1, sizeof sx1);
  std::memcpy(sx2, x2, sizeof sx2);
  std::memcpy(sy1, y1, sizeof sy1);
  std::memcpy(sy2, y2, sizeof sy2);
  for (int st = 0; st < kStages; ++st) {
    for (int lane = 0; lane < kLines; ++lane) gain[st][lane] = loopGain[st][lane >> 2];
  }
  uint32_t row = diffusionRow;
  uint32_t t = clock;

  for (uint32_t i = 0; i < n; ++i) {
    alignas(32) float s[kLines];
    std::memcpy(s, sy1, sizeof s);
    hadamard16(s);
    const float l = inL[i];
    const float r = inR[i];
    for (int j = 0; j < kLines; ++j) s[j] = 0.25f * s[j] + l * kGainLeft[j] + r * kGainRight[j];

    // Three all-pass stages; each stage's loop carries its decay gain. The
    // four lanes of a group share their delays.
    for (int st = 0; st < kStages; ++st) {
      float* rows = diffusion + static_cast<size_t>(st) * kRows * kLines;
      alignas(32) float delayed[kLines];
      for (int q = 0; q < 4; ++q) {
        std::memcpy(delayed + 4 * q, rows + ((row - kStageDelay[q][st]) & kRowMask) * kLines + 4 * q,
                    4 * sizeof(float));
      }
      alignas(32) float v[kLines];
      for (int j = 0; j < kLines; ++j) {
        const float d = gain[st][j] * delayed[j];
        v[j] = s[j] + kDiffusion * d;
        s[j] = kDiffusionRest * d - kDiffusion * s[j];
      }
      std::memcpy(rows + row * kLines, v, sizeof v);
    }
    row = (row + 1) & kRowMask;

    // Outputs are taken at the diffused line inputs.
    outL[i] = dot16(s, kGainLeft.data());
    outR[i] = dot16(s, kGainRight.data());

    // Every ring is written at the shared clock; line j reads length[j] behind.
    alignas(32) float d[kLines];
    const uint32_t now = t & kRingMask;
    for (int j = 0; j < kLines; ++j) {
      float* buffer = rings + static_cast<size_t>(j) * kRingSize;
      d[j] = buffer[(t - length[j]) & kRingMask];
      buffer[now] = s[j];
    }
    ++t;

    if (rampLeft > 0) {
      for (int k = 0; k < 5; ++k) {
        for (int j = 0; j < kLines; ++j) c[k][j] += step[k][j];
      }
      if (--rampLeft == 0) std::memcpy(c, target, sizeof c);
    }

    for (int j = 0; j < kLines; ++j) {
      float y = c[0][j] * d[j] + c[1][j] * sx1[j] + c[2][j] * sx2[j] - c[3][j] * sy1[j] -
                c[4][j] * sy2[j];
      // Flushing the tiny tail keeps a silent network out of denormals.
      y = std::fabs(y) < 1e-15f ? 0.0f : y;
      sx2[j] = sx1[j];
      sx1[j] = d[j];
      sy2[j] = sy1[j];
      sy1[j] = y;
    }
  }

  diffusionRow = row;
  clock = t;
  std::memcpy(coef, c, sizeof c);
  std::memcpy(x1, sx1, sizeof sx1);
  std::memcpy(x2, sx2, sizeof sx2);
  std::memcpy(y1, sy1, sizeof sy1);
  std::memcpy(y2, sy2, sizeof sy2);
}

}  // namespace qor
