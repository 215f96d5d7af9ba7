#include "dsp/dynamics/multi_band_equaliser.h"

#include <cmath>
#include <numbers>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "dsp/core/block_ops.h"
#include "dsp/core/bypass.h"
#include "dsp/core/butterworth.h"
#include "dsp/core/crossfade.h"
#include "dsp/core/instance.h"
#include "dsp/core/levels.h"

namespace {

using Result = QorMultiBandEqualiserResult;
using Parameters = QorMultiBandEqualiserParameters;

constexpr int32_t kPeakingType = 6;
constexpr int32_t kBands = 3;
// Tiny offset added and removed again: flushes outputs too small to matter
// to exact zero so the recursion never runs on denormals.
constexpr float kDenormalGuard = 1e-18f;

// One peaking band of one channel, in direct form I.
struct Peaking {
  // Design inputs; a request equal in all six leaves the section alone.
  int32_t type;
  float rate;
  float frequency;
  float gain;
  float q;
  int32_t glideSamples;
  // Coefficients divided by a0.
  float b0, b1, b2, a1, a2;
  float x1, x2, y1, y2;
};

// High-pass or low-pass section: one biquad plus cascade gain.
struct PassSection {
  float coefficients[6];  // b0, b1, b2, f1, f2, gain
  float frequency;        // current (gliding) cutoff
  int32_t order;          // last non-zero order asked for
  uint8_t active;
};

struct State {
  qor::ConfigHeader header;
  Parameters parameters;
  PassSection highPass;
  PassSection lowPass;
  qor::BypassFade fade;
  float glideCoefficient;  // cutoff glide per UpdateParameters call
  uint8_t hasRun;          // an enabled Process ran since Init or Flush
  uint64_t marker;
  Peaking* bands;          // kBands per channel, band 1 first
  float* highPassState;    // s1, s2 per channel
  float* lowPassState;
  float* dry;              // one block, reused per channel
};

Result result(int32_t code) { return static_cast<Result>(code); }

int32_t checkConfig(const QorMultiBandEqualiserConfig& c) {
  const auto rateOk = [](uint32_t r) { return r == 44100 || r == 48000; };
  if (!rateOk(c.inputSampleRate) || !rateOk(c.outputSampleRate)) return qor::ErrorSampleRate;
  if (c.inputSampleRate != c.outputSampleRate) return qor::ErrorSampleRate;
  if (c.inputBlockSize < 128 || c.inputBlockSize > 4096) return qor::ErrorBlockSize;
  if (c.outputBlockSize < 128 || c.outputBlockSize > 4096) return qor::ErrorBlockSize;
  if (c.outputBlockSize != c.inputBlockSize) return qor::ErrorBlockSize;
  if (c.inputChannels < 1) return qor::ErrorInputChannels;
  if (c.outputChannels != c.inputChannels) return qor::ErrorOutputChannels;
  return qor::Success;
}

// Each band is checked frequency, Q, gain; the order fields are not checked
// but still own a number, hence the gaps.
int32_t checkParameters(const Parameters& p) {
  using qor::outOfRange;
  using qor::parameterError;
  if (outOfRange(p.highPassFrequency, 5.0f, 500.0f)) return parameterError(0);
  if (outOfRange(p.band1Frequency, 5.0f, 500.0f)) return parameterError(2);
  if (outOfRange(p.band1Q, 0.5f, 10.0f)) return parameterError(3);
  if (outOfRange(p.band1Gain, -12.0f, 12.0f)) return parameterError(4);
  if (outOfRange(p.band2Frequency, 400.0f, 5000.0f)) return parameterError(5);
  if (outOfRange(p.band2Q, 0.5f, 10.0f)) return parameterError(6);
  if (outOfRange(p.band2Gain, -12.0f, 12.0f)) return parameterError(7);
  if (outOfRange(p.band3Frequency, 1000.0f, 12000.0f)) return parameterError(8);
  if (outOfRange(p.band3Q, 0.5f, 10.0f)) return parameterError(9);
  if (outOfRange(p.band3Gain, -12.0f, 12.0f)) return parameterError(10);
  if (outOfRange(p.lowPassFrequency, 1000.0f, 20000.0f)) return parameterError(11);
  if (outOfRange(p.crossfadeTime, 0.0f, 250.0f)) return parameterError(13);
  return qor::Success;
}

size_t layOut(void* base, const QorMultiBandEqualiserConfig& config, State** out) {
  const size_t channels = config.inputChannels;
  qor::InstanceLayout lay(base);
  State* s = lay.take<State>();
  Peaking* bands = lay.take<Peaking>(kBands * channels);
  float* highPassState = lay.take<float>(2 * channels);
  float* lowPassState = lay.take<float>(2 * channels);
  float* dry = lay.take<float>(config.inputBlockSize);
  if (s != nullptr) {
    s->bands = bands;
    s->highPassState = highPassState;
    s->lowPassState = lowPassState;
    s->dry = dry;
    *out = s;
  }
  return lay.size();
}

// Cookbook peaking equaliser in single precision.
void designPeaking(Peaking& p, float rate, float frequency, float gainDb, float q,
                   bool clearHistory) {
  // The glide the section could do is always 0 samples long: changes are instant.
  const int32_t glide = static_cast<int32_t>(0.05f / rate);
  if (p.type == kPeakingType && p.rate == rate && p.frequency == frequency && p.gain == gainDb &&
      p.q == q && p.glideSamples == glide) {
    return;
  }
  p.type = kPeakingType;
  p.rate = rate;
  p.frequency = frequency;
  p.gain = gainDb;
  p.q = q;
  p.glideSamples = glide;

  const float w = 2.0f * std::numbers::pi_v<float> * frequency / rate;
  const float c = std::cos(w);
  const float sn = std::sin(w);
  const float a = std::pow(10.0f, gainDb / 40.0f);
  const float alpha = sn / (2.0f * q);
  const float a0 = 1.0f + alpha / a;
  p.b0 = (1.0f + alpha * a) / a0;
  p.b1 = -2.0f * c / a0;
  p.b2 = (1.0f - alpha * a) / a0;
  p.a1 = -2.0f * c / a0;
  p.a2 = (1.0f - alpha / a) / a0;
  if (clearHistory) p.x1 = p.x2 = p.y1 = p.y2 = 0.0f;
}

// Moves the section's cutoff one glide step towards the field and redesigns
// when anything changed. Runs only from UpdateParameters.
void updatePassSection(State& s, PassSection& sec, float target, int32_t orderField,
                       int32_t type) {
  bool changed = false;
  if (orderField != 0 && orderField != sec.order) {
    sec.order = orderField;
    changed = true;
  }
  if (target != sec.frequency) {
    const float k = s.glideCoefficient;
    sec.frequency = (1.0f - k) * sec.frequency + k * target;
    changed = true;
    if (s.hasRun == 0 || std::fabs(target - sec.frequency) < 0.01f) sec.frequency = target;
  }
  const uint8_t active = orderField != 0 ? 1 : 0;
  if (active != sec.active) {
    sec.active = active;
  } else if (!changed) {
    return;
  }

  float* c = sec.coefficients;
  for (int i = 0; i < 6; ++i) c[i] = 0.0f;
  const auto passThrough = [c] {
    c[0] = 1.0f;
    c[5] = 1.0f;
  };
  if (active == 0) {
    passThrough();
    return;
  }
  // The section holds one biquad: orders beyond 1..2 are designed at the
  // nearest order it can hold.
  const uint32_t order = sec.order <= 1 ? 1u : 2u;
  if (qor::designButterworth(sec.frequency, order, s.header.inputSampleRate, type, c) != 0) {
    passThrough();
  }
}

void applyParameters(State& s) {
  const Parameters& p = s.parameters;
  const float rate = static_cast<float>(s.header.inputSampleRate);
  const bool clear = s.hasRun == 0;
  for (uint32_t ch = 0; ch < s.header.inputChannels; ++ch) {
    Peaking* b = s.bands + kBands * ch;
    designPeaking(b[0], rate, p.band1Frequency, p.band1Gain, p.band1Q, clear);
    designPeaking(b[1], rate, p.band2Frequency, p.band2Gain, p.band2Q, clear);
    designPeaking(b[2], rate, p.band3Frequency, p.band3Gain, p.band3Q, clear);
  }
  updatePassSection(s, s.highPass, p.highPassFrequency, p.highPassOrder, qor::kButterworthHighPass);
  updatePassSection(s, s.lowPass, p.lowPassFrequency, p.lowPassOrder, qor::kButterworthLowPass);
  s.fade.setTime(p.crossfadeTime, rate);
}

void flushState(State& s) {
  const uint32_t channels = s.header.inputChannels;
  qor::zeroBlock(s.highPassState, 2 * channels);
  qor::zeroBlock(s.lowPassState, 2 * channels);
  for (uint32_t i = 0; i < kBands * channels; ++i) {
    Peaking& b = s.bands[i];
    b.x1 = b.x2 = b.y1 = b.y2 = 0.0f;
  }
  s.hasRun = 0;
}

inline float flushTiny(float v) { return std::fabs(v) < 1e-15f ? 0.0f : v; }

// One peaking section over a block of N channels side by side. Every
// channel's section has the same design, so the first one's coefficients
// serve all.
template <uint32_t N>
void runPeaking(Peaking* const* p, float* const* x, uint32_t n) {
  const float b0 = p[0]->b0, b1 = p[0]->b1, b2 = p[0]->b2, a1 = p[0]->a1, a2 = p[0]->a2;
  float x1[N], x2[N], y1[N], y2[N];
  for (uint32_t c = 0; c < N; ++c) {
    x1[c] = p[c]->x1;
    x2[c] = p[c]->x2;
    y1[c] = p[c]->y1;
    y2[c] = p[c]->y2;
  }
  for (uint32_t i = 0; i < n; ++i) {
    for (uint32_t c = 0; c < N; ++c) {
      const float v = x[c][i];
      float y = b0 * v + b1 * x1[c] + b2 * x2[c] - a1 * y1[c] - a2 * y2[c];
      y = (y + kDenormalGuard) - kDenormalGuard;
      x2[c] = x1[c];
      x1[c] = v;
      y2[c] = y1[c];
      y1[c] = y;
      x[c][i] = y;
    }
  }
  for (uint32_t c = 0; c < N; ++c) {
    p[c]->x1 = x1[c];
    p[c]->x2 = x2[c];
    p[c]->y1 = y1[c];
    p[c]->y2 = y2[c];
  }
}

// One high- or low-pass section (transposed direct form II) over N channels.
template <uint32_t N>
void runPass(const float* k, float* const* state, float* const* x, uint32_t n) {
  const float b0 = k[0], b1 = k[1], b2 = k[2], f1 = k[3], f2 = k[4], g = k[5];
  float s1[N], s2[N];
  for (uint32_t c = 0; c < N; ++c) {
    s1[c] = state[c][0];
    s2[c] = state[c][1];
  }
  for (uint32_t i = 0; i < n; ++i) {
    for (uint32_t c = 0; c < N; ++c) {
      const float v = x[c][i];
      const float y = b0 * v + s1[c];
      s1[c] = b1 * v + s2[c] + f1 * y;
      s2[c] = b2 * v + f2 * y;
      x[c][i] = y * g;
    }
  }
  for (uint32_t c = 0; c < N; ++c) {
    state[c][0] = flushTiny(s1[c]);
    state[c][1] = flushTiny(s2[c]);
  }
}

// Band 3, band 2, band 1, high-pass, low-pass over N channels starting at
// `first`, each section over the whole block. Channels run side by side:
// the result is the same as one by one, and the independent recursions
// overlap in the pipeline.
template <uint32_t N>
void filterChannelsBySection(State& s, uint32_t first, float* const* x, uint32_t n) {
  for (int k = kBands - 1; k >= 0; --k) {
    Peaking* p[N];
    for (uint32_t c = 0; c < N; ++c) p[c] = s.bands + kBands * (first + c) + k;
    runPeaking<N>(p, x, n);
  }
  float* hs[N];
  float* ls[N];
  for (uint32_t c = 0; c < N; ++c) {
    hs[c] = s.highPassState + 2 * (first + c);
    ls[c] = s.lowPassState + 2 * (first + c);
  }
  runPass<N>(s.highPass.coefficients, hs, x, n);
  runPass<N>(s.lowPass.coefficients, ls, x, n);
}

#if defined(__SSE2__)
// A channel pair with all five sections in one pass over the block, left
// and right in the low two lanes. Each lane does the scalar arithmetic in
// the scalar order, so the output matches section by section; each section
// waits on its own recursion only, so the five overlap instead of adding up.
// Without kPasses the high- and low-pass sections are left out, which the
// caller does only when both are switched off and settled: then each is
// y = 1 x v + 0 with its state staying 0, the input unchanged to the bit.
template <bool kPasses>
void filterPairFused(State& s, uint32_t first, float* const* x, uint32_t n) {
  struct PeakingLanes {
    __m128 b0, b1, b2, a1, a2, x1, x2, y1, y2;
  };
  struct PassLanes {
    __m128 b0, b1, b2, f1, f2, g, s1, s2;
  };
  Peaking* left = s.bands + kBands * first;
  Peaking* right = s.bands + kBands * (first + 1);
  PeakingLanes pk[kBands];
  for (int k = 0; k < kBands; ++k) {
    // Band 3 runs first.
    const Peaking& l = left[kBands - 1 - k];
    const Peaking& r = right[kBands - 1 - k];
    pk[k] = {_mm_set1_ps(l.b0), _mm_set1_ps(l.b1),        _mm_set1_ps(l.b2),
             _mm_set1_ps(l.a1), _mm_set1_ps(l.a2),        _mm_setr_ps(l.x1, r.x1, 0.0f, 0.0f),
             _mm_setr_ps(l.x2, r.x2, 0.0f, 0.0f), _mm_setr_ps(l.y1, r.y1, 0.0f, 0.0f),
             _mm_setr_ps(l.y2, r.y2, 0.0f, 0.0f)};
  }
  float* const hs[2] = {s.highPassState + 2 * first, s.highPassState + 2 * (first + 1)};
  float* const ls[2] = {s.lowPassState + 2 * first, s.lowPassState + 2 * (first + 1)};
  const auto passLanes = [](const float* k, float* const* st) {
    return PassLanes{_mm_set1_ps(k[0]), _mm_set1_ps(k[1]), _mm_set1_ps(k[2]),
                     _mm_set1_ps(k[3]), _mm_set1_ps(k[4]), _mm_set1_ps(k[5]),
                     _mm_setr_ps(st[0][0], st[1][0], 0.0f, 0.0f),
                     _mm_setr_ps(st[0][1], st[1][1], 0.0f, 0.0f)};
  };
  PassLanes ps[2] = {passLanes(s.highPass.coefficients, hs), passLanes(s.lowPass.coefficients, ls)};
  const __m128 guard = _mm_set1_ps(kDenormalGuard);
  float* xl = x[0];
  float* xr = x[1];
  for (uint32_t i = 0; i < n; ++i) {
    __m128 v = _mm_unpacklo_ps(_mm_load_ss(xl + i), _mm_load_ss(xr + i));
    for (PeakingLanes& b : pk) {
      __m128 y = _mm_add_ps(_mm_mul_ps(b.b0, v), _mm_mul_ps(b.b1, b.x1));
      y = _mm_add_ps(y, _mm_mul_ps(b.b2, b.x2));
      y = _mm_sub_ps(y, _mm_mul_ps(b.a1, b.y1));
      y = _mm_sub_ps(y, _mm_mul_ps(b.a2, b.y2));
      y = _mm_sub_ps(_mm_add_ps(y, guard), guard);
      b.x2 = b.x1;
      b.x1 = v;
      b.y2 = b.y1;
      b.y1 = y;
      v = y;
    }
    if constexpr (kPasses) {
      for (PassLanes& p : ps) {
        const __m128 y = _mm_add_ps(_mm_mul_ps(p.b0, v), p.s1);
        p.s1 = _mm_add_ps(_mm_add_ps(_mm_mul_ps(p.b1, v), p.s2), _mm_mul_ps(p.f1, y));
        p.s2 = _mm_add_ps(_mm_mul_ps(p.b2, v), _mm_mul_ps(p.f2, y));
        v = _mm_mul_ps(y, p.g);
      }
    }
    _mm_store_ss(xl + i, v);
    _mm_store_ss(xr + i, _mm_shuffle_ps(v, v, _MM_SHUFFLE(1, 1, 1, 1)));
  }
  alignas(16) float lanes[4];
  const auto lane = [&lanes](__m128 a, int c) {
    _mm_store_ps(lanes, a);
    return lanes[c];
  };
  for (int k = 0; k < kBands; ++k) {
    const PeakingLanes& b = pk[k];
    Peaking* side[2] = {&left[kBands - 1 - k], &right[kBands - 1 - k]};
    for (int c = 0; c < 2; ++c) {
      side[c]->x1 = lane(b.x1, c);
      side[c]->x2 = lane(b.x2, c);
      side[c]->y1 = lane(b.y1, c);
      side[c]->y2 = lane(b.y2, c);
    }
  }
  for (int j = 0; j < 2; ++j) {
    float* const* st = j == 0 ? hs : ls;
    for (int c = 0; c < 2; ++c) {
      st[c][0] = flushTiny(lane(ps[j].s1, c));
      st[c][1] = flushTiny(lane(ps[j].s2, c));
    }
  }
}
#endif

// Both pass sections of channels first .. first + count - 1 switched off
// with their states run down to 0.
bool passesSettledOff(const State& s, uint32_t first, uint32_t count) {
  if (s.highPass.active != 0 || s.lowPass.active != 0) return false;
  for (uint32_t i = 2 * first; i < 2 * (first + count); ++i) {
    if (s.highPassState[i] != 0.0f || s.lowPassState[i] != 0.0f) return false;
  }
  return true;
}

// Channels first .. first + N - 1 with every band at 0 dB, where the
// numerator equals the denominator and the section is an identity that
// computing would only add rounding noise to.
template <uint32_t N>
bool bandsFlat(const State& s, uint32_t first) {
  const Peaking* bands = s.bands + kBands * first;
  for (uint32_t k = 0; k < kBands * N; ++k) {
    const Peaking& p = bands[k];
    if (p.b0 != 1.0f || p.b1 != p.a1 || p.b2 != p.a2) return false;
  }
  return true;
}

// A flat stage with its pass sections settled off passes the block
// untouched; each band takes the history an identity leaves: its last two
// inputs, as outputs too.
template <uint32_t N>
bool passFlat(State& s, uint32_t first, float* const* x, uint32_t n, bool passesOff) {
  if (!passesOff || !bandsFlat<N>(s, first)) return false;
  Peaking* bands = s.bands + kBands * first;
  for (uint32_t c = 0; c < N; ++c) {
    for (int k = 0; k < kBands; ++k) {
      Peaking& p = bands[kBands * c + k];
      p.x1 = p.y1 = x[c][n - 1];
      p.x2 = p.y2 = x[c][n - 2];
    }
  }
  return true;
}

template <uint32_t N>
void filterChannels(State& s, uint32_t first, float* const* x, uint32_t n) {
  const bool passesOff = passesSettledOff(s, first, N);
  if (passFlat<N>(s, first, x, n, passesOff)) return;
#if defined(__SSE2__)
  if constexpr (N == 2) {
    if (passesOff) {
      filterPairFused<false>(s, first, x, n);
    } else {
      filterPairFused<true>(s, first, x, n);
    }
    return;
  }
#endif
  filterChannelsBySection<N>(s, first, x, n);
}

}  // namespace

