// The inner loop of the sample-rate converter: feeding the channels'
// histories, and for every output the weights of its taps, read from the
// tabulated kernel with one linear interpolation each, and the weighted sums
// of the channels' windows.
//
// A window is read in groups of eight slots; the slots in front of the oldest
// tap that round it up carry zero weight. Lane l of a sum collects the slots
// 8g + l, and the lanes are added ((0 + 4) + (2 + 6)) + ((1 + 5) + (3 + 7)).
// The scalar, SSE2 and AVX kernels share that order and every rounding, so
// their outputs are bit-identical and the choice is only one of speed.
#pragma once

#include <cstdint>

namespace qor {

constexpr uint32_t kTapGroup = 8;

enum class TapKernel : uint32_t {
  Scalar = 0,
  Sse2 = 1,  // two four-lane halves
  Avx = 2,   // eight lanes
};

// The fastest kernel this processor runs.
TapKernel bestTapKernel();
bool tapKernelAvailable(TapKernel kernel);

struct TapWindow {
  const float* table;  // kernel table of `end` entries followed by a 0
  float* weights;      // groups x 8 floats, 32-byte aligned; receives the weights
  float frac;          // fraction of an input period the output lies past its tap
  float scale;         // table entries per input period
  float end;           // table length
  float gain;          // applied to every sum
  int32_t top;         // slot 0's whole distance from the output instant, in input periods
  int32_t pad;         // leading slots of weight zero, 0..7
  int32_t groups;
};

// Up-sampling reads the kernel at whole input periods from the output instant
// plus one common fraction per side, Np table entries to the period. With the
// table and its deltas stored phase by phase (entry q Np + r at r Nz + q) the
// weights of a side are one contiguous run, weight = table + f x delta.
uint32_t phaseIndex(uint32_t i, uint32_t nz, uint32_t np);

struct PhaseWindow {
  const float* table;  // phase-ordered kernel table
  const float* delta;  // phase-ordered deltas
  float* weights;      // groups x 8 floats, 32-byte aligned; receives the weights
  uint32_t nz;         // zero crossings, also the taps on either side
  uint32_t np;         // table entries per zero crossing
  int32_t pad;
  int32_t groups;
};

// A channel's input history as the converter keeps it: 8H samples read as
// straight runs: a ring that fills up slides its newest samples back to the
// start (the block loop does this; the converter says how many it keeps).
struct ConverterRing {
  float* data;
  float samplePeriod;  // seconds per input sample
  uint32_t length;
  uint32_t writePosition;
};

// One call's worth of conversion. All channels see the same pushes and
// outputs, so one accumulator and one write position stand for all; the
// weights are worked out once per output and applied to every channel, two
// at a time (a single channel is summed twice rather than taking a path of
// its own).
struct ConversionBlock {
  ConverterRing* rings;
  uint32_t channels;
  uint32_t inCount;   // input samples per channel
  uint32_t outCount;  // room per output channel
  float accumulator;  // seconds from the next output instant back to the newest input
  int32_t writePosition;
  float period;        // input
  float outputPeriod;
  int32_t half;  // H
  int32_t kept;  // samples a slide keeps
  bool phased;   // up-sampling: `phase`, else `window`
  TapWindow window;
  PhaseWindow phase;
};

// Feeds and produces until the output block is full or the input used up,
// leaving the accumulator and write position in `block`; returns the
// outputs made per channel. The kernel must be available here.
uint32_t convertBlock(TapKernel kernel, ConversionBlock& block, float* const* in, float* const* out);

}  // namespace qor
