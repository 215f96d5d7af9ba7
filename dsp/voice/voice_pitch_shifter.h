// Phase-vocoder pitch shifter of the vocal changer (voice types 2, 4 and 5,
// and the second stage of type 3).
//
// One object serves every channel of one voice (each channel has its own
// rings and phase history). Frames of 2048 samples are analysed every k input
// samples, resynthesised at a hop of 256 and resampled by 256/k back to a hop
// of k, which shifts the pitch by 256/k while keeping the duration. The
// latency is 2048 samples.
//
// Memory comes from the owner's instance block: run layOut with the same
// arguments while counting (self null) and while placing, then init.
// Settings wait for the start of the next process call.
#pragma once

#include <cstdint>

#include "dsp/core/instance.h"
#include "dsp/voice/voice_frame_ring.h"

namespace qor {

enum VoicePitchMode : int32_t {
  kVoicePitchNatural = 0,     // phase vocoder
  kVoicePitchPhaseFree = 1,   // every phase 0
  kVoicePitchRandomPhase = 2, // fresh random phases every frame
};

struct VoicePitchShifter {
  static constexpr uint32_t kFrameSize = 2048;
  static constexpr uint32_t kBins = kFrameSize / 2 + 1;
  static constexpr uint32_t kMaxChannels = 2;
  static constexpr uint32_t kMaxResampled = 8 * 1024;  // 8 k points at k = 1024
  static constexpr int32_t kLatency = 2048;

  // Hop k for a requested ratio: clamped to 0.25 .. 4 and rounded to
  // k = floor(256 / ratio + 0.5), so the ratio in effect is 256 / k.
  static int32_t hopForRatio(float ratio);

  static void layOut(InstanceLayout& layout, VoicePitchShifter* self, uint32_t maxChannels);
  static size_t bytes(uint32_t maxChannels);

  // Builds the window and transform, takes ratio 1 in mode 0 and clears all
  // history. Returns 0, or the transform's set-up error.
  int32_t init(float sampleRate);
  void setRatio(float ratio);
  void setMode(int32_t mode);  // 1 and 2 as named, anything else natural
  // Clears rings, phase history and the random generators.
  void reset();
  // In place; channelCount must not exceed the count laid out.
  void process(float* const* channels, uint32_t blockSize, uint32_t channelCount);
  int32_t latency() const { return kLatency; }

  int32_t hop() const { return k; }  // in effect (after the next process call for new settings)
  float effectiveRatio() const { return 256.0f / static_cast<float>(k); }
  int32_t currentMode() const { return mode; }

  // --- state (plain data: the owner's zeroed block holds it) ---
  uint32_t channelsLaidOut;
  float sampleRate;
  int32_t k;
  int32_t mode;
  float outputGain;
  float pendingRatio;
  int32_t pendingMode;
  uint32_t pendingFlag;
  uint32_t available;  // input samples gathered towards the next frame
  uint32_t random[kMaxChannels];

  unsigned char* fftSetup;
  unsigned char* fftScratch;
  float* window;        // 2048
  float* expected;      // per-bin phase advance over one analysis hop
  uint32_t* sourceIndex;  // resampling: frame index of each output point
  float* sourceFraction;
  float* frame;         // 2048 + 1 guard sample (always 0)
  float* re;
  float* im;
  float* resampled;
  float* previousPhase[kMaxChannels];
  float* synthesisPhase[kMaxChannels];
  VoiceFrameRing rings[kMaxChannels];

 private:
  void applyRatio(int32_t hop);
  void processFrame(uint32_t channel);
};

}  // namespace qor
