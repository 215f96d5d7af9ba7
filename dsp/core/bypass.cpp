#include "dsp/core/bypass.h"

#include <cmath>

#include "dsp/core/block_ops.h"
#include "dsp/core/crossfade.h"
#include "dsp/core/levels.h"

namespace qor {

void BypassFade::init(bool enabled, float crossfadeMs, float rate) {
  mix = enabled ? 1.0f : 0.0f;
  setTime(crossfadeMs, rate);
}

void BypassFade::setTime(float crossfadeMs, float rate) {
  coefficient = settleCoefficient(rate, crossfadeMs, -100.0f);
}

void BypassFade::keepDry(const float* const* in, float* const* dry, uint32_t channels, uint32_t n) {
  for (uint32_t c = 0; c < channels; ++c) copyBlock(in[c], dry[c], n);
}

bool BypassFade::finish(bool enabled, float* const* wet, const float* const* dry, uint32_t channels,
                        uint32_t n) {
  if (!transition(enabled)) return false;
  const float target = enabled ? 1.0f : 0.0f;
  const float start = mix;
  float reached = start;
  for (uint32_t c = 0; c < channels; ++c) {
    reached = start;
    crossfade(wet[c], dry[c], wet[c], reached, target, coefficient, n);
  }
  mix = reached;
  if (std::fabs(mix - target) < 0.00001f) {
    mix = target;
    return target == 0.0f;
  }
  return false;
}

}  // namespace qor
