#include "dsp/core/follower.h"

#include <cmath>

#include "dsp/core/levels.h"

namespace qor {

void followerSetup(Follower& f, float rate, float ratioDb, float msA, float msB) {
  f.coefficientA = timeConstantCoefficient(rate, msA);
  f.coefficientB = timeConstantCoefficient(rate, msB);
  f.ratio = std::pow(10.0f, -std::fabs(ratioDb) * 0.05f);
}

void followFallingFirst(const Follower& f, const float* x, float* y, uint32_t n) {
  if (n == 0) return;
  float prev = y[n - 1];
  for (uint32_t i = 0; i < n; ++i) {
    const float c = prev * f.ratio > x[i] ? f.coefficientA : f.coefficientB;
    prev = (1.0f - c) * prev + c * x[i];
    y[i] = prev;
  }
}

void followRisingFirst(const Follower& f, const float* x, float* y, uint32_t n) {
  if (n == 0) return;
  float prev = y[n - 1];
  for (uint32_t i = 0; i < n; ++i) {
    const float c = x[i] * f.ratio > prev ? f.coefficientA : f.coefficientB;
    prev = (1.0f - c) * prev + c * x[i];
    y[i] = prev;
  }
}

}  // namespace qor
