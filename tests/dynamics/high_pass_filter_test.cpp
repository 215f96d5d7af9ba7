// The high-pass filter measured with sines, impulses and noise through Process.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

#include "block_runner.h"
#include "dsp/dynamics/high_pass_filter.h"
#include "support/signals.h"

namespace {

using namespace QorHighPassFilter_API_V1;
using R = QorHighPassFilterResult;
using qor::test::Signal;

// Magnitude of an order-N Butterworth high-pass made by the prewarped
// bilinear transform, in closed form.
double butterworthHighPassGain(double f, double fc, double rate, int order) {
  const double ratio = std::tan(std::numbers::pi * fc / rate) / std::tan(std::numbers::pi * f / rate);
  return 1.0 / std::sqrt(1.0 + std::pow(ratio, 2.0 * order));
}

struct Filter {
  explicit Filter(uint32_t rate = 48000, uint32_t block = 256, uint32_t channels = 2,
                  QorHighPassFilterParameters p = defaults()) {
    config = {rate, block, channels, rate, block, channels, p};
    size_t size = 0;
    EXPECT_EQ(qorHighPassFilterGetInstanceSize(&config, &size), R::Success);
    memory = std::make_unique<qor::test::InstanceMemory>(size);
    EXPECT_EQ(qorHighPassFilterInit(inst(), &config), R::Success);
  }
  static QorHighPassFilterParameters defaults() {
    QorHighPassFilterParameters p{};
    qorHighPassFilterGetDefaultParameters(&p);
    return p;
  }
  QorHighPassFilterInst* inst() { return memory->as<QorHighPassFilterInst>(); }
  Signal run(const Signal& in) {
    return qor::test::runBlocks([&](float** ch) { return qorHighPassFilterProcess(inst(), ch); }, in,
                                config.inputBlockSize);
  }
  void update(const QorHighPassFilterParameters& p) {
    QorHighPassFilterParameters copy = p;
    ASSERT_EQ(qorHighPassFilterUpdateParameters(inst(), &copy), R::Success);
  }
  QorHighPassFilterConfig config{};
  std::unique_ptr<qor::test::InstanceMemory> memory;
};

QorHighPassFilterParameters with(uint32_t order, float cutoff, uint8_t enable = 1, float fade = 50.0f) {
  return {order, cutoff, enable, fade};
}

// Gain at f as the ratio of output to input tone amplitude over the last
// half second of a two-second sine, long after the start transient.
double measuredGain(Filter& filter, double f) {
  const double rate = filter.config.inputSampleRate;
  const size_t n = static_cast<size_t>(2 * rate);
  const std::vector<float> x = qor::test::sine(f, rate, n, 0.5);
  const Signal y = filter.run(qor::test::onChannels(x, 2));
  const double in = qor::test::toneAmplitude(x, f, rate, n / 2 * 3 / 2);
  EXPECT_NEAR(qor::test::toneAmplitude(y[1], f, rate, n / 2 * 3 / 2),
              qor::test::toneAmplitude(y[0], f, rate, n / 2 * 3 / 2), 1e-6)
      << "both channels filtered alike";
  return qor::test::toneAmplitude(y[0], f, rate, n / 2 * 3 / 2) / in;
}

struct ResponseCase {
  uint32_t rate;
  uint32_t order;
  float cutoff;
};

class HighPassFilterResponse : public ::testing::TestWithParam<ResponseCase> {};

TEST_P(HighPassFilterResponse, MatchesTheButterworthMagnitudeAroundTheCutoff) {
  const ResponseCase c = GetParam();
  for (double factor : {0.25, 0.5, 1.0, 2.0, 4.0}) {
    Filter filter(c.rate, 256, 2, with(c.order, c.cutoff));
    const double f = c.cutoff * factor;
    const double expected = butterworthHighPassGain(f, c.cutoff, c.rate, static_cast<int>(c.order));
    EXPECT_NEAR(qor::test::toDb(measuredGain(filter, f)), qor::test::toDb(expected), 0.05)
        << "at " << f << " Hz";
    if (factor == 1.0) {
      Filter again(c.rate, 256, 2, with(c.order, c.cutoff));
      EXPECT_NEAR(qor::test::toDb(measuredGain(again, f)), -3.01, 0.05) << "half power at the cutoff";
    }
  }
  Filter filter(c.rate, 256, 2, with(c.order, c.cutoff));
  EXPECT_NEAR(measuredGain(filter, 3000.0), 1.0, 0.003) << "the voice band passes";
}

INSTANTIATE_TEST_SUITE_P(OrdersRatesCutoffs, HighPassFilterResponse,
                         ::testing::Values(ResponseCase{48000, 1, 60.0f}, ResponseCase{48000, 2, 60.0f},
                                           ResponseCase{44100, 1, 150.0f}, ResponseCase{44100, 2, 400.0f},
                                           ResponseCase{48000, 2, 20.0f}));

// After `blocks` Process calls following a cutoff change, one impulse block
// reveals the first-order section in use: h[0] = b0 = 1 / (1 + tan(pi fc / fs)).
float cutoffInUseAfter(int blocks, float from, float to) {
  Filter filter(48000, 256, 1, with(1, from));
  filter.update(with(1, to));
  std::vector<float> x(256 * static_cast<size_t>(blocks), 0.0f);
  x[x.size() - 256] = 1.0f;
  const Signal y = filter.run({x});
  const double b0 = y[0][x.size() - 256];
  return static_cast<float>(std::atan(1.0 / b0 - 1.0) * 48000.0 / std::numbers::pi);
}

TEST(HighPassFilterGlide, CutoffMovesTenPercentPerBlockAndSnapsWithinOneHertz) {
  // Reference trajectory: c := 0.9 c + 0.1 target, snapping when within 1 Hz.
  std::vector<float> expected{60.0f};
  while (expected.back() != 400.0f) {
    float c = 0.9f * expected.back() + 0.1f * 400.0f;
    if (std::fabs(400.0f - c) < 1.0f) c = 400.0f;
    expected.push_back(c);
  }
  ASSERT_EQ(expected.size(), 57u) << "the 56th update snaps";
  EXPECT_NEAR(expected[1], 94.0f, 1e-4);
  EXPECT_NEAR(expected[2], 124.6f, 1e-4);
  for (int k : {1, 2, 3, 10, 30, 55, 56, 70}) {
    const float want = expected[std::min<size_t>(k, expected.size() - 1)];
    EXPECT_NEAR(cutoffInUseAfter(k, 60.0f, 400.0f), want, 0.02f * want / 60.0f + 0.01f)
        << "after " << k << " blocks";
  }
  EXPECT_LT(cutoffInUseAfter(55, 60.0f, 400.0f), 399.5f);
  EXPECT_NEAR(cutoffInUseAfter(20, 400.0f, 20.0f), 20.0f + 380.0f * std::pow(0.9f, 20.0f), 0.05f)
      << "glides downwards too";
}

// Transposed direct form II with double-precision analytic coefficients.
struct ReferenceSection {
  double b0, b1, b2, a1, a2, s1 = 0, s2 = 0;
  static ReferenceSection highPass(int order, double fc, double rate) {
    const double t = std::tan(std::numbers::pi * fc / rate);
    if (order == 1) return {1 / (1 + t), -1 / (1 + t), 0, (t - 1) / (t + 1), 0};
    const double d = 1 + std::sqrt(2.0) * t + t * t;
    return {1 / d, -2 / d, 1 / d, (2 * t * t - 2) / d, (1 - std::sqrt(2.0) * t + t * t) / d};
  }
  float step(float x) {
    const double y = b0 * x + s1;
    s1 = b1 * x + s2 - a1 * y;
    s2 = b2 * x - a2 * y;
    return static_cast<float>(y);
  }
};

TEST(HighPassFilterOrder, ChangingOrderRedesignsAtOnceAndKeepsTheState) {
  Filter filter(48000, 256, 1, with(1, 100.0f));
  const std::vector<float> x = qor::test::whiteNoise(512, 7, 0.5);
  ReferenceSection ref = ReferenceSection::highPass(1, 100.0, 48000.0);
  ReferenceSection fresh = ReferenceSection::highPass(2, 100.0, 48000.0);
  std::vector<float> first(x.begin(), x.begin() + 256), second(x.begin() + 256, x.end());
  const Signal y1 = filter.run({first});
  for (size_t i = 0; i < 256; ++i) ASSERT_NEAR(y1[0][i], ref.step(x[i]), 1e-5) << i;
  filter.update(with(2, 100.0f));
  const Signal y2 = filter.run({second});
  const ReferenceSection second_order = ReferenceSection::highPass(2, 100.0, 48000.0);
  ref.b0 = second_order.b0, ref.b1 = second_order.b1, ref.b2 = second_order.b2;
  ref.a1 = second_order.a1, ref.a2 = second_order.a2;
  double fromReset = 0;
  for (size_t i = 0; i < 256; ++i) {
    ASSERT_NEAR(y2[0][i], ref.step(x[256 + i]), 4e-4) << i;
    if (i < 8) fromReset = std::max<double>(fromReset, std::fabs(y2[0][i] - fresh.step(x[256 + i])));
  }
  EXPECT_GT(fromReset, 1e-2) << "a cleared state would have looked different: " << fromReset;
}

TEST(HighPassFilterState, BlockSizeDoesNotChangeTheOutputAndFlushForgetsHistory) {
  const Signal x = {qor::test::whiteNoise(4096, 11, 0.5), qor::test::whiteNoise(4096, 12, 0.5)};
  Filter small(48000, 64, 2, with(2, 120.0f)), large(48000, 1024, 2, with(2, 120.0f));
  const Signal a = small.run(x), b = large.run(x);
  for (int c = 0; c < 2; ++c) {
    for (size_t i = 0; i < 4096; ++i) ASSERT_NEAR(a[c][i], b[c][i], 1e-6) << c << ":" << i;
  }
  ASSERT_EQ(qorHighPassFilterFlush(large.inst()), R::Success);
  Filter fresh(48000, 1024, 2, with(2, 120.0f));
  const Signal afterFlush = large.run(x), fromFresh = fresh.run(x);
  EXPECT_EQ(afterFlush, fromFresh);
  QorHighPassFilterParameters p{};
  ASSERT_EQ(qorHighPassFilterGetParameters(large.inst(), &p), R::Success);
  EXPECT_EQ(p.order, 2u);
  EXPECT_EQ(p.cutoffFrequency, 120.0f);
}

class HighPassFilterBypass : public ::testing::Test {
 protected:
  // A low tone the filter removes almost entirely, so dry and filtered differ.
  std::vector<float> tone = qor::test::sine(30.0, 48000.0, 256 * 40, 0.5);
  std::vector<float> block(size_t k) {
    return {tone.begin() + 256 * k, tone.begin() + 256 * (k + 1)};
  }
};

TEST_F(HighPassFilterBypass, DisablingFadesToDryOverTheCrossfadeTimeThenPassesUntouched) {
  Filter filter(48000, 256, 1, with(2, 200.0f));
  ReferenceSection wet = ReferenceSection::highPass(2, 200.0, 48000.0);
  const Signal first = filter.run({block(0)});
  for (size_t i = 0; i < 256; ++i) ASSERT_NEAR(first[0][i], wet.step(block(0)[i]), 1e-5);
  filter.update(with(2, 200.0f, 0));

  // The mix falls by the 50 ms, -100 dB settle factor per sample.
  const double keep = std::pow(1e-5, 1.0 / 2400.0);
  double mix = 1.0;
  size_t k = 1;
  for (; k < 30; ++k) {
    const std::vector<float> x = block(k);
    const Signal y = filter.run({x});
    if (mix == 0.0) {
      EXPECT_EQ(y[0], x) << "after the fade the block passes bit-exact";
      break;
    }
    for (size_t i = 0; i < 256; ++i) {
      const double expected = (1.0 - mix) * x[i] + mix * wet.step(x[i]);
      ASSERT_NEAR(y[0][i], expected, 1e-4) << "block " << k << " sample " << i;
      mix *= keep;
    }
    if (mix < 1e-5) mix = 0.0;
  }
  EXPECT_NEAR(static_cast<double>(k - 1) * 256.0, 2400.0, 256.0) << "fades over about 50 ms";
  int latency = -1;
  ASSERT_EQ(qorHighPassFilterGetCurrentLatency(filter.inst(), &latency), R::Success);
  EXPECT_EQ(latency, 0);
}

TEST_F(HighPassFilterBypass, CompletedFadeClearsTheFilterSoReenablingStartsFromSilence) {
  Filter faded(48000, 256, 1, with(2, 200.0f));
  faded.run({block(0)});
  faded.update(with(2, 200.0f, 0));
  for (size_t k = 1; k < 14; ++k) faded.run({block(k)});
  Filter neverOn(48000, 256, 1, with(2, 200.0f, 0));
  faded.update(with(2, 200.0f, 1));
  neverOn.update(with(2, 200.0f, 1));
  for (size_t k = 14; k < 20; ++k) {
    EXPECT_EQ(faded.run({block(k)}), neverOn.run({block(k)})) << "block " << k;
  }
}

TEST_F(HighPassFilterBypass, NewCrossfadeTimeWaitsForTheNextInit) {
  Filter slow(48000, 256, 1, with(2, 200.0f, 1, 50.0f));
  slow.update(with(2, 200.0f, 0, 0.0f));
  const std::vector<float> x = block(1);
  const Signal y = slow.run({x});
  EXPECT_GT(std::fabs(y[0][255] - x[255]), 0.01) << "still mostly filtered after one block";

  Filter instant(48000, 256, 1, with(2, 200.0f, 1, 0.0f));
  instant.update(with(2, 200.0f, 0, 0.0f));
  const Signal z = instant.run({x});
  for (size_t i = 1; i < 256; ++i) ASSERT_EQ(z[0][i], x[i]) << "dry from the second sample";
  EXPECT_NE(z[0][0], x[0]) << "the first sample still uses the incoming mix";
}

class HighPassFilterCalls : public ::testing::Test {
 protected:
  QorHighPassFilterConfig good{48000, 256, 2, 48000, 256, 2, Filter::defaults()};
  static R sizeOf(QorHighPassFilterConfig c) {
    size_t size = 0;
    return qorHighPassFilterGetInstanceSize(&c, &size);
  }
};

TEST_F(HighPassFilterCalls, ConfigurationChecksInOrder) {
  auto c = good;
  for (uint32_t rate : {44100u, 48000u}) {
    c.inputSampleRate = rate;
    EXPECT_EQ(sizeOf(c), R::Success) << rate;
  }
  for (uint32_t rate : {0u, 32000u, 44099u, 88200u, 96000u}) {
    c.inputSampleRate = rate;
    c.inputBlockSize = 1;  // the rate is reported first
    EXPECT_EQ(sizeOf(c), R::ErrorSampleRate) << rate;
  }
  c = good;
  for (uint32_t block : {31u, 4097u, 0u}) {
    c.inputBlockSize = block;
    c.parameters.order = 9;  // the block size is reported before the parameters
    EXPECT_EQ(sizeOf(c), R::ErrorBlockSize) << block;
  }
  for (uint32_t block : {32u, 4096u}) {
    c = good;
    c.inputBlockSize = block;
    EXPECT_EQ(sizeOf(c), R::Success) << block;
  }
  c = good;
  c.outputSampleRate = 12345;
  c.outputBlockSize = 7;
  c.outputChannels = 5;
  EXPECT_EQ(sizeOf(c), R::Success) << "the output half is not checked";
  size_t size = 0;
  EXPECT_EQ(qorHighPassFilterGetInstanceSize(nullptr, &size), R::ErrorNullPointer);
  EXPECT_EQ(qorHighPassFilterGetInstanceSize(&good, nullptr), R::ErrorNullPointer);
}

TEST_F(HighPassFilterCalls, MonoStillChecksTheSecondChannelPointer) {
  Filter mono(48000, 256, 1);
  qor::test::ChannelBuffers audio(2, 256);
  audio.fill(0.5f);
  float* withNull[2] = {audio[0], nullptr};
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorHighPassFilterProcess(mono.inst(), withNull), R::Success));
  float* withOdd[2] = {audio[0], audio[1] + 4};
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorHighPassFilterProcess(mono.inst(), withOdd), R::ErrorMisaligned));
  float* third[3] = {audio[0], audio[1], audio[1] + 4};
  Filter stereo;
  // Only the first two pointers are checked.
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorHighPassFilterProcess(stereo.inst(), third), R::Success));
}

}  // namespace
