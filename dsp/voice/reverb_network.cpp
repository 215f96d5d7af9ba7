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

// Four lanes as one value. GCC and Clang map it onto vector registers; other
// compilers, and builds with QOR_SCALAR_QUAD, get the scalar twin below.
#if defined(__GNUC__) && !defined(QOR_SCALAR_QUAD)
typedef float Quad __attribute__((vector_size(16)));
inline Quad swapPairs(Quad q) {  // (b, a, d, c)
#if defined(__clang__)
  return __builtin_shufflevector(q, q, 1, 0, 3, 2);
#else
  typedef int Mask __attribute__((vector_size(16)));
  return __builtin_shuffle(q, Mask{1, 0, 3, 2});
#endif
}
inline Quad swapHalvesOf(Quad q) {  // (c, d, a, b)
#if defined(__clang__)
  return __builtin_shufflevector(q, q, 2, 3, 0, 1);
#else
  typedef int Mask __attribute__((vector_size(16)));
  return __builtin_shuffle(q, Mask{2, 3, 0, 1});
#endif
}
inline Quad broadcast(float x) { return Quad{x, x, x, x}; }
#else
struct Quad {
  float v[4];
  float operator[](int i) const { return v[i]; }
  float& operator[](int i) { return v[i]; }
};
inline Quad operator+(Quad a, Quad b) { return {{a[0] + b[0], a[1] + b[1], a[2] + b[2], a[3] + b[3]}}; }
inline Quad operator-(Quad a, Quad b) { return {{a[0] - b[0], a[1] - b[1], a[2] - b[2], a[3] - b[3]}}; }
inline Quad operator*(Quad a, Quad b) { return {{a[0] * b[0], a[1] * b[1], a[2] * b[2], a[3] * b[3]}}; }
inline Quad swapPairs(Quad q) { return {{q[1], q[0], q[3], q[2]}}; }
inline Quad swapHalvesOf(Quad q) { return {{q[2], q[3], q[0], q[1]}}; }
inline Quad broadcast(float x) { return {{x, x, x, x}}; }
#endif

#if defined(__GNUC__) && !defined(QOR_SCALAR_QUAD)
inline Quad flushTiny(Quad y, Quad tiny) {
  typedef int Mask __attribute__((vector_size(16)));
  const Quad magnitude = y < 0 ? -y : y;
  const Mask keep = magnitude >= tiny;  // all ones where |y| >= tiny
  Mask bits;
  std::memcpy(&bits, &y, sizeof bits);
  bits &= keep;
  std::memcpy(&y, &bits, sizeof y);
  return y;
}
#else
inline Quad flushTiny(Quad y, Quad tiny) {
  for (int m = 0; m < 4; ++m) y[m] = std::fabs(y[m]) >= tiny[m] ? y[m] : 0.0f;
  return y;
}
#endif

inline Quad load(const float* p) {
  Quad q;
  std::memcpy(&q, p, sizeof q);
  return q;
}
inline void store(float* p, Quad q) { std::memcpy(p, &q, sizeof q); }

