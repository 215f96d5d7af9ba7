// The multi-band equaliser measured with sines against closed-form responses.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>
#include <numbers>
#include <vector>

#include "dsp/dynamics/multi_band_equaliser.h"
#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using R = QorMultiBandEqualiserResult;
using Signal = std::vector<std::vector<float>>;
using qor::test::toDb;
using qor::test::toneAmplitude;

constexpr double kPi = std::numbers::pi;

// |H| of a biquad given in the usual b/a form, at f.
double biquadGain(const double b[3], const double a[3], double f, double rate) {
  const std::complex<double> z1 = std::polar(1.0, -2.0 * kPi * f / rate);
  return std::abs((b[0] + z1 * (b[1] + z1 * b[2])) / (a[0] + z1 * (a[1] + z1 * a[2])));
}

// Cookbook peaking EQ in double precision.
double peakingGainDb(double f0, double gainDb, double q, double f, double rate) {
  const double w = 2.0 * kPi * f0 / rate, a = std::pow(10.0, gainDb / 40.0);
  const double alpha = std::sin(w) / (2.0 * q);
  const double b[3] = {1.0 + alpha * a, -2.0 * std::cos(w), 1.0 - alpha * a};
  const double den[3] = {1.0 + alpha / a, -2.0 * std::cos(w), 1.0 - alpha / a};
  return toDb(biquadGain(b, den, f, rate));
}

// Bilinear Butterworth: |H|^2 = 1 / (1 + (ratio of prewarped frequencies)^(2N)).
double butterworthGainDb(double fc, int order, bool highPass, double f, double rate) {
  const double r = std::tan(kPi * f / rate) / std::tan(kPi * fc / rate);
  const double x = highPass ? 1.0 / r : r;
  return -10.0 * std::log10(1.0 + std::pow(x, 2.0 * order));
}

class MultiBandEqualiserTest : public ::testing::Test {
 protected:
  QorMultiBandEqualiserParameters defaults() {
    QorMultiBandEqualiserParameters p{};
    EXPECT_EQ(qorMultiBandEqualiserGetDefaultParameters(&p), R::Success);
    return p;
  }
  QorMultiBandEqualiserInst* make(const QorMultiBandEqualiserParameters& p, uint32_t channels = 1,
                                  uint32_t block = 256, uint32_t rate = 48000) {
    config = {rate, block, channels, rate, block, channels, p};
    size_t size = 0;
    EXPECT_EQ(qorMultiBandEqualiserGetInstanceSize(&config, &size), R::Success);
    memory.push_back(std::make_unique<qor::test::InstanceMemory>(size));
    auto* inst = memory.back()->as<QorMultiBandEqualiserInst>();
    EXPECT_EQ(qorMultiBandEqualiserInit(inst, &config), R::Success);
    return inst;
  }
  // Runs whole blocks of `in` through Process.
  Signal run(QorMultiBandEqualiserInst* inst, const Signal& in) {
    const uint32_t block = config.inputBlockSize;
    qor::test::ChannelBuffers buffers(static_cast<uint32_t>(in.size()), block);
    Signal out;
    for (size_t at = 0; at + block <= in[0].size(); at += block) {
      buffers.load(in, at);
      EXPECT_NO_ALLOCATION(EXPECT_EQ(qorMultiBandEqualiserProcess(inst, buffers.data()), R::Success));
      buffers.appendTo(out);
    }
    return out;
  }
  // Steady-state gain in dB of a sine at f (settles 0.5 s, measures 0.25 s).
  double gainDb(QorMultiBandEqualiserInst* inst, double f) {
    const size_t settle = 24000, measure = 12000;
    const Signal in{qor::test::sine(f, 48000.0, settle + measure, 0.25)};
    const Signal out = run(inst, in);
    return toDb(toneAmplitude(out[0], f, 48000.0, settle) / toneAmplitude(in[0], f, 48000.0, settle));
  }
  void update(QorMultiBandEqualiserInst* inst, QorMultiBandEqualiserParameters p) {
    EXPECT_EQ(qorMultiBandEqualiserUpdateParameters(inst, &p), R::Success);
  }

