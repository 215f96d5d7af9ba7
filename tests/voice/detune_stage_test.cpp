#include "dsp/voice/detune_stage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using qor::DetuneSettings;
using qor::DetuneStage;
using Channels = std::vector<std::vector<float>>;

DetuneSettings settingsFor(float rate, float baseMs, float depthMs, float delayHz, float centre, float spread,
                           float pitchHz, int32_t channels = 1) {
  return {rate, baseMs, depthMs, delayHz, centre, spread, pitchHz, channels, -200.0f, 0.0f};
}

// A stage carved from its own aligned block, as an owner would do it.
class Stage {
 public:
  explicit Stage(uint32_t rate) {
    qor::InstanceLayout counting(nullptr);
    counting.take<DetuneStage>();
    DetuneStage::carve(counting, nullptr, rate);
    memory_ = std::make_unique<qor::test::InstanceMemory>(counting.size());
    qor::InstanceLayout placing(memory_->bytes());
    stage_ = placing.take<DetuneStage>();
    DetuneStage::carve(placing, stage_, rate);
    stage_->init();
  }
  DetuneStage* operator->() { return stage_; }
  // Runs whole blocks of `block` samples with the allocation guard around each.
  Channels run(const Channels& in, uint32_t block) {
    const uint32_t count = static_cast<uint32_t>(in.size());
    qor::test::ChannelBuffers buffers(count, block);
    Channels out(count);
    for (size_t at = 0; at + block <= in[0].size(); at += block) {
      buffers.load(in, at);
      EXPECT_NO_ALLOCATION(stage_->process(buffers.data(), count, block));
      buffers.appendTo(out);
    }
    return out;
  }

 private:
  std::unique_ptr<qor::test::InstanceMemory> memory_;
  DetuneStage* stage_;
};

// Frequencies between successive upward zero crossings (interpolated).
std::vector<double> crossingFrequencies(const std::vector<float>& x, size_t from, double rate) {
  std::vector<double> f;
  double last = -1.0;
  for (size_t i = std::max<size_t>(from, 1); i < x.size(); ++i) {
    if (x[i - 1] < 0.0f && x[i] >= 0.0f) {
      const double t = static_cast<double>(i - 1) + x[i - 1] / static_cast<double>(x[i - 1] - x[i]);
      if (last >= 0.0) f.push_back(rate / (t - last));
      last = t;
    }
  }
  return f;
}

// Grains grow from 50 ms until the sweep is slow enough (both lengths worked
// out by hand); the anti-aliasing low-pass follows the largest upward shift.
TEST(DetuneStage, GrainAndLowPassFollowTheShift) {
  const struct { float rate, centre, spread; uint32_t grain; } cases[] = {{48000, 0, 0, 2400}, {48000, 600, 600, 4800},
                                                                          {44100, -1200, 400, 2205}};
  for (const auto& c : cases) {
    Stage stage(static_cast<uint32_t>(c.rate));
    stage->setSettings(settingsFor(c.rate, 1.0f, 0.0f, 0.0f, c.centre, c.spread, 0.0f));
    stage.run({std::vector<float>(256, 0.0f)}, 256);
    EXPECT_EQ(stage->grainLength(), c.grain) << c.centre;
    EXPECT_NEAR(stage->grainRate(), (1.0 - std::exp2(c.centre / 1200.0)) * c.rate / c.grain, 1e-3);
    const double largest = std::max(c.centre - c.spread, c.centre + c.spread);
    EXPECT_NEAR(stage->lowPassHz(), std::min(0.4 * c.rate / std::exp2(largest / 1200.0), 0.45 * c.rate), 0.05);
  }
}

TEST(DetuneStage, UnshiftedSignalIsDelayedByHalfAGrainPlusTheBaseDelay) {
  Stage stage(48000);
  const float baseMs = 10.0f + 2000.0f / 48000.0f;
  stage->setSettings(settingsFor(48000, baseMs, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f));
  const auto in = qor::test::whiteNoise(48000, 7, 0.5);
  const auto out = stage.run({in}, 256)[0];
  EXPECT_EQ(qor::test::delayByCrossCorrelation(in, out, 3000), 1200 + 480 + 2);
  const double ratio = qor::test::rms(out, 4000) / qor::test::rms(in, 4000 - 1682, 48000 - 1682);
  EXPECT_GT(ratio, 0.85);  // only the 19.2 kHz anti-aliasing low-pass takes some energy
  EXPECT_LT(ratio, 1.02);
}

class DetunePitch : public ::testing::TestWithParam<float> {};

TEST_P(DetunePitch, CentreShiftMovesAToneByTheRatio) {
  const float cents = GetParam();
  Stage stage(48000);
  // Without spread the pitch LFO has nothing to move.
  stage->setSettings(settingsFor(48000, 2000.0f / 48000.0f, 0.0f, 0.0f, cents, 0.0f, 1.0f));
  // 400 Hz: the two read pointers are a whole number of cycles apart.
  const auto out = stage.run({qor::test::sine(400.0, 48000.0, 48000 * 2, 0.5)}, 256)[0];
  const double atShifted = qor::test::toneAmplitude(out, 400.0 * std::exp2(cents / 1200.0), 48000.0, 48000, 96000);
  EXPECT_GT(atShifted, 0.45) << cents;
  EXPECT_LT(qor::test::toneAmplitude(out, 400.0, 48000.0, 48000, 96000), 0.05 * atShifted) << cents;
}

