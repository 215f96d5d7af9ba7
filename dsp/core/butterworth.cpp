#include "dsp/core/butterworth.h"

#include <cmath>
#include <numbers>

namespace qor {

int32_t designButterworth(float fc, uint32_t order, uint32_t rate, int32_t type, float* coefficients) {
  if (fc >= static_cast<float>(rate / 2)) return kButterworthFailed;
  if (type != kButterworthLowPass && type != kButterworthHighPass) return kButterworthFailed;

  const bool low = type == kButterworthLowPass;
  const float t = std::tan(std::numbers::pi_v<float> * fc / static_cast<float>(rate));
  float* c = coefficients;

  if (order % 2 == 1) {
    const float inv = 1.0f / (t + 1.0f);
    c[0] = low ? t * inv : inv;
    c[1] = low ? t * inv : -inv;
    c[2] = 0.0f;
    c[3] = -(t - 1.0f) * inv;
    c[4] = 0.0f;
    c += 5;
  }
  const float t2 = t * t;
  for (uint32_t k = 0; k < order / 2; ++k) {
    const double theta = static_cast<double>(order + 1 + 2 * k) * std::numbers::pi / (2.0 * order);
    const float q = static_cast<float>(std::cos(theta));
    const float d = 1.0f - 2.0f * q * t + t2;
    c[0] = low ? t2 / d : 1.0f / d;
    c[1] = low ? 2.0f * t2 / d : -2.0f / d;
    c[2] = c[0];
    c[3] = -(2.0f * t2 - 2.0f) / d;
    c[4] = -(1.0f + 2.0f * q * t + t2) / d;
    c += 5;
  }
  *c = 1.0f;
  return 0;
}

}  // namespace qor
