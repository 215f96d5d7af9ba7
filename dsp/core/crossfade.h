// Per-sample crossfade between a dry and a processed block.
#pragma once

#include <cstdint>

namespace qor {

// out[i] = (1 - m) * dry[i] + m * wet[i], then m := (1 - c) * m + c * target.
// The first sample uses the incoming m; the final m is written back. `out`
// may alias `wet` or `dry`.
void crossfade(const float* wet, const float* dry, float* out, float& mix, float target,
               float coefficient, uint32_t n);

}  // namespace qor
