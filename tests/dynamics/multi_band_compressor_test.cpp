// The multi-band compressor (two-band dynamic EQ) measured on steady tones.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>
#include <numbers>
#include <vector>

#include "block_runner.h"
#include "dsp/dynamics/multi_band_compressor.h"
#include "support/signals.h"

namespace {

using namespace QorMultiBandCompressor_API_V1;
using R = QorMultiBandCompressorResult;
using P = QorMultiBandCompressorParameters;
using qor::test::Signal;
using qor::test::toDb;
using qor::test::toneAmplitude;

constexpr double kPi = std::numbers::pi;
constexpr double kRate = 48000.0;
constexpr float kSilentDb = -758.6f;

// Cookbook all-pass response at f (the band gain is applied through it).
std::complex<double> allPass(double f0, double q, double f, double rate) {
  const double w = 2.0 * kPi * f0 / rate, alpha = std::sin(w) / (2.0 * q);
  const std::complex<double> z1 = std::polar(1.0, -2.0 * kPi * f / rate);
  return ((1.0 - alpha) + z1 * (-2.0 * std::cos(w) + z1 * (1.0 + alpha))) /
         ((1.0 + alpha) + z1 * (-2.0 * std::cos(w) + z1 * (1.0 - alpha)));
}

// Cookbook band-pass (0 dB peak) response in dB.
double bandPassDb(double f0, double q, double f, double rate) {
  const double w = 2.0 * kPi * f0 / rate, alpha = std::sin(w) / (2.0 * q);
  const std::complex<double> z1 = std::polar(1.0, -2.0 * kPi * f / rate);
  return toDb(std::abs(alpha * (1.0 - z1 * z1) /
                       ((1.0 + alpha) + z1 * (-2.0 * std::cos(w) + z1 * (1.0 - alpha)))));
}

struct Calls {
  QOR_FAMILY_CALLS(MultiBandCompressor)
};
using Config = Calls::Config;

class MultiBandCompressorTest : public ::testing::Test {
 protected:
  static P defaults() { return qor::test::defaultParameters<Calls>(); }
  QorMultiBandCompressorInst* make(const P& p, uint32_t channels = 1, uint32_t rate = 48000,
                                   uint32_t block = 256, uint8_t metering = 1) {
    made.push_back(std::make_unique<qor::test::Instance<Calls>>(
        Config{rate, block, channels, rate, block, channels, p, metering}));
    config = made.back()->config;
    return made.back()->inst();
  }
  Signal run(QorMultiBandCompressorInst* inst, const Signal& in) {
    return qor::test::runBlocks([&](float** ch) { return qorMultiBandCompressorProcess(inst, ch); }, in,
                                config.inputBlockSize);
  }
  void update(QorMultiBandCompressorInst* inst, P p) {
    EXPECT_EQ(qorMultiBandCompressorUpdateParameters(inst, &p), R::Success);
  }
  static const QorMultiBandCompressorMeteringPoints* meter(const QorMultiBandCompressorInst* inst) {
    const QorMultiBandCompressorMeteringPoints* record = nullptr;
    EXPECT_EQ(qorMultiBandCompressorGetMeteringPoints(inst, &record), R::Success);
    return record;
  }
  static float lowGainDb(const QorMultiBandCompressorInst* inst) { return meter(inst)->points[0]->data[0]; }
  static float highGainDb(const QorMultiBandCompressorInst* inst) { return meter(inst)->points[1]->data[0]; }
  static const float* response(const QorMultiBandCompressorInst* inst) { return meter(inst)->points[2]->data; }

