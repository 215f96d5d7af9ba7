// The sample-rate converter measured on signals: against a direct
// double-precision band-limited interpolator written here, against
// libsamplerate where it is available, and for its counts, latency, Flush and
// calling conventions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

#if QOR_HAVE_SAMPLERATE
#include <samplerate.h>
#endif

#include "dsp/voice/sample_rate_converter.h"
#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using namespace QorSampleRateConverter_API_V1;
using R = QorSampleRateConverterResult;
using Signals = std::vector<std::vector<float>>;

// The output block by the float-quotient, float-product, double-ceiling rule.
uint32_t blockRule(uint32_t inRate, uint32_t inBlock, uint32_t outRate) {
  const float product = static_cast<float>(outRate) / static_cast<float>(inRate) * static_cast<float>(inBlock);
  return static_cast<uint32_t>(std::ceil(static_cast<double>(product)));
}

QorSampleRateConverterConfig configFor(uint32_t inRate, uint32_t inBlock, uint32_t outRate,
                                       uint32_t channels = 1) {
  QorSampleRateConverterConfig c{inRate, inBlock, channels, outRate, blockRule(inRate, inBlock, outRate),
                                 channels, {}};
  qorSampleRateConverterGetDefaultParameters(&c.parameters);
  return c;
}

// Half width of the kernel in input samples, from the rates and Nz.
uint32_t halfWidth(const QorSampleRateConverterConfig& c) {
  const uint32_t nz = c.parameters.numZeroCrossings;
  if (c.inputSampleRate == c.outputSampleRate) return 0;
  if (c.inputSampleRate < c.outputSampleRate) return nz;
  return static_cast<uint32_t>(std::ceil(static_cast<float>(c.inputSampleRate) * static_cast<float>(nz) /
                                         static_cast<float>(c.outputSampleRate)));
}

// An initialised converter that is fed consecutive blocks of its signals.
class Converter {
 public:
  explicit Converter(const QorSampleRateConverterConfig& c)
      : config(c), in(c.inputChannels, c.inputBlockSize), out(c.inputChannels, c.outputBlockSize) {
    size_t size = 0;
    EXPECT_EQ(qorSampleRateConverterGetInstanceSize(&config, &size), R::Success);
    memory = std::make_unique<qor::test::InstanceMemory>(size);
    inst = memory->as<QorSampleRateConverterInst>();
    EXPECT_EQ(qorSampleRateConverterInit(inst, &config), R::Success);
    output.resize(c.inputChannels);
  }
  // One block from input position `read`; returns the count produced.
  uint32_t step(const Signals& input) {
    in.load(input, read);
    read += config.inputBlockSize;
    uint32_t n = 0;
    EXPECT_NO_ALLOCATION(EXPECT_EQ(qorSampleRateConverterProcess(inst, in.data(), out.data(), &n), R::Success));
    for (uint32_t c = 0; c < config.inputChannels; ++c) output[c].insert(output[c].end(), out[c], out[c] + n);
    return n;
  }
  std::vector<uint32_t> run(const Signals& input, size_t calls) {
    std::vector<uint32_t> counts;
    for (size_t k = 0; k < calls; ++k) counts.push_back(step(input));
    return counts;
  }
  int32_t latency() {
    int32_t l = -1;
    EXPECT_EQ(qorSampleRateConverterGetCurrentLatency(inst, &l), R::Success);
    return l;
  }

  QorSampleRateConverterConfig config;
  std::unique_ptr<qor::test::InstanceMemory> memory;
  QorSampleRateConverterInst* inst = nullptr;
  qor::test::ChannelBuffers in, out;
  Signals output;
  size_t read = 0;
};

// Direct band-limited interpolation in double precision: exact sinc, Kaiser
// window from the power series of I0, positions computed from the rates.
double besselI0Series(double x) {
  double sum = 1.0, term = 1.0;
  for (int k = 1; term > 1e-17 * sum; ++k) {
    term *= (x / (2.0 * k)) * (x / (2.0 * k));
    sum += term;
  }
  return sum;
}

