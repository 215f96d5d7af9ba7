// The sample-rate converter measured on signals: against a direct
// double-precision band-limited interpolator written here, and for its
// counts, latency, Flush and calling conventions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

#include "dsp/voice/sample_rate_converter.h"
#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using namespace QorSampleRateConverter_API_V1;
using R = QorSampleRateConverterResult;
using Config = QorSampleRateConverterConfig;
using Signals = std::vector<std::vector<float>>;
constexpr double kPi = std::numbers::pi;

Config configFor(uint32_t inRate, uint32_t inBlock, uint32_t outRate, uint32_t channels = 1) {
  Config c{inRate, inBlock, channels, outRate, 0, channels, {}};
  EXPECT_EQ(qorSampleRateConverterComputeOutputBlockSize(inRate, inBlock, outRate, &c.outputBlockSize), R::Success);
  qorSampleRateConverterGetDefaultParameters(&c.parameters);
  return c;
}

// Half width of the kernel in input samples, from the rates and Nz.
uint32_t halfWidth(const Config& c) {
  const uint32_t nz = c.parameters.numZeroCrossings;
  if (c.inputSampleRate == c.outputSampleRate) return 0;
  if (c.inputSampleRate < c.outputSampleRate) return nz;
  return static_cast<uint32_t>(std::ceil(static_cast<float>(c.inputSampleRate) * static_cast<float>(nz) /
                                         static_cast<float>(c.outputSampleRate)));
}