INSTANTIATE_TEST_SUITE_P(Cents, DetunePitch, ::testing::Values(-600.0f, 150.0f, 600.0f));

TEST(DetuneStage, PitchLfoSweepsBetweenCentreMinusAndPlusSpread) {
  Stage stage(48000);
  // 0 .. +400 cents at 1 Hz.
  stage->setSettings(settingsFor(48000, 2000.0f / 48000.0f, 0.0f, 0.0f, 200.0f, 200.0f, 1.0f));
  const auto out = stage.run({qor::test::sine(400.0, 48000.0, 48000 * 3, 0.5)}, 256)[0];
  auto f = crossingFrequencies(out, 48000, 48000.0);
  ASSERT_GT(f.size(), 100u);
  // Average over a few periods to smooth the grain crossfades.
  std::vector<double> smooth;
  for (size_t i = 8; i < f.size(); ++i) {
    smooth.push_back(std::accumulate(f.begin() + i - 8, f.begin() + i, 0.0) / 8.0);
  }
  const auto [lo, hi] = std::minmax_element(smooth.begin(), smooth.end());
  EXPECT_NEAR(*lo, 400.0, 8.0);
  EXPECT_NEAR(*hi, 400.0 * std::exp2(400.0 / 1200.0), 10.0);
}

TEST(DetuneStage, ModulatedDelayBendsPitchByTheDelaySlope) {
  Stage stage(48000);
  const float depthMs = 10.0f, rateHz = 2.0f;
  stage->setSettings(settingsFor(48000, 20.0f, depthMs, rateHz, 0.0f, 0.0f, 0.0f));
  const auto out = stage.run({qor::test::sine(1000.0, 48000.0, 48000 * 2, 0.5)}, 256)[0];
  const auto f = crossingFrequencies(out, 12000, 48000.0);
  ASSERT_GT(f.size(), 1000u);
  const auto [lo, hi] = std::minmax_element(f.begin(), f.end());
  // d(t) = depth sin(2 pi rate t) ms, so the frequency swings by depth * 2 pi rate / 1000.
  const double swing = depthMs * 2.0 * 3.14159265358979 * rateHz / 1000.0;
  EXPECT_NEAR(*lo, 1000.0 * (1.0 - swing), 6.0);
  EXPECT_NEAR(*hi, 1000.0 * (1.0 + swing), 6.0);
}

TEST(DetuneStage, NewGainsTakeEffectAtTheNextBlockAndRampOverSixtyFourSamples) {
  const DetuneSettings delayed = settingsFor(48000, 5.0f, 2.0f, 1.5f, 100.0f, 50.0f, 0.5f);
  DetuneSettings straight = delayed;
  straight.gain1Db = 0.0f, straight.gain2Db = -200.0f;
  Stage changing(48000), reference(48000);
  changing->setSettings(delayed), reference->setSettings(delayed);
  const auto in = qor::test::whiteNoise(4096, 3, 0.5);
  const Channels first{std::vector<float>(in.begin(), in.begin() + 2048)};
  const Channels second{std::vector<float>(in.begin() + 2048, in.end())};
  changing.run(first, 256), reference.run(first, 256);
  changing->setSettings(straight);
  const auto out = changing.run(second, 256)[0];
  const auto wet = reference.run(second, 256)[0];

  const float tiny = std::pow(10.0f, -10.0f);
  for (uint32_t i = 0; i < 256; ++i) {
    const float t = i < 64 ? static_cast<float>(i) / 64.0f : 1.0f;
    ASSERT_NEAR(out[i], (tiny + t * (1.0f - tiny)) * second[0][i] + (1.0f + t * (tiny - 1.0f)) * wet[i], 2e-5f) << i;
  }
}

// Whole stereo blocks against short mono ones: neither the block split nor
// the other channel changes a channel's output.
TEST(DetuneStage, BlockSplitAndOtherChannelDoNotChangeTheResult) {
  const DetuneSettings stereo = settingsFor(44100, 12.0f, 6.0f, 1.7f, -150.0f, 120.0f, 0.8f, 2);
  DetuneSettings mono = stereo;
  mono.channels = 1;
  Stage both(44100), left(44100);
  both->setSettings(stereo), left->setSettings(mono);
  const Channels in{qor::test::whiteNoise(8192, 11, 0.5), qor::test::sine(300.0, 44100.0, 8192, 0.5)};
  const auto a = both.run(in, 1024);
  EXPECT_EQ(a[0], left.run({in[0]}, 128)[0]);
  EXPECT_GT(qor::test::rms(a[1], 2048), 0.1);
}

TEST(DetuneStage, PassesUntilConfiguredAndResetRestartsLikeAFreshStage) {
  const DetuneSettings s = settingsFor(48000, 30.0f, 10.0f, 0.7f, 300.0f, 100.0f, 1.1f);
  Stage used(48000), fresh(48000);
  const Channels dry{qor::test::whiteNoise(512, 9, 0.5)};
  EXPECT_EQ(used.run(dry, 256), dry);
  used->setSettings(s), fresh->setSettings(s);
  used.run({qor::test::whiteNoise(4096, 5, 0.8)}, 256);
  used->reset();
  const Channels in{qor::test::whiteNoise(4096, 6, 0.5)};
  EXPECT_EQ(used.run(in, 256), fresh.run(in, 256));
}

}  // namespace
