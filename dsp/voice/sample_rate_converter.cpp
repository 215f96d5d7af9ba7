#include "dsp/voice/sample_rate_converter.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "dsp/core/instance.h"

// SSE2 is part of every x86-64 target; other targets take the scalar twins,
// which compute the same operations in the same order.
#if (defined(__SSE2__) || defined(_M_X64)) && !defined(QOR_SCALAR_ONLY)
#define QOR_SRC_SSE2 1
#include <emmintrin.h>
#else
#define QOR_SRC_SSE2 0
#endif

namespace QorSampleRateConverter_API_V1 {

namespace {

using Result = QorSampleRateConverterResult;

constexpr uint32_t kMinRate = 1000, kMaxRate = 192000;
constexpr uint32_t kMinBlock = 32, kMaxBlock = 4096;
constexpr size_t kHeaderBytes = 192;
// Drift is judged over this many calls.
constexpr int32_t kDriftCalls = 200;

struct Ring {
  float* data;
  float samplePeriod;  // seconds per input sample
  uint32_t length;     // 8H
  uint32_t writePosition;
};
static_assert(sizeof(Ring) == 24);

struct State {
  qor::ConfigHeader header;
  QorSampleRateConverterParameters parameters;
  uint64_t marker;
  float* window;
  float* table;
  float* delta;
  float* accumulators;
  // Per-channel tap regions. The taps are read from the ring in place and
  // the weights are shared by all channels, so only the first channel's
  // slice of tapOffsets is used, for the current output's weights.
  float* tapSamples;
  float* tapOffsets;
  Ring* rings;
  uint32_t tableLength;  // T, always odd
  float ratio;           // outputRate / inputRate
  uint32_t halfWidth;    // H
  uint32_t taps;         // 2H + 1
  // Drift correction.
  int32_t calls;
  int32_t inputTotal;
  int32_t outputTotal;
  int32_t correction;
  double carry;
};
static_assert(sizeof(State) <= kHeaderBytes);

Result result(int32_t code) { return static_cast<Result>(code); }

bool rateOutside(uint32_t rate) { return rate < kMinRate || rate > kMaxRate; }
bool blockOutside(uint32_t block) { return block < kMinBlock || block > kMaxBlock; }

uint32_t outputBlockFor(uint32_t inRate, uint32_t inBlock, uint32_t outRate) {
  const float product = static_cast<float>(outRate) / static_cast<float>(inRate) * static_cast<float>(inBlock);
  return static_cast<uint32_t>(std::ceil(static_cast<double>(product)));
}

int32_t validate(const QorSampleRateConverterConfig& c) {
  if (rateOutside(c.inputSampleRate) || rateOutside(c.outputSampleRate)) return qor::ErrorSampleRate;
  if (blockOutside(c.inputBlockSize) || blockOutside(c.outputBlockSize)) return qor::ErrorBlockSize;
  if (c.outputBlockSize != outputBlockFor(c.inputSampleRate, c.inputBlockSize, c.outputSampleRate)) {
    return static_cast<int32_t>(Result::ErrorOutputBlockSize);
  }
  if (c.inputChannels == 0) return qor::ErrorInputChannels;
  if (c.outputChannels != c.inputChannels) return qor::ErrorOutputChannels;
  const QorSampleRateConverterParameters& p = c.parameters;
  if (p.numZeroCrossings < 2 || p.numZeroCrossings > 100) {
    return static_cast<int32_t>(Result::ErrorNumZeroCrossings);
  }
  if (p.samplesPerZeroCrossing < 32 || p.samplesPerZeroCrossing > 2048) {
    return static_cast<int32_t>(Result::ErrorSamplesPerZeroCrossing);
  }
  if (qor::outOfRange(p.kaiserBeta, 1.0f, 25.0f)) return static_cast<int32_t>(Result::ErrorKaiserBeta);
  return qor::Success;
}

struct Shape {
  uint32_t tableLength;
  uint32_t halfWidth;
};

Shape shapeOf(const QorSampleRateConverterConfig& c) {
  const uint32_t nz = c.parameters.numZeroCrossings;
  uint32_t t = nz * c.parameters.samplesPerZeroCrossing;
  if (t % 2 == 0) t += 1;
  uint32_t h = 0;
  if (c.inputSampleRate < c.outputSampleRate) {
    h = nz;
  } else if (c.inputSampleRate > c.outputSampleRate) {
    // The kernel stretches by the rate ratio so its cut-off follows the output rate.
    const float span = static_cast<float>(c.inputSampleRate) * static_cast<float>(nz) /
                       static_cast<float>(c.outputSampleRate);
    h = static_cast<uint32_t>(std::ceil(span));
  }
  return {t, h};
}

size_t layOut(void* base, const QorSampleRateConverterConfig& config, State** out) {
  const Shape shape = shapeOf(config);
  const size_t channels = config.inputChannels;
  const size_t taps = 2 * static_cast<size_t>(shape.halfWidth) + 1;
  const size_t ringLength = 8 * static_cast<size_t>(shape.halfWidth);

  qor::InstanceLayout lay(base);
  auto* s = static_cast<State*>(lay.takeBytes(kHeaderBytes));
  float* window = lay.take<float>(shape.tableLength);
  float* table = lay.take<float>(shape.tableLength);
  float* delta = lay.take<float>(shape.tableLength);
  float* accumulators = lay.take<float>(channels);
  float* tapSamples = lay.take<float>(channels * taps);
  float* tapOffsets = lay.take<float>(channels * taps);
  Ring* rings = lay.take<Ring>(channels);
  for (size_t c = 0; c < channels; ++c) {
    float* storage = lay.take<float>(ringLength);
    if (rings != nullptr) rings[c].data = storage;
  }
  if (s != nullptr) {
    s->window = window;
    s->table = table;
    s->delta = delta;
    s->accumulators = accumulators;
    s->tapSamples = tapSamples;
    s->tapOffsets = tapOffsets;
    s->rings = rings;
    s->tableLength = shape.tableLength;
    s->halfWidth = shape.halfWidth;
    s->taps = static_cast<uint32_t>(taps);
    *out = s;
  }
  return lay.size();
}

// Zeroth-order modified Bessel function of the first kind, by the classic
// polynomial fits (accurate to about 2e-7 relative).
double besselI0(double x) {
  const double ax = std::fabs(x);
  if (ax < 3.75) {
    const double y = (x / 3.75) * (x / 3.75);
    return 1.0 + y * (3.5156229 + y * (3.0899424 + y * (1.2067492 + y * (0.2659732 +
           y * (0.0360768 + y * 0.0045813)))));
  }
  const double y = 3.75 / ax;
  return (std::exp(ax) / std::sqrt(ax)) *
         (0.39894228 + y * (0.01328592 + y * (0.00225319 + y * (-0.00157565 + y * (0.00916281 +
          y * (-0.02057706 + y * (0.02635537 + y * (-0.01647633 + y * 0.00392377))))))));
}

void buildKernel(State& s) {
  const uint32_t t = s.tableLength;
  const double beta = s.parameters.kaiserBeta;
  const double norm = besselI0(beta);
  for (uint32_t i = 0; i < t; ++i) {
    // Right half of a window of 2T - 1 points: x runs from 0 at the centre to 1.
    const double n = static_cast<double>(i) + static_cast<double>(t) - 1.0;
    const double x = t > 1 ? 2.0 * n / (2.0 * static_cast<double>(t) - 2.0) - 1.0 : 0.0;
    const double arg = std::max(0.0, 1.0 - x * x);
    s.window[i] = static_cast<float>(besselI0(beta * std::sqrt(arg)) / norm);
  }
  const float step = 3.1415927f / static_cast<float>(s.parameters.samplesPerZeroCrossing);
  s.table[0] = 1.0f;
  for (uint32_t i = 1; i < t; ++i) {
    const float u = static_cast<float>(i) * step;
    s.table[i] = static_cast<float>(std::sin(static_cast<double>(u)) / static_cast<double>(u) *
                                    static_cast<double>(s.window[i]));
  }
  // T is odd, so the table's 32-byte region has room for a zero after the
  // last entry; the last delta is then also a neighbour difference.
  s.table[t] = 0.0f;
  for (uint32_t i = 0; i < t; ++i) s.delta[i] = s.table[i + 1] - s.table[i];
}

// Taps are read as whole vectors of four; the slots in front of the oldest
// tap that round them up carry zero weight.
uint32_t padOf(uint32_t taps) { return (4 - taps % 4) % 4; }

// The rings are read as straight runs: when the write position reaches the
// end, the newest samples an output can still reach are moved back to the
// start, so a window never wraps. An output lies at most 2H + 1 samples
// behind the newest input (right after Init or Flush), so it reaches back
// 3H + 1 samples, plus the padding.
uint32_t keptOf(uint32_t halfWidth, uint32_t taps) { return 3 * halfWidth + 1 + padOf(taps); }

// Puts every channel into the just-initialised audio state: a zeroed ring
// primed with 2H + 1 zeros, so the first output can be computed at once. The
// zeros are pushed ending at the kept length, where the write position stands
// after a slide.
void resetChannels(State& s) {
  const uint32_t channels = s.header.inputChannels;
  const float period = 1.0f / static_cast<float>(s.header.inputSampleRate);
  const uint32_t ringLength = 8 * s.halfWidth;
  std::memset(s.tapSamples, 0, sizeof(float) * channels * s.taps);
  std::memset(s.tapOffsets, 0, sizeof(float) * channels * s.taps);
  for (uint32_t c = 0; c < channels; ++c) {
    Ring& ring = s.rings[c];
    if (ringLength > 0) std::memset(ring.data, 0, sizeof(float) * ringLength);
    ring.length = ringLength;
    ring.samplePeriod = period;
    ring.writePosition = 0;
    s.accumulators[c] = 0.0f;
    // Equal rates keep no ring.
    if (ringLength == 0) continue;
    ring.writePosition = keptOf(s.halfWidth, s.taps) - s.taps;
    for (uint32_t k = 0; k < s.taps; ++k) {
      s.accumulators[c] += period;
      ring.writePosition += 1;
    }
  }
}

// Converts one block of every channel. All channels see the same sequence
// of pushes and outputs, so their accumulators and write positions stay
// equal; the positions and tap weights are worked out once per output and
// applied to every channel, two channels per pass.
class BlockConverter {
 public:
  explicit BlockConverter(State& s)
      : s_(s),
        channels_(s.header.inputChannels),
        second_(s.header.inputChannels > 1 ? 1 : 0),
        ring0_(s.rings[0].data),
        ring1_(s.rings[second_].data),
        length_(static_cast<int32_t>(s.rings[0].length)),
        half_(static_cast<int32_t>(s.halfWidth)),
        pad_(static_cast<int32_t>(padOf(s.taps))),
        groups_(static_cast<int32_t>((s.taps + padOf(s.taps)) / 4)),
        kept_(static_cast<int32_t>(keptOf(s.halfWidth, s.taps))),
        period_(s.rings[0].samplePeriod),
        outputPeriod_(1.0f / static_cast<float>(s.header.outputSampleRate)),
        // Up-sampling measures the kernel in input samples; down-sampling in
        // output samples, which stretches it to the lower cut-off.
        scale_(static_cast<float>(s.header.outputSampleRate > s.header.inputSampleRate
                                      ? s.header.inputSampleRate
                                      : s.header.outputSampleRate) *
               s.rings[0].samplePeriod * static_cast<float>(s.parameters.samplesPerZeroCrossing)),
        end_(static_cast<float>(s.tableLength)),
        gain_(s.header.outputSampleRate > s.header.inputSampleRate ? 1.0f : s.ratio),
        weights_(s.tapOffsets),
        accumulator_(s.accumulators[0]),
        writePosition_(static_cast<int32_t>(s.rings[0].writePosition)) {}