// An initialised converter that is fed consecutive blocks of its signals.
struct Converter {
  explicit Converter(const Config& c)
      : config(c), in(c.inputChannels, c.inputBlockSize), out(c.inputChannels, c.outputBlockSize),
        output(c.inputChannels) {
    size_t size = 0;
    EXPECT_EQ(qorSampleRateConverterGetInstanceSize(&config, &size), R::Success);
    memory = std::make_unique<qor::test::InstanceMemory>(size);
    inst = memory->as<QorSampleRateConverterInst>();
    EXPECT_EQ(qorSampleRateConverterInit(inst, &config), R::Success);
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

  Config config;
  std::unique_ptr<qor::test::InstanceMemory> memory;
  QorSampleRateConverterInst* inst = nullptr;
  qor::test::ChannelBuffers in, out;
  Signals output;
  size_t read = 0;
};

// Direct band-limited interpolation in double precision: exact sinc, Kaiser
// window from the power series of I0, positions computed from the rates.
double besselI0(double x) {
  double sum = 1.0, term = 1.0;
  for (int k = 1; term > 1e-17 * sum; ++k) sum += term *= (x / (2.0 * k)) * (x / (2.0 * k));
  return sum;
}

double kernel(double a, double nz, double beta) {
  a = std::fabs(a);
  if (a >= nz) return 0.0;
  const double sinc = a == 0.0 ? 1.0 : std::sin(kPi * a) / (kPi * a);
  return sinc * besselI0(beta * std::sqrt(1.0 - (a / nz) * (a / nz))) / besselI0(beta);
}

// Output o of a freshly initialised converter is centred on input instant
// o x inRate/outRate - (2H + 1): the ring starts with 2H + 1 zeros.
double reference(const std::vector<float>& x, const Config& c, size_t o) {
  const double nz = c.parameters.numZeroCrossings, beta = c.parameters.kaiserBeta;
  const double g = std::min(1.0, static_cast<double>(c.outputSampleRate) / c.inputSampleRate);
  const double centre = static_cast<double>(o) * c.inputSampleRate / c.outputSampleRate - (2.0 * halfWidth(c) + 1.0);
  double sum = 0.0;
  const auto lo = static_cast<long>(std::max(0.0, std::floor(centre - nz / g - 1.0)));
  const auto hi = static_cast<long>(std::ceil(centre + nz / g + 1.0));
  for (long m = lo; m <= hi && m < static_cast<long>(x.size()); ++m) sum += x[m] * g * kernel(g * (m - centre), nz, beta);
  return sum;
}

// Least-squares sine fits in consecutive 4096-sample windows: the worst
// window's SNR, the mean amplitude, and the relative frequency error from the
// phase walking between the first and the last window.
struct SineReport {
  double worstSnrDb = 1e9, amplitude = 0.0, frequencyError = 0.0;
};
SineReport measureSine(const std::vector<float>& y, double frequency, double rate, size_t from) {
  constexpr size_t kWindow = 4096;
  const double w = 2.0 * kPi * frequency / rate;
  SineReport r;
  std::vector<double> phases;
  for (size_t start = from; start + kWindow <= y.size(); start += kWindow) {
    double ss = 0, cc = 0, sc = 0, ys = 0, yc = 0, signal = 0, noise = 0;
    for (size_t i = start; i < start + kWindow; ++i) {
      const double s = std::sin(w * i), co = std::cos(w * i);
      ss += s * s, cc += co * co, sc += s * co, ys += y[i] * s, yc += y[i] * co;
    }
    const double det = ss * cc - sc * sc, a = (ys * cc - yc * sc) / det, b = (yc * ss - ys * sc) / det;
    for (size_t i = start; i < start + kWindow; ++i) {
      const double fit = a * std::sin(w * i) + b * std::cos(w * i);
      signal += fit * fit, noise += (y[i] - fit) * (y[i] - fit);
    }
    r.worstSnrDb = std::min(r.worstSnrDb, 10.0 * std::log10(signal / std::max(noise, 1e-300)));
    r.amplitude += std::hypot(a, b);
    phases.push_back(std::atan2(b, a));
  }
  if (phases.size() < 2) return {};
  r.amplitude /= static_cast<double>(phases.size());
  const double turn = std::remainder(phases.front() - phases.back(), 2.0 * kPi);
  r.frequencyError = turn / (w * static_cast<double>((phases.size() - 1) * kWindow));
  return r;
}

// Rate pairs (and channel counts) the voice chain uses.
struct Pair {
  uint32_t inRate, inBlock, outRate, channels = 1;
};
void PrintTo(const Pair& p, std::ostream* os) {
  *os << p.inRate << "/" << p.inBlock << "->" << p.outRate << " x" << p.channels;
}

const Pair kChainPairs[] = {
    {22050, 256, 48000}, {48000, 256, 22050}, {44100, 256, 48000},  {44100, 441, 48000},
    {48000, 256, 44100}, {88200, 512, 48000}, {48000, 256, 88200},  {96000, 512, 48000},
    {48000, 256, 96000}, {176400, 1024, 48000}, {48000, 256, 176400}, {192000, 1024, 48000},
    {48000, 256, 192000}};

class ChainRates : public ::testing::TestWithParam<Pair> {};

// Over 2000 calls of silence the counts track the exact count without drift;
// a 1 kHz sine keeps its frequency and amplitude with a clean residual.
TEST_P(ChainRates, CountsTrackTheExactCountAndASineKeepsFrequencyAndAmplitude) {
  const Pair p = GetParam();
  Converter conv(configFor(p.inRate, p.inBlock, p.outRate));
  const uint32_t block = conv.config.outputBlockSize;
  const double perCall = static_cast<double>(p.outRate) / p.inRate * p.inBlock;
  double total = 0, low = 1e9, high = -1e9;
  for (size_t k = 0; k < 2000; ++k) {
    const uint32_t n = conv.step({std::vector<float>(1, 0.0f)});
    ASSERT_LE(n, block) << "call " << k;
    ASSERT_GE(n, k >= 2 ? block - 3 : 0) << "call " << k;
    total += n;
    const double deviation = total - perCall * static_cast<double>(k + 1);
    if (k >= 10) low = std::min(low, deviation), high = std::max(high, deviation);
  }
  EXPECT_LE(high - low, 2.0) << "the running total drifts";
  EXPECT_LE(std::max(std::fabs(low), std::fabs(high)), 3.0);

  Converter sine(configFor(p.inRate, p.inBlock, p.outRate));
  sine.run({qor::test::sine(1000.0, p.inRate, 200 * p.inBlock, 0.5)}, 199);  // drift check comes at call 200
  const SineReport ours = measureSine(sine.output[0], 1000.0, p.outRate, 20 * block);
  EXPECT_NEAR(ours.amplitude, 0.5, 0.5 * 0.001);  // 0.01 dB
  EXPECT_LT(std::fabs(ours.frequencyError), 2e-6);
  EXPECT_GT(ours.worstSnrDb, 62.0);
}

INSTANTIATE_TEST_SUITE_P(VoiceChain, ChainRates, ::testing::ValuesIn(kChainPairs));

// The output block is the ceiling of a float quotient times a float product:
// 441 samples at 44.1 kHz are exactly 480 at 48 kHz, but the float product
// lands just above 480; 256 give ceil(278.64).
TEST(SampleRateConverterCounts, BlockSizeRuleUsesFloatQuotientAndProduct) {
  const struct { uint32_t inRate, inBlock, outRate, block; R code; } cases[] = {
      {44100, 441, 48000, 481, R::Success},  {44100, 256, 48000, 279, R::Success},   {48000, 256, 22050, 118, R::Success},
      {999, 31, 48000, 0, R::ErrorSampleRate}, {48000, 256, 192001, 0, R::ErrorSampleRate},
      {48000, 31, 44100, 0, R::ErrorBlockSize}, {48000, 4097, 44100, 0, R::ErrorBlockSize}};
  for (const auto& c : cases) {
    uint32_t block = 0;  // untouched on a refusal
    EXPECT_EQ(qorSampleRateConverterComputeOutputBlockSize(c.inRate, c.inBlock, c.outRate, &block), c.code);
    EXPECT_EQ(block, c.block);
  }
}

// The first outputs against the direct interpolator, a different noise on
// each channel so that a mixed-up channel shows. The converter weighs the
// first two channels while computing the weights and the others from the
// kept weights, two at a time (a lone channel as a pair with itself), so
// every channel count is covered. Only the first 256 outputs: the float time
// accumulator walks by about 1e-7 of a period per step, so later outputs
// drift slowly off the exact instants (the frequency test bounds that walk).
class AgainstDirectInterpolation : public ::testing::TestWithParam<Pair> {};

TEST_P(AgainstDirectInterpolation, FirstBlockMatchesOnEveryChannel) {
  const Pair p = GetParam();
  Converter conv(configFor(p.inRate, p.inBlock, p.outRate, p.channels));
  Signals x;
  for (uint32_t c = 0; c < p.channels; ++c) x.push_back(qor::test::whiteNoise(p.inBlock, 11 + c, 0.5));
  ASSERT_EQ(conv.step(x), conv.config.outputBlockSize);
  for (uint32_t c = 0; c < p.channels; ++c) {
    double worst = 0.0;
    for (size_t o = 0; o < 256; ++o) worst = std::max(worst, std::fabs(conv.output[c][o] - reference(x[c], conv.config, o)));
    EXPECT_LT(worst, 1e-4) << "channel " << c;  // -80 dB below full scale
  }
}

INSTANTIATE_TEST_SUITE_P(Rates, AgainstDirectInterpolation,
                         ::testing::Values(Pair{44100, 3584, 48000, 2}, Pair{48000, 4096, 44100, 2},
                                           Pair{22050, 1792, 48000, 2}, Pair{96000, 4096, 48000, 2},
                                           Pair{44100, 1024, 48000, 1}, Pair{44100, 1024, 48000, 3},
                                           Pair{44100, 1024, 48000, 4}, Pair{48000, 1024, 44100, 1},
                                           Pair{48000, 1024, 44100, 5}, Pair{22050, 1024, 48000, 3}));

TEST(SampleRateConverterQuality, DownSamplingRejectsToneAboveTheOutputBand) {
  Converter conv(configFor(96000, 512, 48000));
  conv.run({qor::test::sine(30000.0, 96000, 200 * 512, 0.5)}, 150);
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
  const float span = static_cast<float>(p.outRate) / static_cast<float>(p.inRate) * 10.0f;
  const int32_t expected = p.inRate >= p.outRate ? 21 : static_cast<int32_t>(2.0f * span + 2.0f);
  EXPECT_EQ(conv.latency(), expected);

  // Band-limited noise from random sines, sampled at both rates.
  std::mt19937 gen(7);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::vector<std::pair<double, double>> parts(30);
  for (auto& [f, ph] : parts) f = 100.0 + u(gen) * 0.35 * std::min(p.inRate, p.outRate), ph = u(gen) * 2.0 * kPi;
  auto at = [&](double t) {
    double s = 0;
    for (const auto& [f, ph] : parts) s += std::sin(2.0 * kPi * f * t + ph);
    return static_cast<float>(s / 15.0);
  };
  Signals x(1);
  for (size_t i = 0; i < 30 * p.inBlock; ++i) x[0].push_back(at(static_cast<double>(i) / p.inRate));
  conv.run(x, 30);
  const std::vector<float>& y = conv.output[0];
  std::vector<float> z;
  for (size_t o = 0; o < y.size(); ++o) z.push_back(at(static_cast<double>(o) / p.outRate));

  const size_t block = conv.config.outputBlockSize, from = 10 * block;
  EXPECT_NEAR(qor::test::delayByCrossCorrelation({z.begin(), z.begin() + block}, {y.begin(), y.begin() + block}, 100),
              expected, 1);
  const int32_t steady = qor::test::delayByCrossCorrelation({z.begin() + from, z.end()}, {y.begin() + from, y.end()}, 100);
  const double h = halfWidth(conv.config), ratio = static_cast<double>(p.outRate) / p.inRate;
  EXPECT_GE(steady, (h - 1.0) * ratio - 1.0);
  EXPECT_LE(steady, (h + 1.0) * ratio + 1.0);
}

INSTANTIATE_TEST_SUITE_P(Rates, Latency,
                         ::testing::Values(Pair{44100, 256, 48000}, Pair{48000, 256, 44100},
                                           Pair{48000, 256, 96000}, Pair{96000, 512, 48000}));

TEST(SampleRateConverterEqualRates, CopiesBitExactlyAlsoInPlace) {
  Converter conv(configFor(48000, 256, 48000, 2));
  EXPECT_EQ(conv.latency(), 0);
  const Signals x{qor::test::whiteNoise(1024, 3), qor::test::whiteNoise(1024, 4)};
  for (uint32_t n : conv.run(x, 4)) EXPECT_EQ(n, 256u);
  for (uint32_t c = 0; c < 2; ++c) EXPECT_EQ(std::memcmp(conv.output[c].data(), x[c].data(), 4096), 0);
  conv.in.load(x, 0);
  uint32_t n = 0;
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorSampleRateConverterProcess(conv.inst, conv.in.data(), conv.in.data(), &n), R::Success));
  EXPECT_EQ(std::memcmp(conv.in[1], x[1].data(), 1024), 0);
}

