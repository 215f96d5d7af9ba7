// The shared conventions: instance layout, argument checks, bypass crossfade.
#include <gtest/gtest.h>

#include <cmath>

#include "dsp/core/bypass.h"
#include "dsp/core/instance.h"
#include "support/audio_buffers.h"

namespace {

struct FakeState { uint64_t marker; float* a; double* b; };

TEST(InstanceLayout, CountingAndPlacingAgreeAndPiecesAreAlignedAndApart) {
  for (uint32_t n : {0u, 1u, 7u, 8u, 9u, 1000u}) {
    // In the house style: a null base only counts.
    const auto layOut = [n](unsigned char* base, FakeState& pieces) {
      qor::InstanceLayout lay(base);
      EXPECT_TRUE(qor::isAligned32(lay.take<FakeState>()));
      pieces = FakeState{0, lay.take<float>(n), lay.take<double>(3)};
      return lay.size();
    };
    FakeState p{};
    const size_t size = layOut(nullptr, p);
    qor::test::InstanceMemory mem(size);
    EXPECT_EQ(layOut(mem.bytes(), p), size);
    EXPECT_TRUE(qor::isAligned32(p.b) && (n == 0 || qor::isAligned32(p.a)));
    EXPECT_GE(reinterpret_cast<unsigned char*>(p.b), reinterpret_cast<unsigned char*>(p.a + n)) << "overlap";
    EXPECT_LE(reinterpret_cast<unsigned char*>(p.b + 3), mem.bytes() + size);
  }
}

TEST(Checks, ArgumentChecksInTheirOrderAndRanges) {
  qor::test::InstanceMemory mem(64);
  auto* s = reinterpret_cast<FakeState*>(mem.bytes());
  auto* odd = reinterpret_cast<FakeState*>(mem.bytes() + 16);
  int config = 0;
  qor::test::ChannelBuffers ch(2, 64);
  float* good[2] = {ch[0], ch[1]};
  float* bad[2] = {ch[0], ch[1] + 1};
  // Null before alignment before the marker; only the configured channels count.
  const int32_t fresh[][2] = {
      {qor::checkInit<FakeState>(nullptr, &config), qor::ErrorNullPointer}, {qor::checkInit(s, nullptr), qor::ErrorNullPointer},
      {qor::checkInit(odd, &config), qor::ErrorMisaligned}, {qor::checkInit(s, &config), qor::Success},
      {qor::checkReady(s, s), qor::ErrorNotInitialised}, {qor::checkProcess(s, bad, 2), qor::ErrorMisaligned},
      {qor::checkProcess(s, good, 2), qor::ErrorNotInitialised}};
  for (const auto& c : fresh) EXPECT_EQ(c[0], c[1]) << &c - fresh;
  s->marker = qor::kInitMarker;
  const int32_t ready[][2] = {
      {qor::checkInit(s, &config), qor::ErrorAlreadyInitialised}, {qor::checkReady(s, s), qor::Success},
      {qor::checkReady(s, nullptr), qor::ErrorNullPointer}, {qor::checkProcess(s, good, 2), qor::Success},
      {qor::checkProcess(s, bad, 2), qor::ErrorMisaligned}, {qor::checkProcess(s, bad, 1), qor::Success},
      {qor::checkProcess(s, nullptr, 2), qor::ErrorNullPointer}};
  for (const auto& c : ready) EXPECT_EQ(c[0], c[1]) << &c - ready;
  // Range tests let NaN through; parameter check i fails with -1005000 - i.
  EXPECT_TRUE(!qor::outOfRange(std::nanf(""), 0.0f, 1.0f) && !qor::outOfRange(0.0f, 0.0f, 1.0f) && !qor::outOfRange(1.0f, 0.0f, 1.0f));
  EXPECT_TRUE(qor::outOfRange(1.0001f, 0.0f, 1.0f) && qor::outOfRange(-1, 0, 3));
  EXPECT_EQ(qor::parameterError(11), -1005011);
}

TEST(BypassFade, SwitchOffFadesToDryAndAsksForAResetSwitchOnFadesBack) {
  constexpr uint32_t kN = 256;
  qor::test::ChannelBuffers wet(2, kN), dry(2, kN), in(2, kN);
  qor::BypassFade fade{};
  // One block with wet +1 and dry -1; returns the reset request.
  const auto block = [&](bool enabled) {
    wet.fill(1.0f);
    dry.fill(-1.0f);
    return fade.finish(enabled, wet.data(), dry.data(), 2, kN);
  };
  fade.init(true, 10.0f, 48000.0f);
  EXPECT_FALSE(fade.transition(true) || block(true));
  EXPECT_EQ(wet[0][0], 1.0f) << "no transition: the processed block is untouched";
  int blocks = 0;
  for (bool reset = false; !reset && blocks < 100; ++blocks) {
    ASSERT_TRUE(fade.active(false));
    reset = block(false);
    ASSERT_EQ(wet[0][kN - 1], wet[1][kN - 1]) << "both channels follow one mix";
  }
  EXPECT_TRUE(fade.mix == 0.0f && !fade.active(false));
  EXPECT_EQ(blocks, 2) << "10 ms at 48 kHz is 480 samples to -100 dB";
  // Back on, with a 50 ms fade: rising, and no reset.
  fade.init(false, 50.0f, 48000.0f);
  EXPECT_TRUE(!fade.active(false) && fade.active(true));
  float previous = -2.0f;
  for (blocks = 0; fade.transition(true) && blocks < 100; ++blocks, previous = wet[0][kN - 1]) {
    EXPECT_FALSE(block(true));
    EXPECT_GT(wet[0][kN - 1], previous);
  }
  EXPECT_EQ(fade.mix, 1.0f);
  EXPECT_NEAR(blocks * kN, 2400, kN);
  in.fill(0.25f);
  qor::BypassFade::keepDry(in.data(), dry.data(), 2, kN);
  EXPECT_EQ(dry[1][kN - 1], 0.25f);
}

}  // namespace