  uint32_t run(float* const* in, float* const* out) {
    const uint32_t inCount = s_.header.inputBlockSize;
    const uint32_t outCount = s_.header.outputBlockSize;
    uint32_t i = 0, o = 0;
    for (;;) {
      // Produce while the ring holds enough; the need is recomputed after the
      // last output too, so it is current when feeding.
      int32_t need = position();
      while (need == 0 && o < outCount) {
        produce(out, o);
        o += 1;
        accumulator_ -= outputPeriod_;
        need = position();
      }
      if (need < 0) break;
      const uint32_t n = std::min(static_cast<uint32_t>(need), inCount - i);
      push(in, i, n);
      i += n;
      if (o == outCount || i == inCount) break;
    }
    for (uint32_t c = 0; c < channels_; ++c) {
      s_.accumulators[c] = accumulator_;
      s_.rings[c].writePosition = static_cast<uint32_t>(writePosition_);
    }
    return o;
  }

 private:
  // How many more input samples the next output needs (0: it can be made).
  // The output instant lies t input periods behind the newest input.
  int32_t position() {
    const float t = accumulator_ / period_;
    // floor without the library call (baseline x86-64 has no round
    // instruction): truncate, then step down for negative fractions.
    int32_t n = static_cast<int32_t>(t);
    n -= t < static_cast<float>(n) ? 1 : 0;
    if (n < half_) return half_ - n;
    // Behind the kept samples: never reached, see keptOf.
    first_ = writePosition_ - n - half_ - pad_;
    if (first_ < 0) return -1;
    frac_ = t - static_cast<float>(n);
    return 0;
  }