  Config config{};
  std::vector<std::unique_ptr<qor::test::Instance<Calls>>> made;
};

struct ToneCase {
  bool high;
  float threshold, overDb, ratio, floor, expectedDb;
};

class MultiBandCompressorToneTest : public MultiBandCompressorTest,
                                    public ::testing::WithParamInterface<ToneCase> {};

// A steady tone at a band's centre: the band-pass passes it at 0 dB, the
// curve gives min(threshold - level, 0) (1 - 1/ratio) above the floor, and
// at the centre the all-pass mix scales the tone by exactly that gain.
TEST_P(MultiBandCompressorToneTest, SteadyToneAtCentreIsReducedByTheCurve) {
  const ToneCase t = GetParam();
  P p = defaults();
  p.ratio = t.ratio;
  (t.high ? p.highThreshold : p.lowThreshold) = t.threshold;
  (t.high ? p.highGainFloor : p.lowGainFloor) = t.floor;
  const double f = t.high ? p.highCrossoverFrequency : p.lowCrossoverFrequency;
  auto* inst = make(p);
  const Signal in{qor::test::sine(f, kRate, 48128, std::pow(10.0, (t.threshold + t.overDb) / 20.0))};
  const Signal out = run(inst, in);
  EXPECT_NEAR(t.high ? highGainDb(inst) : lowGainDb(inst), t.expectedDb, 0.05);
  EXPECT_NEAR(t.high ? lowGainDb(inst) : highGainDb(inst), 0.0, 0.01) << "the other band stays at unity";
  const double measured = toDb(toneAmplitude(out[0], f, kRate, 36000) /
                               toneAmplitude(in[0], f, kRate, 36000));
  EXPECT_NEAR(measured, t.expectedDb, 0.1);
}

INSTANTIATE_TEST_SUITE_P(
    Curve, MultiBandCompressorToneTest,
    ::testing::Values(ToneCase{false, -20.0f, 10.0f, 4.0f, -20.0f, -7.5f},
                      ToneCase{false, -30.0f, 12.0f, 2.0f, -20.0f, -6.0f},
                      ToneCase{true, -20.0f, 10.0f, 4.0f, -20.0f, -7.5f},
                      ToneCase{true, -35.0f, 8.0f, 10.0f, -60.0f, -7.2f},
                      ToneCase{false, -40.0f, 40.0f, 4.0f, -6.0f, -6.0f},  // held at the floor
                      ToneCase{true, -20.0f, -6.0f, 4.0f, -20.0f, 0.0f}));  // below threshold

TEST_F(MultiBandCompressorTest, GainShapesOnlyTheBandAroundItsCentreOnBothChannels) {
  // A loud tone at the low centre on the left sets the gain; quiet probes
  // see 0.5 (1 + g) + 0.5 (1 - g) AP(f). The right channel carries only a
  // quiet centre tone and gets the same gain: one detector per band.
  auto* inst = make(defaults(), 2);
  const double probes[] = {60.0, 200.0, 400.0, 1000.0};
  Signal in{qor::test::sine(120.0, kRate, 96000, 0.5), qor::test::sine(120.0, kRate, 96000, 0.01)};
  for (size_t k = 0; k < std::size(probes); ++k) {
    const std::vector<float> probe = qor::test::sine(probes[k], kRate, 96000, 0.003, k);
    for (size_t i = 0; i < probe.size(); ++i) in[0][i] += probe[i];
  }
  const Signal out = run(inst, in);
  const auto gainAt = [&](size_t c, double f) {
    return toDb(toneAmplitude(out[c], f, kRate, 48000) / toneAmplitude(in[c], f, kRate, 48000, out[c].size()));
  };
  const double g = std::pow(10.0, lowGainDb(inst) / 20.0);
  EXPECT_NEAR(lowGainDb(inst), (-20.0 - toDb(0.5)) * 0.75, 0.1);
  EXPECT_NEAR(gainAt(1, 120.0), lowGainDb(inst), 0.1);
  for (const double f : probes) {
    const auto ap = allPass(120.0, 0.5, f, kRate);
    EXPECT_NEAR(gainAt(0, f), toDb(std::abs(0.5 * (1.0 + g) + 0.5 * (1.0 - g) * ap)), 0.1) << f << " Hz";
  }
  // A loud tone between the bands passes unchanged, only delayed.
  const Signal tone{qor::test::sine(1000.0, kRate, 24064, 0.3)};
  const Signal passed = run(make(defaults()), tone);
  for (size_t i = 12000; i < 24064; ++i) ASSERT_NEAR(passed[0][i], tone[0][i - 128], 1e-5) << i;
}

TEST_F(MultiBandCompressorTest, ResponseCurveMatchesTheDetectorsMeasuredWithTones) {
  // Each detector's gain at a curve frequency, measured from how much a tone
  // there is compressed: level = threshold - gain / slope.
  P p = defaults();
  p.lowThreshold = p.highThreshold = -50.0f;
  p.lowGainFloor = p.highGainFloor = -60.0f;
  const double toneDb = -3.0;
  auto* curveInst = make(p);
  for (const int i : {5, 40, 150, 192, 300}) {
    const double f = i * 24000.0 / 1023.0;
    auto* inst = make(p);
    run(inst, Signal{qor::test::sine(f, kRate, 48128, std::pow(10.0, toneDb / 20.0))});
    const double lowDb = -50.0 - lowGainDb(inst) / 0.75 - toneDb;
    const double highDb = -50.0 - highGainDb(inst) / 0.75 - toneDb;
    ASSERT_LT(lowGainDb(inst), -1.0) << "the tone must reach the low detector's threshold";
    ASSERT_LT(highGainDb(inst), -1.0);
    const QorMultiBandCompressorMeteringPoints* record = meter(curveInst);
    EXPECT_NEAR(record->points[2]->data[i], f, 1e-2);
    EXPECT_NEAR(record->points[2]->data[1024 + i], lowDb + highDb, 0.15) << f << " Hz";
    // And the closed form of both band-passes (Q x 2).
    EXPECT_NEAR(record->points[2]->data[1024 + i],
                bandPassDb(120.0, 2.0, f, kRate) + bandPassDb(4500.0, 2.0, f, kRate), 0.01);
  }
}

TEST_F(MultiBandCompressorTest, CentreFrequencyGlidesOneStepPerProcess) {
  P p = defaults();
  auto* inst = make(p);
  p.highCrossoverFrequency = 2000.0f;
  update(inst, p);
  const double c = 1.0 - std::exp(-1.0 / (187.0 * 0.050));  // crossfadeTime at block rate
  const Signal silence{std::vector<float>(256, 0.0f)};
  for (int n = 1; n <= 400; ++n) {
    run(inst, silence);
    double current = 2000.0 + 2500.0 * std::pow(1.0 - c, n);
    if (std::fabs(current - 2000.0) < 0.01) current = 2000.0;
    if (n != 1 && n != 10 && n != 60 && n != 400) continue;
    for (int i = 10; i < 1020; i += 101) {
      const double f = i * 24000.0 / 1023.0;
      EXPECT_NEAR(response(inst)[1024 + i],
                  bandPassDb(120.0, 2.0, f, kRate) + bandPassDb(current, 2.0, f, kRate), 0.02)
          << "after " << n << " blocks at " << f << " Hz";
    }
  }
}

TEST_F(MultiBandCompressorTest, ReportedLatencyIsFixedWhileTheDelayDoublesAt96k) {
  auto* inst = make(defaults(), 1, 96000);
  const std::vector<float> noise = qor::test::whiteNoise(8192, 6, 0.05);
  EXPECT_EQ(qor::test::delayByCrossCorrelation(noise, run(inst, Signal{noise})[0], 600), 256)
      << "4 sub-blocks of 64";
  int latency = -1;
  ASSERT_EQ(qorMultiBandCompressorGetCurrentLatency(inst, &latency), R::Success);
  EXPECT_EQ(latency, 128);
}

TEST_F(MultiBandCompressorTest, SwitchedOffBandGlidesBackToUnity) {
  P p = defaults();
  auto* inst = make(p);
  const Signal tone{qor::test::sine(120.0, kRate, 48128, 0.5)};
  run(inst, tone);
  ASSERT_LT(lowGainDb(inst), -5.0);
  p.lowBandEnable = 0;
  update(inst, p);
  const Signal out = run(inst, tone);
  EXPECT_NEAR(lowGainDb(inst), kSilentDb, 0.01) << "the meter reads silence for a switched-off band";
  EXPECT_NEAR(toDb(toneAmplitude(out[0], 120.0, kRate, 36000) / toneAmplitude(tone[0], 120.0, kRate, 36000)),
              0.0, 0.02);
}

TEST_F(MultiBandCompressorTest, BypassFadesToDryResetsAndShowsAFlatCurve) {
  P p = defaults();
  p.crossfadeTime = 5.0f;
  auto* inst = make(p);
  auto* wetOnly = make(p);
  const Signal tone{qor::test::sine(120.0, kRate, 256 * 80, 0.5)};
  const Signal head{std::vector<float>(tone[0].begin(), tone[0].begin() + 256 * 40)};
  const Signal block{std::vector<float>(tone[0].begin() + 256 * 40, tone[0].begin() + 256 * 41)};
  run(inst, head);
  run(wetOnly, head);

  P off = p;
  off.enable = 0;
  update(inst, off);
  const Signal faded = run(inst, block);
  const Signal wet = run(wetOnly, block);
  const double c = 1.0 - std::pow(1e-5, 1.0 / (0.005 * kRate));
  double m = 1.0;
  for (size_t i = 0; i < 256; ++i) {
    ASSERT_NEAR(faded[0][i], (1.0 - m) * block[0][i] + m * wet[0][i], 1e-5) << i;
    m *= 1.0 - c;
  }
  int latency = -1;
  run(inst, block);
  ASSERT_EQ(qorMultiBandCompressorGetCurrentLatency(inst, &latency), R::Success);
  EXPECT_EQ(latency, 0);
  EXPECT_EQ(run(inst, block), block) << "at rest the block passes untouched";
  EXPECT_NEAR(lowGainDb(inst), kSilentDb, 0.01);
  for (int i = 0; i < 1024; ++i) ASSERT_EQ(response(inst)[1024 + i], 1.0f) << i;
  EXPECT_NEAR(response(inst)[1023], 24000.0f, 1e-2);

  // Reaching dry cleared the look-ahead store, and so does the end of the
  // fade back in: each time the next 128 samples come out silent.
  update(inst, p);
  Signal back = run(inst, block);
  m = 0.0;
  for (size_t i = 0; i < 128; ++i) {
    ASSERT_NEAR(back[0][i], (1.0 - m) * block[0][i], 1e-5) << "wet part is silent at " << i;
    m += c * (1.0 - m);
  }
  back = run(inst, block);
  ASSERT_EQ(qor::test::peakAbs(back[0], 0, 128), 0.0) << "fade-in finished in one 5 ms block";
  EXPECT_GT(qor::test::peakAbs(back[0], 128, 256), 0.01);
}

TEST_F(MultiBandCompressorTest, BlocksOffTheSubBlockGridFailUnlessBypassedAndMeteringIsOptional) {
  P p = defaults();
  qor::test::ChannelBuffers buffers(2, 4096);
  buffers.fill(0.25f);
  EXPECT_EQ(qorMultiBandCompressorProcess(make(p, 1, 48000, 130), buffers.data()), R::ErrorProcessing);
  EXPECT_EQ(qorMultiBandCompressorProcess(make(p, 1, 96000, 160), buffers.data()), R::ErrorProcessing)
      << "64-sample sub-blocks at 96 kHz";
  p.enable = 0;
  EXPECT_EQ(qorMultiBandCompressorProcess(make(p, 1, 48000, 130), buffers.data()), R::Success)
      << "bypassed: no engine run";
  auto* quiet = make(p, 2, 48000, 256, 0);
  const QorMultiBandCompressorMeteringPoints* record = nullptr;
  EXPECT_EQ(qorMultiBandCompressorGetMeteringPoints(quiet, &record), R::ErrorMeteringDisabled);
  EXPECT_EQ(qorMultiBandCompressorGetMeteringPoints(quiet, nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorMultiBandCompressorRelease(quiet), R::Success);
  EXPECT_EQ(qorMultiBandCompressorGetMeteringPoints(quiet, &record), R::ErrorNotInitialised);
}

}  // namespace
