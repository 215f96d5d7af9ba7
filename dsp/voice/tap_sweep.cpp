#include "dsp/voice/tap_sweep.h"

#include <cmath>

namespace qor {

void TapSweep::buildCurves() {
  const double pi = 4.0 * std::atan(1.0);
  const double offsets[3] = {-pi / 2.0, pi / 6.0, 5.0 * pi / 6.0};
  for (uint32_t n = 0; n < kPoints; ++n) {
    const double x = static_cast<double>(n);
    for (int k = 0; k < 3; ++k) {
      double d = x / 8191.0 + k / 3.0;
      if (d > 1.0) d -= 1.0;
      delayCurve[k][n] = d;
      gainCurve[k][n] = std::sin(2.0 * pi * x / 8192.0 + offsets[k]);
    }
  }
}

void TapSweep::setRate(float hz, float sampleRate) {
  const float inc = hz * static_cast<float>(kPoints) / sampleRate;
  increment = std::isfinite(inc) ? inc : 0.0f;
}

}  // namespace qor
