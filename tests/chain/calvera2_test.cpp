// The voice chain as the host uses it: frame mechanics, latency, switching,
// gain, metering and the codes of refused settings.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "chain/chain_fixture.h"
#include "support/signals.h"

namespace {

using namespace qor::test;
using R = QorCalvera2Result;

// Lag of the best match of `output` against `input`, searched up to maxLag.
int32_t measuredDelay(const std::vector<float>& input, const std::vector<float>& output, int32_t maxLag) {
  return delayByCrossCorrelation(input, output, maxLag);
}

TEST(Calvera2Config, LimitsAndTheirOrder) {
  const QorCalvera2Parameters p = chainDefaults();
  auto sizeFor = [&](uint32_t rate, uint32_t block, uint32_t in, uint32_t out, uint32_t outRate = 0,
                     uint32_t outBlock = 0) {
    QorCalvera2Config c{rate, block, in, outRate ? outRate : rate, outBlock ? outBlock : block, out, p, 1};
    size_t size = 0;
    return qorCalvera2GetInstanceSize(&c, &size);
  };
  EXPECT_EQ(sizeFor(22050, 256, 1, 2), R::Success);
  EXPECT_EQ(sizeFor(22049, 256, 1, 2), R::ErrorSampleRate);
  EXPECT_EQ(sizeFor(192001, 256, 1, 2), R::ErrorSampleRate);
  EXPECT_EQ(sizeFor(48000, 256, 1, 2, 44100), R::ErrorSampleRate);
  EXPECT_EQ(sizeFor(48000, 8092, 2, 2), R::Success);
  EXPECT_EQ(sizeFor(48000, 8093, 2, 2), R::ErrorBlockSize);
  EXPECT_EQ(sizeFor(48000, 31, 2, 2), R::ErrorBlockSize);
  EXPECT_EQ(sizeFor(48000, 256, 2, 2, 0, 255), R::ErrorBlockSize);
  EXPECT_EQ(sizeFor(48000, 256, 3, 2), R::ErrorInputChannels);
  EXPECT_EQ(sizeFor(48000, 256, 2, 1), R::ErrorOutputChannels);
  // Rate before block before channels.
  EXPECT_EQ(sizeFor(1000, 1, 5, 5), R::ErrorSampleRate);
  EXPECT_EQ(sizeFor(48000, 1, 5, 5), R::ErrorBlockSize);
  // The converter's own limit at other rates.
  EXPECT_EQ(sizeFor(44100, 8000, 2, 2), R::ErrorBlockSize);
}

TEST(Calvera2Lifecycle, InitNeedsZeroedMemoryAndRefusesASecondInit) {
  QorCalvera2Config c{48000, 480, 2, 48000, 480, 2, chainDefaults(), 1};
  size_t size = 0;
  ASSERT_EQ(qorCalvera2GetInstanceSize(&c, &size), R::Success);
  InstanceMemory mem(size);
  mem.bytes()[size - 1] = 1;
  EXPECT_EQ(qorCalvera2Init(mem.as<QorCalvera2Inst>(), &c), R::ErrorNotZeroed);
  mem.zero();
  ASSERT_EQ(qorCalvera2Init(mem.as<QorCalvera2Inst>(), &c), R::Success);
  EXPECT_EQ(qorCalvera2Init(mem.as<QorCalvera2Inst>(), &c), R::ErrorAlreadyInitialised);
  ASSERT_EQ(qorCalvera2Release(mem.as<QorCalvera2Inst>()), R::Success);
  // A released block must be zeroed again before it can start once more.
  EXPECT_EQ(qorCalvera2Init(mem.as<QorCalvera2Inst>(), &c), R::ErrorNotZeroed);
  mem.zero();
  EXPECT_EQ(qorCalvera2Init(mem.as<QorCalvera2Inst>(), &c), R::Success);
  EXPECT_EQ(qorCalvera2Release(mem.as<QorCalvera2Inst>()), R::Success);
}

TEST(Calvera2Lifecycle, CallsOnAnUninitialisedOrMisusedInstance) {
  QorCalvera2Config c{48000, 480, 2, 48000, 480, 2, chainDefaults(), 0};
  size_t size = 0;
  ASSERT_EQ(qorCalvera2GetInstanceSize(&c, &size), R::Success);
  InstanceMemory mem(size);
  auto* inst = mem.as<QorCalvera2Inst>();
  ChannelBuffers io(2, 480);
  int latency = 0;
  QorCalvera2Parameters p{};
  EXPECT_EQ(qorCalvera2Process(inst, io.data()), R::ErrorNotInitialised);
  EXPECT_EQ(qorCalvera2GetCurrentLatency(inst, &latency), R::ErrorNotInitialised);
  EXPECT_EQ(qorCalvera2GetParameters(inst, &p), R::ErrorNotInitialised);
  EXPECT_EQ(qorCalvera2Release(inst), R::ErrorNotInitialised);
  EXPECT_EQ(qorCalvera2GetInstanceSize(nullptr, &size), R::ErrorNullPointer);
  EXPECT_EQ(qorCalvera2GetDefaultParameters(nullptr), R::ErrorNullPointer);
  ASSERT_EQ(qorCalvera2Init(inst, &c), R::Success);
  // Both channel pointers are checked, even for mono input.
  ChannelBuffers wide(2, 488);
  float* second[2] = {wide[0], wide[1] + 4};
  for (uint32_t i = 0; i < 480; ++i) wide[1][i + 4] = 0.5f;
  EXPECT_EQ(qorCalvera2Process(inst, second), R::ErrorMisaligned);
  EXPECT_EQ(wide[1][4], 0.5f) << "a refused block is left untouched";
  const QorCalvera2MeteringPoints* points = nullptr;
  EXPECT_EQ(qorCalvera2GetMeteringPoints(inst, &points), R::ErrorMeteringNotEnabled);
  EXPECT_EQ(qorCalvera2Release(inst), R::Success);
}

TEST(Calvera2Defaults, VoiceEffectsStartOffInsideTheChain) {
  const QorCalvera2Parameters p = chainDefaults();
  EXPECT_EQ(p.outputGain, 0.0f);
  EXPECT_EQ(p.crossfadeTime, 50.0f);
  EXPECT_EQ(p.enable, 1);
  EXPECT_EQ(p.vocalChanger.enable, 0);
  EXPECT_EQ(p.flangerPhaser.enable, 0);
  EXPECT_EQ(p.ringModulator.enable, 0);
  EXPECT_EQ(p.reverb.enable, 0);
  EXPECT_EQ(p.delay.enable, 0);
  EXPECT_EQ(p.highPassFilter.enable, 1);
  EXPECT_EQ(p.hardLimiter.enable, 1);
}

struct LatencyCase {
  uint32_t rate;
  uint32_t block;
  int prefill;
};

class Calvera2Latency : public ::testing::TestWithParam<LatencyCase> {};

TEST_P(Calvera2Latency, ReportedDelayMatchesTheMeasuredOne) {
  const LatencyCase lc = GetParam();
  Chain chain(lc.rate, lc.block, 1, allStagesOff());
  ASSERT_EQ(chain.status(), R::Success);
  const int reported = chain.latency();
  if (lc.rate == 48000) {
    EXPECT_EQ(reported, lc.prefill) << "with every stage off only the frame mechanics delay";
  } else {
    EXPECT_GT(reported, lc.prefill) << "the converters add their own latency";
  }
  const std::vector<float> x = whiteNoise(lc.rate, 99, 0.5);
  const auto out = chain.run({x});
  // The converters report their whole kernel span, about twice the delay a
  // signal sees through them; the frame mechanics are exact.
  const int expected = lc.rate == 48000 ? reported : lc.prefill + (reported - lc.prefill) / 2;
  EXPECT_NEAR(measuredDelay(x, out[0], 4000), expected, lc.rate == 48000 ? 0 : 2);
  EXPECT_NEAR(measuredDelay(x, out[1], 4000), expected, lc.rate == 48000 ? 0 : 2) << "mono is copied to both";
}

INSTANTIATE_TEST_SUITE_P(HostFormats, Calvera2Latency,
                         ::testing::Values(LatencyCase{48000, 480, 256}, LatencyCase{48000, 128, 256},
                                           LatencyCase{44100, 441, 252}, LatencyCase{96000, 960, 528}));

TEST(Calvera2LatencyRules, DefaultStagesAddTheirLatencyAndFlushAccumulatesThePrefill) {
  Chain chain(48000, 480, 2, chainDefaults());
  ASSERT_EQ(chain.status(), R::Success);
  const int withStages = chain.latency();
  EXPECT_GT(withStages, 256);
  ASSERT_EQ(qorCalvera2Flush(chain.inst()), R::Success);
  EXPECT_EQ(chain.latency(), withStages + 256) << "every Flush primes again and adds its latency again";
  ASSERT_EQ(qorCalvera2Flush(chain.inst()), R::Success);
  EXPECT_EQ(chain.latency(), withStages + 512);
}

TEST(Calvera2Switching, OffFadesToDryFlushesAndReportsNoLatency) {
  QorCalvera2Parameters p = chainDefaults();
  p.outputGain = -6.0f;  // makes processed and dry easy to tell apart
  Chain chain(48000, 480, 2, p);
  ASSERT_EQ(chain.status(), R::Success);
  const std::vector<float> tone = sine(1000.0, 48000.0, 48000 * 2, 0.25);
  chain.run({tone, tone});
  const int onLatency = chain.latency();

  p.enable = 0;
  ASSERT_EQ(qorCalvera2UpdateParameters(chain.inst(), &p), R::Success);
  // About 50 ms to fade; after that the host block comes back as it went in,
  // scaled only by the output gain.
  const auto out = chain.run({tone, tone});
  const double gain = std::pow(10.0, -6.0 / 20.0);
  for (size_t i = 9600; i < tone.size(); i += 37) ASSERT_NEAR(out[0][i], tone[i] * gain, 1e-6) << i;
  EXPECT_EQ(chain.latency(), 0) << "off: no latency";

  // Back on: the chain primed itself again when it flushed, so the prefill
  // latency is counted twice now.
  p.enable = 1;
  ASSERT_EQ(qorCalvera2UpdateParameters(chain.inst(), &p), R::Success);
  chain.run({tone});
  EXPECT_EQ(chain.latency(), onLatency + 256);
}

TEST(Calvera2Switching, MonoInputLeavesTheSecondChannelAloneInBypass) {
  QorCalvera2Parameters p = allStagesOff();
  p.enable = 0;
  Chain chain(48000, 480, 1, p);
  ASSERT_EQ(chain.status(), R::Success);
  const std::vector<float> x = whiteNoise(4800, 5, 0.3);
  const auto out = chain.run({x}, 0.125f);
  for (size_t i = 0; i < out[1].size(); i += 11) ASSERT_EQ(out[1][i], 0.125f);
  for (size_t i = 0; i < out[0].size(); i += 11) ASSERT_EQ(out[0][i], x[i]);
}

TEST(Calvera2Gain, OutputGainScalesTheWholeBlockAtOnce) {
  const std::vector<float> x = whiteNoise(48000, 8, 0.2);
  QorCalvera2Parameters p = allStagesOff();
  Chain unity(48000, 480, 2, p);
  p.outputGain = -12.0f;
  Chain quiet(48000, 480, 2, p);
  const auto a = unity.run({x, x});
  const auto b = quiet.run({x, x});
  const float g = std::pow(10.0f, -12.0f / 20.0f);
  for (size_t i = 0; i < a[0].size(); i += 7) ASSERT_FLOAT_EQ(b[0][i], a[0][i] * g) << i;

  // A change takes effect in full at the next block.
  p.outputGain = 0.0f;
  ASSERT_EQ(qorCalvera2UpdateParameters(quiet.inst(), &p), R::Success);
  const auto c = quiet.run({x, x});
  const auto d = unity.run({x, x});
  for (size_t i = 0; i < c[0].size(); i += 7) ASSERT_FLOAT_EQ(c[0][i], d[0][i]) << i;
}

TEST(Calvera2Metering, PointsFollowTheSignalAndTheEnable) {
  Chain chain(48000, 480, 2, chainDefaults());
  ASSERT_EQ(chain.status(), R::Success);
  const QorCalvera2MeteringPoints* mp = nullptr;
  ASSERT_EQ(qorCalvera2GetMeteringPoints(chain.inst(), &mp), R::Success);
  for (uint32_t i = 0; i < kCalvera2MeteringPointCount; ++i) EXPECT_NE(mp->points[i], nullptr) << i;
  EXPECT_EQ(mp->points[0]->count, 2u);
  EXPECT_EQ(mp->points[30]->count, 2u);
  const std::vector<float> tone = sine(1000.0, 48000.0, 48000, 0.5);
  chain.run({tone, tone});
  EXPECT_NEAR(mp->points[0]->data[0], 20.0 * std::log10(0.5), 0.05) << "input peak";
  EXPECT_GT(mp->points[30]->data[0], -20.0f) << "output peak";
  EXPECT_GT(mp->points[1]->data[0], -20.0f) << "high-pass input";

  // Off: the internal meters are switched off with the chain and read the floor.
  QorCalvera2Parameters p = chainDefaults();
  p.enable = 0;
  ASSERT_EQ(qorCalvera2UpdateParameters(chain.inst(), &p), R::Success);
  chain.run({tone, tone});
  EXPECT_LT(mp->points[2]->data[0], -700.0f);
  EXPECT_LT(mp->points[29]->data[0], -700.0f);
  EXPECT_NEAR(mp->points[0]->data[0], 20.0 * std::log10(0.5), 0.05) << "the input meter always measures";
}

struct RefusedField {
  const char* name;
  void (*spoil)(QorCalvera2Parameters&);
  int32_t expected;
};

class Calvera2Refusals : public ::testing::TestWithParam<RefusedField> {};

TEST_P(Calvera2Refusals, EachStageAnswersInItsOwnBlock) {
  Chain chain(48000, 480, 2, chainDefaults());
  ASSERT_EQ(chain.status(), R::Success);
  QorCalvera2Parameters p = chainDefaults();
  GetParam().spoil(p);
  EXPECT_EQ(static_cast<int32_t>(qorCalvera2UpdateParameters(chain.inst(), &p)), GetParam().expected);
  // The same record is refused at configuration time.
  QorCalvera2Config c = chain.config();
  c.parameters = p;
  size_t size = 0;
  EXPECT_EQ(static_cast<int32_t>(qorCalvera2GetInstanceSize(&c, &size)), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Stages, Calvera2Refusals,
    ::testing::Values(
        RefusedField{"chain crossfade", [](QorCalvera2Parameters& p) { p.crossfadeTime = 101.0f; }, -1016011},
        RefusedField{"chain gain", [](QorCalvera2Parameters& p) { p.outputGain = 13.0f; }, -1016010},
        RefusedField{"high-pass cutoff", [](QorCalvera2Parameters& p) { p.highPassFilter.cutoffFrequency = 500.0f; }, -1009004},
        RefusedField{"noise floor", [](QorCalvera2Parameters& p) { p.noiseReduction.reductionFloorDb = 1.0f; }, -1012008},
        RefusedField{"gate threshold", [](QorCalvera2Parameters& p) { p.gatingCompressor.gateThreshold = 0.0f; }, -1007004},
        RefusedField{"eq band 1 gain", [](QorCalvera2Parameters& p) { p.multiBandEqualiser.band1Gain = 20.0f; }, -1011003 - 4},
        RefusedField{"vocal pitch", [](QorCalvera2Parameters& p) { p.vocalChanger.voice1PitchCents = 3000.0f; }, -1015003 - 2},
        RefusedField{"flanger depth", [](QorCalvera2Parameters& p) { p.flangerPhaser.depth = 2.0f; }, -1006003 - 1},
        RefusedField{"ring mix", [](QorCalvera2Parameters& p) { p.ringModulator.mix = 2.0f; }, -1014003},
        RefusedField{"delay feedback", [](QorCalvera2Parameters& p) { p.delay.feedback = 0.9f; }, -1005004 - 5},
        RefusedField{"reverb mix", [](QorCalvera2Parameters& p) { p.reverb.mix = 2.0f; }, -1013003 - 7},
        RefusedField{"limiter release", [](QorCalvera2Parameters& p) { p.hardLimiter.release = 1.0f; }, -1008004 - 1}),
    [](const ::testing::TestParamInfo<RefusedField>& param) {
      std::string n = param.param.name;
      for (char& ch : n) if (ch == ' ' || ch == '-') ch = '_';
      return n;
    });

}  // namespace
