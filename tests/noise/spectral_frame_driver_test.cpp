// The frame driver with an identity spectral step: delay, priming, reset,
// channel independence and the bookkeeping check.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <vector>

#include "dsp/noise/real_fft.h"
#include "dsp/noise/spectral_frame_driver.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using Signals = std::vector<std::vector<float>>;

// A driver over its own zeroed memory whose frame step is window, transform,
// inverse transform, overlap-add: an unchanged spectrum.
class IdentityDriver {
 public:
  IdentityDriver(uint32_t channels, uint32_t n)
      : setup_(qor::test::alignedBlock(qor::fftSetupSize(n))), scratch_(qor::test::alignedBlock(qor::fftScratchSize(n))),
        time_(n), re_(n / 2 + 1), im_(n / 2 + 1) {
    qor::InstanceLayout counting(nullptr);
    qor::frameDriverLayOut(counting, nullptr, channels);
    memory_ = std::make_unique<qor::test::InstanceMemory>(counting.size());
    qor::InstanceLayout placing(memory_->bytes());
    qor::frameDriverLayOut(placing, &driver_, channels);
    EXPECT_EQ(placing.size(), counting.size());
    EXPECT_EQ(qor::fftInit(fft(), n), 0);
    qor::frameDriverInit(driver_, n, &IdentityDriver::frame, this);
  }
  qor::SpectralFrameDriver& driver() { return driver_; }
  int frames = 0;

  // Runs one signal per channel, block by block, into separate output
  // buffers (checking the input stays put) or in place.
  Signals run(const Signals& x, uint32_t block, bool inPlace) {
    const auto channels = static_cast<uint32_t>(x.size());
    qor::test::ChannelBuffers in(channels, block), out(channels, block);
    Signals y(channels);
    for (size_t at = 0; at + block <= x[0].size(); at += block) {
      for (uint32_t c = 0; c < channels; ++c) {
        std::copy_n(x[c].begin() + static_cast<ptrdiff_t>(at), block, in[c]);
        float* dst = inPlace ? in[c] : out[c];
        EXPECT_EQ(qor::frameDriverProcess(driver_, c, in[c], dst, block), 0);
        EXPECT_TRUE(inPlace || std::equal(in[c], in[c] + block, x[c].begin() + static_cast<ptrdiff_t>(at)));
        y[c].insert(y[c].end(), dst, dst + block);
      }
    }
    return y;
  }

 private:
  qor::RealFftSetup* fft() { return reinterpret_cast<qor::RealFftSetup*>(setup_.get()); }
  static void frame(void* owner, uint32_t, const float* in, float* out) {
    auto& self = *static_cast<IdentityDriver*>(owner);
    ++self.frames;
    qor::frameDriverAnalyse(self.driver_, in, self.time_.data());
    qor::fftForward(self.fft(), self.time_.data(), self.re_.data(), self.im_.data(), self.scratch_.get());
    qor::fftInverse(self.fft(), self.re_.data(), self.im_.data(), self.time_.data(), self.scratch_.get());
    qor::frameDriverSynthesise(self.driver_, self.time_.data(), out);
  }

  qor::SpectralFrameDriver driver_{};
  std::unique_ptr<qor::test::InstanceMemory> memory_;
  std::unique_ptr<unsigned char, qor::test::AlignedFree> setup_, scratch_;
  std::vector<float> time_, re_, im_;
};

void expectDelayed(const std::vector<float>& x, const std::vector<float>& y, size_t delay) {
  ASSERT_EQ(x.size(), y.size());
  // Silent up to the transform's rounding of the first real samples.
  for (size_t i = 0; i < delay; ++i) ASSERT_NEAR(y[i], 0.0f, 1e-6) << "primed silence at " << i;
  for (size_t i = delay; i < y.size(); ++i) ASSERT_NEAR(y[i], x[i - delay], 2e-6) << "at " << i;
}

class FrameDriverBlocks : public ::testing::TestWithParam<uint32_t> {};

TEST_P(FrameDriverBlocks, UnchangedSpectrumReproducesInputDelayedByNMinusB) {
  const uint32_t block = GetParam();
  IdentityDriver d(1, 1024);
  const std::vector<float> x = qor::test::whiteNoise(40 * 1024, 11, 0.5);
  const std::vector<float> y = d.run({x}, block, true)[0];
  expectDelayed(x, y, 1024 - block);
  EXPECT_EQ(qor::test::delayByCrossCorrelation(x, y, 2048), static_cast<int32_t>(1024 - block));
  EXPECT_EQ(d.frames, static_cast<int>(x.size() / 512));  // one frame per hop
}

INSTANTIATE_TEST_SUITE_P(Blocks, FrameDriverBlocks, ::testing::Values(256u, 512u, 128u, 64u));

TEST(FrameDriver, ChannelsAreIndependentAndResetPrimesAgainWithSilence) {
  IdentityDriver d(2, 1024);
  const Signals x = {qor::test::whiteNoise(16 * 1024, 1, 0.5), qor::test::sine(1000.0, 48000.0, 16 * 1024, 0.5)};
  for (int pass = 0; pass < 2; ++pass) {
    const Signals y = d.run(x, 256, false);
    expectDelayed(x[0], y[0], 768);
    expectDelayed(x[1], y[1], 768);
    qor::frameDriverReset(d.driver());
  }
}

TEST(FrameDriver, BlockThatDoesNotDivideTheHopOverruns) {
  IdentityDriver d(1, 1024);
  qor::test::ChannelBuffers buffer(1, 384);
  buffer.fill(0.1f);
  EXPECT_EQ(qor::frameDriverProcess(d.driver(), 0, buffer[0], buffer[0], 384), 0);
  EXPECT_EQ(qor::frameDriverProcess(d.driver(), 0, buffer[0], buffer[0], 384), qor::kFrameDriverOverrun);
}

TEST(FrameDriver, WindowIsASineAndFrameLengthFollowsTheRate) {
  std::vector<float> w(1024), w2(2048);
  qor::sineWindow(w.data(), 1024);
  for (uint32_t k = 0; k < 1024; ++k) ASSERT_NEAR(w[k], std::sin(std::numbers::pi * (k + 0.5) / 1024), 1e-7);
  // Other lengths keep the end points of the 1024 window.
  qor::sineWindow(w2.data(), 2048);
  EXPECT_NEAR(w2[0], w[0], 1e-9);
  EXPECT_NEAR(w2[2047], w[1023], 1e-7);
  const uint32_t rates[][2] = {{44100, 1024}, {48000, 1024}, {48001, 2048},
                               {96000, 2048}, {96001, 4096}, {192000, 4096}};
  for (const auto& r : rates) EXPECT_EQ(qor::frameLengthForRate(r[0]), r[1]) << r[0] << " Hz";
}

}  // namespace