TEST(SampleRateConverterFlush, StartsLikeAFreshInstanceButKeepsTheDriftCorrection) {
  Config config = configFor(44100, 256, 48000, 2);
  Converter used(config), fresh(config);
  used.run({qor::test::whiteNoise(256 * 40, 5), qor::test::whiteNoise(256 * 40, 6)}, 40);
  ASSERT_EQ(qorSampleRateConverterFlush(used.inst), R::Success);
  EXPECT_EQ(used.latency(), fresh.latency());
  const Signals next{qor::test::whiteNoise(256 * 20, 8), qor::test::whiteNoise(256 * 20, 9)};
  used.output.assign(2, {});
  used.read = 0;
  EXPECT_EQ(used.run(next, 20), fresh.run(next, 20));
  EXPECT_EQ(used.output, fresh.output);

  // Flushed after every call, each call is a first call and fills the whole
  // 279-sample block: 0.36 samples more than the exact count each time. The
  // drift counters survive Flush, so the check at the 200th call withholds
  // one sample; without them every call would give 279.
  config = configFor(44100, 256, 48000);
  Converter conv(config), first(config);
  const Signals x{qor::test::whiteNoise(256, 10)};
  for (int k = 1; k <= 200; ++k) {
    conv.read = 0;
    conv.output.assign(1, {});
    ASSERT_EQ(conv.step(x), k < 200 ? 279u : 278u) << "call " << k;
    ASSERT_EQ(qorSampleRateConverterFlush(conv.inst), R::Success);
  }
  first.step(x);
  EXPECT_TRUE(std::equal(conv.output[0].begin(), conv.output[0].end(), first.output[0].begin()))
      << "the corrected block is a fresh block without its last sample";
}

