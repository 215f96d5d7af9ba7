// The bypass crossfade every family with an `enable` flag follows.
//
// Per block: when enabled, or while the mix is still above 0.00001, the family
// keeps a dry copy (if a transition is running) and processes; then finish()
// crossfades each channel from the dry copy to the processed block, starting
// each channel from the same block-start mix, and snaps the mix to its target
// once within 0.00001. When it snaps to 0 the family resets its signal state.
// Disabled and at rest, the block passes untouched at no cost.
#pragma once

#include <cstdint>

namespace qor {

struct BypassFade {
  float mix;          // 1 = processed, 0 = dry
  float coefficient;  // one-pole settle coefficient from crossfadeTime

  // Mix 1 when enabled, else 0; coefficient for `crossfadeMs` at `rate`
  // with a -100 dB settling target.
  void init(bool enabled, float crossfadeMs, float rate);
  void setTime(float crossfadeMs, float rate);

  // The block must run through the effect.
  bool active(bool enabled) const { return enabled || mix > 0.00001f; }
  // The output still differs from the pure processed or pure dry signal.
  bool transition(bool enabled) const { return enabled ? mix < 1.0f : mix > 0.0f; }

  // Keeps the dry copy of the first `channels` channels (call before
  // processing, only when transition()).
  static void keepDry(const float* const* in, float* const* dry, uint32_t channels, uint32_t n);

  // Mixes processed `wet` (in place) with `dry` when transition(); returns
  // true when the mix has just snapped to 0, i.e. the family must reset.
  bool finish(bool enabled, float* const* wet, const float* const* dry, uint32_t channels,
              uint32_t n);
};

}  // namespace qor