  QorMultiBandEqualiserConfig config{};
  std::vector<std::unique_ptr<qor::test::InstanceMemory>> memory;
};

TEST_F(MultiBandEqualiserTest, FlatSettingsAreTransparentAndAddNoLatency) {
  auto* inst = make(defaults(), 2);
  const Signal in{qor::test::whiteNoise(4096, 11, 0.5), qor::test::whiteNoise(4096, 12, 0.5)};
  const Signal out = run(inst, in);
  // Single-precision sections with poles near DC leave only rounding noise.
  for (size_t c = 0; c < 2; ++c) {
    std::vector<float> error(in[c].size());
    for (size_t i = 0; i < error.size(); ++i) error[i] = out[c][i] - in[c][i];
    EXPECT_LT(toDb(qor::test::rms(error) / qor::test::rms(in[c])), -75.0);
  }
  int latency = -1;
  EXPECT_EQ(qorMultiBandEqualiserGetCurrentLatency(inst, &latency), R::Success);
  EXPECT_EQ(latency, 0);
  EXPECT_EQ(defaults().crossfadeTime, 50.5f);
}

struct BandCase {
  int band;
  float frequency, gain, q;
};

class MultiBandEqualiserBandTest : public MultiBandEqualiserTest,
                                   public ::testing::WithParamInterface<BandCase> {};

