// Late reverberation of the reverb: a 16-line feedback delay network with
// Hadamard feedback, a three-stage all-pass diffuser in front of every line
// and a three-band decay filter behind it, plus the decay-filter designer the
// family's pre-delay lines share.
#pragma once

#include <cstdint>

#include "dsp/core/instance.h"

namespace qor {

// Decay times in ms and crossover frequencies in Hz. Crossovers below 0 are
// unset (plain gain for the longest time); with `timesSet` false a line has
// no filter at all.
struct ReverbDecayTimes {
  float lowMs;
  float midMs;
  float highMs;
  float f1;
  float f2;
  bool timesSet;
};

// One second-order section, denominator 1 + a1 z^-1 + a2 z^-2.
struct ReverbSection {
  float b0, b1, b2, a1, a2;
};

// Gain per pass through `samples` of delay so that a loop decays by 60 dB in
// `timeMs` (by 200 dB per second when timeMs <= 0).
double reverbPlainDecayGain(double timeMs, double samples, double rate);

// The decay filter of a line of `samples` samples: a low shelf at f1 and a
// high shelf at f2 around the mid-band gain, so each band loses 60 dB over
// its own decay time.
ReverbSection designReverbDecayFilter(uint32_t samples, double rate, const ReverbDecayTimes& t);

struct ReverbNetwork {
  static constexpr int kLines = 16;
  static constexpr int kStages = 3;
  static constexpr uint32_t kDiffusionRows = 64;  // ring of each diffuser stage
  // One power-of-two ring per line: lengths are table primes, at most 7919.
  static constexpr uint32_t kRingSize = 8192;

  // Lanes hold the lines in group-major order (lane 4q + m is line 4m + q), so
  // the four lines sharing one diffuser pattern sit side by side. The Hadamard
  // matrix is unchanged by that reordering.
  float* rings;  // [lane][kRingSize], all written at `clock`
  uint32_t clock;
  uint32_t length[kLines];
  float* diffusion;  // [stage][row][lane]
  uint32_t diffusionRow;
  float loopGain[kStages][4];  // decay gain of each stage's loop, per group

  // Decay filters, one per lane, direct form I with linear coefficient ramps.
  float coef[5][kLines];  // b0, b1, b2, a1, a2
  float target[5][kLines];
  float step[5][kLines];
  int32_t rampLeft;
  float x1[kLines], x2[kLines];
  float y1[kLines], y2[kLines];  // y1: line outputs fed back at the next sample

  float scale;  // of the current layout; 0 before the first
  ReverbDecayTimes times;

  // Carves the line rings and diffuser buffers; `net` is null while only
  // counting.
  static void layOut(InstanceLayout& lay, ReverbNetwork* net);

  // Every line and diffuser silent, filters at their targets.
  void clear();

  // Line lengths for `newScale` and decay filters for `t`, coefficients
  // ramping over `rampSamples`. Refused (false, layout kept) when f1 > f2.
  bool retune(float newScale, const ReverbDecayTimes& t, double rate, int32_t rampSamples);

  uint32_t lineLength(int line) const;

  // One block: inputs may alias outputs.
  void process(const float* inL, const float* inR, float* outL, float* outR, uint32_t n);

  // Sum of the 16 base line lengths in samples (scale 1).
  static uint32_t baseLengthSum();
};

}  // namespace qor