Result qorMultiBandEqualiserGetInstanceSize(const QorMultiBandEqualiserConfig* config,
                                            size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorMultiBandEqualiserInit(QorMultiBandEqualiserInst* inst,
                                 const QorMultiBandEqualiserConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  s->fade.init(config->parameters.enable != 0, config->parameters.crossfadeTime,
               static_cast<float>(config->inputSampleRate));
  s->hasRun = 0;
  // Block-rate time constant of the cutoff glide.
  s->glideCoefficient = qor::timeConstantCoefficient(
      std::trunc(static_cast<float>(config->inputSampleRate) /
                 static_cast<float>(config->inputBlockSize)),
      10.0f);
  s->marker = qor::kInitMarker;

  QorMultiBandEqualiserParameters initial = config->parameters;
  if (const Result rc = qorMultiBandEqualiserUpdateParameters(inst, &initial);
      rc != Result::Success) {
    s->marker = 0;
    return rc;
  }
  return Result::Success;
}

Result qorMultiBandEqualiserGetDefaultParameters(QorMultiBandEqualiserParameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  *parameters = {};
  parameters->highPassFrequency = 80.0f;
  parameters->highPassOrder = 0;
  parameters->band1Frequency = 80.0f;
  parameters->band1Gain = 0.0f;
  parameters->band1Q = 1.0f;
  parameters->band2Frequency = 2000.0f;
  parameters->band2Gain = 0.0f;
  parameters->band2Q = 1.0f;
  parameters->band3Frequency = 6000.0f;
  parameters->band3Gain = 0.0f;
  parameters->band3Q = 1.0f;
  parameters->lowPassFrequency = 12000.0f;
  parameters->lowPassOrder = 0;
  parameters->enable = 1;
  parameters->crossfadeTime = 50.5f;  // not 50: the shipped default
  return Result::Success;
}

Result qorMultiBandEqualiserGetParameters(QorMultiBandEqualiserInst* inst,
                                          QorMultiBandEqualiserParameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

Result qorMultiBandEqualiserUpdateParameters(QorMultiBandEqualiserInst* inst,
                                             QorMultiBandEqualiserParameters* parameters) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(*parameters); rc != 0) return result(rc);
  s->parameters = *parameters;
  applyParameters(*s);
  return Result::Success;
}

