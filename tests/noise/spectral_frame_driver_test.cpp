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

// A driver over its own zeroed memory whose frame step is window, transform,
// inverse transform, overlap-add: an unchanged spectrum.
class IdentityDriver {
 public:
  IdentityDriver(uint32_t channels, uint32_t frameLength) : n_(frameLength) {
    qor::InstanceLayout counting(nullptr);
    qor::frameDriverLayOut(counting, nullptr, channels);
    memory_ = std::make_unique<qor::test::InstanceMemory>(counting.size());
    qor::InstanceLayout placing(memory_->bytes());
    qor::frameDriverLayOut(placing, &driver_, channels);
    EXPECT_EQ(placing.size(), counting.size());
    setup_ = qor::test::alignedBlock(qor::fftSetupSize(n_));
    scratch_ = qor::test::alignedBlock(qor::fftScratchSize(n_));
    EXPECT_EQ(qor::fftInit(fft(), n_), 0);
    time_.resize(n_);
    re_.resize(n_ / 2 + 1);
    im_.resize(n_ / 2 + 1);
    qor::frameDriverInit(driver_, n_, &IdentityDriver::frame, this);
  }
  qor::SpectralFrameDriver& driver() { return driver_; }
  int frames = 0;

  // Runs a whole signal through one channel in blocks; returns the output.
  std::vector<float> run(uint32_t channel, const std::vector<float>& x, uint32_t block) {
    qor::test::ChannelBuffers buffer(1, block);
    std::vector<float> y;
    for (size_t at = 0; at + block <= x.size(); at += block) {
      std::copy(x.begin() + static_cast<ptrdiff_t>(at), x.begin() + static_cast<ptrdiff_t>(at + block), buffer[0]);
      EXPECT_EQ(qor::frameDriverProcess(driver_, channel, buffer[0], buffer[0], block), 0);
      y.insert(y.end(), buffer[0], buffer[0] + block);
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

  uint32_t n_;
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
  const std::vector<float> y = d.run(0, x, block);
  expectDelayed(x, y, 1024 - block);
  EXPECT_EQ(qor::test::delayByCrossCorrelation(x, y, 2048), static_cast<int32_t>(1024 - block));
  EXPECT_EQ(d.frames, static_cast<int>(x.size() / 512));  // one frame per hop
}

INSTANTIATE_TEST_SUITE_P(Blocks, FrameDriverBlocks, ::testing::Values(256u, 512u, 128u, 64u));

TEST(FrameDriver, ResetPrimesAgainWithSilence) {
  IdentityDriver d(1, 1024);
  const std::vector<float> x = qor::test::sine(440.0, 48000.0, 8 * 1024, 0.8);
  d.run(0, x, 256);
  qor::frameDriverReset(d.driver());
  expectDelayed(x, d.run(0, x, 256), 768);
}

TEST(FrameDriver, ChannelsAreIndependent) {
  IdentityDriver d(2, 1024);
  const std::vector<float> a = qor::test::whiteNoise(16 * 1024, 1, 0.5);
  const std::vector<float> b = qor::test::sine(1000.0, 48000.0, 16 * 1024, 0.5);
  std::vector<float> ya, yb;
  qor::test::ChannelBuffers buffer(2, 256);
  for (size_t at = 0; at < a.size(); at += 256) {
    for (uint32_t c = 0; c < 2; ++c) {
      const std::vector<float>& src = c == 0 ? a : b;
      std::copy(src.begin() + static_cast<ptrdiff_t>(at), src.begin() + static_cast<ptrdiff_t>(at + 256), buffer[c]);
      ASSERT_EQ(qor::frameDriverProcess(d.driver(), c, buffer[c], buffer[c], 256), 0);
    }
    ya.insert(ya.end(), buffer[0], buffer[0] + 256);
    yb.insert(yb.end(), buffer[1], buffer[1] + 256);
  }
  expectDelayed(a, ya, 768);
  expectDelayed(b, yb, 768);
}

TEST(FrameDriver, SeparateOutputBufferLeavesInputAlone) {
  IdentityDriver d(1, 1024);
  const std::vector<float> x = qor::test::whiteNoise(4096, 3, 0.5);
  qor::test::ChannelBuffers in(1, 256), out(1, 256);
  std::vector<float> y;
  for (size_t at = 0; at < x.size(); at += 256) {
    std::copy(x.begin() + static_cast<ptrdiff_t>(at), x.begin() + static_cast<ptrdiff_t>(at + 256), in[0]);
    ASSERT_EQ(qor::frameDriverProcess(d.driver(), 0, in[0], out[0], 256), 0);
    for (uint32_t i = 0; i < 256; ++i) ASSERT_EQ(in[0][i], x[at + i]);
    y.insert(y.end(), out[0], out[0] + 256);
  }
  expectDelayed(x, y, 768);
}

TEST(FrameDriver, BlockThatDoesNotDivideTheHopOverruns) {
  IdentityDriver d(1, 1024);
  qor::test::ChannelBuffers buffer(1, 384);
  buffer.fill(0.1f);
  EXPECT_EQ(qor::frameDriverProcess(d.driver(), 0, buffer[0], buffer[0], 384), 0);
  EXPECT_EQ(qor::frameDriverProcess(d.driver(), 0, buffer[0], buffer[0], 384), qor::kFrameDriverOverrun);
}

TEST(FrameDriver, WindowIsASineWhoseSquaresOverlapToOne) {
  std::vector<float> w(1024);
  qor::sineWindow(w.data(), 1024);
  for (uint32_t k = 0; k < 1024; ++k) {
    ASSERT_NEAR(w[k], std::sin(std::numbers::pi * (k + 0.5) / 1024.0), 1e-7);
  }
  for (uint32_t k = 0; k < 512; ++k) ASSERT_NEAR(w[k] * w[k] + w[k + 512] * w[k + 512], 1.0, 1e-6);
  // The constants stay as they are at other lengths.
  std::vector<float> w2(2048);
  qor::sineWindow(w2.data(), 2048);
  EXPECT_NEAR(w2[2047], std::sin(3.1385246920140215 + 0.0015339807878856412), 1e-7);
  EXPECT_NEAR(w2[0], std::sin(0.0015339807878856412), 1e-9);
}

TEST(FrameDriver, FrameLengthFollowsTheRate) {
  EXPECT_EQ(qor::frameLengthForRate(44100), 1024u);
  EXPECT_EQ(qor::frameLengthForRate(48000), 1024u);
  EXPECT_EQ(qor::frameLengthForRate(48001), 2048u);
  EXPECT_EQ(qor::frameLengthForRate(96000), 2048u);
  EXPECT_EQ(qor::frameLengthForRate(96001), 4096u);
  EXPECT_EQ(qor::frameLengthForRate(192000), 4096u);
}

}  // namespace
