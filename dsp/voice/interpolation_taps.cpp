#include "dsp/voice/interpolation_taps.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "dsp/core/cpu_features.h"

// SSE2 is part of every x86-64 target; the AVX kernel is compiled for AVX
// function by function and chosen at run time. No FMA anywhere: a fused
// product would round differently from the other kernels.
#if defined(__SSE2__) || defined(_M_X64)
#define QOR_TAPS_SSE2 1
#include <emmintrin.h>
#else
#define QOR_TAPS_SSE2 0
#endif

#if QOR_TAPS_SSE2 && defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define QOR_TAPS_AVX 1
#include <immintrin.h>
#define QOR_AVX __attribute__((target("avx")))
#else
#define QOR_TAPS_AVX 0
#endif

namespace qor {

namespace {

#if QOR_TAPS_SSE2
// Four slots' weights. A slot at distance d = top - frac input periods reads
// the table at x = min(|d| x scale, end) with one interpolation; the entry
// pair (j, j + 1) comes in one 8-byte load. At or past the end x = end reads
// the last entry with fraction 1, which gives the 0 behind the table.
struct Weights4 {
  __m128 frac, scale, end, last, abs;
  const float* table;

  __m128 at(__m128 top) const {
    const __m128 x = _mm_min_ps(_mm_mul_ps(_mm_and_ps(_mm_sub_ps(top, frac), abs), scale), end);
    const __m128i vj = _mm_cvttps_epi32(_mm_min_ps(x, last));
    const __m128 f = _mm_sub_ps(x, _mm_cvtepi32_ps(vj));
    alignas(16) uint32_t j[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(j), vj);
    __m128 p01 = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(table + j[0]));
    p01 = _mm_loadh_pi(p01, reinterpret_cast<const __m64*>(table + j[1]));
    __m128 p23 = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(table + j[2]));
    p23 = _mm_loadh_pi(p23, reinterpret_cast<const __m64*>(table + j[3]));
    const __m128 a = _mm_shuffle_ps(p01, p23, _MM_SHUFFLE(2, 0, 2, 0));
    const __m128 b = _mm_shuffle_ps(p01, p23, _MM_SHUFFLE(3, 1, 3, 1));
    return _mm_add_ps(a, _mm_mul_ps(f, _mm_sub_ps(b, a)));
  }
};

// Lane sums (l + 4) in lo and hi; then (0 + 2) + (1 + 3), both channels at once.
void storeSums(__m128 lo0, __m128 hi0, __m128 lo1, __m128 hi1, float gain, float* y0, float* y1) {
  const __m128 a0 = _mm_add_ps(lo0, hi0), a1 = _mm_add_ps(lo1, hi1);
  const __m128 pairs = _mm_add_ps(_mm_unpacklo_ps(a0, a1), _mm_unpackhi_ps(a0, a1));
  const __m128 y = _mm_mul_ps(_mm_set1_ps(gain), _mm_add_ps(pairs, _mm_movehl_ps(pairs, pairs)));
  _mm_store_ss(y0, y);
  _mm_store_ss(y1, _mm_shuffle_ps(y, y, _MM_SHUFFLE(1, 1, 1, 1)));
}

// Lanes 0..3 (or 4..7) of the first group that are padding: cleared by mask
// rather than by formula, so they stay 0 whatever the rounding near the end.
__m128 keepMask(int32_t firstLane, int32_t pad) {
  const __m128i lanes = _mm_add_epi32(_mm_set_epi32(3, 2, 1, 0), _mm_set1_epi32(firstLane));
  return _mm_castsi128_ps(_mm_cmpgt_epi32(lanes, _mm_set1_epi32(pad - 1)));
}

