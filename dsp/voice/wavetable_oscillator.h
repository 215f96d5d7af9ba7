// 256-point wavetable oscillator with an 8.24 fixed-point phase.
//
// The top 8 bits of the phase index the table, the low 24 bits are the
// interpolation fraction. Each table carries a guard entry so that the
// interpolation at index 255 never wraps, and a reversed copy so that a
// negative frequency runs the same curve backwards with the same unsigned
// phase arithmetic. Used for the ring modulator's carrier, the flanger/phaser
// sweep and the vocal changer's detune.
#pragma once

#include <cstdint>

namespace qor {

enum WavetableShape : int32_t {
  kShapeTriangle = 0,
  kShapeSine = 1,
  kShapeSineSquared = 2,
  kShapeCosine = 3,
  kShapeCosineSquared = 4,
  kShapeRectifiedCosine = 5,  // half-wave: negative half clipped to 0
  kShapeRampBipolar = 6,
  kShapeRampUnipolar = 7,
  kShapeFallingRampUnipolar = 8,
  kShapeTriangleUnipolar = 9,
  kShapeSquare = 10,
  kShapeExponential = 11,     // exponential rise and fall, -1 .. 1
  kShapeCount = 12,
};

struct WavetableOscillator {
  static constexpr uint32_t kTableSize = 256;

  float sampleRate;
  float frequency;      // magnitude in Hz; the sign lives in `reversed`
  int32_t shape;
  uint32_t startPhase;  // 8.24
  uint32_t phase;       // 8.24
  uint32_t increment;   // 8.24 per sample
  uint32_t reversed;    // 1: running backwards through the reversed table
  float table[kTableSize + 1];
  float reversedTable[kTableSize + 1];

  // 48000 Hz, triangle, 1 Hz, phase 0, forwards.
  void init();

  // Ids 0..11 rebuild both tables (the phase is kept); others do nothing.
  void setShape(int32_t id);
  // A rate <= 0 (or NaN) stands for 48000.
  void setSampleRate(float rate);
  // A change of sign mirrors the phase into the other table, so the curve
  // continues from the same point in the other direction.
  void setFrequency(float hz);
  // Start phase in degrees; the current phase jumps there as well.
  void setStartPhase(float degrees);
  void reset() { phase = startPhase; }

  float next() {
    const float* t = reversed != 0 ? reversedTable : table;
    const uint32_t i = phase >> 24;
    const float f = static_cast<float>(phase & 0xFFFFFFu) * (1.0f / 16777216.0f);
    const float out = (1.0f - f) * t[i] + f * t[i + 1];
    phase += increment;  // wraps modulo 2^32, i.e. once per table cycle
    return out;
  }

  // Fills `out` with n successive values.
  void render(float* out, uint32_t n);

 private:
  void updateIncrement();
};

// The table of `shape` (kTableSize + 1 entries with the guard) as the
// oscillator builds it; false for an unknown id.
bool buildWavetable(int32_t shape, float* table);

}  // namespace qor
