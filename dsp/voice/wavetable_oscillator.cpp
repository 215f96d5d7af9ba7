#include "dsp/voice/wavetable_oscillator.h"

#include <cmath>

namespace qor {

namespace {

constexpr uint32_t kN = WavetableOscillator::kTableSize;
constexpr uint32_t kFractionMask = 0xFFFFFFu;

}  // namespace

bool buildWavetable(int32_t shape, float* table) {
  if (shape < 0 || shape >= kShapeCount) return false;
  const double pi = 4.0 * std::atan(1.0);
  const double e = std::exp(1.0);
  // Entries 0..256; the guard (256) gets the formula's value at 256 unless
  // the shape names another one below.
  for (uint32_t i = 0; i <= kN; ++i) {
    const double x = static_cast<double>(i);
    const double w = 2.0 * pi * x / 256.0;
    double v = 0.0;
    switch (shape) {
      case kShapeTriangle:
        if (i < 64) v = x / 64.0;
        else if (i < 128) v = (128.0 - x) / 64.0;
        else if (i < 192) v = -(x - 128.0) / 64.0;
        else v = (x - 256.0) / 64.0;
        break;
      case kShapeSine: v = std::sin(w); break;
      case kShapeSineSquared: v = std::sin(w) * std::sin(w); break;
      case kShapeCosine: v = std::cos(w); break;
      case kShapeCosineSquared: v = std::cos(w) * std::cos(w); break;
      case kShapeRectifiedCosine: v = std::fmax(std::cos(w), 0.0); break;
      case kShapeRampBipolar: v = 2.0 * x / 255.0 - 1.0; break;
      case kShapeRampUnipolar: v = x / 255.0; break;
      case kShapeFallingRampUnipolar: v = 1.0 - x / 255.0; break;
      case kShapeTriangleUnipolar: v = i <= 128 ? x / 128.0 : 1.0 - (x - 128.0) / 128.0; break;
      case kShapeSquare: v = i < 128 ? 1.0 : -1.0; break;
      case kShapeExponential: {
        const double k = i < 128 ? x : 256.0 - x;  // rise over 0..127, fall over 128..255
        v = 2.0 * (std::exp(k / 128.0) - 1.0) / (e - 1.0) - 1.0;
        break;
      }
      default: break;
    }
    table[i] = static_cast<float>(v);
  }
  switch (shape) {
    case kShapeTriangle: table[kN] = 0.0f; break;
    case kShapeRampBipolar: table[kN] = -1.0f; break;
    case kShapeRampUnipolar:
    case kShapeFallingRampUnipolar: table[kN] = table[0]; break;
    case kShapeSquare: table[kN] = 1.0f; break;
    case kShapeExponential: table[kN] = -1.0f; break;
    default: break;
  }
  return true;
}

void WavetableOscillator::init() {
  sampleRate = 48000.0f;
  frequency = 1.0f;
  shape = -1;
  startPhase = 0;
  phase = 0;
  reversed = 0;
  setShape(kShapeTriangle);
  updateIncrement();
}

void WavetableOscillator::setShape(int32_t id) {
  if (!buildWavetable(id, table)) return;
  shape = id;
  for (uint32_t k = 0; k < kN; ++k) reversedTable[k] = table[kN - 1 - k];
  reversedTable[kN] = reversedTable[0];
}

void WavetableOscillator::setSampleRate(float rate) {
  sampleRate = rate > 0.0f ? rate : 48000.0f;
  updateIncrement();
}

void WavetableOscillator::setFrequency(float hz) {
  const uint32_t wantReversed = hz < 0.0f ? 1u : 0u;
  if (wantReversed != reversed) {
    // Position x in one table is 255 - x in the other (mod 256).
    const uint32_t index = phase >> 24;
    const uint32_t fraction = phase & kFractionMask;
    if (fraction == 0) {
      phase = ((255u - index) & 0xFFu) << 24;
    } else {
      phase = (((254u - index) & 0xFFu) << 24) | ((kFractionMask + 1u - fraction) & kFractionMask);
    }
    reversed = wantReversed;
  }
  frequency = std::fabs(hz);
  updateIncrement();
}

void WavetableOscillator::setStartPhase(float degrees) {
  float d = std::fmod(degrees, 360.0f);
  if (!(d > 0.0f)) d += 360.0f;
  const float position = (256.0f - d * 256.0f / 360.0f) * 16777216.0f;
  // 0 degrees lands exactly on 2^32, which is phase 0 again.
  const double wrapped = std::fmod(static_cast<double>(position), 4294967296.0);
  startPhase = wrapped >= 0.0 ? static_cast<uint32_t>(wrapped) : 0u;
  phase = startPhase;
}

void WavetableOscillator::render(float* out, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) out[i] = next();
}

void WavetableOscillator::updateIncrement() {
  const float inc = frequency * 256.0f / sampleRate * 16777216.0f;
  // NaN and out-of-range frequencies must not reach the integer conversion.
  if (!(inc >= 0.0f)) {
    increment = 0;
  } else if (inc >= 4294967296.0f) {
    increment = 0xFFFFFFFFu;
  } else {
    increment = static_cast<uint32_t>(inc);
  }
}

}  // namespace qor
