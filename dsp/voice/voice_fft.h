// The voice processors' view of the shared real FFT: sizes of the two regions
// an owner reserves and the calls on them.
#pragma once

#include <cstdint>

#include "dsp/core/instance.h"
#include "dsp/noise/real_fft.h"

namespace qor {

struct VoiceFft {
  unsigned char* setup;
  unsigned char* scratch;

  static void layOut(InstanceLayout& layout, VoiceFft* self, uint32_t n) {
    // Regions are 32-byte aligned, which covers the 8 bytes the setup needs.
    unsigned char* s = static_cast<unsigned char*>(layout.takeBytes(fftSetupSize(n)));
    unsigned char* t = static_cast<unsigned char*>(layout.takeBytes(fftScratchSize(n)));
    if (self != nullptr) {
      self->setup = s;
      self->scratch = t;
    }
  }
  int32_t init(uint32_t n) { return fftInit(reinterpret_cast<RealFftSetup*>(setup), n); }
  void forward(const float* x, float* re, float* im) const {
    fftForward(reinterpret_cast<const RealFftSetup*>(setup), x, re, im, scratch);
  }
  void inverse(const float* re, const float* im, float* x) const {
    fftInverse(reinterpret_cast<const RealFftSetup*>(setup), re, im, x, scratch);
  }
};

}  // namespace qor
