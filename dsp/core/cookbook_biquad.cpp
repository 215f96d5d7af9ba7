#include "dsp/core/cookbook_biquad.h"

#include <cmath>
#include <numbers>

namespace qor {

CookbookCoefficients designCookbook(int32_t type, double frequency, double rate, double q,
                                    double gainDb, double outputGainDb) {
  const double w = 2.0 * std::numbers::pi * frequency / rate;
  const double cw = std::cos(w);
  const double sw = std::sin(w);
  const double a = std::pow(10.0, gainDb / 40.0);
  double alpha = sw / (2.0 * q);
  double b0 = 1.0, b1 = 0.0, b2 = 0.0, a0 = 1.0, a1 = 0.0, a2 = 0.0;

  switch (type) {
    case kCookbookHighPass:
      b0 = (1.0 + cw) / 2.0;
      b1 = -(1.0 + cw);
      b2 = b0;
      a0 = 1.0 + alpha;
      a1 = -2.0 * cw;
      a2 = 1.0 - alpha;
      break;
    case kCookbookLowPass:
      b0 = (1.0 - cw) / 2.0;
      b1 = 1.0 - cw;
      b2 = b0;
      a0 = 1.0 + alpha;
      a1 = -2.0 * cw;
      a2 = 1.0 - alpha;
      break;
    case kCookbookBandPass:
      alpha = sw * std::sinh(std::numbers::ln2 / 2.0 * q * w / sw);
      b0 = alpha;
      b1 = 0.0;
      b2 = -alpha;
      a0 = 1.0 + alpha;
      a1 = -2.0 * cw;
      a2 = 1.0 - alpha;
      break;
    case kCookbookNotch:
      b0 = 1.0;
      b1 = -2.0 * cw;
      b2 = 1.0;
      a0 = 1.0 + alpha;
      a1 = -2.0 * cw;
      a2 = 1.0 - alpha;
      break;
    case kCookbookLowShelf: {
      const double r = 2.0 * std::sqrt(a) * alpha;
      b0 = a * ((a + 1.0) - (a - 1.0) * cw + r);
      b1 = 2.0 * a * ((a - 1.0) - (a + 1.0) * cw);
      b2 = a * ((a + 1.0) - (a - 1.0) * cw - r);
      a0 = (a + 1.0) + (a - 1.0) * cw + r;
      a1 = -2.0 * ((a - 1.0) + (a + 1.0) * cw);
      a2 = (a + 1.0) + (a - 1.0) * cw - r;
      break;
    }
    case kCookbookHighShelf: {
      const double r = 2.0 * std::sqrt(a) * alpha;
      b0 = a * ((a + 1.0) + (a - 1.0) * cw + r);
      b1 = -2.0 * a * ((a - 1.0) + (a + 1.0) * cw);
      b2 = a * ((a + 1.0) + (a - 1.0) * cw - r);
      a0 = (a + 1.0) - (a - 1.0) * cw + r;
      a1 = 2.0 * ((a - 1.0) - (a + 1.0) * cw);
      a2 = (a + 1.0) - (a - 1.0) * cw - r;
      break;
    }
    case kCookbookPeaking:
      b0 = 1.0 + alpha * a;
      b1 = -2.0 * cw;
      b2 = 1.0 - alpha * a;
      a0 = 1.0 + alpha / a;
      a1 = -2.0 * cw;
      a2 = 1.0 - alpha / a;
      break;
    case kCookbookAllPass:
      b0 = 1.0 - alpha;
      b1 = -2.0 * cw;
      b2 = 1.0 + alpha;
      a0 = 1.0 + alpha;
      a1 = -2.0 * cw;
      a2 = 1.0 - alpha;
      break;
    default:
      break;
  }
  return {static_cast<float>(b0 / a0), static_cast<float>(b1 / a0), static_cast<float>(b2 / a0),
          static_cast<float>(a1 / a0), static_cast<float>(a2 / a0),
          static_cast<float>(std::pow(10.0, outputGainDb / 20.0))};
}

void CookbookBiquad::set(const CookbookCoefficients& c, int32_t rampSamples) {
  target = c;
  if (rampSamples <= 0) {
    current = c;
    rampLeft = 0;
    return;
  }
  const float inv = 1.0f / static_cast<float>(rampSamples);
  step = {(c.b0 - current.b0) * inv, (c.b1 - current.b1) * inv, (c.b2 - current.b2) * inv,
          (c.a1 - current.a1) * inv, (c.a2 - current.a2) * inv, (c.gain - current.gain) * inv};
  rampLeft = rampSamples;
}

void CookbookBiquad::advanceRamp() {
  if (--rampLeft == 0) {
    current = target;  // land exactly, whatever rounding the steps gathered
    return;
  }
  current.b0 += step.b0;
  current.b1 += step.b1;
  current.b2 += step.b2;
  current.a1 += step.a1;
  current.a2 += step.a2;
  current.gain += step.gain;
}

void CookbookBiquad::process(float* buffer, uint32_t n) {
  uint32_t i = 0;
  for (; i < n && rampLeft > 0; ++i) buffer[i] = tick(buffer[i]);
  const CookbookCoefficients c = current;
  float sx1 = x1, sx2 = x2, sy1 = y1, sy2 = y2;
  for (; i < n; ++i) {
    const float x = buffer[i];
    const float y = c.b0 * x + c.b1 * sx1 + c.b2 * sx2 - c.a1 * sy1 - c.a2 * sy2;
    sx2 = sx1;
    sx1 = x;
    sy2 = sy1;
    sy1 = y;
    buffer[i] = y * c.gain;
  }
  x1 = sx1;
  x2 = sx2;
  y1 = sy1;
  y2 = sy2;
}

}  // namespace qor
