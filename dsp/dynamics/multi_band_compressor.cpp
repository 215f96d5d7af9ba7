#include "dsp/dynamics/multi_band_compressor.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <numbers>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "dsp/core/biquad_cascade.h"
#include "dsp/core/block_ops.h"
#include "dsp/core/bypass.h"
#include "dsp/core/follower.h"
#include "dsp/core/instance.h"
#include "dsp/core/levels.h"
#include "dsp/core/peak_detector.h"

namespace QorMultiBandCompressor_API_V1 {

namespace {

using Result = QorMultiBandCompressorResult;
using Parameters = QorMultiBandCompressorParameters;

// Five slots are built alike; only the last two carry the low and high band.
constexpr int kSlots = 5;
constexpr int kLowSlot = 3;
constexpr int kHighSlot = 4;
constexpr int kBands = 2;
constexpr uint32_t kLookAhead = 4;
constexpr uint32_t kMaxChannels = 2;
constexpr uint32_t kResponsePoints = 1024;
constexpr float kHysteresisDb = 1.5f;
constexpr uint32_t kDetectorDivider = 20;
constexpr int kReportedLatency = 128;

// Biquad as b0, b1, b2, f1, f2 (feedback sign flipped), gain.
using Coefficients = float[6];

struct Slot {
  uint8_t enable;
  float threshold;  // dB
  float slope;      // 1 - 1 / ratio
  float floor;      // dB, lowest gain
  qor::Follower followerA;
  qor::Follower followerB;
  Coefficients bandPass;  // level detection around the centre
  Coefficients allPass;   // applies the gain to the band only
  float bandPassState[kMaxChannels][2];
  float allPassState[kMaxChannels][2];
  qor::PeakHistory detector;
  float y1, y2;    // follower outputs (linear gain)
  float previous;  // gain applied at the end of the last sub-block
};

// Current value of one filter's gliding design inputs.
struct Glide {
  float gain;  // stays 0; glides like the others
  float frequency;
  float q;
};

struct Split {
  float frequency;  // targets from the parameters
  float q;
  Glide bandPass;   // towards frequency, q x 2
  Glide allPass;    // towards frequency, q x 0.5
};

struct State {
  qor::ConfigHeader header;
  Parameters parameters;
  uint8_t meteringEnabled;
  uint32_t subBlock;
  Slot slots[kSlots];
  Split splits[kBands];
  uint32_t lookAheadIndex;
  qor::BypassFade fade;
  float lowTriple[3];
  float highTriple[3];
  QorMeteringPoint points[3];
  QorMultiBandCompressorMeteringPoints pointRecord;
  uint64_t marker;
  float* scratch[kMaxChannels];  // band-passed sub-block
  float* store[kMaxChannels];    // look-ahead: four sub-blocks per channel
  float* dry[kMaxChannels];
  float* response;               // 1024 frequencies, 1024 magnitudes
  float* responseTable;          // cos w, sin w, cos 2w, sin 2w per frequency
};

Result result(int32_t code) { return static_cast<Result>(code); }

int32_t checkConfig(const QorMultiBandCompressorConfig& c) {
  const auto rateOk = [](uint32_t r) { return r >= 44100 && r <= 192000; };
  const auto blockOk = [](uint32_t b) { return b >= 128 && b <= 4096; };
  if (!rateOk(c.inputSampleRate)) return qor::ErrorSampleRate;
  if (!rateOk(c.outputSampleRate) || c.outputSampleRate != c.inputSampleRate) {
    return qor::ErrorSampleRate;
  }
  if (!blockOk(c.inputBlockSize)) return qor::ErrorBlockSize;
  if (!blockOk(c.outputBlockSize) || c.outputBlockSize != c.inputBlockSize) {
    return qor::ErrorBlockSize;
  }
  if (c.inputChannels < 1 || c.inputChannels > 2) return qor::ErrorInputChannels;
  if (c.outputChannels < 1 || c.outputChannels > 2 || c.outputChannels != c.inputChannels) {
    return qor::ErrorOutputChannels;
  }
  return qor::Success;
}

int32_t checkParameters(const Parameters& p) {
  struct Range {
    float Parameters::*field;
    float lo, hi;
  };
  static constexpr Range kRanges[] = {
      {&Parameters::lowThreshold, -50.0f, 0.0f},
      {&Parameters::highThreshold, -50.0f, 0.0f},
      {&Parameters::lowCrossoverFrequency, 60.0f, 1000.0f},
      {&Parameters::lowCrossoverQ, 0.25f, 20.0f},
      {&Parameters::lowGainFloor, -60.0f, 0.0f},
      {&Parameters::highCrossoverFrequency, 1000.0f, 10000.0f},
      {&Parameters::highCrossoverQ, 0.25f, 20.0f},
      {&Parameters::highGainFloor, -60.0f, 0.0f},
      {&Parameters::lowAttack, 0.0f, 200.0f},
      {&Parameters::ratio, 1.0f, 20.0f},
      {&Parameters::lowRelease, 20.0f, 1000.0f},
      {&Parameters::highAttack, 0.0f, 200.0f},
      {&Parameters::highRelease, 20.0f, 1000.0f},
      {&Parameters::crossfadeTime, 0.0f, 250.0f},
  };
  for (int32_t i = 0; i < static_cast<int32_t>(std::size(kRanges)); ++i) {
    const Range& r = kRanges[i];
    if (qor::outOfRange(p.*(r.field), r.lo, r.hi)) return qor::parameterError(i);
  }
  return qor::Success;
}

size_t layOut(void* base, const QorMultiBandCompressorConfig& config, State** out) {
  const uint32_t channels = config.inputChannels;
  const uint32_t sub = qor::scaleForRate(32, config.inputSampleRate);
  qor::InstanceLayout lay(base);
  State* s = lay.take<State>();
  float* scratch[kMaxChannels] = {};
  float* store[kMaxChannels] = {};
  float* dry[kMaxChannels] = {};
  for (uint32_t c = 0; c < channels; ++c) {
    scratch[c] = lay.take<float>(sub);
    store[c] = lay.take<float>(kLookAhead * sub);
    dry[c] = lay.take<float>(config.inputBlockSize);
  }
  float* response = nullptr;
  float* table = nullptr;
  if (config.meteringEnabled != 0) {
    response = lay.take<float>(2 * kResponsePoints);
    table = lay.take<float>(4 * kResponsePoints);
  }
  if (s != nullptr) {
    for (uint32_t c = 0; c < kMaxChannels; ++c) {
      s->scratch[c] = scratch[c];
      s->store[c] = store[c];
      s->dry[c] = dry[c];
    }
    s->response = response;
    s->responseTable = table;
    *out = s;
  }
  return lay.size();
}

// Cookbook band-pass (0 dB peak) and all-pass, designed in double. A centre
// at or above Nyquist is refused and the filter keeps its coefficients.
void designBandPass(Coefficients& c, double f, double q, double rate) {
  if (f >= rate / 2.0) return;
  const double w = 2.0 * std::numbers::pi * f / rate;
  const double alpha = std::sin(w) / (2.0 * q);
  const double a0 = 1.0 + alpha;
  c[0] = static_cast<float>(alpha / a0);
  c[1] = 0.0f;
  c[2] = static_cast<float>(-alpha / a0);
  c[3] = static_cast<float>(2.0 * std::cos(w) / a0);
  c[4] = static_cast<float>(-(1.0 - alpha) / a0);
  c[5] = 1.0f;
}

void designAllPass(Coefficients& c, double f, double q, double rate) {
  if (f >= rate / 2.0) return;
  const double w = 2.0 * std::numbers::pi * f / rate;
  const double alpha = std::sin(w) / (2.0 * q);
  const double a0 = 1.0 + alpha;
  c[0] = static_cast<float>((1.0 - alpha) / a0);
  c[1] = static_cast<float>(-2.0 * std::cos(w) / a0);
  c[2] = 1.0f;
  c[3] = static_cast<float>(2.0 * std::cos(w) / a0);
  c[4] = static_cast<float>(-(1.0 - alpha) / a0);
  c[5] = 1.0f;
}

// |H| of a coefficient set at the table entry's frequency.
double magnitude(const Coefficients& c, const float* t) {
  const double cw = t[0], sw = t[1], c2w = t[2], s2w = t[3];
  const double nr = c[0] + c[1] * cw + c[2] * c2w;
  const double ni = -(c[1] * sw + c[2] * s2w);
  const double dr = 1.0 - c[3] * cw - c[4] * c2w;
  const double di = c[3] * sw + c[4] * s2w;
  return std::sqrt((nr * nr + ni * ni) / (dr * dr + di * di));
}

void setUpResponse(State& s) {
  const double rate = s.header.inputSampleRate;
  for (uint32_t i = 0; i < kResponsePoints; ++i) {
    const double f = i * (rate / 2.0) / (kResponsePoints - 1);
    const double w = 2.0 * std::numbers::pi * f / rate;
    s.response[i] = static_cast<float>(f);
    float* t = s.responseTable + 4 * i;
    t[0] = static_cast<float>(std::cos(w));
    t[1] = static_cast<float>(std::sin(w));
    t[2] = static_cast<float>(std::cos(2.0 * w));
    t[3] = static_cast<float>(std::sin(2.0 * w));
  }
}

// The curve shows what the detectors listen to: both detection band-passes
// in series.
void computeResponse(State& s) {
  const Slot& low = s.slots[kLowSlot];
  const Slot& high = s.slots[kHighSlot];
  float* mag = s.response + kResponsePoints;
  for (uint32_t i = 0; i < kResponsePoints; ++i) {
    const float* t = s.responseTable + 4 * i;
    const double h = magnitude(low.bandPass, t) * magnitude(high.bandPass, t);
    mag[i] = qor::linearToDb(static_cast<float>(h));
  }
}

bool glideTowards(Glide& g, float frequency, float q, float c, bool forced) {
  bool changed = false;
  const auto step = [&](float& current, float target) {
    if (current == target) return;
    current = (1.0f - c) * current + c * target;
    changed = true;
    if (forced || std::fabs(target - current) < 0.01f) current = target;
  };
  step(g.gain, 0.0f);
  step(g.frequency, frequency);
  step(g.q, q);
  return changed;
}

// Moves both bands' filters one step towards their targets; the time
// constant is crossfadeTime at block rate.
void glideSplits(State& s, bool forced) {
  const float blockRate = std::trunc(static_cast<float>(s.header.inputSampleRate) /
                                     static_cast<float>(s.header.inputBlockSize));
  const float c = qor::timeConstantCoefficient(blockRate, s.parameters.crossfadeTime);
  bool changed = false;
  for (Split& sp : s.splits) {
    changed |= glideTowards(sp.bandPass, sp.frequency, sp.q * 2.0f, c, forced);
    changed |= glideTowards(sp.allPass, sp.frequency, sp.q * 0.5f, c, forced);
  }
  if (!changed) return;
  const double rate = s.header.inputSampleRate;
  for (int b = 0; b < kBands; ++b) {
    const Split& sp = s.splits[b];
    Slot& slot = s.slots[kLowSlot + b];
    designBandPass(slot.bandPass, sp.bandPass.frequency, sp.bandPass.q, rate);
    designAllPass(slot.allPass, sp.allPass.frequency, sp.allPass.q, rate);
  }
  if (s.meteringEnabled != 0) computeResponse(s);
}

void resetEngine(State& s) {
  for (Slot& slot : s.slots) {
    qor::peakHistorySetup(slot.detector, s.header.inputSampleRate, s.subBlock, kDetectorDivider);
    slot.y1 = 1.0f;
    slot.y2 = 1.0f;
    for (uint32_t c = 0; c < kMaxChannels; ++c) {
      slot.bandPassState[c][0] = slot.bandPassState[c][1] = 0.0f;
      slot.allPassState[c][0] = slot.allPassState[c][1] = 0.0f;
    }
  }
  for (uint32_t c = 0; c < s.header.inputChannels; ++c) {
    qor::zeroBlock(s.store[c], kLookAhead * s.subBlock);
  }
  s.lookAheadIndex = 0;
}

void initEngine(State& s) {
  for (Slot& slot : s.slots) {
    slot = {};
    slot.enable = 1;
    slot.threshold = -12.0f;
    slot.slope = 0.25f;
    slot.floor = -100.0f;
    qor::followerSetup(slot.followerA, 0.0f, kHysteresisDb, 0.0f, 0.0f);
    qor::followerSetup(slot.followerB, 0.0f, kHysteresisDb, 0.0f, 0.0f);
    // Unused slots never get a design: a unity all-pass keeps them inert.
    slot.allPass[0] = 1.0f;
    slot.allPass[5] = 1.0f;
    slot.previous = 1.0f;
  }
  resetEngine(s);
}

void applyParameters(State& s) {
  const Parameters& p = s.parameters;
  const float subRate = std::trunc(static_cast<float>(s.header.inputSampleRate) *
                                   (1.0f / static_cast<float>(s.subBlock)));
  for (int k = 0; k < kLowSlot; ++k) s.slots[k].enable = 0;
  struct Band {
    uint8_t enable;
    float threshold, floor, attack, release, frequency, q;
  };
  const Band bands[kBands] = {
      {p.lowBandEnable, p.lowThreshold, p.lowGainFloor, p.lowAttack, p.lowRelease,
       p.lowCrossoverFrequency, p.lowCrossoverQ},
      {p.highBandEnable, p.highThreshold, p.highGainFloor, p.highAttack, p.highRelease,
       p.highCrossoverFrequency, p.highCrossoverQ},
  };
  for (int b = 0; b < kBands; ++b) {
    const Band& band = bands[b];
    Slot& slot = s.slots[kLowSlot + b];
    slot.enable = band.enable != 0 ? 1 : 0;
    slot.threshold = band.threshold;
    slot.floor = band.floor;
    slot.slope = 1.0f - 1.0f / p.ratio;
    qor::followerSetup(slot.followerA, subRate, kHysteresisDb, band.attack,
                       std::max(band.release * 0.2f, 5.0f));
    qor::followerSetup(slot.followerB, subRate, kHysteresisDb, std::max(band.attack * 5.0f, 5.0f),
                       band.release);
    s.splits[b].frequency = band.frequency;
    s.splits[b].q = band.q;
  }
  s.fade.setTime(p.crossfadeTime, static_cast<float>(s.header.inputSampleRate));
}

inline float flushTiny(float v) { return std::fabs(v) < 1e-15f ? 0.0f : v; }

// Band-passes `n` samples of each channel into the scratch: one section of
// the shared cascade (its gain is 1).
void bandPassInto(float* const* scratch, const Coefficients& k, float state[][2], float* const* x, uint32_t channels,
                  uint32_t n) {
  for (uint32_t c = 0; c < channels; ++c) qor::copyBlock(x[c], scratch[c], n);
  if (channels == 2) {
    qor::processBiquadCascadePair(scratch[0], scratch[1], n, k, state[0], state[1], 1);
  } else {
    qor::processBiquadCascade(scratch[0], n, k, state[0], 1);
  }
}

// x := 0.5 (1 + g) x + 0.5 (1 - g) AP(x), with g ramping by `step` per
// sample: at the centre the all-pass inverts the band, which is then scaled
// by g; far from it the all-pass is in phase and the signal passes.
void applyBandGain(const Coefficients& k, float state[2], float* x, uint32_t n, float g,
                   float step) {
  const float b0 = k[0], b1 = k[1], b2 = k[2], f1 = k[3], f2 = k[4];
  float s1 = state[0], s2 = state[1];
  for (uint32_t i = 0; i < n; ++i) {
    const float v = x[i];
    const float ap = b0 * v + s1;
    s1 = b1 * v + s2 + f1 * ap;
    s2 = b2 * v + f2 * ap;
    x[i] = 0.5f * (1.0f + g) * v + 0.5f * (1.0f - g) * ap;
    g += step;
  }
  state[0] = flushTiny(s1);
  state[1] = flushTiny(s2);
}

// Stereo twin of the loop above: the channels' recursions are independent,
// so running them side by side overlaps them in the pipeline.
void applyBandGainStereo(const Coefficients& k, float state[][2], float* xl, float* xr, uint32_t n,
                         float g, float step) {
  const float b0 = k[0], b1 = k[1], b2 = k[2], f1 = k[3], f2 = k[4];
  float l1 = state[0][0], l2 = state[0][1], r1 = state[1][0], r2 = state[1][1];
  for (uint32_t i = 0; i < n; ++i) {
    const float vl = xl[i], vr = xr[i];
    const float al = b0 * vl + l1;
    const float ar = b0 * vr + r1;
    l1 = b1 * vl + l2 + f1 * al;
    r1 = b1 * vr + r2 + f1 * ar;
    l2 = b2 * vl + f2 * al;
    r2 = b2 * vr + f2 * ar;
    xl[i] = 0.5f * (1.0f + g) * vl + 0.5f * (1.0f - g) * al;
    xr[i] = 0.5f * (1.0f + g) * vr + 0.5f * (1.0f - g) * ar;
    g += step;
  }
  state[0][0] = flushTiny(l1);
  state[0][1] = flushTiny(l2);
  state[1][0] = flushTiny(r1);
  state[1][1] = flushTiny(r2);
}

#if defined(__SSE2__)
// The SSE2 forms of the two pair loops: every lane runs one recursion with
// the scalar arithmetic in the scalar order, so the results are the same.
inline __m128 lanes(float a, float b, float c, float d) { return _mm_setr_ps(a, b, c, d); }

// Lanes (a left, a right, b left, b right).
void bandPassPeaksStereo(Slot& a, Slot& b, const float* xl, const float* xr, uint32_t n,
                         float& peakA, float& peakB) {
  const auto coefficient = [&](int k) { return lanes(a.bandPass[k], a.bandPass[k], b.bandPass[k], b.bandPass[k]); };
  const __m128 c0 = coefficient(0), c1 = coefficient(1), c2 = coefficient(2), f1 = coefficient(3),
               f2 = coefficient(4);
  __m128 s1 = lanes(a.bandPassState[0][0], a.bandPassState[1][0], b.bandPassState[0][0], b.bandPassState[1][0]);
  __m128 s2 = lanes(a.bandPassState[0][1], a.bandPassState[1][1], b.bandPassState[0][1], b.bandPassState[1][1]);
  const __m128 abs = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
  __m128 m = _mm_setzero_ps();
  for (uint32_t i = 0; i < n; ++i) {
    const __m128 lr = _mm_unpacklo_ps(_mm_load_ss(xl + i), _mm_load_ss(xr + i));
    const __m128 v = _mm_movelh_ps(lr, lr);
    const __m128 o = _mm_add_ps(_mm_mul_ps(c0, v), s1);
    s1 = _mm_add_ps(_mm_add_ps(_mm_mul_ps(c1, v), s2), _mm_mul_ps(f1, o));
    s2 = _mm_add_ps(_mm_mul_ps(c2, v), _mm_mul_ps(f2, o));
    // maxps keeps the running peak when o is NaN, as std::max does.
    m = _mm_max_ps(_mm_and_ps(o, abs), m);
  }
  alignas(16) float t1[4], t2[4], mt[4];
  _mm_store_ps(t1, s1);
  _mm_store_ps(t2, s2);
  _mm_store_ps(mt, m);
  a.bandPassState[0][0] = flushTiny(t1[0]);
  a.bandPassState[1][0] = flushTiny(t1[1]);
  b.bandPassState[0][0] = flushTiny(t1[2]);
  b.bandPassState[1][0] = flushTiny(t1[3]);
  a.bandPassState[0][1] = flushTiny(t2[0]);
  a.bandPassState[1][1] = flushTiny(t2[1]);
  b.bandPassState[0][1] = flushTiny(t2[2]);
  b.bandPassState[1][1] = flushTiny(t2[3]);
  peakA = std::max(mt[0], mt[1]);
  peakB = std::max(mt[2], mt[3]);
}

// Left and right in the low two lanes; slot b works on slot a's output.
void applyBandGainPairStereo(Slot& a, Slot& b, float* xl, float* xr, uint32_t n, float ga,
                             float stepA, float gb, float stepB) {
  struct Section {
    __m128 c0, c1, c2, f1, f2, s1, s2;
    explicit Section(const Slot& slot)
        : c0(_mm_set1_ps(slot.allPass[0])), c1(_mm_set1_ps(slot.allPass[1])), c2(_mm_set1_ps(slot.allPass[2])),
          f1(_mm_set1_ps(slot.allPass[3])), f2(_mm_set1_ps(slot.allPass[4])),
          s1(lanes(slot.allPassState[0][0], slot.allPassState[1][0], 0.0f, 0.0f)),
          s2(lanes(slot.allPassState[0][1], slot.allPassState[1][1], 0.0f, 0.0f)) {}
    // 0.5 (1 + g) v + 0.5 (1 - g) AP(v).
    __m128 run(__m128 v, __m128 g) {
      const __m128 p = _mm_add_ps(_mm_mul_ps(c0, v), s1);
      s1 = _mm_add_ps(_mm_add_ps(_mm_mul_ps(c1, v), s2), _mm_mul_ps(f1, p));
      s2 = _mm_add_ps(_mm_mul_ps(c2, v), _mm_mul_ps(f2, p));
      const __m128 half = _mm_set1_ps(0.5f), one = _mm_set1_ps(1.0f);
      return _mm_add_ps(_mm_mul_ps(_mm_mul_ps(half, _mm_add_ps(one, g)), v),
                        _mm_mul_ps(_mm_mul_ps(half, _mm_sub_ps(one, g)), p));
    }
    void store(Slot& slot) const {
      alignas(16) float t1[4], t2[4];
      _mm_store_ps(t1, s1);
      _mm_store_ps(t2, s2);
      for (int c = 0; c < 2; ++c) {
        slot.allPassState[c][0] = flushTiny(t1[c]);
        slot.allPassState[c][1] = flushTiny(t2[c]);
      }
    }
  };
  Section sa(a), sb(b);
  __m128 gav = _mm_set1_ps(ga), gbv = _mm_set1_ps(gb);
  const __m128 da = _mm_set1_ps(stepA), db = _mm_set1_ps(stepB);
  for (uint32_t i = 0; i < n; ++i) {
    const __m128 v = _mm_unpacklo_ps(_mm_load_ss(xl + i), _mm_load_ss(xr + i));
    const __m128 u = sa.run(v, gav);
    const __m128 y = sb.run(u, gbv);
    gav = _mm_add_ps(gav, da);
    gbv = _mm_add_ps(gbv, db);
    _mm_store_ss(xl + i, y);
    _mm_store_ss(xr + i, _mm_shuffle_ps(y, y, _MM_SHUFFLE(1, 1, 1, 1)));
  }
  sa.store(a);
  sb.store(b);
}
#else
// Two slots' band-passes over a stereo sub-block in one loop, returning each
// slot's peak |y|: four independent recursions overlap in the pipeline. The
// arithmetic per value is that of the shared cascade, and a max over magnitudes
// does not depend on order, so levels match the separate passes.
void bandPassPeaksStereo(Slot& a, Slot& b, const float* xl, const float* xr, uint32_t n,
                         float& peakA, float& peakB) {
  const float a0 = a.bandPass[0], a1 = a.bandPass[1], a2 = a.bandPass[2], af1 = a.bandPass[3],
              af2 = a.bandPass[4];
  const float b0 = b.bandPass[0], b1 = b.bandPass[1], b2 = b.bandPass[2], bf1 = b.bandPass[3],
              bf2 = b.bandPass[4];
  float al1 = a.bandPassState[0][0], al2 = a.bandPassState[0][1];
  float ar1 = a.bandPassState[1][0], ar2 = a.bandPassState[1][1];
  float bl1 = b.bandPassState[0][0], bl2 = b.bandPassState[0][1];
  float br1 = b.bandPassState[1][0], br2 = b.bandPassState[1][1];
  float ma = 0.0f, mb = 0.0f;
  for (uint32_t i = 0; i < n; ++i) {
    const float vl = xl[i], vr = xr[i];
    const float oal = a0 * vl + al1;
    const float oar = a0 * vr + ar1;
    const float obl = b0 * vl + bl1;
    const float obr = b0 * vr + br1;
    al1 = a1 * vl + al2 + af1 * oal;
    ar1 = a1 * vr + ar2 + af1 * oar;
    bl1 = b1 * vl + bl2 + bf1 * obl;
    br1 = b1 * vr + br2 + bf1 * obr;
    al2 = a2 * vl + af2 * oal;
    ar2 = a2 * vr + af2 * oar;
    bl2 = b2 * vl + bf2 * obl;
    br2 = b2 * vr + bf2 * obr;
    ma = std::max(ma, std::max(std::fabs(oal), std::fabs(oar)));
    mb = std::max(mb, std::max(std::fabs(obl), std::fabs(obr)));
  }
  a.bandPassState[0][0] = flushTiny(al1);
  a.bandPassState[0][1] = flushTiny(al2);
  a.bandPassState[1][0] = flushTiny(ar1);
  a.bandPassState[1][1] = flushTiny(ar2);
  b.bandPassState[0][0] = flushTiny(bl1);
  b.bandPassState[0][1] = flushTiny(bl2);
  b.bandPassState[1][0] = flushTiny(br1);
  b.bandPassState[1][1] = flushTiny(br2);
  peakA = ma;
  peakB = mb;
}

// Slot a's gain then slot b's on a stereo sub-block, sample by sample: b's
// recursion on one sample overlaps a's on the next instead of waiting for
// the whole of a's pass. Same arithmetic as two applyBandGainStereo calls.
void applyBandGainPairStereo(Slot& a, Slot& b, float* xl, float* xr, uint32_t n, float ga,
                             float stepA, float gb, float stepB) {
  const float a0 = a.allPass[0], a1 = a.allPass[1], a2 = a.allPass[2], af1 = a.allPass[3],
              af2 = a.allPass[4];
  const float b0 = b.allPass[0], b1 = b.allPass[1], b2 = b.allPass[2], bf1 = b.allPass[3],
              bf2 = b.allPass[4];
  float al1 = a.allPassState[0][0], al2 = a.allPassState[0][1];
  float ar1 = a.allPassState[1][0], ar2 = a.allPassState[1][1];
  float bl1 = b.allPassState[0][0], bl2 = b.allPassState[0][1];
  float br1 = b.allPassState[1][0], br2 = b.allPassState[1][1];
  for (uint32_t i = 0; i < n; ++i) {
    const float vl = xl[i], vr = xr[i];
    const float pl = a0 * vl + al1;
    const float pr = a0 * vr + ar1;
    al1 = a1 * vl + al2 + af1 * pl;
    ar1 = a1 * vr + ar2 + af1 * pr;
    al2 = a2 * vl + af2 * pl;
    ar2 = a2 * vr + af2 * pr;
    const float ul = 0.5f * (1.0f + ga) * vl + 0.5f * (1.0f - ga) * pl;
    const float ur = 0.5f * (1.0f + ga) * vr + 0.5f * (1.0f - ga) * pr;
    ga += stepA;
    const float ql = b0 * ul + bl1;
    const float qr = b0 * ur + br1;
    bl1 = b1 * ul + bl2 + bf1 * ql;
    br1 = b1 * ur + br2 + bf1 * qr;
    bl2 = b2 * ul + bf2 * ql;
    br2 = b2 * ur + bf2 * qr;
    xl[i] = 0.5f * (1.0f + gb) * ul + 0.5f * (1.0f - gb) * ql;
    xr[i] = 0.5f * (1.0f + gb) * ur + 0.5f * (1.0f - gb) * qr;
    gb += stepB;
  }
  a.allPassState[0][0] = flushTiny(al1);
  a.allPassState[0][1] = flushTiny(al2);
  a.allPassState[1][0] = flushTiny(ar1);
  a.allPassState[1][1] = flushTiny(ar2);
  b.allPassState[0][0] = flushTiny(bl1);
  b.allPassState[0][1] = flushTiny(bl2);
  b.allPassState[1][0] = flushTiny(br1);
  b.allPassState[1][1] = flushTiny(br2);
}
#endif

// Returns false when the block is not a whole number of sub-blocks.
bool runEngine(State& s, float* const* channels) {
  const uint32_t n = s.header.inputBlockSize;
  const uint32_t sub = s.subBlock;
  const uint32_t channelCount = s.header.inputChannels;
  if (n % sub != 0) return false;
  const float invSub = 1.0f / static_cast<float>(sub);

  for (uint32_t at = 0; at < n; at += sub) {
    // Detector levels: stereo slots go two at a time.
    float level[kSlots] = {};
    int pending = -1;
    for (int k = 0; k < kSlots; ++k) {
      Slot& slot = s.slots[k];
      if (slot.enable == 0) continue;
      if (channelCount == 2) {
        if (pending < 0) {
          pending = k;
          continue;
        }
        Slot& first = s.slots[pending];
        float peakA = 0.0f, peakB = 0.0f;
        bandPassPeaksStereo(first, slot, channels[0] + at, channels[1] + at, sub, peakA, peakB);
        level[pending] = qor::linearToDb(qor::peakHistoryPush(first.detector, peakA));
        level[k] = qor::linearToDb(qor::peakHistoryPush(slot.detector, peakB));
        pending = -1;
        continue;
      }
      float* const x[1] = {channels[0] + at};
      bandPassInto(s.scratch, slot.bandPass, slot.bandPassState, x, 1, sub);
      level[k] = qor::linearToDb(qor::peakHistoryUpdate(slot.detector, s.scratch, 0, sub, 1));
    }
    if (pending >= 0) {
      Slot& slot = s.slots[pending];
      float* const x[2] = {channels[0] + at, channels[1] + at};
      bandPassInto(s.scratch, slot.bandPass, slot.bandPassState, x, 2, sub);
      level[pending] = qor::linearToDb(qor::peakHistoryUpdate(slot.detector, s.scratch, 0, sub, 2));
    }

    float target[kSlots];
    for (int k = 0; k < kSlots; ++k) {
      Slot& slot = s.slots[k];
      float gainDb = 0.0f;
      if (slot.enable != 0) {
        gainDb = std::min(slot.threshold - level[k], 0.0f) * slot.slope;
        if (gainDb < slot.floor) gainDb = slot.floor;
      }
      // 0 dB is exactly 1; most slots sit there, so skip the pow.
      const float gain = gainDb == 0.0f ? 1.0f : qor::dbToLinear(gainDb);
      qor::followFallingFirst(slot.followerA, &gain, &slot.y1, 1);
      qor::followFallingFirst(slot.followerB, &slot.y1, &slot.y2, 1);
      target[k] = std::min(slot.y1, slot.y2);
    }

    // Look-ahead: swap the new sub-block with the oldest stored one, so the
    // gains computed from it act on audio four sub-blocks old.
    for (uint32_t c = 0; c < channelCount; ++c) {
      float* x = channels[c] + at;
      float* old = s.store[c] + s.lookAheadIndex * sub;
      for (uint32_t i = 0; i < sub; ++i) std::swap(x[i], old[i]);
    }
    s.lookAheadIndex = (s.lookAheadIndex + 1) % kLookAhead;

    pending = -1;
    const auto step = [&](int k) { return (target[k] - s.slots[k].previous) * invSub; };
    for (int k = 0; k < kSlots; ++k) {
      Slot& slot = s.slots[k];
      // A switched-off band glides back to unity before it stops.
      if (slot.enable == 0 && slot.previous > 0.999f) continue;
      if (channelCount == 2) {
        if (pending < 0) {
          pending = k;
          continue;
        }
        Slot& first = s.slots[pending];
        applyBandGainPairStereo(first, slot, channels[0] + at, channels[1] + at, sub,
                                first.previous, step(pending), slot.previous, step(k));
        first.previous = target[pending];
        slot.previous = target[k];
        pending = -1;
        continue;
      }
      applyBandGain(slot.allPass, slot.allPassState[0], channels[0] + at, sub, slot.previous,
                    step(k));
      slot.previous = target[k];
    }
    if (pending >= 0) {
      Slot& slot = s.slots[pending];
      applyBandGainStereo(slot.allPass, slot.allPassState, channels[0] + at, channels[1] + at,
                          sub, slot.previous, step(pending));
      slot.previous = target[pending];
    }
  }
  return true;
}

void writeMetering(State& s) {
  const Parameters& p = s.parameters;
  const float silent = qor::linearToDb(0.0f);
  const auto fill = [&](float* t, const Slot& slot, bool on) {
    t[0] = on ? qor::linearToDb(slot.previous) : silent;
    t[1] = on ? qor::linearToDb(slot.y2) : silent;
    t[2] = 0.0f;
  };
  fill(s.lowTriple, s.slots[kLowSlot], p.enable != 0 && p.lowBandEnable != 0);
  fill(s.highTriple, s.slots[kHighSlot], p.enable != 0 && p.highBandEnable != 0);
  if (p.enable == 0) {
    // Linear 1.0, not 0 dB: what the host has always shown for a bypassed stage.
    std::fill(s.response + kResponsePoints, s.response + 2 * kResponsePoints, 1.0f);
  }
}

}  // namespace

Result qorMultiBandCompressorGetInstanceSize(const QorMultiBandCompressorConfig* config,
                                             size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorMultiBandCompressorInit(QorMultiBandCompressorInst* inst,
                                  const QorMultiBandCompressorConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  s->meteringEnabled = config->meteringEnabled;
  s->subBlock = qor::scaleForRate(32, config->inputSampleRate);
  initEngine(*s);
  const float rate = static_cast<float>(config->inputSampleRate);
  s->fade.init(config->parameters.enable != 0, config->parameters.crossfadeTime, rate);

  const float silent = qor::linearToDb(0.0f);
  for (float* t : {s->lowTriple, s->highTriple}) {
    t[0] = silent;
    t[1] = silent;
    t[2] = 0.0f;
  }
  if (s->meteringEnabled != 0) {
    s->points[0] = {s->lowTriple, 1};
    s->points[1] = {s->highTriple, 1};
    s->points[2] = {s->response, 1};
    for (int i = 0; i < 3; ++i) s->pointRecord.points[i] = &s->points[i];
    setUpResponse(*s);
  }
  s->marker = qor::kInitMarker;

  QorMultiBandCompressorParameters initial = config->parameters;
  if (const Result rc = qorMultiBandCompressorUpdateParameters(inst, &initial);
      rc != Result::Success) {
    s->marker = 0;
    return rc;
  }
  glideSplits(*s, true);
  return Result::Success;
}

Result qorMultiBandCompressorGetDefaultParameters(QorMultiBandCompressorParameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  *parameters = {};
  parameters->lowThreshold = -20.0f;
  parameters->highThreshold = -20.0f;
  parameters->lowCrossoverFrequency = 120.0f;
  parameters->lowCrossoverQ = 1.0f;
  parameters->lowGainFloor = -20.0f;
  parameters->highCrossoverFrequency = 4500.0f;
  parameters->highCrossoverQ = 1.0f;
  parameters->highGainFloor = -20.0f;
  parameters->lowAttack = 1.0f;
  parameters->ratio = 4.0f;
  parameters->lowRelease = 80.0f;
  parameters->highAttack = 1.0f;
  parameters->highRelease = 80.0f;
  parameters->crossfadeTime = 50.0f;
  parameters->enable = 1;
  parameters->lowBandEnable = 1;
  parameters->highBandEnable = 1;
  return Result::Success;
}

Result qorMultiBandCompressorGetParameters(QorMultiBandCompressorInst* inst,
                                           QorMultiBandCompressorParameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

Result qorMultiBandCompressorUpdateParameters(QorMultiBandCompressorInst* inst,
                                              QorMultiBandCompressorParameters* parameters) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(*parameters); rc != 0) return result(rc);
  s->parameters = *parameters;
  applyParameters(*s);
  return Result::Success;
}

Result qorMultiBandCompressorProcess(QorMultiBandCompressorInst* inst, float** channels) {
  State* s = qor::stateOf<State>(inst);
  const uint32_t channelCount = s != nullptr ? s->header.inputChannels : 0;
  if (const int32_t rc = qor::checkProcess(s, channels, channelCount); rc != 0) return result(rc);

  const bool enabled = s->parameters.enable != 0;
  if (s->fade.active(enabled)) {
    glideSplits(*s, false);
    const bool transition = s->fade.transition(enabled);
    const uint32_t n = s->header.inputBlockSize;
    if (transition) qor::BypassFade::keepDry(channels, s->dry, channelCount, n);
    if (!runEngine(*s, channels)) return Result::ErrorProcessing;
    if (transition) {
      s->fade.finish(enabled, channels, s->dry, channelCount, n);
      // Reaching either end of a fade clears the engine, a finished fade-in
      // included.
      if (s->fade.mix == (enabled ? 1.0f : 0.0f)) resetEngine(*s);
    }
  }
  if (s->meteringEnabled != 0) writeMetering(*s);
  return Result::Success;
}

Result qorMultiBandCompressorFlush(QorMultiBandCompressorInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  resetEngine(*s);
  return Result::Success;
}

Result qorMultiBandCompressorRelease(QorMultiBandCompressorInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  resetEngine(*s);
  s->marker = 0;
  return Result::Success;
}

Result qorMultiBandCompressorGetCurrentLatency(QorMultiBandCompressorInst* inst, int* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  // A fixed figure, whatever the sub-block length at this rate.
  *latency = s->fade.mix != 0.0f ? kReportedLatency : 0;
  return Result::Success;
}

Result qorMultiBandCompressorGetMeteringPoints(const QorMultiBandCompressorInst* const inst,
                                               const QorMultiBandCompressorMeteringPoints** points) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, points); rc != 0) return result(rc);
  if (s->meteringEnabled == 0) return Result::ErrorMeteringDisabled;
  *points = &s->pointRecord;
  return Result::Success;
}

}  // namespace QorMultiBandCompressor_API_V1