// A guard zone after the reported size stays untouched through Init, Process
// and Flush, for odd tables, channel counts and extreme ratios.
TEST(SampleRateConverterLayout, InitProcessAndFlushStayInsideTheReportedSize) {
  Config oddTable = configFor(48000, 256, 44100, 3);
  oddTable.parameters = {7, 33, 9.0f};  // Nz x Np odd
  for (const Config& c : {configFor(44100, 256, 48000, 2), configFor(48000, 256, 44100, 1),
                          configFor(48000, 256, 48000, 2), configFor(8000, 32, 192000, 1), oddTable}) {
    size_t size = 0;
    ASSERT_EQ(qorSampleRateConverterGetInstanceSize(&c, &size), R::Success);
    qor::test::InstanceMemory memory(size + 256);
    std::memset(memory.bytes() + size, 0xA5, 256);
    auto* inst = memory.as<QorSampleRateConverterInst>();
    ASSERT_EQ(qorSampleRateConverterInit(inst, &c), R::Success);
    qor::test::ChannelBuffers in(c.inputChannels, c.inputBlockSize), out(c.inputChannels, c.outputBlockSize);
    in.fill(0.25f);
    uint32_t n = 0;
    for (int k = 0; k < 5; ++k) {
      EXPECT_NO_ALLOCATION(ASSERT_EQ(qorSampleRateConverterProcess(inst, in.data(), out.data(), &n), R::Success));
    }
    ASSERT_EQ(qorSampleRateConverterFlush(inst), R::Success);
    for (size_t b = 0; b < 256; ++b) ASSERT_EQ(memory.bytes()[size + b], 0xA5) << "byte " << b;
  }
}

