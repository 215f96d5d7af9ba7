// Spectral-envelope warp of the vocal changer (voice type 1, and the first
// stage of type 3): moves the formants by a ratio q while keeping every
// bin's phase and fine structure.
//
// One object serves every channel of one voice. Frames of 4096 samples every
// 256 samples; the envelope is the liftered real cepstrum, and bin n is
// scaled by envelope(n / q) / envelope(n). The latency is 4096 samples; at
// q = 1 the output is the input delayed, times about 0.6.
//
// Memory comes from the owner's instance block: run layOut with the same
// arguments while counting (self null) and while placing, then init.
// Settings wait for the start of the next process call.
#pragma once

#include <cstdint>

#include "dsp/core/instance.h"
#include "dsp/voice/voice_frame_ring.h"

namespace qor {

struct VoiceSpectralProcessor {
  static constexpr uint32_t kFrameSize = 4096;
  static constexpr uint32_t kBins = kFrameSize / 2 + 1;
  static constexpr uint32_t kHop = 256;
  static constexpr uint32_t kMaxChannels = 2;
  static constexpr uint32_t kMaxLifter = 2048;
  static constexpr int32_t kLatency = 4096;
  static constexpr float kOutputGain = 0.1f;

  // Lifter length for a reference frequency: floor(rate / reference + 0.5),
  // at most 2048 (and at least 1).
  static int32_t lifterFor(float sampleRate, float referenceHz);

  static void layOut(InstanceLayout& layout, VoiceSpectralProcessor* self, uint32_t maxChannels);
  static size_t bytes(uint32_t maxChannels);

  // Builds window and transform, takes q = 1 with the 480 Hz reference and
  // clears all history. Returns 0, or the transform's set-up error.
  int32_t init(float sampleRate);
  // Warp ratio q (formants move by q) and the reference frequency that sets
  // the lifter length.
  void setWarp(float ratio, float referenceHz);
  void reset();
  void process(float* const* channels, uint32_t blockSize, uint32_t channelCount);
  int32_t latency() const { return kLatency; }

  float currentRatio() const { return q; }
  int32_t lifter() const { return lifterLength; }

  // --- state (plain data: the owner's zeroed block holds it) ---
  uint32_t channelsLaidOut;
  float sampleRate;
  float q;
  int32_t lifterLength;
  float pendingRatio;
  float pendingReference;
  uint32_t pendingFlag;
  uint32_t available;

  unsigned char* fftSetup;
  unsigned char* fftScratch;
  float* window;      // 4096
  uint32_t* warpMap;  // source bin of every bin, 2048 meaning the Nyquist log
  float* frame;       // 4096
  float* re;
  float* im;
  float* logMagnitude;
  float* cepstrum;    // 4096
  float* cepstrumRe;  // envelope transform output
  float* cepstrumIm;
  VoiceFrameRing rings[kMaxChannels];

 private:
  void rebuildWarpMap();
  void processFrame(uint32_t channel);
};

}  // namespace qor