void weighAndSumSse2(const TapWindow& t, const float* x0, const float* x1, float* y0, float* y1) {
  const Weights4 weights{_mm_set1_ps(t.frac), _mm_set1_ps(t.scale), _mm_set1_ps(t.end),
                         _mm_set1_ps(t.end - 1.0f), _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF)), t.table};
  const __m128 eight = _mm_set1_ps(8.0f);
  const auto top = static_cast<float>(t.top);
  __m128 topLo = _mm_set_ps(top - 3.0f, top - 2.0f, top - 1.0f, top);
  __m128 topHi = _mm_sub_ps(topLo, _mm_set1_ps(4.0f));
  __m128 lo0 = _mm_setzero_ps(), hi0 = lo0, lo1 = lo0, hi1 = lo0;
  __m128 keepLo = keepMask(0, t.pad), keepHi = keepMask(4, t.pad);
  const __m128 all = _mm_castsi128_ps(_mm_set1_epi32(-1));
  float* w = t.weights;
  const int32_t groups = t.groups;
  for (int32_t g = 0; g < groups; ++g) {
    const __m128 wLo = _mm_and_ps(weights.at(topLo), keepLo);
    const __m128 wHi = _mm_and_ps(weights.at(topHi), keepHi);
    keepLo = keepHi = all;
    topLo = _mm_sub_ps(topLo, eight);
    topHi = _mm_sub_ps(topHi, eight);
    _mm_store_ps(w + 8 * g, wLo);
    _mm_store_ps(w + 8 * g + 4, wHi);
    lo0 = _mm_add_ps(lo0, _mm_mul_ps(wLo, _mm_loadu_ps(x0 + 8 * g)));
    hi0 = _mm_add_ps(hi0, _mm_mul_ps(wHi, _mm_loadu_ps(x0 + 8 * g + 4)));
    lo1 = _mm_add_ps(lo1, _mm_mul_ps(wLo, _mm_loadu_ps(x1 + 8 * g)));
    hi1 = _mm_add_ps(hi1, _mm_mul_ps(wHi, _mm_loadu_ps(x1 + 8 * g + 4)));
  }
  storeSums(lo0, hi0, lo1, hi1, t.gain, y0, y1);
}

void sumWeightedSse2(const float* w, int32_t groups, float gain, const float* x0, const float* x1, float* y0,
                     float* y1) {
  __m128 lo0 = _mm_setzero_ps(), hi0 = lo0, lo1 = lo0, hi1 = lo0;
  for (int32_t g = 0; g < groups; ++g) {
    const __m128 wLo = _mm_load_ps(w + 8 * g), wHi = _mm_load_ps(w + 8 * g + 4);
    lo0 = _mm_add_ps(lo0, _mm_mul_ps(wLo, _mm_loadu_ps(x0 + 8 * g)));
    hi0 = _mm_add_ps(hi0, _mm_mul_ps(wHi, _mm_loadu_ps(x0 + 8 * g + 4)));
    lo1 = _mm_add_ps(lo1, _mm_mul_ps(wLo, _mm_loadu_ps(x1 + 8 * g)));
    hi1 = _mm_add_ps(hi1, _mm_mul_ps(wHi, _mm_loadu_ps(x1 + 8 * g + 4)));
  }
  storeSums(lo0, hi0, lo1, hi1, gain, y0, y1);
}
#endif

float laneSum(const float* a, float gain) {
  return gain * (((a[0] + a[4]) + (a[2] + a[6])) + ((a[1] + a[5]) + (a[3] + a[7])));
}

void weighAndSumScalar(const TapWindow& t, const float* x0, const float* x1, float* y0, float* y1) {
  float a0[8] = {}, a1[8] = {};
  const float last = t.end - 1.0f;
  for (int32_t m = 0; m < 8 * t.groups; ++m) {
    const float x = std::min(std::fabs(static_cast<float>(t.top - m) - t.frac) * t.scale, t.end);
    const auto j = static_cast<uint32_t>(std::min(x, last));
    const float f = x - static_cast<float>(j);
    const float h = m < t.pad ? 0.0f : t.table[j] + f * (t.table[j + 1] - t.table[j]);
    t.weights[m] = h;
    a0[m % 8] += h * x0[m];
    a1[m % 8] += h * x1[m];
  }
  *y0 = laneSum(a0, t.gain);
  *y1 = laneSum(a1, t.gain);
}

