#include "dsp/core/crossfade.h"

namespace qor {

void crossfade(const float* wet, const float* dry, float* out, float& mix, float target,
               float coefficient, uint32_t n) {
  float m = mix;
  const float keep = 1.0f - coefficient;
  const float pull = coefficient * target;
  for (uint32_t i = 0; i < n; ++i) {
    out[i] = (1.0f - m) * dry[i] + m * wet[i];
    m = keep * m + pull;
  }
  mix = m;
}

}  // namespace qor