  // Slot m of the window (m = 0 the oldest) holds tap 2H + P - m, P being
  // the padding, which sits (H + P - m - frac) input periods from the output
  // instant. Each weight is the table read with linear interpolation, the
  // delta being the difference to the next entry (one 8-byte read).
  // Positions at or past the table's end read the last entry with fraction
  // 1, which is exactly 0 because the entry after the last is 0. The weights
  // are kept for further channels while the first two are summed in the same
  // pass; lanes are added (0 + 2) + (1 + 3).
  void weighAndSum(const float* x0, const float* x1, float* y0, float* y1) {
    float* w = weights_;
    const float frac = frac_, scale = scale_, end = end_, last = end_ - 1.0f;
    const float* table = s_.table;
    const int32_t top = half_ + pad_;
#if QOR_SRC_SSE2
    const __m128 vFrac = _mm_set1_ps(frac), vScale = _mm_set1_ps(scale);
    const __m128 vEnd = _mm_set1_ps(end), vLast = _mm_set1_ps(last);
    const __m128 vAbs = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    const __m128 vFour = _mm_set1_ps(4.0f);
    __m128 vTop = _mm_set_ps(static_cast<float>(top - 3), static_cast<float>(top - 2),
                             static_cast<float>(top - 1), static_cast<float>(top));
    __m128 a0 = _mm_setzero_ps(), a1 = _mm_setzero_ps();
    // The padding is cleared by mask rather than by formula, so it stays 0
    // whatever the rounding near the kernel's end.
    __m128 keep = _mm_castsi128_ps(_mm_cmpgt_epi32(_mm_set_epi32(3, 2, 1, 0), _mm_set1_epi32(pad_ - 1)));
    for (int32_t g = 0; g < groups_; ++g) {
      const __m128 x = _mm_min_ps(_mm_mul_ps(_mm_and_ps(_mm_sub_ps(vTop, vFrac), vAbs), vScale), vEnd);
      const __m128i vj = _mm_cvttps_epi32(_mm_min_ps(x, vLast));
      const __m128 f = _mm_sub_ps(x, _mm_cvtepi32_ps(vj));
      const auto j0 = static_cast<uint32_t>(_mm_cvtsi128_si32(vj));
      const auto j1 = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_shuffle_epi32(vj, _MM_SHUFFLE(1, 1, 1, 1))));
      const auto j2 = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_shuffle_epi32(vj, _MM_SHUFFLE(2, 2, 2, 2))));
      const auto j3 = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_shuffle_epi32(vj, _MM_SHUFFLE(3, 3, 3, 3))));
      __m128 p01 = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(table + j0));
      p01 = _mm_loadh_pi(p01, reinterpret_cast<const __m64*>(table + j1));
      __m128 p23 = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(table + j2));
      p23 = _mm_loadh_pi(p23, reinterpret_cast<const __m64*>(table + j3));
      const __m128 a = _mm_shuffle_ps(p01, p23, _MM_SHUFFLE(2, 0, 2, 0));
      const __m128 b = _mm_shuffle_ps(p01, p23, _MM_SHUFFLE(3, 1, 3, 1));
      const __m128 wv = _mm_and_ps(_mm_add_ps(a, _mm_mul_ps(f, _mm_sub_ps(b, a))), keep);
      keep = _mm_castsi128_ps(_mm_set1_epi32(-1));
      vTop = _mm_sub_ps(vTop, vFour);
      _mm_store_ps(w + 4 * g, wv);
      a0 = _mm_add_ps(a0, _mm_mul_ps(wv, _mm_loadu_ps(x0 + 4 * g)));
      a1 = _mm_add_ps(a1, _mm_mul_ps(wv, _mm_loadu_ps(x1 + 4 * g)));
    }
    storeSums(a0, a1, gain_, y0, y1);
