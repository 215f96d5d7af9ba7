// The converter sums the first two channels while it computes the weights
// and the others from the kept weights, two at a time; a lone channel is
// summed as a pair with itself. Every channel count is checked here against
// a direct double-precision band-limited interpolator, each channel carrying
// its own noise so that a mixed-up channel shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

#include "dsp/voice/sample_rate_converter.h"
#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using namespace QorSampleRateConverter_API_V1;
using R = QorSampleRateConverterResult;

double besselI0(double x) {
  double sum = 1.0, term = 1.0;
  for (int k = 1; term > 1e-17 * sum; ++k) {
    term *= (x / (2.0 * k)) * (x / (2.0 * k));
    sum += term;
  }
  return sum;
}

// Kaiser-windowed sinc at `a` zero crossings from the centre.
double kaiserSinc(double a, double nz, double beta) {
  a = std::fabs(a);
  if (a >= nz) return 0.0;
  const double sinc = a == 0.0 ? 1.0 : std::sin(std::numbers::pi * a) / (std::numbers::pi * a);
  return sinc * besselI0(beta * std::sqrt(1.0 - (a / nz) * (a / nz))) / besselI0(beta);
}

struct Case {
  uint32_t inRate, outRate, channels;
};

class SpeedPaths : public ::testing::TestWithParam<Case> {};

TEST_P(SpeedPaths, EveryChannelMatchesDirectInterpolation) {
  const Case p = GetParam();
  constexpr uint32_t kBlock = 1024;
  QorSampleRateConverterConfig c{p.inRate, kBlock, p.channels, p.outRate, 0, p.channels, {}};
  ASSERT_EQ(qorSampleRateConverterGetDefaultParameters(&c.parameters), R::Success);
  ASSERT_EQ(qorSampleRateConverterComputeOutputBlockSize(p.inRate, kBlock, p.outRate, &c.outputBlockSize), R::Success);
  size_t size = 0;
  ASSERT_EQ(qorSampleRateConverterGetInstanceSize(&c, &size), R::Success);
  qor::test::InstanceMemory memory(size);
  auto* inst = memory.as<QorSampleRateConverterInst>();
  ASSERT_EQ(qorSampleRateConverterInit(inst, &c), R::Success);

  std::vector<std::vector<float>> x;
  for (uint32_t ch = 0; ch < p.channels; ++ch) x.push_back(qor::test::whiteNoise(kBlock, 40 + ch, 0.5));
  qor::test::ChannelBuffers in(p.channels, kBlock), out(p.channels, c.outputBlockSize);
  in.load(x, 0);
  uint32_t n = 0;
  EXPECT_NO_ALLOCATION(ASSERT_EQ(qorSampleRateConverterProcess(inst, in.data(), out.data(), &n), R::Success));
  ASSERT_EQ(n, c.outputBlockSize);

  // Output o is centred 2H + 1 input samples before o x inRate / outRate (the
  // zeros the converter starts with); down-sampling widens the kernel.
  const double nz = c.parameters.numZeroCrossings, beta = c.parameters.kaiserBeta;
  const double g = std::min(1.0, static_cast<double>(p.outRate) / p.inRate);
  const double h = p.inRate < p.outRate ? nz : std::ceil(static_cast<float>(p.inRate) * 10.0f / static_cast<float>(p.outRate));
  for (uint32_t ch = 0; ch < p.channels; ++ch) {
    double worst = 0.0;
    // 256 outputs span several slides of the history back to its start.
    for (size_t o = 0; o < 256; ++o) {
      const double centre = static_cast<double>(o) * p.inRate / p.outRate - (2.0 * h + 1.0);
      double expected = 0.0;
      const auto lo = static_cast<long>(std::max(0.0, std::floor(centre - nz / g - 1.0)));
      const auto hi = static_cast<long>(std::ceil(centre + nz / g + 1.0));
      for (long m = lo; m <= hi && m < static_cast<long>(kBlock); ++m) {
        expected += x[ch][m] * g * kaiserSinc(g * (m - centre), nz, beta);
      }
      worst = std::max(worst, std::fabs(out[ch][o] - expected));
    }
    EXPECT_LT(worst, 1e-4) << "channel " << ch;
  }
}

INSTANTIATE_TEST_SUITE_P(Channels, SpeedPaths,
                         ::testing::Values(Case{44100, 48000, 1}, Case{44100, 48000, 3}, Case{44100, 48000, 4},
                                           Case{48000, 44100, 1}, Case{48000, 44100, 5}, Case{22050, 48000, 3}));

}  // namespace