double kernel(double zeroCrossings, double nz, double beta) {
  const double a = std::fabs(zeroCrossings);
  if (a >= nz) return 0.0;
  const double sinc = a == 0.0 ? 1.0 : std::sin(std::numbers::pi * a) / (std::numbers::pi * a);
  return sinc * besselI0Series(beta * std::sqrt(1.0 - (a / nz) * (a / nz))) / besselI0Series(beta);
}

// Output o of a freshly initialised converter is centred on input instant
// o x inRate/outRate - (2H + 1): the ring starts with 2H + 1 zeros.
double reference(const std::vector<float>& x, const QorSampleRateConverterConfig& c, size_t o) {
  const double nz = c.parameters.numZeroCrossings, beta = c.parameters.kaiserBeta;
  const double g = std::min(1.0, static_cast<double>(c.outputSampleRate) / c.inputSampleRate);
  const double centre = static_cast<double>(o) * c.inputSampleRate / c.outputSampleRate - (2.0 * halfWidth(c) + 1.0);
  double sum = 0.0;
  const auto lo = static_cast<long>(std::max(0.0, std::floor(centre - nz / g - 1.0)));
  const auto hi = static_cast<long>(std::ceil(centre + nz / g + 1.0));
  for (long m = lo; m <= hi && m < static_cast<long>(x.size()); ++m) sum += x[m] * g * kernel(g * (m - centre), nz, beta);
  return sum;
}

// Amplitude and signal-to-residual ratio of a sine of known frequency,
// fitted by least squares over [from, to).
struct SineFit {
  double amplitude;
  double phase;
  double snrDb;
};
SineFit fitSine(const std::vector<float>& y, double frequency, double rate, size_t from, size_t to) {
  const double w = 2.0 * std::numbers::pi * frequency / rate;
  double ss = 0, cc = 0, sc = 0, ys = 0, yc = 0;
  for (size_t i = from; i < to; ++i) {
    const double s = std::sin(w * i), co = std::cos(w * i);
    ss += s * s, cc += co * co, sc += s * co, ys += y[i] * s, yc += y[i] * co;
  }
  const double det = ss * cc - sc * sc;
  const double a = (ys * cc - yc * sc) / det, b = (yc * ss - ys * sc) / det;
  double signal = 0, noise = 0;
  for (size_t i = from; i < to; ++i) {
    const double fit = a * std::sin(w * i) + b * std::cos(w * i);
    signal += fit * fit;
    noise += (y[i] - fit) * (y[i] - fit);
  }
  return {std::hypot(a, b), std::atan2(b, a), 10.0 * std::log10(signal / std::max(noise, 1e-300))};
}

// Fits in consecutive windows: the worst window's SNR, the mean amplitude,
// and the frequency error from the phase walking between the first and the
// last window (relative; a slow timing drift shows here, not in the SNR).
struct SineReport {
  double worstSnrDb = 1e9;
  double amplitude = 0.0;
  double frequencyError = 0.0;
};
SineReport measureSine(const std::vector<float>& y, double frequency, double rate, size_t from) {
  constexpr size_t kWindow = 4096;
  SineReport r;
  std::vector<SineFit> fits;
  for (size_t a = from; a + kWindow <= y.size(); a += kWindow) {
    fits.push_back(fitSine(y, frequency, rate, a, a + kWindow));
    r.worstSnrDb = std::min(r.worstSnrDb, fits.back().snrDb);
    r.amplitude += fits.back().amplitude;
  }
  if (fits.size() < 2) return {};
  r.amplitude /= static_cast<double>(fits.size());
  const double turn = std::remainder(fits.front().phase - fits.back().phase, 2.0 * std::numbers::pi);
  const double span = static_cast<double>((fits.size() - 1) * kWindow);
  r.frequencyError = turn / (2.0 * std::numbers::pi * frequency / rate * span);
  return r;
}

// Rate pairs the voice chain uses: host block into 48 kHz, 256 frames back.
struct Pair {
  uint32_t inRate, inBlock, outRate;
};
void PrintTo(const Pair& p, std::ostream* os) { *os << p.inRate << "/" << p.inBlock << "->" << p.outRate; }

