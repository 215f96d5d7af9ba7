// The real transform against a double-precision DFT written here and, where
// available, against FFTW, on each vector kernel this machine can run; the
// kernels against each other; tables, region sizes and error codes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "dsp/noise/real_fft.h"
#include "support/audio_buffers.h"

#if QOR_HAVE_FFTW3F
#include <fftw3.h>
#endif

namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;
constexpr unsigned char kGuard = 0xA5;

struct Spectrum {
  std::vector<float> re, im;
};

// Setup and scratch regions with a guard zone behind each.
class Fft {
 public:
  // kernel < 0 keeps the one fftInit picked.
  explicit Fft(uint32_t n, size_t scratchOffset = 0, int kernel = -1)
      : n_(n),
        setupBytes_(qor::fftSetupSize(n)),
        scratchBytes_(qor::fftScratchSize(n)),
        scratchOffset_(scratchOffset),
        setupMemory_(qor::test::alignedBlock(setupBytes_ + 64)),
        scratchMemory_(qor::test::alignedBlock(scratchBytes_ + scratchOffset + 64)) {
    std::memset(setupMemory_.get() + setupBytes_, kGuard, 64);
    std::memset(scratchMemory_.get() + scratchOffset + scratchBytes_, kGuard, 64);
    status_ = qor::fftInit(setup(), n);
    kernelRuns_ = kernel < 0 || qor::fftUseKernel(setup(), static_cast<qor::RealFftKernel>(kernel));
  }
  // False when this machine cannot run the kernel asked for.
  bool kernelRuns() const { return kernelRuns_; }
  qor::RealFftSetup* setup() { return reinterpret_cast<qor::RealFftSetup*>(setupMemory_.get()); }
  void* scratch() { return scratchMemory_.get() + scratchOffset_; }
  int32_t status() const { return status_; }

  Spectrum forward(const std::vector<float>& x) {
    Spectrum s{std::vector<float>(n_ / 2 + 1, 99.0f), std::vector<float>(n_ / 2 + 1, 99.0f)};
    EXPECT_EQ(qor::fftForward(setup(), x.data(), s.re.data(), s.im.data(), scratch()), 0);
    return s;
  }
  std::vector<float> inverse(const Spectrum& s) {
    std::vector<float> y(n_, 99.0f);
    EXPECT_EQ(qor::fftInverse(setup(), s.re.data(), s.im.data(), y.data(), scratch()), 0);
    return y;
  }
  bool guardsIntact() const {
    for (size_t i = 0; i < 64; ++i) {
      if (setupMemory_.get()[setupBytes_ + i] != kGuard) return false;
      if (scratchMemory_.get()[scratchOffset_ + scratchBytes_ + i] != kGuard) return false;
    }
    return true;
  }

 private:
  uint32_t n_;
  size_t setupBytes_, scratchBytes_, scratchOffset_;
  std::unique_ptr<unsigned char, qor::test::AlignedFree> setupMemory_, scratchMemory_;
  int32_t status_;
  bool kernelRuns_;
};

std::vector<double> cosines(size_t n) {
  std::vector<double> c(n);
  for (size_t i = 0; i < n; ++i) c[i] = std::cos(kTwoPi * static_cast<double>(i) / static_cast<double>(n));
  return c;
}
std::vector<double> sines(size_t n) {
  std::vector<double> s(n);
  for (size_t i = 0; i < n; ++i) s[i] = std::sin(kTwoPi * static_cast<double>(i) / static_cast<double>(n));
  return s;
}

// Straight DFT in double: X[k] = sum x[n] e^(-2 pi i k n / N), k = 0 .. N/2.
std::vector<std::pair<double, double>> referenceDft(const std::vector<float>& x) {
  const size_t n = x.size();
  const std::vector<double> c = cosines(n), s = sines(n);
  std::vector<std::pair<double, double>> out(n / 2 + 1);
  for (size_t k = 0; k <= n / 2; ++k) {
    double re = 0.0, im = 0.0;
    for (size_t t = 0; t < n; ++t) {
      re += x[t] * c[(k * t) % n];
      im -= x[t] * s[(k * t) % n];
    }
    out[k] = {re, im};
  }
  return out;
}

// Inverse of a half spectrum (conjugate-symmetric extension), scaled by 1/N.
std::vector<double> referenceInverse(const Spectrum& s, size_t n) {
  const std::vector<double> c = cosines(n), sn = sines(n);
  std::vector<double> x(n);
  for (size_t t = 0; t < n; ++t) {
    double acc = 0.0;
    for (size_t k = 0; k < n; ++k) {
      const bool mirrored = k > n / 2;
      const size_t b = mirrored ? n - k : k;
      double re = s.re[b], im = s.im[b];
      if (b == 0 || (n % 2 == 0 && b == n / 2)) im = 0.0;
      if (mirrored) im = -im;
      acc += re * c[(k * t) % n] - im * sn[(k * t) % n];
    }
    x[t] = acc / static_cast<double>(n);
  }
  return x;
}