void sumWeightedScalar(const float* w, int32_t groups, float gain, const float* x0, const float* x1, float* y0,
                       float* y1) {
  float a0[8] = {}, a1[8] = {};
  for (int32_t m = 0; m < 8 * groups; ++m) {
    a0[m % 8] += w[m] * x0[m];
    a1[m % 8] += w[m] * x1[m];
  }
  *y0 = laneSum(a0, gain);
  *y1 = laneSum(a1, gain);
}

// Where one side of an up-sampling window reads: Nz taps at q + u / Np input
// periods (q = 0, 1, ...), row r of the phase-ordered tables from column
// `shift`. The first n are inside the table; when u reaches a whole period
// the last one falls past it and reads as 0.
struct Side {
  const float* table;
  const float* delta;
  float f;
  int32_t n;
};

Side sideAt(const PhaseWindow& t, float u) {
  auto r = static_cast<uint32_t>(u);
  const float f = u - static_cast<float>(r);
  uint32_t shift = 0;
  if (r >= t.np) {
    r -= t.np;
    shift = 1;
  }
  return {t.table + r * t.nz + shift, t.delta + r * t.nz + shift, f, static_cast<int32_t>(t.nz - shift)};
}

// Slot m of the window holds, with A = pad + Nz the slot of the tap at or
// just after the output instant: tap q = A - 1 - m of the left side for
// A - nL <= m < A, tap q = m - A of the right side for A <= m < A + nR, and
// 0 elsewhere (the padding, taps past the table, and the tap Nz periods
// after the instant, which reads the table's end).
struct PhasedSlots {
  Side left, right;
  int32_t after;
};

PhasedSlots slotsOf(const PhaseWindow& t, float frac) {
  const auto np = static_cast<float>(t.np);
  return {sideAt(t, (1.0f - frac) * np), sideAt(t, frac * np), t.pad + static_cast<int32_t>(t.nz)};
}

void weighPhasedScalar(const PhaseWindow& t, float frac, const float* x0, const float* x1, float* y0,
                       float* y1) {
  const PhasedSlots s = slotsOf(t, frac);
  float a0[8] = {}, a1[8] = {};
  for (int32_t m = 0; m < 8 * t.groups; ++m) {
    float h = 0.0f;
    if (m < s.after && m >= s.after - s.left.n) {
      const int32_t q = s.after - 1 - m;
      h = s.left.table[q] + s.left.f * s.left.delta[q];
    } else if (m >= s.after && m < s.after + s.right.n) {
      const int32_t q = m - s.after;
      h = s.right.table[q] + s.right.f * s.right.delta[q];
    }
    t.weights[m] = h;
    a0[m % 8] += h * x0[m];
    a1[m % 8] += h * x1[m];
  }
  *y0 = laneSum(a0, 1.0f);
  *y1 = laneSum(a1, 1.0f);
}

// The vector kernels build each group of slots in registers: the left
// side's run read backwards, the right side's forwards, each cleared outside
// its slots. The runs are read whole, so they reach up to Nz + 8 entries
// before a table and 8 past it; the converter's instance has its window in
// front of the table, the table in front of the deltas and its other regions
// behind them, and what the runs read there is cleared.
#if QOR_TAPS_SSE2
__m128 reverse4(__m128 v) { return _mm_shuffle_ps(v, v, _MM_SHUFFLE(0, 1, 2, 3)); }

__m128 inRange(__m128 m, int32_t lo, int32_t hi) {
  return _mm_and_ps(_mm_cmpge_ps(m, _mm_set1_ps(static_cast<float>(lo))),
                    _mm_cmplt_ps(m, _mm_set1_ps(static_cast<float>(hi))));
}

// Slots m0 .. m0 + 3, `m` holding their numbers.
__m128 phasedWeights4(const PhasedSlots& s, int32_t m0, __m128 m) {
  const int32_t ql = s.after - 4 - m0, qr = m0 - s.after;
  const __m128 wl = _mm_add_ps(_mm_loadu_ps(s.left.table + ql),
                               _mm_mul_ps(_mm_set1_ps(s.left.f), _mm_loadu_ps(s.left.delta + ql)));
  const __m128 wr = _mm_add_ps(_mm_loadu_ps(s.right.table + qr),
                               _mm_mul_ps(_mm_set1_ps(s.right.f), _mm_loadu_ps(s.right.delta + qr)));
  return _mm_or_ps(_mm_and_ps(reverse4(wl), inRange(m, s.after - s.left.n, s.after)),
                   _mm_and_ps(wr, inRange(m, s.after, s.after + s.right.n)));
}