const Pair kChainPairs[] = {
    {22050, 256, 48000}, {48000, 256, 22050}, {44100, 256, 48000},  {44100, 441, 48000},
    {48000, 256, 44100}, {88200, 512, 48000}, {48000, 256, 88200},  {96000, 512, 48000},
    {48000, 256, 96000}, {176400, 1024, 48000}, {48000, 256, 176400}, {192000, 1024, 48000},
    {48000, 256, 192000}};

class ChainRates : public ::testing::TestWithParam<Pair> {};

TEST_P(ChainRates, CountsTrackTheExactCountWithoutDrift) {
  const Pair p = GetParam();
  Converter conv(configFor(p.inRate, p.inBlock, p.outRate));
  const uint32_t block = conv.config.outputBlockSize;
  const Signals silence{std::vector<float>(1, 0.0f)};
  const double perCall = static_cast<double>(p.outRate) / p.inRate * p.inBlock;
  double total = 0, low = 1e9, high = -1e9;
  const size_t calls = 2000;
  for (size_t k = 0; k < calls; ++k) {
    const uint32_t n = conv.step(silence);
    ASSERT_LE(n, block) << "call " << k;
    if (k >= 2) {
      ASSERT_GE(n, block - 3) << "call " << k;
    }
    total += n;
    const double deviation = total - perCall * static_cast<double>(k + 1);
    if (k >= 10) low = std::min(low, deviation), high = std::max(high, deviation);
  }
  EXPECT_LE(high - low, 2.0) << "the running total drifts";
  EXPECT_LE(std::max(std::fabs(low), std::fabs(high)), 3.0);
}

TEST_P(ChainRates, SineKeepsFrequencyAndAmplitude) {
  const Pair p = GetParam();
  Converter conv(configFor(p.inRate, p.inBlock, p.outRate));
  const double f = 1000.0;
  const Signals x{qor::test::sine(f, p.inRate, 200 * p.inBlock, 0.5)};
  conv.run(x, 199);  // the first drift check comes at call 200
  const size_t from = 20 * conv.config.outputBlockSize;
  const SineReport ours = measureSine(conv.output[0], f, p.outRate, from);
  EXPECT_NEAR(ours.amplitude, 0.5, 0.5 * 0.001);  // 0.01 dB
  EXPECT_LT(std::fabs(ours.frequencyError), 2e-6);
  EXPECT_GT(ours.worstSnrDb, 62.0);
#if QOR_HAVE_SAMPLERATE
  std::vector<float> theirs(static_cast<size_t>(x[0].size() * (double(p.outRate) / p.inRate)) + 16);
  SRC_DATA data{};
  data.data_in = x[0].data();
  data.data_out = theirs.data();
  data.input_frames = static_cast<long>(x[0].size());
  data.output_frames = static_cast<long>(theirs.size());
  data.src_ratio = static_cast<double>(p.outRate) / p.inRate;
  ASSERT_EQ(src_simple(&data, SRC_SINC_FASTEST, 1), 0);
  // Leave out the end, where it flushes its filter at the end of input.
  theirs.resize(static_cast<size_t>(data.output_frames_gen) - 8192);
  const SineReport ref = measureSine(theirs, f, p.outRate, from);
  std::printf("[ SNR 1 kHz ] %u->%u: ours %.1f dB (frequency %+.2g), libsamplerate SRC_SINC_FASTEST %.1f dB\n",
              p.inRate, p.outRate, ours.worstSnrDb, ours.frequencyError, ref.worstSnrDb);
  RecordProperty("snr_ours_db", std::to_string(ours.worstSnrDb));
  RecordProperty("snr_libsamplerate_db", std::to_string(ref.worstSnrDb));
#endif
}

INSTANTIATE_TEST_SUITE_P(VoiceChain, ChainRates, ::testing::ValuesIn(kChainPairs));