std::vector<float> randomSignal(size_t n, uint32_t seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> x(n);
  for (auto& v : x) v = dist(gen);
  return x;
}

std::vector<float> sineSignal(size_t n, double cycles, double phase) {
  std::vector<float> x(n);
  for (size_t t = 0; t < n; ++t) {
    x[t] = static_cast<float>(0.7 * std::sin(kTwoPi * cycles * t / n + phase));
  }
  return x;
}

// Largest bin error relative to the largest reference magnitude.
double relativeError(const Spectrum& s, const std::vector<std::pair<double, double>>& ref) {
  double err = 0.0, scale = 1e-30;
  for (size_t k = 0; k < ref.size(); ++k) {
    err = std::max(err, std::hypot(s.re[k] - ref[k].first, s.im[k] - ref[k].second));
    scale = std::max(scale, std::hypot(ref[k].first, ref[k].second));
  }
  return err / scale;
}

std::vector<std::vector<float>> signalsFor(uint32_t n, uint32_t seed) {
  std::vector<float> impulseAt0(n, 0.0f), impulseLate(n, 0.0f);
  impulseAt0[0] = 1.0f;
  impulseLate[n - 3] = -0.5f;
  return {randomSignal(n, seed), impulseAt0, impulseLate, sineSignal(n, 1.0, 0.3),
          sineSignal(n, n / 4.0 + 0.37, 1.1), sineSignal(n, n / 2.0 - 1.0, 0.0)};
}

class RealFftSize : public ::testing::TestWithParam<std::tuple<uint32_t, qor::RealFftKernel>> {
 protected:
  uint32_t size() const { return std::get<0>(GetParam()); }
  qor::RealFftKernel kernel() const { return std::get<1>(GetParam()); }
};

#define SKIP_UNLESS_KERNEL_RUNS(fft) \
  if (!(fft).kernelRuns()) GTEST_SKIP() << "kernel not supported on this CPU"

TEST_P(RealFftSize, ForwardMatchesDirectDft) {
  const uint32_t n = size();
  Fft fft(n, 4, kernel());
  ASSERT_EQ(fft.status(), 0);
  SKIP_UNLESS_KERNEL_RUNS(fft);
  for (const auto& x : signalsFor(n, 1000 + n)) {
    const std::vector<float> kept = x;
    const Spectrum s = fft.forward(x);
    EXPECT_EQ(x, kept) << "input untouched";
    EXPECT_LT(relativeError(s, referenceDft(x)), 2e-6 * std::log2(n) + 1e-6) << "N=" << n;
    EXPECT_EQ(s.im[0], 0.0f);
    if (n % 2 == 0) {
      EXPECT_EQ(s.im[n / 2], 0.0f);
    }
  }
  EXPECT_TRUE(fft.guardsIntact());
}

TEST_P(RealFftSize, InverseMatchesDirectInverseAndRoundTrips) {
  const uint32_t n = size();
  Fft fft(n, 8, kernel());
  ASSERT_EQ(fft.status(), 0);
  SKIP_UNLESS_KERNEL_RUNS(fft);
  // A spectrum with garbage in the bins the inverse must ignore.
  Spectrum s = fft.forward(randomSignal(n, 7 + n));
  s.im[0] = 3.0f;
  if (n % 2 == 0) s.im[n / 2] = -2.0f;
  const Spectrum kept = s;
  const std::vector<float> y = fft.inverse(s);
  EXPECT_EQ(s.re, kept.re);
  EXPECT_EQ(s.im, kept.im);
  const std::vector<double> ref = referenceInverse(s, n);
  for (uint32_t t = 0; t < n; ++t) ASSERT_NEAR(y[t], ref[t], 2e-6 * std::log2(n)) << "t=" << t;

  for (const auto& x : signalsFor(n, 77 + n)) {
    const std::vector<float> back = fft.inverse(fft.forward(x));
    for (uint32_t t = 0; t < n; ++t) ASSERT_NEAR(back[t], x[t], 1e-6 * std::log2(n)) << "t=" << t;
  }
  EXPECT_TRUE(fft.guardsIntact());
}