void weighPhasedSse2(const PhaseWindow& t, float frac, const float* x0, const float* x1, float* y0, float* y1) {
  const PhasedSlots s = slotsOf(t, frac);
  __m128 m = _mm_set_ps(3.0f, 2.0f, 1.0f, 0.0f);
  const __m128 four = _mm_set1_ps(4.0f);
  __m128 lo0 = _mm_setzero_ps(), hi0 = lo0, lo1 = lo0, hi1 = lo0;
  for (int32_t g = 0; g < t.groups; ++g) {
    const __m128 wLo = phasedWeights4(s, 8 * g, m);
    m = _mm_add_ps(m, four);
    const __m128 wHi = phasedWeights4(s, 8 * g + 4, m);
    m = _mm_add_ps(m, four);
    _mm_store_ps(t.weights + 8 * g, wLo);
    _mm_store_ps(t.weights + 8 * g + 4, wHi);
    lo0 = _mm_add_ps(lo0, _mm_mul_ps(wLo, _mm_loadu_ps(x0 + 8 * g)));
    hi0 = _mm_add_ps(hi0, _mm_mul_ps(wHi, _mm_loadu_ps(x0 + 8 * g + 4)));
    lo1 = _mm_add_ps(lo1, _mm_mul_ps(wLo, _mm_loadu_ps(x1 + 8 * g)));
    hi1 = _mm_add_ps(hi1, _mm_mul_ps(wHi, _mm_loadu_ps(x1 + 8 * g + 4)));
  }
  storeSums(lo0, hi0, lo1, hi1, 1.0f, y0, y1);
}
#endif

#if QOR_TAPS_AVX
QOR_AVX inline __m256 reverse8(__m256 v) {
  const __m256 halves = _mm256_permute2f128_ps(v, v, 1);
  return _mm256_shuffle_ps(halves, halves, _MM_SHUFFLE(0, 1, 2, 3));
}

QOR_AVX inline __m256 inRange8(__m256 m, int32_t lo, int32_t hi) {
  return _mm256_and_ps(_mm256_cmp_ps(m, _mm256_set1_ps(static_cast<float>(lo)), _CMP_GE_OQ),
                       _mm256_cmp_ps(m, _mm256_set1_ps(static_cast<float>(hi)), _CMP_LT_OQ));
}

QOR_AVX void weighPhasedAvx(const PhaseWindow& t, float frac, const float* x0, const float* x1, float* y0,
                            float* y1) {
  const PhasedSlots s = slotsOf(t, frac);
  const __m256 fl = _mm256_set1_ps(s.left.f), fr = _mm256_set1_ps(s.right.f);
  const int32_t leftFrom = s.after - s.left.n, rightTo = s.after + s.right.n;
  __m256 m = _mm256_set_ps(7.0f, 6.0f, 5.0f, 4.0f, 3.0f, 2.0f, 1.0f, 0.0f);
  const __m256 eight = _mm256_set1_ps(8.0f);
  __m256 a0 = _mm256_setzero_ps(), a1 = a0;
  for (int32_t g = 0; g < t.groups; ++g) {
    const int32_t ql = s.after - 8 - 8 * g, qr = 8 * g - s.after;
    const __m256 wl = _mm256_add_ps(_mm256_loadu_ps(s.left.table + ql), _mm256_mul_ps(fl, _mm256_loadu_ps(s.left.delta + ql)));
    const __m256 wr =
        _mm256_add_ps(_mm256_loadu_ps(s.right.table + qr), _mm256_mul_ps(fr, _mm256_loadu_ps(s.right.delta + qr)));
    const __m256 w = _mm256_or_ps(_mm256_and_ps(reverse8(wl), inRange8(m, leftFrom, s.after)),
                                  _mm256_and_ps(wr, inRange8(m, s.after, rightTo)));
    m = _mm256_add_ps(m, eight);
    _mm256_store_ps(t.weights + 8 * g, w);
    a0 = _mm256_add_ps(a0, _mm256_mul_ps(w, _mm256_loadu_ps(x0 + 8 * g)));
    a1 = _mm256_add_ps(a1, _mm256_mul_ps(w, _mm256_loadu_ps(x1 + 8 * g)));
  }
  storeSums(_mm256_castps256_ps128(a0), _mm256_extractf128_ps(a0, 1), _mm256_castps256_ps128(a1),
            _mm256_extractf128_ps(a1, 1), 1.0f, y0, y1);
}