TEST(SampleRateConverterCounts, From44100To48000In256BlocksGives278Or279StayingWithinASample) {
  uint32_t block = 0;
  ASSERT_EQ(qorSampleRateConverterComputeOutputBlockSize(44100, 256, 48000, &block), R::Success);
  EXPECT_EQ(block, 279u);  // ceil(278.64)
  Converter conv(configFor(44100, 256, 48000));
  const Signals silence{std::vector<float>(1, 0.0f)};
  double total = 0;
  for (size_t k = 0; k < 5000; ++k) {
    const uint32_t n = conv.step(silence);
    ASSERT_TRUE(n == 278 || n == 279) << "call " << k << " gave " << n;
    total += n;
    ASSERT_NEAR(total, 48000.0 / 44100.0 * 256.0 * static_cast<double>(k + 1), 1.5) << "call " << k;
  }
}

TEST(SampleRateConverterCounts, BlockSizeRuleUsesFloatQuotientAndProduct) {
  uint32_t block = 0;
  // 441 samples at 44.1 kHz are exactly 480 at 48 kHz, but the float
  // product lands just above 480.
  ASSERT_EQ(qorSampleRateConverterComputeOutputBlockSize(44100, 441, 48000, &block), R::Success);
  EXPECT_EQ(block, blockRule(44100, 441, 48000));
  EXPECT_EQ(block, 481u);
  for (const Pair& p : kChainPairs) {
    ASSERT_EQ(qorSampleRateConverterComputeOutputBlockSize(p.inRate, p.inBlock, p.outRate, &block), R::Success);
    EXPECT_EQ(block, blockRule(p.inRate, p.inBlock, p.outRate));
    EXPECT_GE(block, static_cast<uint32_t>(std::ceil(double(p.outRate) / p.inRate * p.inBlock - 1e-9)));
  }
  EXPECT_EQ(qorSampleRateConverterComputeOutputBlockSize(999, 31, 48000, &block), R::ErrorSampleRate);
  EXPECT_EQ(qorSampleRateConverterComputeOutputBlockSize(48000, 256, 192001, &block), R::ErrorSampleRate);
  EXPECT_EQ(qorSampleRateConverterComputeOutputBlockSize(48000, 31, 44100, &block), R::ErrorBlockSize);
  EXPECT_EQ(qorSampleRateConverterComputeOutputBlockSize(48000, 4097, 44100, &block), R::ErrorBlockSize);
}

// The first outputs against the direct interpolator, stereo with a different
// noise on each channel. Only the first 256: the float time accumulator
// walks by about 1e-7 of a period per step, so later outputs drift slowly
// off the exact instants (the frequency test bounds that walk).
class AgainstDirectInterpolation : public ::testing::TestWithParam<Pair> {};

TEST_P(AgainstDirectInterpolation, FirstBlockMatches) {
  const Pair p = GetParam();
  Converter conv(configFor(p.inRate, p.inBlock, p.outRate, 2));
  const Signals x{qor::test::whiteNoise(p.inBlock, 11, 0.5), qor::test::whiteNoise(p.inBlock, 12, 0.5)};
  const uint32_t n = conv.step(x);
  ASSERT_EQ(n, conv.config.outputBlockSize);
  for (uint32_t c = 0; c < 2; ++c) {
    double worst = 0.0;
    for (size_t o = 0; o < 256; ++o) {
      worst = std::max(worst, std::fabs(conv.output[c][o] - reference(x[c], conv.config, o)));
    }
    EXPECT_LT(worst, 1e-4) << "channel " << c;  // -80 dB below full scale
  }
}

INSTANTIATE_TEST_SUITE_P(Rates, AgainstDirectInterpolation,
                         ::testing::Values(Pair{44100, 3584, 48000}, Pair{48000, 4096, 44100},
                                           Pair{22050, 1792, 48000}, Pair{96000, 4096, 48000}));

TEST(SampleRateConverterQuality, DownSamplingRejectsToneAboveTheOutputBand) {
  Converter conv(configFor(96000, 512, 48000));
  const Signals x{qor::test::sine(30000.0, 96000, 200 * 512, 0.5)};
  conv.run(x, 150);
  const std::vector<float>& y = conv.output[0];
  // A 30 kHz tone would fold to 18 kHz.
  EXPECT_LT(qor::test::toDb(qor::test::toneAmplitude(y, 18000.0, 48000, 4096) / 0.5), -40.0);
  EXPECT_LT(qor::test::toDb(qor::test::rms(y, 4096) / 0.5), -40.0);
}