#if QOR_HAVE_FFTW3F
TEST_P(RealFftSize, AgreesWithFftw) {
  const uint32_t n = size();
  Fft fft(n, 12, kernel());
  ASSERT_EQ(fft.status(), 0);
  SKIP_UNLESS_KERNEL_RUNS(fft);
  std::vector<float> in(n), back(n);
  std::vector<fftwf_complex> out(n / 2 + 1);
  fftwf_plan f = fftwf_plan_dft_r2c_1d(static_cast<int>(n), in.data(), out.data(), FFTW_ESTIMATE);
  fftwf_plan b = fftwf_plan_dft_c2r_1d(static_cast<int>(n), out.data(), back.data(), FFTW_ESTIMATE);
  for (const auto& x : signalsFor(n, 31 * n)) {
    in = x;
    fftwf_execute(f);
    std::vector<std::pair<double, double>> ref(n / 2 + 1);
    for (uint32_t k = 0; k <= n / 2; ++k) ref[k] = {out[k][0], out[k][1]};
    const Spectrum s = fft.forward(x);
    EXPECT_LT(relativeError(s, ref), 2e-6 * std::log2(n) + 1e-6) << "N=" << n;

    fftwf_execute(b);  // unscaled
    const std::vector<float> y = fft.inverse(s);
    for (uint32_t t = 0; t < n; ++t) {
      ASSERT_NEAR(y[t], back[t] / static_cast<float>(n), 2e-6 * std::log2(n)) << "t=" << t;
    }
  }
  fftwf_destroy_plan(f);
  fftwf_destroy_plan(b);
}
#endif

std::string sizeAndKernel(const ::testing::TestParamInfo<RealFftSize::ParamType>& info) {
  char name[32];
  std::snprintf(name, sizeof name, "N%u_%dlanes", static_cast<unsigned>(std::get<0>(info.param)),
                std::get<1>(info.param) == qor::kFftKernel8 ? 8 : 4);
  return name;
}

INSTANTIATE_TEST_SUITE_P(PowersOfTwo, RealFftSize,
                         ::testing::Combine(::testing::Values(8u, 16u, 32u, 64u, 128u, 256u, 512u,
                                                              1024u, 2048u, 4096u),
                                            ::testing::Values(qor::kFftKernel4, qor::kFftKernel8)),
                         sizeAndKernel);
// The direct path has no vector kernels.
INSTANTIATE_TEST_SUITE_P(OtherLengths, RealFftSize,
                         ::testing::Combine(::testing::Values(9u, 12u, 100u, 1000u),
                                            ::testing::Values(qor::kFftKernel4)),
                         sizeAndKernel);

// The eight-lane kernel does the four-lane arithmetic in the same order and
// without fused multiply-add, so both give the same bits.
TEST(RealFftKernels, EightLanesMatchFourLanesExactly) {
  for (uint32_t n = 8; n <= 8192; n *= 2) {
    Fft narrow(n, 0, qor::kFftKernel4), wide(n, 4, qor::kFftKernel8);
    ASSERT_TRUE(narrow.kernelRuns());
    if (!wide.kernelRuns()) GTEST_SKIP() << "no AVX here";
    for (const auto& x : signalsFor(n, 500 + n)) {
      const Spectrum a = narrow.forward(x), b = wide.forward(x);
      ASSERT_EQ(a.re, b.re) << "N=" << n;
      ASSERT_EQ(a.im, b.im) << "N=" << n;
      ASSERT_EQ(narrow.inverse(a), wide.inverse(a)) << "N=" << n;
    }
    EXPECT_TRUE(narrow.guardsIntact());
    EXPECT_TRUE(wide.guardsIntact());
  }
}

TEST(RealFftKernels, InitPicksTheWidestThatRunsAndPinningIsChecked) {
  Fft fft(1024);
  qor::RealFftSetup* setup = fft.setup();
  ASSERT_EQ(qor::fftInit(setup, 1024), 0);
  EXPECT_EQ(setup->kernel, qor::fftKernel8Available() ? qor::kFftKernel8 : qor::kFftKernel4);
  EXPECT_TRUE(qor::fftUseKernel(setup, qor::kFftKernel4));
  EXPECT_EQ(setup->kernel, qor::kFftKernel4);
  EXPECT_EQ(qor::fftUseKernel(setup, qor::kFftKernel8), qor::fftKernel8Available());
  EXPECT_FALSE(qor::fftUseKernel(setup, static_cast<qor::RealFftKernel>(7)));
  EXPECT_FALSE(qor::fftUseKernel(nullptr, qor::kFftKernel4));
  // The choice lives in the header's former padding: the tables stay put.
  EXPECT_EQ(reinterpret_cast<unsigned char*>(setup->twiddles),
            reinterpret_cast<unsigned char*>(setup) + 24);
}

TEST(RealFft, UnitImpulseGivesAFlatRealSpectrum) {
  for (uint32_t n : {8u, 1024u, 2048u}) {
    Fft fft(n);
    std::vector<float> x(n, 0.0f);
    x[0] = 1.0f;
    const Spectrum s = fft.forward(x);
    for (uint32_t k = 0; k <= n / 2; ++k) {
      ASSERT_EQ(s.re[k], 1.0f) << k;
      ASSERT_EQ(s.im[k], 0.0f) << k;
    }
  }
}

