// Second-order section designed by the Audio EQ Cookbook formulas, with an
// output gain and linear coefficient ramps. One instance filters one channel.
#pragma once

#include <cstdint>

namespace qor {

enum CookbookType : int32_t {
  kCookbookHighPass = 0,
  kCookbookLowPass = 1,
  kCookbookBandPass = 2,  // `q` is the bandwidth in octaves; 0 dB peak
  kCookbookNotch = 3,
  kCookbookLowShelf = 4,
  kCookbookHighShelf = 5,
  kCookbookPeaking = 6,
  kCookbookAllPass = 7,
};

// b0, b1, b2, a1, a2 normalised by a0, and the linear output gain.
struct CookbookCoefficients {
  float b0, b1, b2, a1, a2, gain;
};

// Designs a section; unknown types give a unity pass-through.
CookbookCoefficients designCookbook(int32_t type, double frequency, double rate, double q,
                                    double gainDb, double outputGainDb);

struct CookbookBiquad {
  CookbookCoefficients current;
  CookbookCoefficients target;
  CookbookCoefficients step;
  int32_t rampLeft;
  float x1, x2, y1, y2;  // direct form I state

  // Takes new coefficients, at once (rampSamples <= 0) or by a linear ramp
  // over rampSamples samples. The signal state is kept.
  void set(const CookbookCoefficients& c, int32_t rampSamples);
  void design(int32_t type, double frequency, double rate, double q, double gainDb,
              double outputGainDb, int32_t rampSamples) {
    set(designCookbook(type, frequency, rate, q, gainDb, outputGainDb), rampSamples);
  }
  void reset() { x1 = x2 = y1 = y2 = 0.0f; }

  float tick(float x) {
    if (rampLeft > 0) advanceRamp();
    const CookbookCoefficients& c = current;
    const float y = c.b0 * x + c.b1 * x1 + c.b2 * x2 - c.a1 * y1 - c.a2 * y2;
    x2 = x1;
    x1 = x;
    y2 = y1;
    y1 = y;
    return y * c.gain;
  }

  void process(float* buffer, uint32_t n);

 private:
  void advanceRamp();
};

}  // namespace qor
