// Early reflections of the reverb: per input channel a set of taps that add
// the input into two buses (plain and diffused) of a ring per output channel,
// read back through a three-stage all-pass diffuser and a one-pole low-pass.
#pragma once

#include <cstdint>

#include "dsp/core/instance.h"
#include "dsp/voice/reverb_rooms.h"

namespace qor {

// Three all-pass stages in series; each stage's loop carries a decay gain.
struct ReverbDiffuser {
  static constexpr int kStages = 3;
  static constexpr uint32_t kRing = 64;  // longest stage delay is 47

  float buffer[kStages][kRing];
  uint32_t delay[kStages];
  float coefficient[kStages];
  float rest[kStages];  // 1 - c^2
  float loopGain[kStages];
  uint32_t index;

  void configure(const uint32_t* delays, const float* coefficients, double decayMs, double rate);
  void clear();

  float tick(float x) {
    for (int st = 0; st < kStages; ++st) {
      const float d = loopGain[st] * buffer[st][(index - delay[st]) & (kRing - 1)];
      const float v = x + coefficient[st] * d;
      x = rest[st] * d - coefficient[st] * x;
      buffer[st][index & (kRing - 1)] = v;
    }
    ++index;
    return x;
  }
};

struct ReverbTap {
  float gainLeft, gainRight;  // into the left and right output's bus
  float targetLeft, targetRight;
  float stepLeft, stepRight;
  float share, shareStep;     // part written at `delay`; the rest goes to `oldDelay`
  uint32_t delay, oldDelay;   // samples ahead of the ring's read position
  int32_t rampLeft;
  uint8_t bus;
};

struct ReverbTapSet {
  ReverbTap taps[kReverbMaxTaps];
  int32_t active;
  int32_t fading;  // taps after the active ones still ramping to silence
};

struct ReverbReflections {
  ReverbTapSet sets[2];  // left input, right input
  float* ring[2][2];     // [bus][output channel]
  uint32_t ringLength;
  uint32_t position;     // read position, shared by all rings
  uint32_t maxDelay;     // keeps a block's writes clear of unread samples
  ReverbDiffuser diffuser[2];
  float lowPass;         // one-pole coefficient
  float lowPassState[2];

  // Rings of 6000 ms; `out` is null while only counting.
  static void layOut(InstanceLayout& lay, uint32_t rate, uint32_t blockSize, ReverbReflections* out);
  static uint32_t ringLengthFor(uint32_t rate);

  // Silent rings, diffusers and filter; running ramps jump to their ends.
  void clear();

  // Taps of `roomType` with times scaled by `roomSize`, ramped over
  // `rampSamples` (at once when <= 0).
  void retune(int32_t roomType, float roomSize, double rate, int32_t rampSamples);

  // Low-pass cutoff and the diffusers' decay time.
  void setTone(float cutoffHz, double decayMs, double rate);

  // Writes the taps of inputs x and reads one block of reflections into e.
  // e may alias x; busA and busB are scratch blocks.
  void process(const float* xLeft, const float* xRight, float* eLeft, float* eRight, float* busA,
               float* busB, uint32_t n);

 private:
  void writeTap(ReverbTap& tap, const float* x, uint32_t n);
};

}  // namespace qor