// Latency: the formula, the delay over the first block, and the shorter
// steady delay once the first call has dropped the surplus input.
class Latency : public ::testing::TestWithParam<Pair> {};

TEST_P(Latency, ReportedLatencyIsTheDelayOfTheFirstBlock) {
  const Pair p = GetParam();
  Converter conv(configFor(p.inRate, p.inBlock, p.outRate));
  const double ratio = static_cast<double>(p.outRate) / p.inRate;
  const float span = static_cast<float>(p.outRate) / static_cast<float>(p.inRate) * 10.0f;
  const int32_t expected = p.inRate >= p.outRate ? 21 : static_cast<int32_t>(2.0f * span + 2.0f);
  EXPECT_EQ(conv.latency(), expected);

  // Band-limited noise from random sines, sampled at both rates.
  std::mt19937 gen(7);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::vector<double> freq(30), phase(30);
  for (size_t k = 0; k < freq.size(); ++k) {
    freq[k] = 100.0 + u(gen) * 0.35 * std::min(p.inRate, p.outRate);
    phase[k] = u(gen) * 2.0 * std::numbers::pi;
  }
  auto at = [&](double t) {
    double s = 0;
    for (size_t k = 0; k < freq.size(); ++k) s += std::sin(2.0 * std::numbers::pi * freq[k] * t + phase[k]);
    return static_cast<float>(s / 15.0);
  };
  const size_t calls = 30;
  Signals x(1);
  for (size_t i = 0; i < calls * p.inBlock; ++i) x[0].push_back(at(static_cast<double>(i) / p.inRate));
  conv.run(x, calls);
  const std::vector<float>& y = conv.output[0];
  std::vector<float> z;
  for (size_t o = 0; o < y.size(); ++o) z.push_back(at(static_cast<double>(o) / p.outRate));

  const size_t block = conv.config.outputBlockSize;
  const std::vector<float> zFirst(z.begin(), z.begin() + block), yFirst(y.begin(), y.begin() + block);
  EXPECT_NEAR(qor::test::delayByCrossCorrelation(zFirst, yFirst, 100), expected, 1);

  const size_t from = 10 * block;
  const std::vector<float> zLate(z.begin() + from, z.end()), yLate(y.begin() + from, y.end());
  const int32_t steady = qor::test::delayByCrossCorrelation(zLate, yLate, 100);
  const double h = halfWidth(conv.config);
  EXPECT_GE(steady, (h - 1.0) * ratio - 1.0);
  EXPECT_LE(steady, (h + 1.0) * ratio + 1.0);
}

INSTANTIATE_TEST_SUITE_P(Rates, Latency,
                         ::testing::Values(Pair{44100, 256, 48000}, Pair{48000, 256, 44100},
                                           Pair{48000, 256, 96000}, Pair{96000, 512, 48000}));

TEST(SampleRateConverterEqualRates, CopiesBitExactly) {
  Converter conv(configFor(48000, 256, 48000, 2));
  EXPECT_EQ(conv.latency(), 0);
  const Signals x{qor::test::whiteNoise(1024, 3), qor::test::whiteNoise(1024, 4)};
  for (uint32_t n : conv.run(x, 4)) EXPECT_EQ(n, 256u);
  for (uint32_t c = 0; c < 2; ++c) EXPECT_EQ(std::memcmp(conv.output[c].data(), x[c].data(), 4096), 0);
  // In place as well.
  conv.in.load(x, 0);
  uint32_t n = 0;
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorSampleRateConverterProcess(conv.inst, conv.in.data(), conv.in.data(), &n), R::Success));
  EXPECT_EQ(std::memcmp(conv.in[1], x[1].data(), 1024), 0);
}