QOR_AVX void storeSums8(__m256 a0, __m256 a1, float gain, float* y0, float* y1) {
  storeSums(_mm256_castps256_ps128(a0), _mm256_extractf128_ps(a0, 1), _mm256_castps256_ps128(a1),
            _mm256_extractf128_ps(a1, 1), gain, y0, y1);
}

// The eight-lane weights: the same arithmetic as Weights4, the entry pairs
// loaded as four-lane halves and joined.
QOR_AVX void weighAndSumAvx(const TapWindow& t, const float* x0, const float* x1, float* y0, float* y1) {
  const __m256 frac = _mm256_set1_ps(t.frac), scale = _mm256_set1_ps(t.scale);
  const __m256 end = _mm256_set1_ps(t.end), last = _mm256_set1_ps(t.end - 1.0f);
  const __m256 abs = _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF));
  const __m256 eight = _mm256_set1_ps(8.0f);
  const auto top0 = static_cast<float>(t.top);
  __m256 top = _mm256_sub_ps(_mm256_set1_ps(top0), _mm256_set_ps(7, 6, 5, 4, 3, 2, 1, 0));
  __m256 keep = _mm256_cmp_ps(_mm256_set_ps(7, 6, 5, 4, 3, 2, 1, 0), _mm256_set1_ps(static_cast<float>(t.pad) - 0.5f),
                              _CMP_GT_OQ);
  const __m256 all = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
  const float* table = t.table;
  float* weights = t.weights;
  const int32_t groups = t.groups;
  __m256 a0 = _mm256_setzero_ps(), a1 = a0;
  for (int32_t g = 0; g < groups; ++g) {
    const __m256 x = _mm256_min_ps(_mm256_mul_ps(_mm256_and_ps(_mm256_sub_ps(top, frac), abs), scale), end);
    const __m256i vj = _mm256_cvttps_epi32(_mm256_min_ps(x, last));
    const __m256 f = _mm256_sub_ps(x, _mm256_cvtepi32_ps(vj));
    alignas(32) uint32_t j[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(j), vj);
    __m128 p01 = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(table + j[0]));
    p01 = _mm_loadh_pi(p01, reinterpret_cast<const __m64*>(table + j[1]));
    __m128 p23 = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(table + j[2]));
    p23 = _mm_loadh_pi(p23, reinterpret_cast<const __m64*>(table + j[3]));
    __m128 p45 = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(table + j[4]));
    p45 = _mm_loadh_pi(p45, reinterpret_cast<const __m64*>(table + j[5]));
    __m128 p67 = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(table + j[6]));
    p67 = _mm_loadh_pi(p67, reinterpret_cast<const __m64*>(table + j[7]));
    const __m256 lo = _mm256_insertf128_ps(_mm256_castps128_ps256(p01), p45, 1);
    const __m256 hi = _mm256_insertf128_ps(_mm256_castps128_ps256(p23), p67, 1);
    const __m256 a = _mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(2, 0, 2, 0));
    const __m256 b = _mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(3, 1, 3, 1));
    const __m256 w = _mm256_and_ps(_mm256_add_ps(a, _mm256_mul_ps(f, _mm256_sub_ps(b, a))), keep);
    keep = all;
    top = _mm256_sub_ps(top, eight);
    _mm256_store_ps(weights + 8 * g, w);
    a0 = _mm256_add_ps(a0, _mm256_mul_ps(w, _mm256_loadu_ps(x0 + 8 * g)));
    a1 = _mm256_add_ps(a1, _mm256_mul_ps(w, _mm256_loadu_ps(x1 + 8 * g)));
  }
  storeSums8(a0, a1, t.gain, y0, y1);
}