Result qorMultiBandEqualiserProcess(QorMultiBandEqualiserInst* inst, float** channels) {
  State* s = qor::stateOf<State>(inst);
  const uint32_t channelCount = s != nullptr ? s->header.inputChannels : 0;
  if (const int32_t rc = qor::checkProcess(s, channels, channelCount); rc != 0) return result(rc);

  const bool enabled = s->parameters.enable != 0;
  const float m = s->fade.mix;
  const bool transition = s->fade.transition(enabled);
  if (enabled) {
    s->hasRun = 1;
  } else if (m < 0.00001f) {
    return Result::Success;
  }

  const uint32_t n = s->header.inputBlockSize;
  if (!transition) {
    // Steady state: channel pairs side by side, same result as one by one.
    uint32_t ch = 0;
    for (; ch + 1 < channelCount; ch += 2) filterChannels<2>(*s, ch, channels + ch, n);
    if (ch < channelCount) filterChannels<1>(*s, ch, channels + ch, n);
    return Result::Success;
  }
  const float target = enabled ? 1.0f : 0.0f;
  for (uint32_t ch = 0; ch < channelCount; ++ch) {
    float* x = channels[ch];
    qor::copyBlock(x, s->dry, n);
    filterChannels<1>(*s, ch, channels + ch, n);
    float reached = m;
    qor::crossfade(x, s->dry, x, reached, target, s->fade.coefficient, n);
    if (std::fabs(reached - target) < 0.00001f) reached = target;
    s->fade.mix = reached;
    // Faded fully out: forget the filter history. This runs inside the
    // channel loop, so later channels start this block from silence.
    if (!enabled && m > 0.0f && reached == 0.0f) flushState(*s);
  }
  return Result::Success;
}

Result qorMultiBandEqualiserFlush(QorMultiBandEqualiserInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  flushState(*s);
  return Result::Success;
}

Result qorMultiBandEqualiserRelease(QorMultiBandEqualiserInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  s->marker = 0;
  return Result::Success;
}

Result qorMultiBandEqualiserGetCurrentLatency(QorMultiBandEqualiserInst* inst, int* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  *latency = 0;
  return Result::Success;
}