TEST(SampleRateConverterFlush, StartsLikeAFreshInstance) {
  const QorSampleRateConverterConfig config = configFor(44100, 256, 48000, 2);
  Converter used(config), fresh(config);
  const Signals noise{qor::test::whiteNoise(256 * 40, 5), qor::test::whiteNoise(256 * 40, 6)};
  used.run(noise, 40);
  ASSERT_EQ(qorSampleRateConverterFlush(used.inst), R::Success);
  EXPECT_EQ(used.latency(), fresh.latency());
  const Signals next{qor::test::whiteNoise(256 * 20, 8), qor::test::whiteNoise(256 * 20, 9)};
  used.output.assign(2, {});
  used.read = 0;
  EXPECT_EQ(used.run(next, 20), fresh.run(next, 20));
  for (uint32_t c = 0; c < 2; ++c) EXPECT_EQ(used.output[c], fresh.output[c]);
}

TEST(SampleRateConverterFlush, KeepsTheDriftCorrectionGoing) {
  // Flushed after every call, each call is a first call and fills the whole
  // 279-sample block: 0.36 samples more than the exact count each time. The
  // drift counters survive Flush, so the check at the 200th call withholds
  // one sample; without them every call would give 279.
  const QorSampleRateConverterConfig config = configFor(44100, 256, 48000);
  Converter conv(config);
  const Signals x{qor::test::whiteNoise(256, 10)};
  for (int k = 1; k <= 200; ++k) {
    conv.read = 0;
    conv.output.assign(1, {});
    const uint32_t n = conv.step(x);
    ASSERT_EQ(n, k < 200 ? 279u : 278u) << "call " << k;
    ASSERT_EQ(qorSampleRateConverterFlush(conv.inst), R::Success);
  }
  Converter fresh(config);
  fresh.step(x);
  EXPECT_TRUE(std::equal(conv.output[0].begin(), conv.output[0].end(), fresh.output[0].begin()))
      << "the corrected block is a fresh block without its last sample";
}

TEST(SampleRateConverterLayout, SizeIsTheSumOfTheRegionsAndInitStaysInside) {
  auto a32 = [](size_t bytes) { return (bytes + 31) / 32 * 32; };
  QorSampleRateConverterConfig oddTable = configFor(48000, 256, 44100, 3);
  oddTable.parameters = {7, 33, 9.0f};  // Nz x Np odd: T = 231
  for (const QorSampleRateConverterConfig& c :
       {configFor(44100, 256, 48000, 2), configFor(48000, 256, 44100, 1), configFor(48000, 256, 48000, 2),
        configFor(8000, 32, 192000, 1), oddTable}) {
    const size_t channels = c.inputChannels, h = halfWidth(c), taps = 2 * h + 1;
    size_t t = size_t{c.parameters.numZeroCrossings} * c.parameters.samplesPerZeroCrossing;
    if (t % 2 == 0) t += 1;
    const size_t expected = 192 + 3 * a32(4 * t) + a32(4 * channels) + 2 * a32(4 * channels * taps) +
                            a32(24 * channels) + 32 * channels * h;
    size_t size = 0;
    ASSERT_EQ(qorSampleRateConverterGetInstanceSize(&c, &size), R::Success);
    EXPECT_EQ(size, expected);

    // A guard zone after the reported size stays untouched through Init,
    // Process and Flush.
    constexpr size_t kGuard = 256;
    qor::test::InstanceMemory memory(size + kGuard);
    std::memset(memory.bytes() + size, 0xA5, kGuard);
    auto* inst = memory.as<QorSampleRateConverterInst>();
    ASSERT_EQ(qorSampleRateConverterInit(inst, &c), R::Success);
    qor::test::ChannelBuffers in(c.inputChannels, c.inputBlockSize), out(c.inputChannels, c.outputBlockSize);
    in.fill(0.25f);
    uint32_t n = 0;
    for (int k = 0; k < 5; ++k) {
      EXPECT_NO_ALLOCATION(ASSERT_EQ(qorSampleRateConverterProcess(inst, in.data(), out.data(), &n), R::Success));
    }
    ASSERT_EQ(qorSampleRateConverterFlush(inst), R::Success);
    for (size_t b = 0; b < kGuard; ++b) ASSERT_EQ(memory.bytes()[size + b], 0xA5) << "byte " << b;
  }
}