#else
    float a0[4] = {}, a1[4] = {};
    for (int32_t m = 0; m < 4 * groups_; ++m) {
      const float x = std::min(std::fabs(static_cast<float>(top - m) - frac) * scale, end);
      const auto j = static_cast<uint32_t>(std::min(x, last));
      const float f = x - static_cast<float>(j);
      const float h = m < pad_ ? 0.0f : table[j] + f * (table[j + 1] - table[j]);
      w[m] = h;
      a0[m % 4] += h * x0[m];
      a1[m % 4] += h * x1[m];
    }
    *y0 = gain_ * ((a0[0] + a0[2]) + (a0[1] + a0[3]));
    *y1 = gain_ * ((a1[0] + a1[2]) + (a1[1] + a1[3]));
#endif
  }

#if QOR_SRC_SSE2
  // Lanes (a0[0] + a0[2], a1[0] + a1[2], a0[1] + a0[3], a1[1] + a1[3]), then
  // the two halves added.
  static void storeSums(__m128 a0, __m128 a1, float gain, float* y0, float* y1) {
    const __m128 pairs = _mm_add_ps(_mm_unpacklo_ps(a0, a1), _mm_unpackhi_ps(a0, a1));
    const __m128 y = _mm_mul_ps(_mm_set1_ps(gain), _mm_add_ps(pairs, _mm_movehl_ps(pairs, pairs)));
    _mm_store_ss(y0, y);
    _mm_store_ss(y1, _mm_shuffle_ps(y, y, _MM_SHUFFLE(1, 1, 1, 1)));
  }
