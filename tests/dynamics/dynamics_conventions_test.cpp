// Calling conventions shared by the high-pass filter, gating compressor and
// hard limiter: argument checks, lifecycle, parameter codes, refused updates,
// and the latency each reports against the delay measured on noise.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <vector>

#include "block_runner.h"
#include "dsp/dynamics/gating_compressor.h"
#include "dsp/dynamics/hard_limiter.h"
#include "dsp/dynamics/high_pass_filter.h"
#include "support/signals.h"

namespace {

using qor::test::Signal;

template <class P>
struct BadField {
  std::function<void(P&)> spoil;
  int32_t code;
};

struct HighPass {
  using Config = QorHighPassFilter_API_V1::QorHighPassFilterConfig;
  using Params = QorHighPassFilter_API_V1::QorHighPassFilterParameters;
  using Inst = QorHighPassFilter_API_V1::QorHighPassFilterInst;
  static constexpr int kLatency = 0;
  static Config config() {
    Config c{48000, 256, 2, 48000, 256, 2, {}};
    QorHighPassFilter_API_V1::qorHighPassFilterGetDefaultParameters(&c.parameters);
    return c;
  }
  static constexpr auto size = QorHighPassFilter_API_V1::qorHighPassFilterGetInstanceSize;
  static constexpr auto init = QorHighPassFilter_API_V1::qorHighPassFilterInit;
  static constexpr auto defaults = QorHighPassFilter_API_V1::qorHighPassFilterGetDefaultParameters;
  static constexpr auto get = QorHighPassFilter_API_V1::qorHighPassFilterGetParameters;
  static constexpr auto update = QorHighPassFilter_API_V1::qorHighPassFilterUpdateParameters;
  static constexpr auto process = QorHighPassFilter_API_V1::qorHighPassFilterProcess;
  static constexpr auto flush = QorHighPassFilter_API_V1::qorHighPassFilterFlush;
  static constexpr auto release = QorHighPassFilter_API_V1::qorHighPassFilterRelease;
  static constexpr auto latency = QorHighPassFilter_API_V1::qorHighPassFilterGetCurrentLatency;
  static std::vector<float*> floats(Params& p) { return {&p.cutoffFrequency, &p.crossfadeTime}; }
  static std::vector<BadField<Params>> bad() {
    return {{[](Params& p) { p.order = 0; }, -1005000},
            {[](Params& p) { p.order = 3; }, -1005000},
            {[](Params& p) { p.cutoffFrequency = 19.99f; }, -1005001},
            {[](Params& p) { p.cutoffFrequency = 400.01f; }, -1005001},
            {[](Params& p) { p.crossfadeTime = -0.01f; }, -1005002},
            {[](Params& p) { p.crossfadeTime = 500.5f; }, -1005002}};
  }
};

struct Gate {
  using Config = QorGatingCompressor_API_V1::QorGatingCompressorConfig;
  using Params = QorGatingCompressor_API_V1::QorGatingCompressorParameters;
  using Inst = QorGatingCompressor_API_V1::QorGatingCompressorInst;
  static constexpr int kLatency = 256;
  static Config config() {
    Config c{48000, 256, 2, 48000, 256, 2, {}, 1};
    QorGatingCompressor_API_V1::qorGatingCompressorGetDefaultParameters(&c.parameters);
    return c;
  }
  static constexpr auto size = QorGatingCompressor_API_V1::qorGatingCompressorGetInstanceSize;
  static constexpr auto init = QorGatingCompressor_API_V1::qorGatingCompressorInit;
  static constexpr auto defaults = QorGatingCompressor_API_V1::qorGatingCompressorGetDefaultParameters;
  static constexpr auto get = QorGatingCompressor_API_V1::qorGatingCompressorGetParameters;
  static constexpr auto update = QorGatingCompressor_API_V1::qorGatingCompressorUpdateParameters;
  static constexpr auto process = QorGatingCompressor_API_V1::qorGatingCompressorProcess;
  static constexpr auto flush = QorGatingCompressor_API_V1::qorGatingCompressorFlush;
  static constexpr auto release = QorGatingCompressor_API_V1::qorGatingCompressorRelease;
  static constexpr auto latency = QorGatingCompressor_API_V1::qorGatingCompressorGetCurrentLatency;
  static std::vector<float*> floats(Params& p) {
    return {&p.gateThreshold,        &p.gateFloor,        &p.gateAttack,          &p.gateRelease,
            &p.gateHold,             &p.compressorThreshold, &p.compressorRatio, &p.compressorInputGain,
            &p.compressorMakeupGain, &p.compressorAttack, &p.compressorRelease,   &p.crossfadeTime};
  }
  // Each float field in validation order: one value below and one above.
  static std::vector<BadField<Params>> bad() {
    const float lo[] = {-80, -60, 0, 50, 0, -40, 1, -12, -12, 0, 50, 0};
    const float hi[] = {-6, 0, 200, 1000, 200, 0, 20, 12, 12, 200, 1000, 250};
    std::vector<BadField<Params>> cases;
    for (int i = 0; i < 12; ++i) {
      cases.push_back({[i, v = lo[i] - 0.01f](Params& p) { *floats(p)[i] = v; }, -1005000 - i});
      cases.push_back({[i, v = hi[i] + 0.01f](Params& p) { *floats(p)[i] = v; }, -1005000 - i});
    }
    return cases;
  }
};

struct Limiter {
  using Config = QorHardLimiter_API_V1::QorHardLimiterConfig;
  using Params = QorHardLimiter_API_V1::QorHardLimiterParameters;
  using Inst = QorHardLimiter_API_V1::QorHardLimiterInst;
  static constexpr int kLatency = 128;
  static Config config() {
    Config c{48000, 256, 2, 48000, 256, 2, {}, 1};
    QorHardLimiter_API_V1::qorHardLimiterGetDefaultParameters(&c.parameters);
    return c;
  }
  static constexpr auto size = QorHardLimiter_API_V1::qorHardLimiterGetInstanceSize;
  static constexpr auto init = QorHardLimiter_API_V1::qorHardLimiterInit;
  static constexpr auto defaults = QorHardLimiter_API_V1::qorHardLimiterGetDefaultParameters;
  static constexpr auto get = QorHardLimiter_API_V1::qorHardLimiterGetParameters;
  static constexpr auto update = QorHardLimiter_API_V1::qorHardLimiterUpdateParameters;
  static constexpr auto process = QorHardLimiter_API_V1::qorHardLimiterProcess;
  static constexpr auto flush = QorHardLimiter_API_V1::qorHardLimiterFlush;
  static constexpr auto release = QorHardLimiter_API_V1::qorHardLimiterRelease;
  static constexpr auto latency = QorHardLimiter_API_V1::qorHardLimiterGetCurrentLatency;
  static std::vector<float*> floats(Params& p) {
    return {&p.attack, &p.release, &p.inputGain, &p.crossfadeTime};
  }
  static std::vector<BadField<Params>> bad() {
    const float lo[] = {0, 10, -20, 0}, hi[] = {10, 500, 20, 250};
    std::vector<BadField<Params>> cases;
    for (int i = 0; i < 4; ++i) {
      cases.push_back({[i, v = lo[i] - 0.01f](Params& p) { *floats(p)[i] = v; }, -1005000 - i});
      cases.push_back({[i, v = hi[i] + 0.5f](Params& p) { *floats(p)[i] = v; }, -1005000 - i});
    }
    return cases;
  }
};

template <class F>
class DynamicsConventions : public ::testing::Test {
 protected:
  using Inst = typename F::Inst;
  using Params = typename F::Params;

