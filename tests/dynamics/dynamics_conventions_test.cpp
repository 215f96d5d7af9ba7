// Calling conventions shared by the five dynamics families: argument checks,
// lifecycle, configuration and parameter codes in order, refused updates,
// Flush, bypass, and the latency each reports against the delay of noise.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <type_traits>
#include <vector>

#include "block_runner.h"
#include "dsp/dynamics/gating_compressor.h"
#include "dsp/dynamics/hard_limiter.h"
#include "dsp/dynamics/high_pass_filter.h"
#include "dsp/dynamics/multi_band_compressor.h"
#include "dsp/dynamics/multi_band_equaliser.h"

namespace {

using namespace QorHighPassFilter_API_V1;
using namespace QorGatingCompressor_API_V1;
using namespace QorHardLimiter_API_V1;
using namespace QorMultiBandCompressor_API_V1;
using namespace qor::test;

template <class P>
struct BadField {
  std::function<void(P&)> spoil;
  int32_t code;
};

// Header {in rate, in block, in channels, out rate, out block, out channels}
// and the code it earns; 0 means the header passes and the (spoiled)
// parameters are reported instead.
struct ConfigCase {
  std::array<uint32_t, 6> header;
  int32_t code;
};
template <class Config>
void setHeader(Config& c, const std::array<uint32_t, 6>& h) {
  c.inputSampleRate = h[0], c.inputBlockSize = h[1], c.inputChannels = h[2];
  c.outputSampleRate = h[3], c.outputBlockSize = h[4], c.outputChannels = h[5];
}
constexpr int32_t kRate = -1003001, kBlock = -1003002, kChannels = -1003003, kOutChannels = -1003004;

// A float parameter, its range, and how far past the top a refused value sits.
struct Field {
  float* value;
  float low, high, above = 0.01f;
};

// Each float field in validation order: one value below and one above its
// range. Codes run from -1005000 unless listed.
template <class F>
std::vector<BadField<typename F::Params>> outOfRange(std::vector<int32_t> codes = {}) {
  typename F::Params d{};
  const std::vector<Field> fields = F::fields(d);
  std::vector<BadField<typename F::Params>> cases;
  for (int i = 0; i < static_cast<int>(fields.size()); ++i) {
    for (const float v : {fields[i].low - 0.01f, fields[i].high + fields[i].above}) {
      cases.push_back({[i, v](auto& p) { *F::fields(p)[i].value = v; }, codes.empty() ? -1005000 - i : codes[i]});
    }
  }
  return cases;
}
template <class F>
auto bad() {
  if constexpr (requires { F::bad(); }) return F::bad();
  else return outOfRange<F>();
}

struct HighPass {
  QOR_FAMILY_CALLS(HighPassFilter)
  static std::vector<std::array<uint32_t, 2>> delays() { return {{48000, 0}}; }
  static std::vector<Field> fields(Params& p) { return {{&p.cutoffFrequency, 20, 400}, {&p.crossfadeTime, 0, 500, 0.5f}}; }
  static std::vector<BadField<Params>> bad() {
    auto cases = outOfRange<HighPass>({-1005001, -1005002});
    cases.insert(cases.begin(), {{[](Params& p) { p.order = 0; }, -1005000}, {[](Params& p) { p.order = 3; }, -1005000}});
    return cases;
  }
  // Only the input half is checked; the block size before the parameters.
  static std::vector<ConfigCase> configs() {
    return {{{44100, 256, 2, 44100, 256, 2}, 0},   {{48000, 32, 1, 12345, 7, 5}, 0},
            {{48000, 4096, 2, 48000, 4096, 2}, 0}, {{0, 1, 2, 0, 1, 2}, kRate},
            {{32000, 1, 2, 32000, 1, 2}, kRate},   {{44099, 1, 2, 44099, 1, 2}, kRate},
            {{88200, 1, 2, 88200, 1, 2}, kRate},   {{96000, 1, 2, 96000, 1, 2}, kRate},
            {{48000, 31, 2, 48000, 31, 2}, kBlock}, {{48000, 4097, 2, 48000, 4097, 2}, kBlock},
            {{48000, 0, 2, 48000, 0, 2}, kBlock}};
  }
};

struct Gate {
  QOR_METERED_CALLS(GatingCompressor)
  static std::vector<std::array<uint32_t, 2>> delays() { return {{48000, 256}, {96000, 512}}; }
  static std::vector<Field> fields(Params& p) {
    return {{&p.gateThreshold, -80, -6},        {&p.gateFloor, -60, 0},         {&p.gateAttack, 0, 200},
            {&p.gateRelease, 50, 1000},         {&p.gateHold, 0, 200},          {&p.compressorThreshold, -40, 0},
            {&p.compressorRatio, 1, 20},        {&p.compressorInputGain, -12, 12}, {&p.compressorMakeupGain, -12, 12},
            {&p.compressorAttack, 0, 200},      {&p.compressorRelease, 50, 1000}, {&p.crossfadeTime, 0, 250}};
  }
  static std::vector<ConfigCase> configs() {
    std::vector<ConfigCase> cases{
        {{32000, 1, 2, 32000, 1, 2}, kRate},           {{48000, 1, 2, 44100, 1, 2}, kRate},
        {{48000, 127, 2, 48000, 127, 1}, kBlock},      {{48000, 4097, 2, 48000, 4097, 1}, kBlock},
        {{48000, 256, 2, 48000, 512, 1}, kBlock},      {{48000, 256, 2, 48000, 4097, 1}, kBlock},
        {{48000, 128, 2, 48000, 128, 2}, 0},           {{48000, 4096, 2, 48000, 4096, 2}, 0},
        {{48000, 256, 2, 48000, 256, 1}, kOutChannels}, {{48000, 256, 5, 48000, 256, 5}, 0}};
    for (uint32_t rate : {44100u, 48000u, 88200u, 96000u, 176400u, 192000u}) {
      cases.push_back({{rate, 256, 2, rate, 256, 2}, 0});
    }
    return cases;
  }
};

struct Limiter {
  QOR_METERED_CALLS(HardLimiter)
  static std::vector<std::array<uint32_t, 2>> delays() {
    return {{48000, 128}, {44100, 128}, {96000, 256}, {192000, 512}};
  }
  // An input gain, so Flush must also restart its glide from unity.
  static void colour(Params& p) { p.inputGain = 6.0f; }
  static std::vector<Field> fields(Params& p) {
    return {{&p.attack, 0, 10, 0.5f}, {&p.release, 10, 500, 0.5f}, {&p.inputGain, -20, 20, 0.5f},
            {&p.crossfadeTime, 0, 250, 0.5f}};
  }
  static std::vector<ConfigCase> configs() {
    return {{{44100, 256, 2, 44100, 256, 2}, 0},       {{50000, 256, 2, 50000, 256, 2}, 0},
            {{192000, 256, 2, 192000, 256, 2}, 0},     {{44099, 1, 2, 44099, 1, 2}, kRate},
            {{192001, 1, 2, 192001, 1, 2}, kRate},     {{48000, 1, 2, 96000, 1, 2}, kRate},
            {{48000, 127, 2, 48000, 127, 3}, kBlock},  {{48000, 4097, 2, 48000, 4097, 3}, kBlock},
            {{48000, 256, 2, 48000, 128, 3}, kBlock},  {{48000, 256, 2, 48000, 256, 1}, kOutChannels}};
  }
};

struct Equaliser {
  QOR_FAMILY_CALLS(MultiBandEqualiser)
  static std::vector<std::array<uint32_t, 2>> delays() { return {{48000, 0}}; }
  static void colour(Params& p) { p.band1Gain = 6.0f, p.highPassOrder = 2; }
  static std::vector<Field> fields(Params& p) {
    return {{&p.highPassFrequency, 5, 500}, {&p.band1Frequency, 5, 500},    {&p.band1Q, 0.5f, 10},
            {&p.band1Gain, -12, 12},        {&p.band2Frequency, 400, 5000}, {&p.band2Q, 0.5f, 10},
            {&p.band2Gain, -12, 12},        {&p.band3Frequency, 1000, 12000}, {&p.band3Q, 0.5f, 10},
            {&p.band3Gain, -12, 12},        {&p.lowPassFrequency, 1000, 20000}, {&p.crossfadeTime, 0, 250}};
  }
  // The two orders own -1005001 and -1005012 but are not checked.
  static std::vector<BadField<Params>> bad() {
    return outOfRange<Equaliser>({-1005000, -1005002, -1005003, -1005004, -1005005, -1005006, -1005007, -1005008,
                                  -1005009, -1005010, -1005011, -1005013});
  }
  static std::vector<ConfigCase> configs() {
    return {{{44100, 128, 5, 44100, 128, 5}, 0},        {{48000, 4096, 1, 48000, 4096, 1}, 0},
            {{96000, 256, 2, 96000, 256, 2}, kRate},    {{48000, 256, 2, 22050, 256, 2}, kRate},
            {{48000, 1, 2, 44100, 256, 2}, kRate},      {{48000, 127, 0, 48000, 256, 2}, kBlock},
            {{48000, 4096, 0, 48000, 4097, 2}, kBlock}, {{48000, 256, 0, 48000, 512, 2}, kBlock},
            {{48000, 256, 0, 48000, 256, 0}, kChannels}, {{48000, 256, 2, 48000, 256, 1}, kOutChannels}};
  }
};

struct MultiBand {
  QOR_METERED_CALLS(MultiBandCompressor)
  static std::vector<std::array<uint32_t, 2>> delays() { return {{48000, 128}, {96000, 256}}; }
  static std::vector<Field> fields(Params& p) {
    return {{&p.lowThreshold, -50, 0},      {&p.highThreshold, -50, 0},  {&p.lowCrossoverFrequency, 60, 1000},
            {&p.lowCrossoverQ, 0.25f, 20},  {&p.lowGainFloor, -60, 0},   {&p.highCrossoverFrequency, 1000, 10000},
            {&p.highCrossoverQ, 0.25f, 20}, {&p.highGainFloor, -60, 0},  {&p.lowAttack, 0, 200},
            {&p.ratio, 1, 20},              {&p.lowRelease, 20, 1000},   {&p.highAttack, 0, 200},
            {&p.highRelease, 20, 1000},     {&p.crossfadeTime, 0, 250}};
  }
  static std::vector<ConfigCase> configs() {
    return {{{44100, 128, 1, 44100, 128, 1}, 0},        {{192000, 4096, 2, 192000, 4096, 2}, 0},
            {{44099, 0, 0, 44099, 0, 0}, kRate},        {{48000, 0, 0, 192001, 0, 0}, kRate},
            {{48000, 0, 0, 44100, 0, 0}, kRate},        {{48000, 127, 0, 48000, 256, 0}, kBlock},
            {{48000, 256, 0, 48000, 4097, 0}, kBlock},  {{48000, 256, 0, 48000, 512, 0}, kBlock},
            {{48000, 256, 3, 48000, 256, 3}, kChannels}, {{48000, 256, 2, 48000, 256, 3}, kOutChannels},
            {{48000, 256, 2, 48000, 256, 1}, kOutChannels}};
  }
};

// Stereo 48 kHz in blocks of 256 with the defaults, coloured where a
// family's defaults would leave some behaviour unexercised.
template <class F>
struct DynamicsConventions : ::testing::Test {
  static typename F::Config makeConfig() {
    typename F::Config c{};
    setHeader(c, {48000, 256, 2, 48000, 256, 2});
    F::defaults(&c.parameters);
    if constexpr (requires { F::colour(c.parameters); }) F::colour(c.parameters);
    return c;
  }
  Instance<F> make() { return Instance<F>(config.parameters, 48000, 256, 2); }
  typename F::Config config = makeConfig();
  Instance<F> main = make();
};

using Families = ::testing::Types<HighPass, Gate, Limiter, Equaliser, MultiBand>;
TYPED_TEST_SUITE(DynamicsConventions, Families);

TYPED_TEST(DynamicsConventions, ArgumentChecksInOrderAndTheLifecycle) {
  using F = TypeParam;
  auto* inst = this->main.inst();
  const auto* cfg = &this->config;
  typename F::Params p{};
  int latency = 0;
  size_t bytes = 0;
  ChannelBuffers audio(2, 256);
  audio.fill(1.5f);
  float* good[2] = {audio[0], audio[1]};
  float* shifted[2] = {audio[0], audio[1] + 4};  // 16- but not 32-byte aligned

  // Null pointers, in the order the calls are listed.
  const int32_t nulls[] = {code(F::size(nullptr, &bytes)), code(F::size(cfg, nullptr)),
                           code(F::init(nullptr, cfg)),     code(F::init(inst, nullptr)),
                           code(F::defaults(nullptr)),      code(F::get(inst, nullptr)),
                           code(F::update(nullptr, &p)),    code(F::latency(inst, nullptr)),
                           code(F::process(inst, nullptr))};
  for (size_t i = 0; i < std::size(nulls); ++i) EXPECT_EQ(nulls[i], -1003000) << "call " << i;
  EXPECT_EQ(code(F::init(inst, cfg)), -1002001);
  if constexpr (requires { F::points; }) {
    EXPECT_EQ(code(F::points(inst, nullptr)), -1003000);
    Instance<F> unmetered(cfg->parameters, 48000, 256, 2, 0);
    const typename F::Points* points = nullptr;
    EXPECT_EQ(code(F::points(unmetered.inst(), &points)), -1003005);
    EXPECT_EQ(points, nullptr) << "no metering unless configured";
  }
  EXPECT_NO_ALLOCATION(EXPECT_EQ(code(F::process(inst, shifted)), -1001000));
  EXPECT_EQ(audio[0][0], 1.5f) << "a refused block is left alone";
  ASSERT_EQ(code(F::size(cfg, &bytes)), 0);
  InstanceMemory odd(bytes + 64);
  EXPECT_EQ(code(F::init(reinterpret_cast<typename F::Inst*>(odd.bytes() + 16), cfg)), -1001000);

  ASSERT_EQ(code(F::release(inst)), 0);
  EXPECT_NO_ALLOCATION(EXPECT_EQ(code(F::process(inst, good)), -1002000));
  EXPECT_EQ(audio[1][255], 1.5f);
  const int32_t released[] = {code(F::get(inst, &p)), code(F::update(inst, &p)), code(F::flush(inst)),
                              code(F::release(inst)), code(F::latency(inst, &latency))};
  for (size_t i = 0; i < std::size(released); ++i) EXPECT_EQ(released[i], -1002000) << "call " << i;
  if constexpr (requires { F::points; }) {
    const typename F::Points* points = nullptr;
    EXPECT_EQ(code(F::points(inst, &points)), -1002000);
  }
  EXPECT_EQ(code(F::init(inst, cfg)), 0) << "a released instance starts again";
}

TYPED_TEST(DynamicsConventions, ConfigurationChecksInOrderAndAFailedInitLeavesNoInstance) {
  using F = TypeParam;
  const auto spoiled = bad<F>().front();
  for (const ConfigCase& k : F::configs()) {
    auto c = this->config;
    setHeader(c, k.header);
    spoiled.spoil(c.parameters);  // checked after the header
    const int32_t expected = k.code == 0 ? spoiled.code : k.code;
    size_t size = 0;
    EXPECT_EQ(code(F::size(&c, &size)), expected) << testing::PrintToString(k.header);
    InstanceMemory block(1 << 16);
    EXPECT_EQ(code(F::init(block.as<typename F::Inst>(), &c)), expected);
    EXPECT_EQ(code(F::flush(block.as<typename F::Inst>())), -1002000) << "a failed Init leaves it uninitialised";
  }
}

// Every parameter field as a float, for comparing records.
template <class F>
void expectSameFields(typename F::Params a, typename F::Params b) {
  for (size_t i = 0; i < F::fields(a).size(); ++i) EXPECT_EQ(*F::fields(a)[i].value, *F::fields(b)[i].value) << i;
}

TYPED_TEST(DynamicsConventions, EachParameterCheckHasItsCodeInOrderAndARefusalChangesNothing) {
  using F = TypeParam;
  const auto cases = bad<F>();
  for (size_t i = 0; i < cases.size(); ++i) {
    // Every later field is spoiled too, so the code shows this one is checked first.
    auto refused = this->config;
    for (size_t j = cases.size(); j-- > i;) cases[j].spoil(refused.parameters);
    EXPECT_EQ(code(F::update(this->main.inst(), &refused.parameters)), cases[i].code) << "case " << i;
    size_t size = 0;
    EXPECT_EQ(code(F::size(&refused, &size)), cases[i].code);
  }
  typename F::Params now{};
  ASSERT_EQ(code(F::get(this->main.inst(), &now)), 0);
  expectSameFields<F>(now, this->config.parameters);
  const Signal x = {whiteNoise(4096, 5, 1.2), whiteNoise(4096, 6, 0.01)};
  EXPECT_EQ(this->main.run(x), this->make().run(x)) << "refused updates left no trace";
}

TYPED_TEST(DynamicsConventions, NanPassesEveryRangeCheck) {
  using F = TypeParam;
  for (size_t i = 0; i < F::fields(this->config.parameters).size(); ++i) {
    typename F::Params p = this->config.parameters;
    *F::fields(p)[i].value = std::nanf("");
    EXPECT_EQ(code(F::update(this->main.inst(), &p)), 0) << "field " << i;
  }
}

TYPED_TEST(DynamicsConventions, ReportedLatencyIsFixedWhileTheDelayOfNoiseFollowsTheRate) {
  using F = TypeParam;
  // Between the gate threshold and the compressor thresholds, under the
  // limiter's ceiling: every dynamic stage runs at unity gain. The report is
  // the delay at 48 kHz, the first entry.
  const std::vector<float> x = whiteNoise(256 * 64, 17, 0.1);
  for (auto [rate, delay] : F::delays()) {
    Instance<F> instance(this->config.parameters, rate, 256, 2);
    const Signal y = instance.run(Signal{x, x});
    EXPECT_EQ(instance.latency(), static_cast<int>(F::delays()[0][1])) << rate;
    EXPECT_EQ(delayByCrossCorrelation(x, y[0], 1000), static_cast<int>(delay)) << rate;
    EXPECT_EQ(y[1], y[0]);
  }
}

TYPED_TEST(DynamicsConventions, FlushForgetsTheSignalButKeepsTheParameters) {
  using F = TypeParam;
  Instance<F> kept = this->make(), fresh = this->make();
  const Signal prime = {whiteNoise(256 * 40, 1, 0.9), whiteNoise(256 * 40, 2, 0.02)};
  this->main.run(prime);
  kept.run(prime);
  ASSERT_EQ(code(F::flush(this->main.inst())), 0);
  const Signal x = {whiteNoise(256 * 8, 8, 0.6), whiteNoise(256 * 8, 9, 0.6)};
  const Signal expected = fresh.run(x), flushed = this->main.run(x);
  size_t first = 0;
  while (first < x[0].size() && flushed[0][first] == expected[0][first]) ++first;
  EXPECT_EQ(flushed, expected) << "first difference at " << first;
  EXPECT_NE(kept.run(x), expected) << "without Flush the history shows";
  typename F::Params now{};
  ASSERT_EQ(code(F::get(this->main.inst(), &now)), 0);
  expectSameFields<F>(now, this->config.parameters);
}

TYPED_TEST(DynamicsConventions, BypassCrossfadesToDryThenPassesUntouchedAndReturnsLikeNew) {
  using F = TypeParam;
  // A 5 ms fade (set at Init) ends inside one block. Loud noise: wet and dry
  // differ in every family, and the dry block goes over full scale.
  typename F::Params on = this->config.parameters, off;
  on.crossfadeTime = 5.0f;
  off = on;
  off.enable = 0;
  Instance<F> d(on, 48000, 256, 2), wetOnly(on, 48000, 256, 2), fresh(off, 48000, 256, 2);
  const Signal head = {whiteNoise(256 * 20, 3, 1.5), whiteNoise(256 * 20, 4, 1.5)};
  const Signal x = {whiteNoise(256, 5, 1.5), whiteNoise(256, 6, 1.5)};
  d.run(head);
  wetOnly.run(head);
  d.update(off);
  const Signal y = d.run(x), wet = wetOnly.run(x);
  // The gating compressor holds its gains while it fades (its own tests
  // check that on a steady tone); the others keep processing. The first
  // channel only: the high-pass filter and the equaliser clear every
  // channel's filters when the first reaches dry, so the later channels of
  // that block finish their fade from cleared filters.
  double m = 1.0;
  for (size_t i = 0; i < 256 && !std::is_same_v<F, Gate>; ++i, m *= fadeKeep(5.0)) {
    ASSERT_NEAR(y[0][i], (1.0 - m) * x[0][i] + m * wet[0][i], 1e-4) << i;
  }
  EXPECT_EQ(d.latency(), 0);
  EXPECT_EQ(d.run(x), x) << "at rest the block passes untouched";
  if constexpr (requires { F::points; }) {
    EXPECT_NEAR(d.reading(0)[0], -758.6, 0.1) << "the meter reads silence";
  }
  d.update(on);
  fresh.update(on);
  EXPECT_EQ(d.run(head), fresh.run(head)) << "reaching dry cleared the state";
}

}  // namespace