#endif

  // One output sample of every channel from the window starting at first_.
  // A single channel is summed twice rather than taking a path of its own.
  void produce(float* const* out, uint32_t o) {
    weighAndSum(ring0_ + first_, ring1_ + first_, out[0] + o, out[second_] + o);
    for (uint32_t c = 2; c < channels_; c += 2) {
      const uint32_t next = c + 1 < channels_ ? c + 1 : c;
      dot2(weights_, s_.rings[c].data + first_, s_.rings[next].data + first_, groups_, gain_, out[c] + o,
           out[next] + o);
    }
  }

  // Two channels' weighted sums with one load of each weight vector. Every
  // lane sums its own slots; lanes are added (0 + 2) + (1 + 3).
  static void dot2(const float* w, const float* x0, const float* x1, int32_t groups, float gain, float* y0,
                   float* y1) {
#if QOR_SRC_SSE2
    __m128 a0 = _mm_setzero_ps(), a1 = _mm_setzero_ps();
    for (int32_t g = 0; g < groups; ++g) {
      const __m128 wv = _mm_load_ps(w + 4 * g);
      a0 = _mm_add_ps(a0, _mm_mul_ps(wv, _mm_loadu_ps(x0 + 4 * g)));
      a1 = _mm_add_ps(a1, _mm_mul_ps(wv, _mm_loadu_ps(x1 + 4 * g)));
    }
    storeSums(a0, a1, gain, y0, y1);
#else
    float a0[4] = {}, a1[4] = {};
    for (int32_t g = 0; g < groups; ++g) {
      for (int32_t l = 0; l < 4; ++l) {
        a0[l] += w[4 * g + l] * x0[4 * g + l];
        a1[l] += w[4 * g + l] * x1[4 * g + l];
      }
    }
    *y0 = gain * ((a0[0] + a0[2]) + (a0[1] + a0[3]));
    *y1 = gain * ((a1[0] + a1[2]) + (a1[1] + a1[3]));
#endif
  }

  // Appends n samples of every channel from input index i (usually one or
  // two); the accumulator grows by one input period per sample. A ring that
  // fills up slides its newest samples back to the start. The first two
  // rings are written through pointers held for the block.
  void push(float* const* in, uint32_t i, uint32_t n) {
    const float* in0 = in[0];
    const float* in1 = in[second_];
    for (uint32_t k = i; k < i + n; ++k) {
      ring0_[writePosition_] = in0[k];
      ring1_[writePosition_] = in1[k];
      for (uint32_t c = 2; c < channels_; ++c) s_.rings[c].data[writePosition_] = in[c][k];
      accumulator_ += period_;
      writePosition_ += 1;
      if (writePosition_ == length_) slide();
    }
  }

  void slide() {
    const auto moved = sizeof(float) * static_cast<size_t>(kept_);
    for (uint32_t c = 0; c < channels_; ++c) {
      float* ring = s_.rings[c].data;
      std::memmove(ring, ring + (length_ - kept_), moved);
    }
    writePosition_ = kept_;
  }

  State& s_;
  uint32_t channels_;
  uint32_t second_;  // the second channel, or the first again when there is one
  float* ring0_;
  float* ring1_;
  int32_t length_;
  int32_t half_;
  int32_t pad_;
  int32_t groups_;
  int32_t kept_;
  float period_;
  float outputPeriod_;
  float scale_;  // table entries per input period
  float end_;
  float gain_;
  float* weights_;
  float accumulator_;
  int32_t writePosition_;
  int32_t first_ = 0;
  float frac_ = 0.0f;
};

