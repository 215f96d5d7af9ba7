// The converter's tap kernels (scalar, SSE2, AVX) are meant to differ only in
// speed: run on the same input, converters pinned to each must give the same
// bits, whatever the rates, kernel shape and channel count. Against the
// direct interpolator they are checked in the converter's own tests.
#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <set>
#include <utility>
#include <vector>

#include "dsp/voice/interpolation_taps.h"
#include "dsp/voice/sample_rate_converter.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using namespace QorSampleRateConverter_API_V1;
using R = QorSampleRateConverterResult;
using qor::TapKernel;

struct Case {
  uint32_t inRate, inBlock, outRate, channels, nz, np;
};
void PrintTo(const Case& c, std::ostream* os) {
  *os << c.inRate << "/" << c.inBlock << "->" << c.outRate << " x" << c.channels << " nz " << c.nz << " np " << c.np;
}

// Every output of `blocks` calls, all channels one after the other.
std::vector<float> convert(const Case& p, TapKernel kernel, uint32_t blocks) {
  QorSampleRateConverterConfig c{p.inRate, p.inBlock, p.channels, p.outRate, 0, p.channels, {p.nz, p.np, 6.0f}};
  EXPECT_EQ(qorSampleRateConverterComputeOutputBlockSize(p.inRate, p.inBlock, p.outRate, &c.outputBlockSize),
            R::Success);
  size_t size = 0;
  EXPECT_EQ(qorSampleRateConverterGetInstanceSize(&c, &size), R::Success);
  qor::test::InstanceMemory memory(size);
  auto* inst = memory.as<QorSampleRateConverterInst>();
  EXPECT_EQ(qorSampleRateConverterInit(inst, &c), R::Success);
  EXPECT_TRUE(qor::sampleRateConverterUseTaps(inst, kernel));

  std::vector<std::vector<float>> x;
  for (uint32_t ch = 0; ch < p.channels; ++ch) {
    x.push_back(qor::test::whiteNoise(static_cast<size_t>(blocks) * p.inBlock, 70 + ch, 0.7));
  }
  qor::test::ChannelBuffers in(p.channels, p.inBlock), out(p.channels, c.outputBlockSize);
  std::vector<float> all;
  for (uint32_t b = 0; b < blocks; ++b) {
    in.load(x, static_cast<size_t>(b) * p.inBlock);
    uint32_t n = 0;
    EXPECT_EQ(qorSampleRateConverterProcess(inst, in.data(), out.data(), &n), R::Success);
    for (uint32_t ch = 0; ch < p.channels; ++ch) all.insert(all.end(), out[ch], out[ch] + n);
    if (b == blocks / 2) {
      EXPECT_EQ(qorSampleRateConverterFlush(inst), R::Success);
    }
  }
  return all;
}

class TapKernels : public ::testing::TestWithParam<Case> {};

TEST_P(TapKernels, EveryKernelGivesTheSameBits) {
  const Case p = GetParam();
  const std::vector<float> scalar = convert(p, TapKernel::Scalar, 12);
  ASSERT_FALSE(scalar.empty());
  for (const TapKernel k : {TapKernel::Sse2, TapKernel::Avx}) {
    if (!qor::tapKernelAvailable(k)) continue;
    const std::vector<float> vector = convert(p, k, 12);
    ASSERT_EQ(vector.size(), scalar.size()) << "kernel " << static_cast<int>(k);
    EXPECT_EQ(std::memcmp(vector.data(), scalar.data(), sizeof(float) * scalar.size()), 0)
        << "kernel " << static_cast<int>(k);
  }
}

// Up-sampling takes the phase-ordered path, down-sampling the table reads;
// Nz from 2 (sides shorter than a vector) to 19 (more than two vectors), an
// odd Nz x Np (no entry past the last zero crossing), rate ratios whose
// outputs fall on whole input periods (a side reading past its row's end).
INSTANTIATE_TEST_SUITE_P(
    Shapes, TapKernels,
    ::testing::Values(Case{44100, 441, 48000, 2, 10, 512}, Case{48000, 256, 44100, 2, 10, 512},
                      Case{24000, 240, 48000, 1, 10, 512}, Case{16000, 160, 48000, 3, 2, 32},
                      Case{44100, 256, 48000, 5, 3, 33}, Case{8000, 80, 192000, 2, 19, 64},
                      Case{48000, 256, 22050, 3, 7, 101}, Case{96000, 512, 48000, 1, 2, 32},
                      Case{22050, 256, 48000, 4, 13, 2048}));

TEST(PhaseOrder, IsAPermutationKeepingRowsOfWholeZeroCrossings) {
  for (const auto& [nz, np] : {std::pair{10u, 512u}, std::pair{3u, 33u}, std::pair{2u, 32u}, std::pair{7u, 101u}}) {
    const uint32_t t = nz * np % 2 == 0 ? nz * np + 1 : nz * np;
    std::set<uint32_t> seen;
    for (uint32_t i = 0; i < t; ++i) seen.insert(qor::phaseIndex(i, nz, np));
    EXPECT_EQ(seen.size(), t);
    EXPECT_EQ(*seen.rbegin(), t - 1);
    // Entry q Np + r sits in row r at column q.
    EXPECT_EQ(qor::phaseIndex(np + 5, nz, np), 5 * nz + 1);
  }
}

TEST(TapKernelPinning, RefusesAnInstanceThatIsNotInitialised) {
  qor::test::InstanceMemory memory(4096);
  EXPECT_FALSE(qor::sampleRateConverterUseTaps(memory.as<QorSampleRateConverterInst>(), TapKernel::Scalar));
  EXPECT_FALSE(qor::sampleRateConverterUseTaps(nullptr, TapKernel::Scalar));
  EXPECT_TRUE(qor::tapKernelAvailable(qor::bestTapKernel()));
}

}  // namespace
