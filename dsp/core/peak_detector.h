// Block peak and the windowed peak-history detector of the dynamics families.
#pragma once

#include <cstdint>

namespace qor {

// Largest |x| over channels[0..channelCount) and samples start..start+n-1;
// 0 when channelCount < 1.
float blockPeak(const float* const* channels, uint32_t start, uint32_t n, int32_t channelCount);

constexpr int32_t kPeakHistoryMax = 150;

struct PeakHistory {
  int32_t writeIndex;
  int32_t length;   // L, 1..150
  int32_t window;   // W: 0 = whole history
  float history[kPeakHistoryMax];
};

// L = rate / subBlock / 2 / divider (integer division), clamped to 1..150.
void peakHistorySetup(PeakHistory& h, uint32_t rate, uint32_t subBlock, uint32_t divider);

// Stores the span's block peak and returns the level: after a sharp transient
// (crest test) the maximum over a short recent window, which widens by one
// entry per call until it covers the whole history.
float peakHistoryUpdate(PeakHistory& h, const float* const* channels, uint32_t start, uint32_t n,
                        int32_t channelCount);

// peakHistoryUpdate with the span's block peak already found by the caller.
float peakHistoryPush(PeakHistory& h, float peak);

// Largest of the `count` most recent entries.
float peakHistoryRecentMax(const PeakHistory& h, int32_t count);

}  // namespace qor