QOR_AVX void sumWeightedAvx(const float* w, int32_t groups, float gain, const float* x0, const float* x1,
                            float* y0, float* y1) {
  __m256 a0 = _mm256_setzero_ps(), a1 = a0;
  for (int32_t g = 0; g < groups; ++g) {
    const __m256 wv = _mm256_load_ps(w + 8 * g);
    a0 = _mm256_add_ps(a0, _mm256_mul_ps(wv, _mm256_loadu_ps(x0 + 8 * g)));
    a1 = _mm256_add_ps(a1, _mm256_mul_ps(wv, _mm256_loadu_ps(x1 + 8 * g)));
  }
  storeSums8(a0, a1, gain, y0, y1);
}
#endif

// The converter's loop for one block, written once over one instruction
// set's kernels and flattened into that set's entry point, so the kernels'
// setup is hoisted out of the per-output work.
template <auto weigh, auto weighPhased, auto sumWeighted>
class BlockLoop {
 public:
  // Works on a copy: the caller's block is reachable through pointers, so
  // every store to a ring would otherwise make its fields be read again.
  explicit BlockLoop(const ConversionBlock& b)
      : b_(b),
        second_(b.channels > 1 ? 1 : 0),
        length_(static_cast<int32_t>(b.rings[0].length)),
        ring0_(b.rings[0].data),
        ring1_(b.rings[second_].data) {}

  uint32_t run(float* const* in, float* const* out, ConversionBlock& result) {
    const uint32_t inCount = b_.inCount, outCount = b_.outCount;
    float accumulator = b_.accumulator;
    int32_t writePosition = b_.writePosition;
    uint32_t i = 0, o = 0;
    copyAhead(in, 0, writePosition);
    for (;;) {
      // Produce while the ring holds enough; the need is recomputed after the
      // last output too, so it is current when feeding.
      Position p = position(accumulator, writePosition);
      while (p.need == 0 && o < outCount) {
        produce(out, o, p);
        o += 1;
        accumulator -= b_.outputPeriod;
        p = position(accumulator, writePosition);
      }
      if (p.need < 0) break;
      // Feeding happens once more after the block's last output (need may
      // then be 0).
      const uint32_t end = i + std::min(static_cast<uint32_t>(p.need), inCount - i);
      for (; i < end; ++i) {
        accumulator += b_.period;
        writePosition += 1;
        if (writePosition == length_) {
          writePosition = slide();
          copyAhead(in, i + 1, writePosition);
        }
      }
      if (o == outCount || i == inCount) break;
    }
    result.accumulator = accumulator;
    result.writePosition = writePosition;
    return o;
  }

 private:
  struct Position {
    int32_t need;   // input samples the next output still needs; 0: it can be made, -1: never
    int32_t first;  // ring index of the window's slot 0
    float frac;
  };

  // The output instant lies t input periods behind the newest input.
  Position position(float accumulator, int32_t writePosition) const {
    const float t = accumulator / b_.period;
    // t is never negative: an output is made only H or more periods behind
    // the newest input and moves the instant on by inRate / outRate periods,
    // at most H / Nz. So truncation is the floor.
    const auto n = static_cast<int32_t>(t);
    if (n < b_.half) return {b_.half - n, 0, 0.0f};
    // Behind the samples a slide keeps: never reached (the converter sizes
    // what a slide keeps for the furthest an output reaches back).
    const int32_t first = writePosition - n - b_.half - b_.window.pad;
    if (first < 0) return {-1, 0, 0.0f};
    return {0, first, t - static_cast<float>(n)};
  }

