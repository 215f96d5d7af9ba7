// The real transform against a double-precision DFT written here and, where
// available, against FFTW, on each vector kernel this machine can run; the
// kernels against each other; kernel choice and error codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
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
constexpr size_t kScratchOffset = 4;  // scratch may sit at any address

struct Spectrum {
  std::vector<float> re, im;
};
using Reference = std::vector<std::pair<double, double>>;

// Setup and scratch regions, each followed by a guard zone.
class Fft {
 public:
  // kernel < 0 keeps the one fftInit picked.
  explicit Fft(uint32_t n, int kernel = -1)
      : n_(n), setupBytes_(qor::fftSetupSize(n)), scratchBytes_(qor::fftScratchSize(n)),
        setupMemory_(qor::test::alignedBlock(setupBytes_ + 64)),
        scratchMemory_(qor::test::alignedBlock(kScratchOffset + scratchBytes_ + 64)) {
    std::memset(setupMemory_.get() + setupBytes_, kGuard, 64);
    std::memset(scratch() + scratchBytes_, kGuard, 64);
    status = qor::fftInit(setup(), n);
    runs = kernel < 0 || qor::fftUseKernel(setup(), static_cast<qor::RealFftKernel>(kernel));
  }
  qor::RealFftSetup* setup() { return reinterpret_cast<qor::RealFftSetup*>(setupMemory_.get()); }
  unsigned char* scratch() { return scratchMemory_.get() + kScratchOffset; }

  Spectrum forward(const std::vector<float>& x) {
    const std::vector<float> kept = x;
    Spectrum s{std::vector<float>(n_ / 2 + 1, 99.0f), std::vector<float>(n_ / 2 + 1, 99.0f)};
    EXPECT_EQ(qor::fftForward(setup(), x.data(), s.re.data(), s.im.data(), scratch()), 0);
    EXPECT_EQ(x, kept) << "input untouched";
    return s;
  }
  std::vector<float> inverse(const Spectrum& s) {
    const Spectrum kept = s;
    std::vector<float> y(n_, 99.0f);
    EXPECT_EQ(qor::fftInverse(setup(), s.re.data(), s.im.data(), y.data(), scratch()), 0);
    EXPECT_TRUE(s.re == kept.re && s.im == kept.im) << "spectrum untouched";
    return y;
  }
  bool guardsIntact() {
    auto intact = [](const unsigned char* p) { return std::count(p, p + 64, kGuard) == 64; };
    return intact(setupMemory_.get() + setupBytes_) && intact(scratch() + scratchBytes_);
  }

  int32_t status = 0;
  bool runs = false;  // false when this machine cannot run the kernel asked for

 private:
  uint32_t n_;
  size_t setupBytes_, scratchBytes_;
  std::unique_ptr<unsigned char, qor::test::AlignedFree> setupMemory_, scratchMemory_;
};

// Straight DFT in double: X[k] = sum x[t] e^(-2 pi i k t / N), k = 0 .. N/2.
Reference referenceDft(const std::vector<float>& x) {
  const size_t n = x.size();
  std::vector<double> c(n), s(n);
  for (size_t i = 0; i < n; ++i) c[i] = std::cos(kTwoPi * i / n), s[i] = std::sin(kTwoPi * i / n);
  Reference out(n / 2 + 1, {0.0, 0.0});
  for (size_t k = 0; k <= n / 2; ++k) {
    for (size_t t = 0; t < n; ++t) {
      out[k].first += x[t] * c[(k * t) % n];
      out[k].second -= x[t] * s[(k * t) % n];
    }
  }
  return out;
}

// Largest bin error relative to the largest reference magnitude.
double relativeError(const Spectrum& s, const Reference& ref) {
  double err = 0.0, scale = 1e-30;
  for (size_t k = 0; k < ref.size(); ++k) {
    err = std::max(err, std::hypot(s.re[k] - ref[k].first, s.im[k] - ref[k].second));
    scale = std::max(scale, std::hypot(ref[k].first, ref[k].second));
  }
  return err / scale;
}

// Noise, impulses early and late, and sines at, between and near the top bins.
std::vector<std::vector<float>> signalsFor(uint32_t n, uint32_t seed) {
  std::vector<std::vector<float>> out(6, std::vector<float>(n, 0.0f));
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  for (auto& v : out[0]) v = dist(gen);
  out[1][0] = 1.0f;
  out[2][n - 3] = -0.5f;
  const double sines[3][2] = {{1.0, 0.3}, {n / 4.0 + 0.37, 1.1}, {n / 2.0 - 1.0, 0.0}};
  for (size_t i = 0; i < 3; ++i) {
    for (size_t t = 0; t < n; ++t) out[3 + i][t] = static_cast<float>(0.7 * std::sin(kTwoPi * sines[i][0] * t / n + sines[i][1]));
  }
  return out;
}

class RealFftSize : public ::testing::TestWithParam<std::tuple<uint32_t, qor::RealFftKernel>> {};