uint32_t lengthFor(int lane, float scale) {
  const double scaled = std::floor(static_cast<double>(kBase[swapHalves(lane)]) * scale);
  return static_cast<uint32_t>(nearestPrime(static_cast<int32_t>(scaled)));
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
  // State in locals, four lanes per quad: group q holds lanes 4q .. 4q + 3.
  Quad c[5][4], sx1[4], sx2[4], sy1[4], sy2[4], gain[kStages][4], gl[4], gr[4];
  for (int q = 0; q < 4; ++q) {
    for (int k = 0; k < 5; ++k) c[k][q] = load(coef[k] + 4 * q);
    sx1[q] = load(x1 + 4 * q);
    sx2[q] = load(x2 + 4 * q);
    sy1[q] = load(y1 + 4 * q);
    sy2[q] = load(y2 + 4 * q);
    for (int st = 0; st < kStages; ++st) gain[st][q] = broadcast(loopGain[st][q]);
    gl[q] = load(kGainLeft.data() + 4 * q);
    gr[q] = load(kGainRight.data() + 4 * q);
  }
  const Quad diffusionC = broadcast(kDiffusion);
  const Quad diffusionRest = broadcast(kDiffusionRest);
  const Quad quarter = broadcast(0.25f);
  const Quad alternate = Quad{1.0f, -1.0f, 1.0f, -1.0f};
  const Quad halves = Quad{1.0f, 1.0f, -1.0f, -1.0f};
  const Quad tiny = broadcast(1e-15f);
  uint32_t row = diffusionRow;
  uint32_t t = clock;

  for (uint32_t i = 0; i < n; ++i) {
    // Hadamard feedback: butterflies across the groups, then inside each.
    Quad s[4];
    {
      const Quad b0 = sy1[0] + sy1[1], b1 = sy1[0] - sy1[1];
      const Quad b2 = sy1[2] + sy1[3], b3 = sy1[2] - sy1[3];
      s[0] = b0 + b2;
      s[1] = b1 + b3;
      s[2] = b0 - b2;
      s[3] = b1 - b3;
    }
    const Quad l = broadcast(inL[i]);
    const Quad r = broadcast(inR[i]);
    for (int q = 0; q < 4; ++q) {
      const Quad u = s[q] * alternate + swapPairs(s[q]);  // (a+b, a-b, c+d, c-d)
      const Quad h = u * halves + swapHalvesOf(u);
      s[q] = quarter * h + l * gl[q] + r * gr[q];
    }

    // Three all-pass stages; each stage's loop carries its decay gain. The
    // four lanes of a group share their delays.
    for (int st = 0; st < kStages; ++st) {
      float* rows = diffusion + static_cast<size_t>(st) * kRows * kLines;
      float* now = rows + row * kLines;
      for (int q = 0; q < 4; ++q) {
        const Quad d = gain[st][q] * load(rows + ((row - kStageDelay[q][st]) & kRowMask) * kLines + 4 * q);
        store(now + 4 * q, s[q] + diffusionC * d);
        s[q] = diffusionRest * d - diffusionC * s[q];
      }
    }
    row = (row + 1) & kRowMask;

    // Outputs are taken at the diffused line inputs.
    const Quad accL = (s[0] * gl[0] + s[1] * gl[1]) + (s[2] * gl[2] + s[3] * gl[3]);
    const Quad accR = (s[0] * gr[0] + s[1] * gr[1]) + (s[2] * gr[2] + s[3] * gr[3]);
    outL[i] = (accL[0] + accL[1]) + (accL[2] + accL[3]);
    outR[i] = (accR[0] + accR[1]) + (accR[2] + accR[3]);

    // Every ring is written at the shared clock; line j reads length[j] behind.
    alignas(16) float in[kLines], d[kLines];
    for (int q = 0; q < 4; ++q) store(in + 4 * q, s[q]);
    const uint32_t now = t & kRingMask;
    for (int j = 0; j < kLines; ++j) {
      float* buffer = rings + static_cast<size_t>(j) * kRingSize;
      d[j] = buffer[(t - length[j]) & kRingMask];
      buffer[now] = in[j];
    }
    ++t;

    if (rampLeft > 0) {
      for (int k = 0; k < 5; ++k) {
        for (int q = 0; q < 4; ++q) c[k][q] = c[k][q] + load(step[k] + 4 * q);
      }
      if (--rampLeft == 0) {
        for (int k = 0; k < 5; ++k) {
          for (int q = 0; q < 4; ++q) c[k][q] = load(target[k] + 4 * q);
        }
      }
    }

    for (int q = 0; q < 4; ++q) {
      const Quad x = load(d + 4 * q);
      Quad y = c[0][q] * x + c[1][q] * sx1[q] + c[2][q] * sx2[q] - c[3][q] * sy1[q] -
               c[4][q] * sy2[q];
      // Flushing the tiny tail keeps a silent network out of denormals.
      y = flushTiny(y, tiny);
      sx2[q] = sx1[q];
      sx1[q] = x;
      sy2[q] = sy1[q];
      sy1[q] = y;
    }
  }

  diffusionRow = row;
  clock = t;
  for (int q = 0; q < 4; ++q) {
    for (int k = 0; k < 5; ++k) store(coef[k] + 4 * q, c[k][q]);
    store(x1 + 4 * q, sx1[q]);
    store(x2 + 4 * q, sx2[q]);
    store(y1 + 4 * q, sy1[q]);
    store(y2 + 4 * q, sy2[q]);
  }
}

}  // namespace qor
