// Three-phase tap oscillator of the flanger's modulated comb.
//
// Three delay ramps a third of a cycle apart sweep the taps endlessly; each
// tap is weighted by a raised sine that is exactly 0 where its ramp jumps
// back, so the jump is never heard.
#pragma once

#include <cstdint>

namespace qor {

struct TapSweep {
  static constexpr uint32_t kPoints = 8192;

  float phase;      // 0 .. kPoints
  float increment;  // points per sample; negative runs the sweep backwards
  double delayCurve[3][kPoints];  // fractions of the maximum delay, 0 .. 1
  double gainCurve[3][kPoints];   // -1 .. 1; a tap is weighted by gain + 1

  void buildCurves();
  // Rates may be negative; a non-finite rate stops the sweep.
  void setRate(float hz, float sampleRate);
  void reset() { phase = 0.0f; }

  // Advances by one sample, then reads the three taps at the new phase.
  void next(float* delay, float* gain) {
    float p = phase + increment;
    if (p >= static_cast<float>(kPoints)) p -= static_cast<float>(kPoints);
    if (p < 0.0f) p += static_cast<float>(kPoints);
    if (p >= static_cast<float>(kPoints)) p = 0.0f;  // -tiny + kPoints may round up
    phase = p;
    const uint32_t i = static_cast<uint32_t>(p) & (kPoints - 1);
    const uint32_t j = (i + 1) & (kPoints - 1);
    const double a = static_cast<double>(p) - static_cast<double>(i);
    for (int k = 0; k < 3; ++k) {
      delay[k] = static_cast<float>((1.0 - a) * delayCurve[k][i] + a * delayCurve[k][j]);
      gain[k] = static_cast<float>((1.0 - a) * gainCurve[k][i] + a * gainCurve[k][j]);
    }
  }
};

}  // namespace qor
