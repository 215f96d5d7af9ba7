#include "dsp/core/peak_detector.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qor {

namespace {

// max(peak, |x[i]|) over the span. The compiler will not vectorise a float
// max reduction without fast-math, so it is written out: every value is
// non-negative and a NaN sample is skipped in both forms (x > m is false), so
// the result equals the plain loop's.
float channelPeak(const float* x, uint32_t n, float peak) {
  uint32_t i = 0;
#if defined(__SSE2__)
  if (n >= 16) {
    const __m128 absMask = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    __m128 m0 = _mm_set1_ps(peak), m1 = m0, m2 = m0, m3 = m0;
    for (; i + 16 <= n; i += 16) {
      // maxps(a, b) is a > b ? a : b, so the sample goes first.
      m0 = _mm_max_ps(_mm_and_ps(_mm_loadu_ps(x + i), absMask), m0);
      m1 = _mm_max_ps(_mm_and_ps(_mm_loadu_ps(x + i + 4), absMask), m1);
      m2 = _mm_max_ps(_mm_and_ps(_mm_loadu_ps(x + i + 8), absMask), m2);
      m3 = _mm_max_ps(_mm_and_ps(_mm_loadu_ps(x + i + 12), absMask), m3);
    }
    m0 = _mm_max_ps(_mm_max_ps(m0, m1), _mm_max_ps(m2, m3));
    alignas(16) float lanes[4];
    _mm_store_ps(lanes, m0);
    peak = std::max(std::max(lanes[0], lanes[1]), std::max(lanes[2], lanes[3]));
  }
#endif
  for (; i < n; ++i) peak = std::max(peak, std::fabs(x[i]));
  return peak;
}

// The crest test compares L * max against multiples of the entries' sum
// taken in index order. That sum is one long chain of dependent adds, so a
// lane-parallel sum is tried first: the two sums differ by at most about
// 1.25 L + 3 roundings, ~1.2e-5 relative for L <= 150, so when every
// comparison clears a 1e-4 margin the lane sum decides them alike. Returns
// false when the in-order sum is needed; the maximum needs no such care as
// the entries are non-negative.
bool historyScan(const PeakHistory& h, float& m, double& sum) {
#if defined(__SSE2__)
  const int32_t len = h.length;
  const float* x = h.history;
  __m128 mv = _mm_set1_ps(m);
  __m128 sv = _mm_setzero_ps();
  int32_t i = 0;
  for (; i + 4 <= len; i += 4) {
    const __m128 v = _mm_loadu_ps(x + i);
    mv = _mm_max_ps(v, mv);
    sv = _mm_add_ps(sv, v);
  }
  alignas(16) float lanes[4];
  _mm_store_ps(lanes, mv);
  float mx = std::max(std::max(lanes[0], lanes[1]), std::max(lanes[2], lanes[3]));
  _mm_store_ps(lanes, sv);
  float s = (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
  for (; i < len; ++i) {
    mx = std::max(mx, x[i]);
    s += x[i];
  }
  m = mx;
  // A zero sum of non-negative entries means every entry is zero.
  if (s == 0.0f) {
    sum = 0.0;
    return true;
  }
  if (!(s >= 1e-30f && s <= 1e30f)) return false;
  const double lm = static_cast<double>(len) * mx;
  const double approx = s;
  for (const double c : {3.0, 2.75, 2.5}) {
    if (std::fabs(lm - c * approx) <= c * approx * 1e-4) return false;
  }
  sum = approx;
  return true;
#else
  (void)h;
  (void)m;
  (void)sum;
  return false;
#endif
}

}  // namespace

float blockPeak(const float* const* channels, uint32_t start, uint32_t n, int32_t channelCount) {
  float peak = 0.0f;
  uint32_t done = 0;
#if defined(__SSE2__)
  // Short spans of several channels: one set of lanes for all of them, so
  // the horizontal reduction happens once. Max ignores order, as above.
  if (n >= 16 && channelCount > 1) {
    const __m128 absMask = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    __m128 m0 = _mm_setzero_ps(), m1 = m0, m2 = m0, m3 = m0;
    done = n & ~15u;
    for (int32_t c = 0; c < channelCount; ++c) {
      const float* x = channels[c] + start;
      for (uint32_t i = 0; i < done; i += 16) {
        m0 = _mm_max_ps(_mm_and_ps(_mm_loadu_ps(x + i), absMask), m0);
        m1 = _mm_max_ps(_mm_and_ps(_mm_loadu_ps(x + i + 4), absMask), m1);
        m2 = _mm_max_ps(_mm_and_ps(_mm_loadu_ps(x + i + 8), absMask), m2);
        m3 = _mm_max_ps(_mm_and_ps(_mm_loadu_ps(x + i + 12), absMask), m3);
      }
    }
    m0 = _mm_max_ps(_mm_max_ps(m0, m1), _mm_max_ps(m2, m3));
    alignas(16) float lanes[4];
    _mm_store_ps(lanes, m0);
    peak = std::max(std::max(lanes[0], lanes[1]), std::max(lanes[2], lanes[3]));
  }
#endif
  for (int32_t c = 0; c < channelCount; ++c) {
    peak = channelPeak(channels[c] + start + done, n - done, peak);
  }
  return peak;
}

void peakHistorySetup(PeakHistory& h, uint32_t rate, uint32_t subBlock, uint32_t divider) {
  std::memset(&h, 0, sizeof(h));
  const uint32_t len = subBlock == 0 || divider == 0 ? 1 : rate / subBlock / 2 / divider;
  h.length = static_cast<int32_t>(std::clamp<uint32_t>(len, 1, kPeakHistoryMax));
}

float peakHistoryRecentMax(const PeakHistory& h, int32_t count) {
  float m = 0.0f;
  int32_t idx = h.writeIndex;
  for (int32_t i = 0; i < count; ++i) {
    idx = idx == 0 ? h.length - 1 : idx - 1;
    m = std::max(m, h.history[idx]);
  }
  return m;
}

float peakHistoryUpdate(PeakHistory& h, const float* const* channels, uint32_t start, uint32_t n,
                        int32_t channelCount) {
  return peakHistoryPush(h, blockPeak(channels, start, n, channelCount));
}

float peakHistoryPush(PeakHistory& h, float p) {
  h.history[h.writeIndex] = p;
  h.writeIndex = h.writeIndex + 1 == h.length ? 0 : h.writeIndex + 1;

  float m = p;
  double sum = 0.0;
  if (!historyScan(h, m, sum)) {
    float s = 0.0f;
    for (int32_t i = 0; i < h.length; ++i) {
      m = std::max(m, h.history[i]);
      s += h.history[i];
    }
    sum = s;
  }

  const double lm = static_cast<double>(h.length) * m;
  if (lm > 3.0 * sum) {
    h.window = 2;
  } else if (lm > 2.75 * sum) {
    h.window = 4;
  } else if (lm > 2.5 * sum) {
    h.window = 8;
  }

  if (h.window < 1) return m;
  const int32_t w = std::min(h.window, h.length);
  const float result = peakHistoryRecentMax(h, w);
  h.window = w + 1 < h.length ? w + 1 : 0;
  return result;
}

}  // namespace qor