TEST_P(RealFftSize, MatchesReferencesAndRoundTrips) {
  const auto [n, kernel] = GetParam();
  Fft fft(n, kernel);
  ASSERT_EQ(fft.status, 0);
  if (!fft.runs) GTEST_SKIP() << "kernel not supported on this CPU";
  const double bits = std::log2(n);
#if QOR_HAVE_FFTW3F
  std::vector<float> in(n), back(n);
  std::vector<fftwf_complex> out(n / 2 + 1);
  using Plan = std::unique_ptr<fftwf_plan_s, void (*)(fftwf_plan)>;
  const Plan f(fftwf_plan_dft_r2c_1d(static_cast<int>(n), in.data(), out.data(), FFTW_ESTIMATE), fftwf_destroy_plan);
  const Plan b(fftwf_plan_dft_c2r_1d(static_cast<int>(n), out.data(), back.data(), FFTW_ESTIMATE), fftwf_destroy_plan);
#endif
  for (const auto& x : signalsFor(n, 1000 + n)) {
    Spectrum s = fft.forward(x);
    EXPECT_LT(relativeError(s, referenceDft(x)), 2e-6 * bits + 1e-6) << "N=" << n;
    EXPECT_EQ(s.im[0], 0.0f);
    if (n % 2 == 0) { EXPECT_EQ(s.im[n / 2], 0.0f); }
    const std::vector<float> y = fft.inverse(s);
    for (uint32_t t = 0; t < n; ++t) ASSERT_NEAR(y[t], x[t], 1e-6 * bits) << "round trip, t=" << t;
#if QOR_HAVE_FFTW3F
    in = x;
    fftwf_execute(f.get());
    Reference ref(n / 2 + 1);
    for (uint32_t k = 0; k <= n / 2; ++k) ref[k] = {out[k][0], out[k][1]};
    EXPECT_LT(relativeError(s, ref), 2e-6 * bits + 1e-6) << "N=" << n;
    fftwf_execute(b.get());  // unscaled
    for (uint32_t t = 0; t < n; ++t) ASSERT_NEAR(y[t], back[t] / static_cast<float>(n), 2e-6 * bits) << "t=" << t;
#endif
    // The imaginary parts of bins 0 and N/2 are not read.
    s.im[0] = 3.0f;
    if (n % 2 == 0) s.im[n / 2] = -2.0f;
    EXPECT_EQ(fft.inverse(s), y);
  }
  EXPECT_TRUE(fft.guardsIntact());
}

std::string sizeAndKernel(const ::testing::TestParamInfo<RealFftSize::ParamType>& info) {
  char name[32];
  std::snprintf(name, sizeof name, "N%u_%dlanes", std::get<0>(info.param), std::get<1>(info.param) == qor::kFftKernel8 ? 8 : 4);
  return name;
}

INSTANTIATE_TEST_SUITE_P(PowersOfTwo, RealFftSize,
                         ::testing::Combine(::testing::Values(8u, 16u, 32u, 64u, 128u, 256u, 512u, 1024u, 2048u, 4096u),
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
    Fft narrow(n, qor::kFftKernel4), wide(n, qor::kFftKernel8);
    ASSERT_TRUE(narrow.runs);
    if (!wide.runs) GTEST_SKIP() << "no AVX here";
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
  EXPECT_EQ(setup->kernel, qor::fftKernel8Available() ? qor::kFftKernel8 : qor::kFftKernel4);
  EXPECT_TRUE(qor::fftUseKernel(setup, qor::kFftKernel4));
  EXPECT_EQ(setup->kernel, qor::kFftKernel4);
  EXPECT_EQ(qor::fftUseKernel(setup, qor::kFftKernel8), qor::fftKernel8Available());
  EXPECT_FALSE(qor::fftUseKernel(setup, static_cast<qor::RealFftKernel>(7)));
  EXPECT_FALSE(qor::fftUseKernel(nullptr, qor::kFftKernel4));
}

TEST(RealFft, ErrorCodes) {
  auto memory = qor::test::alignedBlock(qor::fftSetupSize(1024) + 8);
  auto at = [&](size_t offset) { return reinterpret_cast<qor::RealFftSetup*>(memory.get() + offset); };
  const struct {
    qor::RealFftSetup* setup;
    uint32_t n;
    int32_t code;
  } cases[] = {{nullptr, 1024, qor::kFftNullSetup}, {at(4), 1024, qor::kFftMisaligned},
               {at(0), 4, qor::kFftTooShort},       {at(0), 7, qor::kFftTooShort},
               {at(0), 0, qor::kFftTooShort},       {at(8), 1024, 0},  // 8-aligned is enough
               {at(0), 1024, 0}};
  for (const auto& c : cases) EXPECT_EQ(qor::fftInit(c.setup, c.n), c.code) << "N=" << c.n;
  std::vector<float> x(1024, 0.0f), re(513), im(513), scratch(qor::fftScratchSize(1024) / 4);
  EXPECT_EQ(qor::fftForward(nullptr, x.data(), re.data(), im.data(), scratch.data()), qor::kFftNullSetup);
  EXPECT_EQ(qor::fftInverse(nullptr, re.data(), im.data(), x.data(), scratch.data()), qor::kFftNullSetup);
}

}  // namespace
