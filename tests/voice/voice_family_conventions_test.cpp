// The calling conventions every effect family shares, checked family by
// family: configuration codes in checking order (a fault together with later
// ones reports the first), calls in the wrong state or with bad pointers or
// misaligned channels, and a refused update that leaves the sound unchanged.
#include <gtest/gtest.h>

#include <cmath>
#include <utility>
#include <vector>

#include "support/alloc_guard.h"
#include "support/signals.h"
#include "voice_harness.h"

namespace qor::test {
namespace {

template <class Api>
using Faults = std::vector<std::pair<void (*)(typename Api::Config&), typename Api::R>>;

// Per family: configuration faults in checking order (Success where a field
// is not checked), and an update whose first field is fine and a later one not.
template <class Api>
struct Conventions;

template <>
struct Conventions<DelayApi> {
  using C = DelayApi::Config;
  using R = DelayApi::R;
  static Faults<DelayApi> faults() {
    return {{[](C& c) { c.inputSampleRate = 96000, c.inputBlockSize = 127; }, R::ErrorSampleRate},
            {[](C& c) { c.outputSampleRate = 8000, c.outputBlockSize = 7; }, R::Success},
            {[](C& c) { c.inputBlockSize = 127, c.inputChannels = 1; }, R::ErrorBlockSize},
            {[](C& c) { c.inputBlockSize = 4097; }, R::ErrorBlockSize},
            {[](C& c) { c.inputChannels = 1, c.outputChannels = 1; }, R::ErrorInputChannels},
            {[](C& c) { c.outputChannels = 1, c.parameters.mix = 2.0f; }, R::ErrorOutputChannels},
            {[](C& c) { c.parameters.delayTimeLeftMs = 9.9f, c.parameters.delayTimeRightMs = 0; }, R::ErrorDelayTimeLeft},
            {[](C& c) { c.parameters.delayTimeRightMs = 2001.0f, c.parameters.feedback = 1.0f; }, R::ErrorDelayTimeRight},
            {[](C& c) { c.parameters.feedback = 0.61f, c.parameters.mix = -0.1f; }, R::ErrorFeedback},
            {[](C& c) { c.parameters.mix = -0.1f, c.parameters.crossfadeTime = 101.0f; }, R::ErrorMix},
            {[](C& c) { c.parameters.crossfadeTime = 101.0f; }, R::ErrorCrossfadeTime},
            {[](C& c) { c.parameters.routing = 9, c.parameters.feedback = std::nanf(""); }, R::Success}};
  }
  static void spoil(DelayApi::P& p) { p.mix = 0.3f, p.feedback = 0.9f; }
  static constexpr R kSpoiled = R::ErrorFeedback;
};

template <>
struct Conventions<FlangerPhaserApi> {
  using C = FlangerPhaserApi::Config;
  using R = FlangerPhaserApi::R;
  // Channel counts are not compared with each other; the mode is checked by Init's own update.
  static Faults<FlangerPhaserApi> faults() {
    return {{[](C& c) { c.inputSampleRate = c.outputSampleRate = 44100; }, R::Success},
            {[](C& c) { c.outputSampleRate = 44100, c.inputBlockSize = 1; }, R::ErrorSampleRate},
            {[](C& c) { c.inputSampleRate = c.outputSampleRate = 96000; }, R::ErrorSampleRate},
            {[](C& c) { c.inputBlockSize = c.outputBlockSize = 127, c.inputChannels = 0; }, R::ErrorBlockSize},
            {[](C& c) { c.outputBlockSize = 512; }, R::ErrorBlockSize},
            {[](C& c) { c.inputBlockSize = c.outputBlockSize = 4096; }, R::Success},
            {[](C& c) { c.inputChannels = 3, c.outputChannels = 3; }, R::ErrorInputChannels},
            {[](C& c) { c.inputChannels = 0; }, R::ErrorInputChannels},
            {[](C& c) { c.outputChannels = 3, c.parameters.depth = 1.1f; }, R::ErrorOutputChannels},
            {[](C& c) { c.inputChannels = 1; }, R::Success},
            {[](C& c) { c.parameters.depth = 1.1f, c.parameters.rate = 9.0f; }, R::ErrorDepth},
            {[](C& c) { c.parameters.rate = 5.5f, c.parameters.crossfadeTime = 101.0f; }, R::ErrorRate},
            {[](C& c) { c.parameters.rate = -0.1f; }, R::ErrorRate},
            {[](C& c) { c.parameters.crossfadeTime = 100.5f; }, R::ErrorCrossfadeTime},
            {[](C& c) { c.parameters.mode = 9, c.parameters.depth = std::nanf(""); }, R::Success}};
  }
  static void spoil(FlangerPhaserApi::P& p) { p.rate = 3.0f, p.depth = 1.5f; }
  static constexpr R kSpoiled = R::ErrorDepth;
};

template <>
struct Conventions<RingModulatorApi> {
  using C = RingModulatorApi::Config;
  using R = RingModulatorApi::R;
  static Faults<RingModulatorApi> faults() {
    return {{[](C& c) { c.outputSampleRate = 44100, c.outputBlockSize = 128; }, R::ErrorSampleRate},
            {[](C& c) { c.outputBlockSize = 128, c.outputChannels = 1; }, R::ErrorBlockSize},
            {[](C& c) { c.outputChannels = 1, c.parameters.mix = 1.01f; }, R::ErrorOutputChannels},
            {[](C& c) { c.inputSampleRate = c.outputSampleRate = 8000; }, R::Success},
            {[](C& c) { c.parameters.mix = 1.01f, c.parameters.frequency = 0.5f; }, R::ErrorMix},
            {[](C& c) { c.parameters.frequency = 0.5f, c.parameters.crossfadeTime = 250.5f; }, R::ErrorFrequency},
            {[](C& c) { c.parameters.frequency = 2000.0f; }, R::Success},
            {[](C& c) { c.parameters.crossfadeTime = 250.5f; }, R::ErrorCrossfadeTime},
            {[](C& c) { c.parameters.mix = std::nanf(""), c.parameters.waveform = -9; }, R::Success}};
  }
  static void spoil(RingModulatorApi::P& p) { p.mix = 0.5f, p.waveform = QorRingModulator_API_V1::QorRingModulatorSquare, p.frequency = 0.5f; }
  static constexpr R kSpoiled = R::ErrorFrequency;
};

template <>
struct Conventions<ReverbApi> {
  using C = ReverbApi::Config;
  using R = ReverbApi::R;
  static Faults<ReverbApi> faults() {
    return {{[](C& c) { c.inputSampleRate = c.outputSampleRate = 44100, c.inputBlockSize = c.outputBlockSize = 128; }, R::Success},
            {[](C& c) { c.inputBlockSize = c.outputBlockSize = 4096; }, R::Success},
            {[](C& c) { c.inputSampleRate = c.outputSampleRate = 32000, c.inputBlockSize = 127; }, R::ErrorSampleRate},
            {[](C& c) { c.inputSampleRate = 44100; }, R::ErrorSampleRate},
            {[](C& c) { c.inputBlockSize = c.outputBlockSize = 127, c.inputChannels = 1; }, R::ErrorBlockSize},
            {[](C& c) { c.inputBlockSize = c.outputBlockSize = 4097; }, R::ErrorBlockSize},
            {[](C& c) { c.outputBlockSize = 512; }, R::ErrorBlockSize},
            {[](C& c) { c.inputChannels = 1, c.outputChannels = 1; }, R::ErrorInputChannels},
            {[](C& c) { c.outputChannels = 1, c.parameters.mix = 2.0f; }, R::ErrorOutputChannels}};
  }
  static void spoil(ReverbApi::P& p) { p.roomSize = 0.3f, p.mix = 2.0f; }
  static constexpr R kSpoiled = R::ErrorMix;
};

template <>
struct Conventions<VocalChangerApi> {
  using C = VocalChangerApi::Config;
  using R = VocalChangerApi::R;
  // The output rate and block are not checked; one or two channels.
  static Faults<VocalChangerApi> faults() {
    return {{[](C& c) { c.inputSampleRate = 44100, c.inputBlockSize = 128, c.outputSampleRate = c.outputBlockSize = 0; }, R::Success},
            {[](C& c) { c.inputBlockSize = 4096, c.inputChannels = c.outputChannels = 1, c.outputBlockSize = 77; }, R::Success},
            {[](C& c) { c.inputSampleRate = c.outputSampleRate = 32000; }, R::ErrorSampleRate},
            {[](C& c) { c.inputSampleRate = 96000, c.inputBlockSize = 8000, c.inputChannels = 3; }, R::ErrorSampleRate},
            {[](C& c) { c.inputBlockSize = c.outputBlockSize = 127, c.inputChannels = 3; }, R::ErrorBlockSize},
            {[](C& c) { c.inputBlockSize = 4097; }, R::ErrorBlockSize},
            {[](C& c) { c.inputChannels = c.outputChannels = 0; }, R::ErrorInputChannels},
            {[](C& c) { c.inputChannels = c.outputChannels = 3; }, R::ErrorInputChannels},
            {[](C& c) { c.inputChannels = 1; }, R::ErrorOutputChannels},
            {[](C& c) { c.outputChannels = 0, c.parameters.voice1LevelDb = 1.0f; }, R::ErrorOutputChannels}};
  }
  static void spoil(VocalChangerApi::P& p) { p.voice1Type = 2, p.voice1PitchCents = 300.0f, p.crossfadeTime = 101.0f; }
  static constexpr R kSpoiled = R::ErrorCrossfadeTime;
};

template <class Api>
class FamilyConventions : public ::testing::Test {
 protected:
  const typename Api::Config config{48000, 256, 2, 48000, 256, 2, defaultsOf<Api>()};
};

using Families = ::testing::Types<DelayApi, FlangerPhaserApi, RingModulatorApi, ReverbApi, VocalChangerApi>;
TYPED_TEST_SUITE(FamilyConventions, Families);

TYPED_TEST(FamilyConventions, ConfigurationCodesInCheckingOrder) {
  using A = TypeParam;
  for (const auto& [change, code] : Conventions<A>::faults()) {
    typename A::Config c = this->config;
    change(c);
    size_t size = 0;
    EXPECT_EQ(A::getInstanceSize(&c, &size), code) << c.inputSampleRate << " " << c.inputBlockSize;
    if (code == A::R::Success) continue;
    InstanceMemory memory(1 << 16);
    auto* inst = memory.as<typename A::Inst>();
    EXPECT_EQ(A::init(inst, &c), code);
    int latency = 0;
    EXPECT_EQ(A::latency(inst, &latency), A::R::ErrorNotInitialised) << "a failed Init leaves it uninitialised";
  }
}

TYPED_TEST(FamilyConventions, CallsInTheWrongStateOrWithBadArguments) {
  using A = TypeParam;
  using R = typename A::R;
  size_t size = 0;
  EXPECT_EQ(A::defaults(nullptr), R::ErrorNullPointer);
  EXPECT_EQ(A::getInstanceSize(nullptr, &size), R::ErrorNullPointer);
  EXPECT_EQ(A::getInstanceSize(&this->config, nullptr), R::ErrorNullPointer);
  ASSERT_EQ(A::getInstanceSize(&this->config, &size), R::Success);
  InstanceMemory memory(size + 32);
  auto* inst = memory.as<typename A::Inst>();
  ChannelBuffers buffers(2, 264);
  buffers.fill(0.25f);
  typename A::P p = this->config.parameters;
  int latency = -1;
  auto uninitialised = [&] {
    R processed{};
    EXPECT_NO_ALLOCATION(processed = A::process(inst, buffers.data()));
    return std::vector<R>{processed,        A::update(inst, &p),        A::get(inst, &p),
                          A::latency(inst, &latency), A::flush(inst), A::release(inst)};
  };
  EXPECT_EQ(uninitialised(), std::vector<R>(6, R::ErrorNotInitialised));
  EXPECT_EQ(A::init(nullptr, &this->config), R::ErrorNullPointer);
  EXPECT_EQ(A::init(inst, nullptr), R::ErrorNullPointer);
  EXPECT_EQ(A::init(reinterpret_cast<typename A::Inst*>(memory.bytes() + 16), &this->config), R::ErrorMisaligned);

  ASSERT_EQ(A::init(inst, &this->config), R::Success);
  EXPECT_EQ(A::init(inst, &this->config), R::ErrorAlreadyInitialised);
  EXPECT_EQ((std::vector<R>{A::process(inst, nullptr), A::update(inst, nullptr), A::get(inst, nullptr),
                            A::latency(inst, nullptr)}),
            std::vector<R>(4, R::ErrorNullPointer));
  EXPECT_EQ(A::latency(inst, &latency), R::Success);
  EXPECT_EQ(latency, 0);
  // A channel 16 bytes off alignment is refused and neither channel is touched.
  float* skewed[2] = {buffers[0], buffers[1] + 4};
  EXPECT_NO_ALLOCATION(EXPECT_EQ(A::process(inst, skewed), R::ErrorMisaligned));
  EXPECT_TRUE(buffers[0][0] == 0.25f && skewed[1][0] == 0.25f);

  ASSERT_EQ(A::release(inst), R::Success);
  EXPECT_EQ(uninitialised(), std::vector<R>(6, R::ErrorNotInitialised));
  memory.zero();
  EXPECT_EQ(A::init(inst, &this->config), R::Success);
}

TYPED_TEST(FamilyConventions, ARefusedUpdateChangesNothing) {
  using A = TypeParam;
  Family<A> refused(this->config.parameters), untouched(this->config.parameters);
  typename A::P bad = this->config.parameters;
  Conventions<A>::spoil(bad);
  EXPECT_EQ(refused.update(bad), Conventions<A>::kSpoiled);
  const Signals in{whiteNoise(4096, 7, 0.5), whiteNoise(4096, 8, 0.5)};
  EXPECT_EQ(refused.run(in), untouched.run(in));
}

}  // namespace
}  // namespace qor::test