// Keeps the long-run output count at the exact count by adding or dropping
// one sample when it strays by more than one.
uint32_t correctDrift(State& s, float** output, uint32_t o) {
  s.calls += 1;
  // Totals wrap rather than overflow when no correction resets them for hours.
  s.inputTotal = static_cast<int32_t>(static_cast<uint32_t>(s.inputTotal) + s.header.inputBlockSize);
  s.outputTotal = static_cast<int32_t>(static_cast<uint32_t>(s.outputTotal) + o);
  if (s.calls >= kDriftCalls) {
    const double expected = static_cast<double>(s.header.outputSampleRate) /
                                static_cast<double>(s.header.inputSampleRate) * s.inputTotal +
                            s.carry;
    const double whole = std::floor(expected);
    if (whole > static_cast<double>(s.outputTotal) + 1.0) {
      s.correction -= 1;
      s.outputTotal = -1;
      s.inputTotal = 0;
      s.carry = expected - whole;
    } else if (static_cast<double>(s.outputTotal) - 1.0 > std::ceil(expected)) {
      s.correction += 1;
      s.outputTotal = 1;
      s.inputTotal = 0;
      s.carry = expected - whole;
    }
    s.calls = 0;
  }
  if (s.correction < 0 && o > 0 && o < s.header.outputBlockSize) {
    for (uint32_t c = 0; c < s.header.inputChannels; ++c) output[c][o] = output[c][o - 1];
    o += 1;
    s.correction += 1;
  }
  if (s.correction > 0 && o > 0) {
    o -= 1;
    s.correction -= 1;
  }
  return o;
}

