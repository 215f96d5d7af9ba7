// Butterworth low-pass/high-pass design into biquad-cascade coefficients.
#pragma once

#include <cstdint>

namespace qor {

enum ButterworthType : int32_t { kButterworthLowPass = 0, kButterworthHighPass = 1 };

constexpr int32_t kButterworthFailed = -1000;

// Number of sections for an order: a first-order section for odd orders,
// then one second-order section per pair.
constexpr uint32_t butterworthSections(uint32_t order) { return (order + 1) / 2; }

// Writes butterworthSections(order) x {b0, b1, b2, f1, f2} and a final cascade
// gain of 1.0 into `coefficients`. Fails with -1000 (nothing written) when
// fc >= rate / 2 (integer half) or the type is unknown.
int32_t designButterworth(float fc, uint32_t order, uint32_t rate, int32_t type, float* coefficients);

}  // namespace qor
