#include "dsp/core/peak_detector.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace qor {

float blockPeak(const float* const* channels, uint32_t start, uint32_t n, int32_t channelCount) {
  float peak = 0.0f;
  for (int32_t c = 0; c < channelCount; ++c) {
    const float* x = channels[c] + start;
    for (uint32_t i = 0; i < n; ++i) peak = std::max(peak, std::fabs(x[i]));
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
  const float p = blockPeak(channels, start, n, channelCount);
  h.history[h.writeIndex] = p;
  h.writeIndex = h.writeIndex + 1 == h.length ? 0 : h.writeIndex + 1;

  float m = p;
  float s = 0.0f;
  for (int32_t i = 0; i < h.length; ++i) {
    m = std::max(m, h.history[i]);
    s += h.history[i];
  }

  const double lm = static_cast<double>(h.length) * m;
  const double sum = s;
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