// Each configuration fault, alone or together with later ones, gives the
// code of the first in checking order, from GetInstanceSize and Init alike.
TEST(SampleRateConverterValidation, CodesInCheckingOrder) {
  using P = QorSampleRateConverterParameters;
  struct Fault {
    void (*apply)(Config&);
    R code;
  };
  const Fault faults[] = {
      {[](Config& c) { c.inputSampleRate = 999; }, R::ErrorSampleRate},
      {[](Config& c) { c.outputSampleRate = 192001; }, R::ErrorSampleRate},
      {[](Config& c) { c.inputBlockSize = 4097; }, R::ErrorBlockSize},
      {[](Config& c) { c.outputBlockSize = 5000; }, R::ErrorBlockSize},
      {[](Config& c) { c.outputBlockSize += 1; }, R::ErrorOutputBlockSize},
      {[](Config& c) { c.inputChannels = 0; }, R::ErrorInputChannels},
      {[](Config& c) { c.outputChannels = 3; }, R::ErrorOutputChannels},
      {[](Config& c) { c.parameters.numZeroCrossings = 1; }, R::ErrorNumZeroCrossings},
      {[](Config& c) { c.parameters.numZeroCrossings = 101; }, R::ErrorNumZeroCrossings},
      {[](Config& c) { c.parameters.samplesPerZeroCrossing = 31; }, R::ErrorSamplesPerZeroCrossing},
      {[](Config& c) { c.parameters.samplesPerZeroCrossing = 2049; }, R::ErrorSamplesPerZeroCrossing},
      {[](Config& c) { c.parameters.kaiserBeta = 0.5f; }, R::ErrorKaiserBeta},
      {[](Config& c) { c.parameters.kaiserBeta = 25.5f; }, R::ErrorKaiserBeta},
  };
  size_t size = 0;
  for (size_t first = 0; first < std::size(faults); ++first) {
    Config c = configFor(44100, 256, 48000, 2);
    for (size_t k = first; k < std::size(faults); ++k) {
      if (faults[k].code != faults[first].code || k == first) faults[k].apply(c);
    }
    EXPECT_EQ(qorSampleRateConverterGetInstanceSize(&c, &size), faults[first].code) << "fault " << first;
    qor::test::InstanceMemory memory(1 << 16);
    EXPECT_EQ(qorSampleRateConverterInit(memory.as<QorSampleRateConverterInst>(), &c), faults[first].code) << first;
  }
  // NaN passes the range test; the boundaries are inclusive.
  Config c = configFor(1000, 32, 48000);
  for (const P& p : {P{100, 2048, std::nanf("")}, P{2, 32, 25.0f}}) {
    c.parameters = p;
    EXPECT_EQ(qorSampleRateConverterGetInstanceSize(&c, &size), R::Success);
  }
  EXPECT_EQ(qorSampleRateConverterGetInstanceSize(nullptr, &size), R::ErrorNullPointer);
  EXPECT_EQ(qorSampleRateConverterGetInstanceSize(&c, nullptr), R::ErrorNullPointer);
}