int32_t checkChannels(float* const* channels, uint32_t count) {
  for (uint32_t c = 0; c < count; ++c) {
    if (channels[c] == nullptr) return qor::ErrorNullPointer;
    if (!qor::isAligned32(channels[c])) return qor::ErrorMisaligned;
  }
  return qor::Success;
}

}  // namespace

Result qorSampleRateConverterComputeOutputBlockSize(uint32_t inputSampleRate, uint32_t inputBlockSize,
                                                    uint32_t outputSampleRate, uint32_t* outputBlockSize) {
  if (rateOutside(inputSampleRate) || rateOutside(outputSampleRate)) return Result::ErrorSampleRate;
  if (blockOutside(inputBlockSize)) return Result::ErrorBlockSize;
  *outputBlockSize = outputBlockFor(inputSampleRate, inputBlockSize, outputSampleRate);
  return Result::Success;
}

Result qorSampleRateConverterGetDefaultParameters(QorSampleRateConverterParameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  *parameters = {10, 512, 5.0f};
  return Result::Success;
}

Result qorSampleRateConverterGetInstanceSize(const QorSampleRateConverterConfig* config, size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (const int32_t rc = validate(*config); rc != 0) return result(rc);
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorSampleRateConverterInit(QorSampleRateConverterInst* inst, const QorSampleRateConverterConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (const int32_t rc = validate(*config); rc != 0) return result(rc);

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  s->ratio = static_cast<float>(config->outputSampleRate) / static_cast<float>(config->inputSampleRate);
  buildKernel(*s);
  resetChannels(*s);
  s->calls = 0;
  s->inputTotal = 0;
  s->outputTotal = 0;
  s->correction = 0;
  s->carry = 0.0;
  s->marker = qor::kInitMarker;
  return Result::Success;
}

Result qorSampleRateConverterProcess(QorSampleRateConverterInst* inst, float** input, float** output,
                                     uint32_t* outputCount) {
  State* s = qor::stateOf<State>(inst);
  if (s == nullptr || input == nullptr || output == nullptr || outputCount == nullptr) {
    return Result::ErrorNullPointer;
  }
  if (!qor::isAligned32(s)) return Result::ErrorMisaligned;
  const uint32_t channels = s->header.inputChannels;
  if (const int32_t rc = checkChannels(input, channels); rc != 0) return result(rc);
  if (const int32_t rc = checkChannels(output, channels); rc != 0) return result(rc);
  if (s->marker != qor::kInitMarker) return Result::ErrorNotInitialised;

  const uint32_t inCount = s->header.inputBlockSize;
  if (s->halfWidth == 0) {
    for (uint32_t c = 0; c < channels; ++c) {
      if (output[c] != input[c]) std::memcpy(output[c], input[c], sizeof(float) * inCount);
    }
    *outputCount = inCount;
    return Result::Success;
  }

  BlockConverter converter(*s);
  const uint32_t produced = converter.run(input, output);
  *outputCount = correctDrift(*s, output, produced);
  return Result::Success;
}

Result qorSampleRateConverterFlush(QorSampleRateConverterInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  resetChannels(*s);
  return Result::Success;
}

Result qorSampleRateConverterGetParameters(QorSampleRateConverterInst* inst,
                                           QorSampleRateConverterParameters* parameters) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  *parameters = s->parameters;
  return Result::Success;
}

Result qorSampleRateConverterGetCurrentLatency(QorSampleRateConverterInst* inst, int32_t* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  const uint32_t inRate = s->header.inputSampleRate, outRate = s->header.outputSampleRate;
  const auto nz = static_cast<int32_t>(s->parameters.numZeroCrossings);
  if (inRate == outRate) {
    *latency = 0;
  } else if (inRate > outRate) {
    *latency = 2 * nz + 1;
  } else {
    const float span = static_cast<float>(outRate) / static_cast<float>(inRate) * static_cast<float>(nz);
    *latency = static_cast<int32_t>(2.0f * span + 2.0f);
  }
  return Result::Success;
}

Result qorSampleRateConverterRelease(QorSampleRateConverterInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  s->marker = 0;
  return Result::Success;
}

}  // namespace QorSampleRateConverter_API_V1