// Each configuration fault, alone or together with later ones, gives the
// code of the first in checking order, from GetInstanceSize and Init alike.
TEST(SampleRateConverterValidation, CodesInCheckingOrder) {
  struct Fault {
    void (*apply)(QorSampleRateConverterConfig&);
    R code;
  };
  const Fault faults[] = {
      {[](QorSampleRateConverterConfig& c) { c.inputSampleRate = 999; }, R::ErrorSampleRate},
      {[](QorSampleRateConverterConfig& c) { c.outputSampleRate = 192001; }, R::ErrorSampleRate},
      {[](QorSampleRateConverterConfig& c) { c.inputBlockSize = 4097; }, R::ErrorBlockSize},
      {[](QorSampleRateConverterConfig& c) { c.outputBlockSize = 5000; }, R::ErrorBlockSize},
      {[](QorSampleRateConverterConfig& c) { c.outputBlockSize += 1; }, R::ErrorOutputBlockSize},
      {[](QorSampleRateConverterConfig& c) { c.inputChannels = 0; }, R::ErrorInputChannels},
      {[](QorSampleRateConverterConfig& c) { c.outputChannels = 3; }, R::ErrorOutputChannels},
      {[](QorSampleRateConverterConfig& c) { c.parameters.numZeroCrossings = 1; }, R::ErrorNumZeroCrossings},
      {[](QorSampleRateConverterConfig& c) { c.parameters.numZeroCrossings = 101; }, R::ErrorNumZeroCrossings},
      {[](QorSampleRateConverterConfig& c) { c.parameters.samplesPerZeroCrossing = 31; },
       R::ErrorSamplesPerZeroCrossing},
      {[](QorSampleRateConverterConfig& c) { c.parameters.samplesPerZeroCrossing = 2049; },
       R::ErrorSamplesPerZeroCrossing},
      {[](QorSampleRateConverterConfig& c) { c.parameters.kaiserBeta = 0.5f; }, R::ErrorKaiserBeta},
      {[](QorSampleRateConverterConfig& c) { c.parameters.kaiserBeta = 25.5f; }, R::ErrorKaiserBeta},
  };
  EXPECT_EQ(static_cast<int32_t>(R::ErrorOutputBlockSize), -1003005);
  EXPECT_EQ(static_cast<int32_t>(R::ErrorKaiserBeta), -1003008);
  for (size_t first = 0; first < std::size(faults); ++first) {
    QorSampleRateConverterConfig c = configFor(44100, 256, 48000, 2);
    for (size_t k = first; k < std::size(faults); ++k) {
      if (faults[k].code != faults[first].code || k == first) faults[k].apply(c);
    }
    size_t size = 0;
    EXPECT_EQ(qorSampleRateConverterGetInstanceSize(&c, &size), faults[first].code) << "fault " << first;
    qor::test::InstanceMemory memory(1 << 16);
    auto* inst = memory.as<QorSampleRateConverterInst>();
    EXPECT_EQ(qorSampleRateConverterInit(inst, &c), faults[first].code) << "fault " << first;
    int32_t latency = 0;
    EXPECT_EQ(qorSampleRateConverterGetCurrentLatency(inst, &latency), R::ErrorNotInitialised);
  }
  // NaN passes the range test; the boundaries are inclusive.
  QorSampleRateConverterConfig c = configFor(1000, 32, 48000);
  c.parameters = {100, 2048, std::nanf("")};
  size_t size = 0;
  EXPECT_EQ(qorSampleRateConverterGetInstanceSize(&c, &size), R::Success);
  c.parameters = {2, 32, 25.0f};
  EXPECT_EQ(qorSampleRateConverterGetInstanceSize(&c, &size), R::Success);
  EXPECT_EQ(qorSampleRateConverterGetInstanceSize(nullptr, &size), R::ErrorNullPointer);
  EXPECT_EQ(qorSampleRateConverterGetInstanceSize(&c, nullptr), R::ErrorNullPointer);
}

