// Detune stage of the vocal changer's second voice: a grain pitch shifter
// whose shift wanders between two values, followed by a modulated delay.
//
// Settings are handed over as one block and take effect at the start of the
// next processed block. The stage's memory (two grain rings and two 205 ms
// delay lines) is carved from the owner's instance block by carve().
#pragma once

#include <cstdint>

#include "dsp/core/cookbook_biquad.h"
#include "dsp/core/delay_line.h"
#include "dsp/core/instance.h"
#include "dsp/voice/wavetable_oscillator.h"

namespace qor {

struct DetuneSettings {
  float sampleRate;
  float baseDelayMs;   // centre of the modulated delay
  float depthMs;       // swing of the delay around its centre
  float delayRateHz;   // delay LFO
  float centreCents;   // pitch shift swings over centre +- spread
  float spreadCents;
  float pitchRateHz;   // pitch LFO
  int32_t channels;    // 1 or 2
  float gain1Db;       // input passed straight through
  float gain2Db;       // shifted, delayed signal
};

// Linear ramp of one value over a fixed number of samples.
struct LinearRamp {
  float value;
  float target;
  float step;
  int32_t left;

  void jump(float v) {
    value = target = v;
    step = 0.0f;
    left = 0;
  }
  void to(float v, int32_t samples) {
    target = v;
    left = samples;
    step = (v - value) / static_cast<float>(samples);
  }
  void advance() {
    if (left > 0) {
      value = --left == 0 ? target : value + step;
    }
  }
};

struct DetuneStage {
  static constexpr uint32_t kMaxChannels = 2;
  static constexpr float kDelayLineMs = 205.0f;
  static constexpr float kMaxGrainSeconds = 0.2f;  // the grain rings' size
  static constexpr int32_t kGainRamp = 64;
  static constexpr int32_t kDelayRamp = 4096;
  static constexpr int32_t kFilterRamp = 16;

  // Reserves the buffers for `rate` (the highest rate the owner will use)
  // and, when placing, attaches them to `stage`.
  static void carve(InstanceLayout& lay, DetuneStage* stage, uint32_t rate);

  // Prepares a freshly carved stage: no settings yet, state cleared.
  void init();
  // Stages new settings for the start of the next block.
  void setSettings(const DetuneSettings& settings);
  // Clears every signal buffer, filter and LFO phase; the settings stay and
  // are applied again, without ramps, at the next block.
  void reset();
  // In place, `channels` of n samples. Passes the signal when never set.
  void process(float* const* channels, uint32_t channelCount, uint32_t n);

  // Planned pitch section: grain length in samples and read-pointer rate
  // (grains per second, negative when shifting up) for the centre shift.
  uint32_t grainLength() const { return grain_; }
  float grainRate() const { return centreSlope_; }
  float lowPassHz() const { return lowPassHz_; }
  uint32_t delayLineLength() const { return lines_[0].length; }

 private:
  void apply();
  void plan();
  float readGrain(const float* ring, float delay) const;

  DetuneSettings current_;
  DetuneSettings pending_;
  uint8_t hasPending_;
  uint8_t configured_;  // settings applied at least once
  uint8_t fresh_;       // next apply jumps instead of ramping

  // Pitch section.
  float* rings_[kMaxChannels];
  uint32_t ringMask_;
  uint32_t write_;
  uint32_t grain_;
  float centreSlope_;
  float phase_;          // 0..1, position of the first read pointer in its grain
  float phaseStep_;      // per sample, from the pitch LFO
  uint32_t lfoCountdown_;
  float lowPassHz_;
  CookbookBiquad lowPass_[kMaxChannels];
  WavetableOscillator pitchLfo_;

  // Delay section.
  DelayLine lines_[kMaxChannels];
  uint32_t lineCapacity_;
  WavetableOscillator delayLfo_;
  LinearRamp base_, depth_, gain1_, gain2_;
};

}  // namespace qor
