// Carrier cross-synthesis of the vocal changer (voice types 6 to 14): the
// spectrum of a carrier (a built-in recording, a tone or white noise) is
// whitened by its own cepstral envelope and given the voice's.
//
// One object serves every channel of one voice. Frames of 2048 samples every
// 512; latency 2048 samples. Memory comes from the owner's instance block:
// run layOut with the same arguments while counting (self null) and while
// placing, then init. Settings wait for the start of the next process call.
#pragma once

#include <cstdint>

#include "dsp/core/cookbook_biquad.h"
#include "dsp/core/instance.h"
#include "dsp/voice/voice_frame_ring.h"

namespace qor {

struct VoiceCarrierSettings {
  float primaryHz;        // fA: sets the lifter of the carrier's envelope
  float secondaryHz;      // fB: sets the lifter of the voice's envelope
  float mix;              // share of carrier in the carrier input, |mix| capped at 1
  const float* carrier;   // constant data read in place; null: white noise
  uint32_t carrierLength; // 0: white noise
  float carrierGainDb;
};

struct VoiceCarrierProcessor {
  static constexpr uint32_t kFrameSize = 2048;
  static constexpr uint32_t kBins = kFrameSize / 2 + 1;
  static constexpr uint32_t kHop = 512;
  static constexpr uint32_t kMaxChannels = 2;
  static constexpr uint32_t kMaxLifter = 1024;
  static constexpr int32_t kLatency = 2048;
  static constexpr float kGainFactor = 721.50604f;
  static constexpr int32_t kGlideSamples = 64;

  // floor(rate / frequency + 0.5), at most 1024 (and at least 1).
  static int32_t lifterFor(float sampleRate, float frequencyHz);

  static void layOut(InstanceLayout& layout, VoiceCarrierProcessor* self, uint32_t maxChannels);
  static size_t bytes(uint32_t maxChannels);

  // Builds window and transform, takes the white-noise voice (1600/800 Hz,
  // mix 1, -6 dB) with pitch frequency 0 and clears all history. Returns 0,
  // or the transform's set-up error.
  int32_t init(float sampleRate);
  void setSettings(const VoiceCarrierSettings& settings);
  // Centre of the carrier pre-filter's +20 dB peak; 0 leaves it flat.
  void setPitchFrequency(float hz);
  // Clears rings, filter states and the carrier position.
  void reset();
  void process(float* const* channels, uint32_t blockSize, uint32_t channelCount);
  int32_t latency() const { return kLatency; }

  int32_t carrierLifter() const { return lifterA; }
  int32_t voiceLifter() const { return lifterB; }
  float outputGain() const { return gain; }

  // --- state (plain data: the owner's zeroed block holds it) ---
  uint32_t channelsLaidOut;
  float sampleRate;
  VoiceCarrierSettings settings;
  VoiceCarrierSettings pendingSettings;
  float pitchHz;
  float pendingPitchHz;
  uint32_t pendingFlag;  // bit 0 settings, bit 1 pitch
  int32_t lifterA;
  int32_t lifterB;
  float carrierWeight;   // mu
  float voiceWeight;     // sqrt(1 - mu^2)
  float gain;
  uint32_t carrierPosition;
  uint32_t random;
  uint32_t available;

  unsigned char* fftSetup;
  unsigned char* fftScratch;
  float* window;      // 2048
  float* carrierIn;   // this block's carrier source samples
  float* frame;       // 2048
  float* carrierRe[kMaxChannels];
  float* carrierIm[kMaxChannels];
  float* carrierEnvelope[kMaxChannels];
  float* voiceRe;
  float* voiceIm;
  float* voiceEnvelope;
  float* logMagnitude;
  float* cepstrum;
  float* envelopeIm;
  CookbookBiquad preFilter[kMaxChannels];
  VoiceFrameRing carrierRings[kMaxChannels];  // pre-filtered carrier input; output unused
  VoiceFrameRing voiceRings[kMaxChannels];    // voice input and synthesis output

 private:
  void applySettings();
  void designPreFilter(int32_t rampSamples);
  void envelopeOf(const float* re, const float* im, int32_t lifter, float* envelope);
  void processFrames(uint32_t channelCount);
};

}  // namespace qor