TEST(RealFft, TablesHoldQuarterWaveTwiddlesAndBitReversal) {
  for (uint32_t n : {8u, 64u, 1024u, 2048u}) {
    Fft fft(n);
    ASSERT_EQ(fft.status(), 0);
    const qor::RealFftSetup* s = fft.setup();
    EXPECT_EQ(s->size, n);
    size_t pair = 0;
    for (uint32_t stage = 8; stage <= n; stage *= 2) {
      for (uint32_t j = 1; j < stage / 4; ++j, ++pair) {
        const double a = kTwoPi * j / stage;
        ASSERT_EQ(s->twiddles[2 * pair], static_cast<float>(std::cos(a)));
        ASSERT_EQ(s->twiddles[2 * pair + 1], static_cast<float>(-std::sin(a)));
      }
    }
    EXPECT_EQ(pair, qor::fftTwiddlePairs(n));
    ASSERT_NE(s->bitReverse, nullptr);
    const uint32_t bits = static_cast<uint32_t>(std::lround(std::log2(n)));
    for (uint32_t i = 0; i < n; ++i) {
      uint32_t r = 0;
      for (uint32_t b = 0; b < bits; ++b) {
        if (i & (1u << b)) r |= 1u << (bits - 1 - b);
      }
      ASSERT_EQ(s->bitReverse[i], r);
    }
  }
  EXPECT_EQ(qor::fftTwiddlePairs(1024), 502u);
  EXPECT_EQ(qor::fftTwiddlePairs(2048), 1013u);

  Fft direct(12);
  ASSERT_EQ(direct.status(), 0);
  EXPECT_EQ(direct.setup()->bitReverse, nullptr);
  for (uint32_t k = 0; k < 12; ++k) {
    EXPECT_EQ(direct.setup()->twiddles[2 * k], static_cast<float>(std::cos(kTwoPi * k / 12)));
    EXPECT_EQ(direct.setup()->twiddles[2 * k + 1], static_cast<float>(std::sin(kTwoPi * k / 12)));
  }
}

TEST(RealFft, RegionSizes) {
  EXPECT_EQ(qor::fftSetupSize(1024), ((8u * 502 + 31) / 8 * 8) + 4 * (1024 + 4));
  EXPECT_EQ(qor::fftSetupSize(2048), ((8u * 1013 + 31) / 8 * 8) + 4 * (2048 + 4));
  EXPECT_EQ(qor::fftSetupSize(8), ((8u * 1 + 31) / 8 * 8) + 4 * (8 + 4));
  EXPECT_EQ(qor::fftSetupSize(4), 24u + 4 * (4 + 4));
  EXPECT_EQ(qor::fftSetupSize(1), 24u + 4 * (1 + 4));
  EXPECT_EQ(qor::fftSetupSize(1000), 8u * 1000 + 32);
  EXPECT_EQ(qor::fftSetupSize(0), 32u);
  EXPECT_EQ(qor::fftScratchSize(1024), 8u * 1024 + 16);
  EXPECT_EQ(qor::fftScratchSize(1000), 16u * 1000 + 16);
  EXPECT_EQ(qor::fftScratchSize(0), 16u);
}

TEST(RealFft, ErrorCodes) {
  auto memory = qor::test::alignedBlock(qor::fftSetupSize(1024) + 8);
  auto* setup = reinterpret_cast<qor::RealFftSetup*>(memory.get());
  EXPECT_EQ(qor::fftInit(nullptr, 1024), -10006);
  EXPECT_EQ(qor::fftInit(reinterpret_cast<qor::RealFftSetup*>(memory.get() + 4), 1024), -10003);
  EXPECT_EQ(qor::fftInit(setup, 4), -10012);
  EXPECT_EQ(qor::fftInit(setup, 7), -10012);
  EXPECT_EQ(qor::fftInit(setup, 0), -10012);
  // An 8-aligned (not 16-aligned) setup is fine.
  EXPECT_EQ(qor::fftInit(reinterpret_cast<qor::RealFftSetup*>(memory.get() + 8), 1024), 0);
  ASSERT_EQ(qor::fftInit(setup, 1024), 0);

  std::vector<float> x(1024, 0.0f), re(513), im(513), scratch(qor::fftScratchSize(1024) / 4);
  EXPECT_EQ(qor::fftForward(nullptr, x.data(), re.data(), im.data(), scratch.data()), -10006);
  EXPECT_EQ(qor::fftInverse(nullptr, re.data(), im.data(), x.data(), scratch.data()), -10006);
}

}  // namespace