  // Slot m of the window (m = 0 the oldest) holds tap 2H + P - m, P being
  // the padding, which sits (H + P - m - frac) input periods from the output
  // instant.
  void produce(float* const* out, uint32_t o, const Position& p) {
    if (b_.phased) {
      weighPhased(b_.phase, p.frac, ring0_ + p.first, ring1_ + p.first, out[0] + o, out[second_] + o);
    } else {
      b_.window.frac = p.frac;
      weigh(b_.window, ring0_ + p.first, ring1_ + p.first, out[0] + o, out[second_] + o);
    }
    for (uint32_t c = 2; c < b_.channels; c += 2) {
      const uint32_t next = c + 1 < b_.channels ? c + 1 : c;
      sumWeighted(b_.window.weights, b_.window.groups, b_.window.gain, b_.rings[c].data + p.first,
                  b_.rings[next].data + p.first, out[c] + o, out[next] + o);
    }
  }

  // Pushing a sample only moves the write position: the samples are copied
  // into the rings ahead of it in bulk, from input sample i on as far as the
  // rings reach. Nothing reads a ring past the write position, and a window
  // then never loads samples stored a moment before one by one, which would
  // wait for those stores to land.
  void copyAhead(float* const* in, uint32_t i, int32_t writePosition) {
    const uint32_t n = std::min(static_cast<uint32_t>(length_ - writePosition), b_.inCount - i);
    for (uint32_t c = 0; c < b_.channels; ++c) {
      std::memcpy(b_.rings[c].data + writePosition, in[c] + i, sizeof(float) * n);
    }
  }

  // A ring that fills up slides its newest samples back to the start;
  // returns the write position after the move.
  int32_t slide() {
    for (uint32_t c = 0; c < b_.channels; ++c) {
      float* ring = b_.rings[c].data;
      std::memmove(ring, ring + (length_ - b_.kept), sizeof(float) * static_cast<size_t>(b_.kept));
    }
    return b_.kept;
  }

  ConversionBlock b_;
  uint32_t second_;  // the second channel, or the first again when there is one
  int32_t length_;
  float* ring0_;
  float* ring1_;
};

__attribute__((flatten)) uint32_t convertScalar(ConversionBlock& b, float* const* in, float* const* out) {
  return BlockLoop<weighAndSumScalar, weighPhasedScalar, sumWeightedScalar>(b).run(in, out, b);
}

#if QOR_TAPS_SSE2
__attribute__((flatten)) uint32_t convertSse2(ConversionBlock& b, float* const* in, float* const* out) {
  return BlockLoop<weighAndSumSse2, weighPhasedSse2, sumWeightedSse2>(b).run(in, out, b);
}
#endif

#if QOR_TAPS_AVX
QOR_AVX __attribute__((flatten)) uint32_t convertAvx(ConversionBlock& b, float* const* in, float* const* out) {
  return BlockLoop<weighAndSumAvx, weighPhasedAvx, sumWeightedAvx>(b).run(in, out, b);
}
#endif

}  // namespace

uint32_t phaseIndex(uint32_t i, uint32_t nz, uint32_t np) {
  // The entry after the last whole zero crossing, when the table has it, stays last.
  return i >= nz * np ? i : (i % np) * nz + i / np;
}

TapKernel bestTapKernel() {
  if (tapKernelAvailable(TapKernel::Avx)) return TapKernel::Avx;
  return tapKernelAvailable(TapKernel::Sse2) ? TapKernel::Sse2 : TapKernel::Scalar;
}

bool tapKernelAvailable(TapKernel kernel) {
  switch (kernel) {
    case TapKernel::Scalar:
      return true;
    case TapKernel::Sse2:
      return QOR_TAPS_SSE2 != 0;
    case TapKernel::Avx:
#if QOR_TAPS_AVX
      return avxUsable();
#else
      return false;
#endif
  }
  return false;
}

uint32_t convertBlock(TapKernel kernel, ConversionBlock& block, float* const* in, float* const* out) {
#if QOR_TAPS_AVX
  if (kernel == TapKernel::Avx) return convertAvx(block, in, out);
#endif
#if QOR_TAPS_SSE2
  if (kernel != TapKernel::Scalar) return convertSse2(block, in, out);
#endif
  static_cast<void>(kernel);
  return convertScalar(block, in, out);
}

}  // namespace qor
