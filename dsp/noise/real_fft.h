// Real fast Fourier transform over caller-owned memory.
//
// The owner sizes two regions with fftSetupSize and fftScratchSize, places the
// setup at an 8-byte-aligned address, and calls fftInit once. The transforms
// then touch only the setup, the caller's arrays and the scratch; they never
// allocate. Power-of-two sizes run the fast path; any other size from 8 up is
// accepted and computed as a direct transform.
//
// Spectrum layout: separate `re` and `im` arrays of N/2 + 1 bins (0 .. N/2).
// Forward is unscaled with the e^(-2 pi i k n / N) kernel; inverse uses
// e^(+2 pi i k n / N) and divides by N, so inverse(forward(x)) == x to float
// rounding. Bins above N/2 are the conjugates of those below.
#pragma once

#include <cstdint>

namespace qor {

enum RealFftStatus : int32_t {
  kFftSuccess = 0,
  kFftMisaligned = -10003,     // setup address not a multiple of 8
  kFftSizeMismatch = -10005,   // tables did not fill exactly fftSetupSize bytes
  kFftNullSetup = -10006,
  kFftTooShort = -10012,       // N < 8
};

// Header of the setup region; the tables follow it inside the same region.
struct RealFftSetup {
  uint32_t size;        // N
  uint32_t kernel;      // RealFftKernel picked by fftInit (sits in what was padding)
  float* twiddles;      // power of two: (cos, -sin) pairs, stage by stage;
                        // otherwise N pairs (cos, sin) of 2 pi k / N
  uint32_t* bitReverse; // N entries, log2(N)-bit reversal; null otherwise
};

// Vector code of the power-of-two path. fftInit picks the widest one this CPU
// and operating system can run; all give the same results.
enum RealFftKernel : uint32_t {
  kFftKernel4 = 0,  // four lanes (SSE2, or plain C++ where that is missing)
  kFftKernel8 = 1,  // eight lanes (AVX)
};

// Bytes of the setup region for an N-point transform.
uint32_t fftSetupSize(uint32_t n);
// Bytes of the scratch region one transform call needs.
uint32_t fftScratchSize(uint32_t n);
// Number of twiddle pairs of a power-of-two N: sum over L = 8 .. N of L/4 - 1.
uint32_t fftTwiddlePairs(uint32_t n);

// Builds the tables for N inside `setup` (fftSetupSize(n) bytes).
int32_t fftInit(RealFftSetup* setup, uint32_t n);

// Whether kFftKernel8 can run here.
bool fftKernel8Available();
// Pins an initialised setup to `kernel`, e.g. to test the four-lane fallback
// on a machine that would pick eight. Returns false, changing nothing, when
// the kernel cannot run here.
bool fftUseKernel(RealFftSetup* setup, RealFftKernel kernel);

// input: N floats (kept); re, im: N/2 + 1 floats each; scratch: fftScratchSize
// bytes, any alignment. im[0] and, for even N, im[N/2] are written as 0.
int32_t fftForward(const RealFftSetup* setup, const float* input, float* re, float* im,
                   void* scratch);
// re, im: N/2 + 1 floats each (kept; im[0] and, for even N, im[N/2] are
// ignored); output: N floats.
int32_t fftInverse(const RealFftSetup* setup, const float* re, const float* im, float* output,
                   void* scratch);

}  // namespace qor