TEST_P(MultiBandEqualiserBandTest, GainAtAndAroundCentreMatchesPeakingResponse) {
  const BandCase b = GetParam();
  QorMultiBandEqualiserParameters p = defaults();
  float* fields[3][3] = {{&p.band1Frequency, &p.band1Gain, &p.band1Q},
                         {&p.band2Frequency, &p.band2Gain, &p.band2Q},
                         {&p.band3Frequency, &p.band3Gain, &p.band3Q}};
  *fields[b.band - 1][0] = b.frequency;
  *fields[b.band - 1][1] = b.gain;
  *fields[b.band - 1][2] = b.q;
  auto* inst = make(p);
  for (const double ratio : {1.0, 0.5, 0.8, 1.25, 2.0}) {
    const double f = b.frequency * ratio;
    EXPECT_NEAR(gainDb(inst, f), peakingGainDb(b.frequency, b.gain, b.q, f, 48000.0), 0.03)
        << "band " << b.band << " at " << f << " Hz";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Bands, MultiBandEqualiserBandTest,
    ::testing::Values(BandCase{1, 120.0f, 9.0f, 1.0f}, BandCase{1, 300.0f, -12.0f, 4.0f},
                      BandCase{2, 1000.0f, 6.0f, 0.7f}, BandCase{2, 3000.0f, -6.0f, 10.0f},
                      BandCase{3, 6000.0f, 12.0f, 2.0f}, BandCase{3, 10000.0f, -9.0f, 0.5f}));

TEST_F(MultiBandEqualiserTest, HighAndLowPassSectionsAreButterworth) {
  for (const int order : {1, 2}) {
    QorMultiBandEqualiserParameters p = defaults();
    p.highPassOrder = order;
    p.highPassFrequency = 200.0f;
    p.lowPassOrder = order;
    p.lowPassFrequency = 6000.0f;
    auto* inst = make(p);
    for (const double f : {60.0, 200.0, 400.0, 1500.0, 6000.0, 12000.0}) {
      const double expected = butterworthGainDb(200.0, order, true, f, 48000.0) +
                              butterworthGainDb(6000.0, order, false, f, 48000.0);
      EXPECT_NEAR(gainDb(inst, f), expected, 0.03) << "order " << order << " at " << f;
    }
    // Order 0 switches a section off.
    p.highPassOrder = 0;
    update(inst, p);
    EXPECT_NEAR(gainDb(inst, 60.0), butterworthGainDb(6000.0, order, false, 60.0, 48000.0), 0.03);
  }
}

TEST_F(MultiBandEqualiserTest, CutoffGlideAdvancesOncePerUpdateAfterTheStageHasRun) {
  QorMultiBandEqualiserParameters p = defaults();
  p.lowPassOrder = 2;
  p.lowPassFrequency = 12000.0f;
  auto* inst = make(p);
  const double k = 1.0 - std::exp(-1.0 / (187.0 * 0.010));  // 10 ms at 187 blocks/s
  const double probe = 9000.0;
  EXPECT_NEAR(gainDb(inst, probe), butterworthGainDb(12000.0, 2, false, probe, 48000.0), 0.03);

  p.lowPassFrequency = 4000.0f;
  update(inst, p);
  double cutoff = 12000.0 - k * 8000.0;
  EXPECT_NEAR(gainDb(inst, probe), butterworthGainDb(cutoff, 2, false, probe, 48000.0), 0.03);
  // Processing alone does not move it; each further update (any field) does.
  EXPECT_NEAR(gainDb(inst, probe), butterworthGainDb(cutoff, 2, false, probe, 48000.0), 0.03);
  p.band2Gain = 0.5f;
  for (int i = 0; i < 5; ++i) update(inst, p);
  cutoff = 4000.0 + 8000.0 * std::pow(1.0 - k, 6);
  const double withBand = butterworthGainDb(cutoff, 2, false, probe, 48000.0) +
                          peakingGainDb(2000.0, 0.5, 1.0, probe, 48000.0);
  EXPECT_NEAR(gainDb(inst, probe), withBand, 0.03);
  for (int i = 0; i < 200; ++i) update(inst, p);
  EXPECT_NEAR(gainDb(inst, probe),
              butterworthGainDb(4000.0, 2, false, probe, 48000.0) +
                  peakingGainDb(2000.0, 0.5, 1.0, probe, 48000.0),
              0.03);

  // Before the first Process (and after Flush) a change lands at once.
  p.lowPassFrequency = 12000.0f;
  auto* fresh = make(p);
  p.lowPassFrequency = 3000.0f;
  update(fresh, p);
  EXPECT_NEAR(gainDb(fresh, probe),
              butterworthGainDb(3000.0, 2, false, probe, 48000.0) +
                  peakingGainDb(2000.0, 0.5, 1.0, probe, 48000.0),
              0.03);
  ASSERT_EQ(qorMultiBandEqualiserFlush(fresh), R::Success);
  p.lowPassFrequency = 6000.0f;
  update(fresh, p);
  EXPECT_NEAR(gainDb(fresh, probe),
              butterworthGainDb(6000.0, 2, false, probe, 48000.0) +
                  peakingGainDb(2000.0, 0.5, 1.0, probe, 48000.0),
              0.03);
}

TEST_F(MultiBandEqualiserTest, ChannelsAreIndependentAndBlockSizeDoesNotMatter) {
  QorMultiBandEqualiserParameters p = defaults();
  p.band1Gain = 8.0f;
  p.band2Gain = -7.0f;
  p.band3Gain = 5.0f;
  p.highPassOrder = 2;
  p.lowPassOrder = 1;
  const Signal in{qor::test::whiteNoise(8192, 21), qor::test::whiteNoise(8192, 22),
                  qor::test::whiteNoise(8192, 23)};
  const Signal three = run(make(p, 3, 256), in);
  for (size_t c = 0; c < 3; ++c) {
    const Signal mono = run(make(p, 1, 128), Signal{in[c]});
    ASSERT_EQ(mono[0].size(), three[c].size());
    for (size_t i = 0; i < mono[0].size(); ++i) ASSERT_EQ(mono[0][i], three[c][i]) << c << ":" << i;
  }
}

TEST_F(MultiBandEqualiserTest, BypassCrossfadesToDryAndResetsTheFilters) {
  QorMultiBandEqualiserParameters p = defaults();
  p.band2Gain = 12.0f;
  p.highPassOrder = 2;
  p.crossfadeTime = 10.0f;
  auto* inst = make(p);
  auto* wetOnly = make(p);
  const Signal in{qor::test::whiteNoise(256 * 40, 31, 0.5)};
  const Signal first{std::vector<float>(in[0].begin(), in[0].begin() + 2560)};
  run(inst, first);
  run(wetOnly, first);

  QorMultiBandEqualiserParameters off = p;
  off.enable = 0;
  update(inst, off);
  const Signal block{std::vector<float>(in[0].begin() + 2560, in[0].begin() + 2816)};
  const Signal faded = run(inst, block);
  const Signal wet = run(wetOnly, block);
  // Reference crossfade: mix falls from 1 by the -100 dB settle coefficient.
  const double c = 1.0 - std::pow(1e-5, 1.0 / (0.010 * 48000.0));
  double m = 1.0;
  for (size_t i = 0; i < 256; ++i) {
    ASSERT_NEAR(faded[0][i], (1.0 - m) * block[0][i] + m * wet[0][i], 1e-5) << i;
    m = (1.0 - c) * m;
  }
  // Fully faded: blocks pass untouched.
  run(inst, first);
  const Signal dry = run(inst, block);
  EXPECT_EQ(dry[0], block[0]);

  // Re-enabled, it behaves as a fresh instance switched on from bypass: the
  // filter history was cleared when the fade reached dry.
  update(inst, p);
  auto* fresh = make(off);
  update(fresh, p);
  EXPECT_EQ(run(inst, in), run(fresh, in));
}

struct ConfigCase {
  uint32_t rate[2], block[2], channels[2];
  R expected;
};

TEST_F(MultiBandEqualiserTest, ConfigurationChecksInOrder) {
  const ConfigCase cases[] = {
      {{48000, 48000}, {256, 256}, {2, 2}, R::Success},
      {{44100, 44100}, {128, 128}, {5, 5}, R::Success},
      {{96000, 96000}, {256, 256}, {2, 2}, R::ErrorSampleRate},
      {{48000, 22050}, {256, 256}, {2, 2}, R::ErrorSampleRate},
      {{48000, 44100}, {100, 256}, {2, 2}, R::ErrorSampleRate},
      {{48000, 48000}, {127, 256}, {0, 2}, R::ErrorBlockSize},
      {{48000, 48000}, {4096, 4097}, {0, 2}, R::ErrorBlockSize},
      {{48000, 48000}, {256, 512}, {0, 2}, R::ErrorBlockSize},
      {{48000, 48000}, {4096, 4096}, {0, 0}, R::ErrorInputChannels},
      {{48000, 48000}, {256, 256}, {2, 1}, R::ErrorOutputChannels},
  };
  for (const ConfigCase& k : cases) {
    QorMultiBandEqualiserConfig c{k.rate[0], k.block[0], k.channels[0],
                                  k.rate[1], k.block[1], k.channels[1], defaults()};
    c.parameters.band1Gain = 99.0f;  // parameters are checked after the header
    size_t size = 0;
    const R expected = k.expected == R::Success ? R::ErrorBand1Gain : k.expected;
    EXPECT_EQ(qorMultiBandEqualiserGetInstanceSize(&c, &size), expected) << k.rate[1] << " " << k.block[1];
    qor::test::InstanceMemory block(4096);
    EXPECT_EQ(qorMultiBandEqualiserInit(block.as<QorMultiBandEqualiserInst>(), &c), expected);
    int latency = 0;
    EXPECT_EQ(qorMultiBandEqualiserGetCurrentLatency(block.as<QorMultiBandEqualiserInst>(), &latency),
              R::ErrorNotInitialised)
        << "a failed Init leaves the instance not initialised";
  }
}

TEST_F(MultiBandEqualiserTest, ParameterChecksUseTheirCodesAndRefusedUpdatesChangeNothing) {
  using P = QorMultiBandEqualiserParameters;
  struct Case {
    float P::*field;
    float bad;
    int32_t code;
  };
  // In validation order; each case also breaks every later field, so the
  // code proves that the earlier field is tested first.
  const Case cases[] = {
      {&P::highPassFrequency, 4.9f, -1005000}, {&P::band1Frequency, 501.0f, -1005002},
      {&P::band1Q, 0.49f, -1005003},           {&P::band1Gain, 12.5f, -1005004},
      {&P::band2Frequency, 399.0f, -1005005},  {&P::band2Q, 10.1f, -1005006},
      {&P::band2Gain, -12.5f, -1005007},       {&P::band3Frequency, 12001.0f, -1005008},
      {&P::band3Q, 0.4f, -1005009},            {&P::band3Gain, 13.0f, -1005010},
      {&P::lowPassFrequency, 999.0f, -1005011}, {&P::crossfadeTime, 250.1f, -1005013},
  };
  QorMultiBandEqualiserParameters good = defaults();
  good.band1Gain = 6.0f;
  auto* inst = make(good);
  auto* control = make(good);
  for (size_t i = 0; i < std::size(cases); ++i) {
    QorMultiBandEqualiserParameters bad = good;
    for (size_t j = i; j < std::size(cases); ++j) bad.*(cases[j].field) = cases[j].bad;
    EXPECT_EQ(static_cast<int32_t>(qorMultiBandEqualiserUpdateParameters(inst, &bad)), cases[i].code);
    QorMultiBandEqualiserConfig c = config;
    c.parameters = bad;
    size_t size = 0;
    EXPECT_EQ(static_cast<int32_t>(qorMultiBandEqualiserGetInstanceSize(&c, &size)), cases[i].code);
  }
  EXPECT_EQ(R::ErrorBand1Gain, static_cast<R>(-1005004));
  QorMultiBandEqualiserParameters now{};
  ASSERT_EQ(qorMultiBandEqualiserGetParameters(inst, &now), R::Success);
  EXPECT_EQ(now.band1Gain, 6.0f);
  EXPECT_EQ(now.crossfadeTime, 50.5f);
  const Signal noise{qor::test::whiteNoise(2048, 41)};
  EXPECT_EQ(run(inst, noise), run(control, noise)) << "refused updates changed the filtering";

  // Order fields are not checked; NaN passes the range checks; bounds are inclusive.
  QorMultiBandEqualiserParameters odd = good;
  odd.highPassOrder = -3;
  odd.lowPassOrder = 1000;
  odd.band2Q = 10.0f;
  odd.band3Frequency = 1000.0f;
  EXPECT_EQ(qorMultiBandEqualiserUpdateParameters(inst, &odd), R::Success);
  odd.crossfadeTime = std::nanf("");
  EXPECT_EQ(qorMultiBandEqualiserUpdateParameters(inst, &odd), R::Success);
}

TEST_F(MultiBandEqualiserTest, CallingConventions) {
  QorMultiBandEqualiserParameters p = defaults();
  auto* inst = make(p, 2);
  EXPECT_EQ(qorMultiBandEqualiserInit(inst, &config), R::ErrorAlreadyInitialised);
  EXPECT_EQ(qorMultiBandEqualiserGetParameters(inst, nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorMultiBandEqualiserGetDefaultParameters(nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorMultiBandEqualiserProcess(nullptr, nullptr), R::ErrorNullPointer);

  // A 16-byte-aligned channel is refused and left alone.
  qor::test::ChannelBuffers buffers(2, 264);
  buffers.fill(0.5f);
  float* shifted[2] = {buffers[0], buffers[1] + 4};
  EXPECT_EQ(qorMultiBandEqualiserProcess(inst, shifted), R::ErrorMisaligned);
  EXPECT_EQ(shifted[1][0], 0.5f);
  auto* misaligned = reinterpret_cast<QorMultiBandEqualiserInst*>(
      reinterpret_cast<unsigned char*>(inst) + 16);
  EXPECT_EQ(qorMultiBandEqualiserProcess(misaligned, buffers.data()), R::ErrorMisaligned);

  EXPECT_EQ(qorMultiBandEqualiserRelease(inst), R::Success);
  EXPECT_EQ(qorMultiBandEqualiserProcess(inst, buffers.data()), R::ErrorNotInitialised);
  EXPECT_EQ(qorMultiBandEqualiserUpdateParameters(inst, &p), R::ErrorNotInitialised);
  EXPECT_EQ(qorMultiBandEqualiserFlush(inst), R::ErrorNotInitialised);
  EXPECT_EQ(qorMultiBandEqualiserRelease(inst), R::ErrorNotInitialised);
  EXPECT_EQ(buffers[0][0], 0.5f);
  memory.back()->zero();
  EXPECT_EQ(qorMultiBandEqualiserInit(inst, &config), R::Success);
}

}  // namespace
