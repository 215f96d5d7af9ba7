// Attack/release envelope follower with two coefficients.
#pragma once

#include <cstdint>

namespace qor {

struct Follower {
  float ratio;        // k = 10^(-|ratioDb| / 20)
  float coefficientA; // tc(rate, msA)
  float coefficientB; // tc(rate, msB)
};

void followerSetup(Follower& f, float rate, float ratioDb, float msA, float msB);

// Both rules continue from y[n - 1] of the previous call (the caller keeps y).
// Falling-first: coefficient A while y_prev * k > x[i], else B.
void followFallingFirst(const Follower& f, const float* x, float* y, uint32_t n);
// Rising-first: coefficient A while x[i] * k > y_prev, else B.
void followRisingFirst(const Follower& f, const float* x, float* y, uint32_t n);

}  // namespace qor