TEST(SampleRateConverterCalls, ArgumentAlignmentAndMarkerChecks) {
  QorSampleRateConverterParameters defaults{};
  EXPECT_EQ(qorSampleRateConverterGetDefaultParameters(nullptr), R::ErrorNullPointer);
  ASSERT_EQ(qorSampleRateConverterGetDefaultParameters(&defaults), R::Success);
  EXPECT_EQ(defaults.numZeroCrossings, 10u);
  EXPECT_EQ(defaults.samplesPerZeroCrossing, 512u);
  EXPECT_EQ(defaults.kaiserBeta, 5.0f);

  QorSampleRateConverterConfig config = configFor(48000, 256, 44100, 2);
  config.parameters = {12, 256, 7.5f};
  size_t size = 0;
  ASSERT_EQ(qorSampleRateConverterGetInstanceSize(&config, &size), R::Success);
  qor::test::InstanceMemory memory(size + 32);
  auto* inst = memory.as<QorSampleRateConverterInst>();
  auto* shifted = reinterpret_cast<QorSampleRateConverterInst*>(memory.bytes() + 16);
  qor::test::ChannelBuffers in(2, 256), out(2, config.outputBlockSize);
  uint32_t n = 7;
  EXPECT_EQ(qorSampleRateConverterInit(nullptr, &config), R::ErrorNullPointer);
  EXPECT_EQ(qorSampleRateConverterInit(inst, nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorSampleRateConverterInit(shifted, &config), R::ErrorMisaligned);
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorSampleRateConverterProcess(inst, in.data(), out.data(), &n), R::ErrorNotInitialised));
  EXPECT_EQ(qorSampleRateConverterFlush(inst), R::ErrorNotInitialised);
  EXPECT_EQ(qorSampleRateConverterRelease(inst), R::ErrorNotInitialised);

  ASSERT_EQ(qorSampleRateConverterInit(inst, &config), R::Success);
  EXPECT_EQ(qorSampleRateConverterInit(inst, &config), R::ErrorAlreadyInitialised);
  QorSampleRateConverterParameters got{};
  EXPECT_EQ(qorSampleRateConverterGetParameters(inst, nullptr), R::ErrorNullPointer);
  ASSERT_EQ(qorSampleRateConverterGetParameters(inst, &got), R::Success);
  EXPECT_EQ(got.numZeroCrossings, 12u);
  EXPECT_EQ(got.samplesPerZeroCrossing, 256u);
  EXPECT_EQ(got.kaiserBeta, 7.5f);
  int32_t latency = 0;
  EXPECT_EQ(qorSampleRateConverterGetCurrentLatency(inst, nullptr), R::ErrorNullPointer);
  ASSERT_EQ(qorSampleRateConverterGetCurrentLatency(inst, &latency), R::Success);
  EXPECT_EQ(latency, 25);  // 2 Nz + 1 when down-sampling

  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorSampleRateConverterProcess(inst, nullptr, out.data(), &n), R::ErrorNullPointer));
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorSampleRateConverterProcess(inst, in.data(), out.data(), nullptr), R::ErrorNullPointer));
  // A 16-byte-aligned output channel is refused and nothing is written.
  out.fill(-3.0f);
  float* misaligned[2] = {out[0], out[1] + 4};
  in.fill(0.5f);
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorSampleRateConverterProcess(inst, in.data(), misaligned, &n), R::ErrorMisaligned));
  EXPECT_EQ(n, 7u);
  EXPECT_EQ(out[0][0], -3.0f);
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorSampleRateConverterProcess(shifted, in.data(), out.data(), &n), R::ErrorMisaligned));

  ASSERT_EQ(qorSampleRateConverterRelease(inst), R::Success);
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorSampleRateConverterProcess(inst, in.data(), out.data(), &n), R::ErrorNotInitialised));
  EXPECT_EQ(qorSampleRateConverterGetParameters(inst, &got), R::ErrorNotInitialised);
  ASSERT_EQ(qorSampleRateConverterInit(inst, &config), R::Success);
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorSampleRateConverterProcess(inst, in.data(), out.data(), &n), R::Success));
}

}  // namespace
