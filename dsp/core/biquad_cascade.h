// Cascade of second-order sections in transposed direct form II.
#pragma once

#include <cstdint>

namespace qor {

// Coefficients: per section b0, b1, b2, f1, f2 (f = -a, feedback sign already
// flipped), then one cascade gain. State: s1, s2 per section for one channel.
// Processes `buffer` in place; section states below 1e-15 in magnitude are
// set to 0 at the end of each section's pass (denormal guard). With zero
// sections only the gain is applied.
void processBiquadCascade(float* buffer, uint32_t n, const float* coefficients, float* state,
                          uint32_t sections);

// Two channels through the same cascade, each with its own state: the
// arithmetic of two processBiquadCascade calls, with the two recursions run
// side by side so that they overlap.
void processBiquadCascadePair(float* a, float* b, uint32_t n, const float* coefficients, float* stateA,
                              float* stateB, uint32_t sections);

}  // namespace qor
