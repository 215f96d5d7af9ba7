#include "dsp/core/hann_window.h"

#include <cmath>
#include <numbers>

namespace qor {

void hannWindow(float* w, uint32_t n) {
  if (n == 1) {
    w[0] = 1.0f;
    return;
  }
  const double step = 2.0 * std::numbers::pi / static_cast<double>(n - 1);
  for (uint32_t i = 0; i < n; ++i) {
    w[i] = static_cast<float>((1.0 - std::cos(step * i)) / 2.0);
  }
}

}  // namespace qor
