#include "dsp/core/biquad_cascade.h"

#include <cmath>

#include "dsp/core/block_ops.h"

namespace qor {

namespace {

inline float flushTiny(float s) { return std::fabs(s) < 1e-15f ? 0.0f : s; }

}  // namespace

void processBiquadCascade(float* buffer, uint32_t n, const float* coefficients, float* state,
                          uint32_t sections) {
  for (uint32_t k = 0; k < sections; ++k) {
    const float* c = coefficients + 5 * k;
    const float b0 = c[0], b1 = c[1], b2 = c[2], f1 = c[3], f2 = c[4];
    float s1 = state[2 * k];
    float s2 = state[2 * k + 1];
    for (uint32_t i = 0; i < n; ++i) {
      const float x = buffer[i];
      const float y = b0 * x + s1;
      s1 = b1 * x + s2 + f1 * y;
      s2 = b2 * x + f2 * y;
      buffer[i] = y;
    }
    state[2 * k] = flushTiny(s1);
    state[2 * k + 1] = flushTiny(s2);
  }
  const float gain = coefficients[5 * sections];
  if (gain != 1.0f) scaleBlockInPlace(buffer, gain, n);
}

void processBiquadCascadePair(float* a, float* b, uint32_t n, const float* coefficients, float* stateA,
                              float* stateB, uint32_t sections) {
  for (uint32_t k = 0; k < sections; ++k) {
    const float* c = coefficients + 5 * k;
    const float b0 = c[0], b1 = c[1], b2 = c[2], f1 = c[3], f2 = c[4];
    float a1 = stateA[2 * k], a2 = stateA[2 * k + 1];
    float c1 = stateB[2 * k], c2 = stateB[2 * k + 1];
    for (uint32_t i = 0; i < n; ++i) {
      const float x = a[i], z = b[i];
      const float y = b0 * x + a1;
      const float w = b0 * z + c1;
      a1 = b1 * x + a2 + f1 * y;
      c1 = b1 * z + c2 + f1 * w;
      a2 = b2 * x + f2 * y;
      c2 = b2 * z + f2 * w;
      a[i] = y;
      b[i] = w;
    }
    stateA[2 * k] = flushTiny(a1);
    stateA[2 * k + 1] = flushTiny(a2);
    stateB[2 * k] = flushTiny(c1);
    stateB[2 * k + 1] = flushTiny(c2);
  }
  const float gain = coefficients[5 * sections];
  if (gain != 1.0f) {
    scaleBlockInPlace(a, gain, n);
    scaleBlockInPlace(b, gain, n);
  }
}

}  // namespace qor
