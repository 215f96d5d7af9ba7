// The inner loop of the sample-rate converter: the weights of one output's
// taps, read from the tabulated kernel with one linear interpolation each,
// and the weighted sums of the channels' windows.
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

// The three kernels of one instruction set, picked once so that the inner
// loop makes one direct call per output.
struct TapKernels {
  // Computes and stores the window's weights and sums x0 and x1 with them.
  void (*weighAndSum)(const TapWindow& window, const float* x0, const float* x1, float* y0, float* y1);
  // weighAndSum for up-sampling, the output lying `frac` input periods past
  // its tap; the slots are those of weighAndSum (the padding, the Nz taps
  // before the output instant, oldest first, then the Nz + 1 at and after
  // it) and the gain is 1.
  void (*weighPhasedAndSum)(const PhaseWindow& window, float frac, const float* x0, const float* x1, float* y0,
                            float* y1);
  // Sums x0 and x1 with the weights the last call of either stored.
  void (*sumWeighted)(const float* weights, int32_t groups, float gain, const float* x0, const float* x1, float* y0,
                      float* y1);
};

// The kernels of `kernel`, which must be available here (bestTapKernel
// gives one); one the build lacks gives the scalar kernels.
TapKernels tapKernels(TapKernel kernel);

}  // namespace qor