TEST(SampleRateConverterCalls, ArgumentAlignmentAndMarkerChecks) {
  Config config = configFor(48000, 256, 44100, 2);
  config.parameters = {12, 256, 7.5f};
  size_t size = 0;
  ASSERT_EQ(qorSampleRateConverterGetInstanceSize(&config, &size), R::Success);
  qor::test::InstanceMemory memory(size + 32);
  auto* inst = memory.as<QorSampleRateConverterInst>();
  qor::test::ChannelBuffers in(2, 256), out(2, config.outputBlockSize);
  in.fill(0.5f);
  out.fill(-3.0f);
  float* misaligned[2] = {out[0], out[1] + 4};  // 16- but not 32-byte aligned
  uint32_t n = 7;
  int32_t latency = 0;
  QorSampleRateConverterParameters got{};
  auto process = [&](float** input, float** output, uint32_t* count) {
    R rc{};
    EXPECT_NO_ALLOCATION(rc = qorSampleRateConverterProcess(inst, input, output, count));
    return rc;
  };
  EXPECT_EQ(qorSampleRateConverterGetDefaultParameters(nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorSampleRateConverterInit(nullptr, &config), R::ErrorNullPointer);
  EXPECT_EQ(qorSampleRateConverterInit(inst, nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorSampleRateConverterInit(reinterpret_cast<QorSampleRateConverterInst*>(memory.bytes() + 16), &config),
            R::ErrorMisaligned);
  for (int round = 0; round < 2; ++round) {  // before Init and after Release
    EXPECT_EQ((std::vector<R>{process(in.data(), out.data(), &n), qorSampleRateConverterFlush(inst),
                              qorSampleRateConverterRelease(inst), qorSampleRateConverterGetParameters(inst, &got)}),
              std::vector<R>(4, R::ErrorNotInitialised));
    ASSERT_EQ(qorSampleRateConverterInit(inst, &config), R::Success);
    EXPECT_EQ(qorSampleRateConverterInit(inst, &config), R::ErrorAlreadyInitialised);
    EXPECT_EQ((std::vector<R>{qorSampleRateConverterGetParameters(inst, nullptr),
                              qorSampleRateConverterGetCurrentLatency(inst, nullptr), process(nullptr, out.data(), &n),
                              process(in.data(), out.data(), nullptr)}),
              std::vector<R>(4, R::ErrorNullPointer));
    ASSERT_EQ(qorSampleRateConverterGetParameters(inst, &got), R::Success);
    EXPECT_TRUE(got.numZeroCrossings == 12 && got.samplesPerZeroCrossing == 256 && got.kaiserBeta == 7.5f);
    ASSERT_EQ(qorSampleRateConverterGetCurrentLatency(inst, &latency), R::Success);
    EXPECT_EQ(latency, 25);  // 2 Nz + 1 when down-sampling
    // A misaligned output channel is refused and nothing is written.
    EXPECT_EQ(process(in.data(), misaligned, &n), R::ErrorMisaligned);
    EXPECT_TRUE(n == 7u && out[0][0] == -3.0f);
    ASSERT_EQ(qorSampleRateConverterRelease(inst), R::Success);
  }
}

}  // namespace