  void SetUp() override {
    ASSERT_EQ(static_cast<int32_t>(F::size(&config, &bytes)), 0);
    memory = std::make_unique<qor::test::InstanceMemory>(bytes);
    ASSERT_EQ(static_cast<int32_t>(F::init(inst(), &config)), 0);
  }
  Inst* inst() { return memory->as<Inst>(); }
  static int32_t code(auto rc) { return static_cast<int32_t>(rc); }
  Signal run(Inst* instance, const Signal& x) {
    return qor::test::runBlocks([&](float** ch) { return F::process(instance, ch); }, x, 256);
  }

  typename F::Config config = F::config();
  size_t bytes = 0;
  std::unique_ptr<qor::test::InstanceMemory> memory;
};

using Families = ::testing::Types<HighPass, Gate, Limiter>;
TYPED_TEST_SUITE(DynamicsConventions, Families);

TYPED_TEST(DynamicsConventions, ArgumentChecksInOrderAndTheLifecycle) {
  using F = TypeParam;
  auto* inst = this->inst();
  typename F::Params p{};
  int latency = 0;
  qor::test::ChannelBuffers audio(2, 256);
  audio.fill(1.5f);
  float* good[2] = {audio[0], audio[1]};
  float* shifted[2] = {audio[0], audio[1] + 4};  // 16- but not 32-byte aligned

  EXPECT_EQ(this->code(F::size(nullptr, &this->bytes)), -1003000);
  EXPECT_EQ(this->code(F::size(&this->config, nullptr)), -1003000);
  EXPECT_EQ(this->code(F::init(nullptr, &this->config)), -1003000);
  EXPECT_EQ(this->code(F::init(inst, nullptr)), -1003000);
  EXPECT_EQ(this->code(F::init(inst, &this->config)), -1002001);
  EXPECT_EQ(this->code(F::defaults(nullptr)), -1003000);
  EXPECT_EQ(this->code(F::get(inst, nullptr)), -1003000);
  EXPECT_EQ(this->code(F::update(nullptr, &p)), -1003000);
  EXPECT_EQ(this->code(F::latency(inst, nullptr)), -1003000);
  EXPECT_EQ(this->code(F::process(inst, nullptr)), -1003000);
  EXPECT_NO_ALLOCATION(EXPECT_EQ(this->code(F::process(inst, shifted)), -1001000));
  EXPECT_EQ(audio[0][0], 1.5f) << "a refused block is left alone";

  qor::test::InstanceMemory odd(this->bytes + 64);
  EXPECT_EQ(this->code(F::init(reinterpret_cast<typename F::Inst*>(odd.bytes() + 16), &this->config)),
            -1001000);

  ASSERT_EQ(this->code(F::release(inst)), 0);
  EXPECT_NO_ALLOCATION(EXPECT_EQ(this->code(F::process(inst, good)), -1002000));
  EXPECT_EQ(audio[1][255], 1.5f);
  EXPECT_EQ(this->code(F::get(inst, &p)), -1002000);
  EXPECT_EQ(this->code(F::update(inst, &p)), -1002000);
  EXPECT_EQ(this->code(F::flush(inst)), -1002000);
  EXPECT_EQ(this->code(F::release(inst)), -1002000);
  EXPECT_EQ(this->code(F::latency(inst, &latency)), -1002000);
  EXPECT_EQ(this->code(F::init(inst, &this->config)), 0) << "a released instance starts again";

  // A failed Init leaves the block uninitialised.
  auto bad = this->config;
  F::bad().front().spoil(bad.parameters);
  qor::test::InstanceMemory fresh(this->bytes);
  auto* other = fresh.as<typename F::Inst>();
  EXPECT_EQ(this->code(F::init(other, &bad)), F::bad().front().code);
  EXPECT_EQ(this->code(F::latency(other, &latency)), -1002000);
}

TYPED_TEST(DynamicsConventions, EachParameterCheckHasItsCodeAndARefusalChangesNothing) {
  using F = TypeParam;
  qor::test::InstanceMemory twinMemory(this->bytes);
  auto* twin = twinMemory.as<typename F::Inst>();
  ASSERT_EQ(this->code(F::init(twin, &this->config)), 0);
  for (const auto& c : F::bad()) {
    typename F::Params p = this->config.parameters;
    c.spoil(p);
    EXPECT_EQ(this->code(F::update(this->inst(), &p)), c.code);
    auto refused = this->config;
    refused.parameters = p;
    size_t size = 0;
    EXPECT_EQ(this->code(F::size(&refused, &size)), c.code);
    typename F::Params now{};
    ASSERT_EQ(this->code(F::get(this->inst(), &now)), 0);
    typename F::Params before = this->config.parameters;
    for (size_t i = 0; i < F::floats(now).size(); ++i) {
      EXPECT_EQ(*F::floats(now)[i], *F::floats(before)[i]) << c.code;
    }
  }
  const Signal x = {qor::test::whiteNoise(4096, 5, 1.2), qor::test::whiteNoise(4096, 6, 0.01)};
  EXPECT_EQ(this->run(this->inst(), x), this->run(twin, x)) << "refused updates left no trace";
}

TYPED_TEST(DynamicsConventions, NanPassesEveryRangeCheck) {
  using F = TypeParam;
  for (size_t i = 0; i < F::floats(this->config.parameters).size(); ++i) {
    typename F::Params p = this->config.parameters;
    *F::floats(p)[i] = std::nanf("");
    EXPECT_EQ(this->code(F::update(this->inst(), &p)), 0) << "field " << i;
  }
}

TYPED_TEST(DynamicsConventions, ReportedLatencyMatchesTheDelayOfNoise) {
  using F = TypeParam;
  // Between the gate threshold and the compressor threshold, under the
  // limiter's ceiling: every stage runs at unity gain.
  const std::vector<float> x = qor::test::whiteNoise(256 * 64, 17, 0.1);
  const Signal y = this->run(this->inst(), Signal{x, x});
  int latency = -1;
  ASSERT_EQ(this->code(F::latency(this->inst(), &latency)), 0);
  EXPECT_EQ(latency, F::kLatency);
  EXPECT_EQ(qor::test::delayByCrossCorrelation(x, y[0], 1000), latency);
  EXPECT_EQ(y[1], y[0]);
}

}  // namespace
