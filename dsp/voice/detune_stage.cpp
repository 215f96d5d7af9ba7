#include "dsp/voice/detune_stage.h"

#include <cmath>
#include <cstring>

namespace qor {

namespace {

// The pitch LFO is read once per chunk: at a few hertz that is smooth, and
// it keeps exp2 out of the per-sample loop.
constexpr uint32_t kPitchChunk = 16;
constexpr double kButterworthQ = 0.70710678118654752;

uint32_t ringSizeFor(uint32_t rate) {
  const uint32_t need = static_cast<uint32_t>(DetuneStage::kMaxGrainSeconds * static_cast<float>(rate)) + 4;
  uint32_t size = 1;
  while (size < need) size <<= 1;
  return size;
}

uint32_t lineLengthFor(float rate) {
  return static_cast<uint32_t>(std::floor(rate * DetuneStage::kDelayLineMs / 1000.0f + 0.5f));
}

float dbToGain(float db) { return std::pow(10.0f, db / 20.0f); }

}  // namespace

void DetuneStage::carve(InstanceLayout& lay, DetuneStage* stage, uint32_t rate) {
  const uint32_t ringSize = ringSizeFor(rate);
  const uint32_t lineLength = lineLengthFor(static_cast<float>(rate));
  for (uint32_t c = 0; c < kMaxChannels; ++c) {
    float* ring = lay.take<float>(ringSize);
    float* line = lay.take<float>(lineLength);
    if (stage != nullptr) {
      stage->rings_[c] = ring;
      stage->lines_[c].attach(lineLength, line);
    }
  }
  if (stage != nullptr) {
    stage->ringMask_ = ringSize - 1;
    stage->lineCapacity_ = lineLength;
  }
}

void DetuneStage::init() {
  current_ = DetuneSettings{};
  pending_ = DetuneSettings{};
  hasPending_ = 0;
  configured_ = 0;
  pitchLfo_.init();
  pitchLfo_.setShape(kShapeSine);
  pitchLfo_.setFrequency(0.0f);
  delayLfo_.init();
  delayLfo_.setShape(kShapeSine);
  delayLfo_.setFrequency(0.0f);
  grain_ = 1;
  centreSlope_ = 0.0f;
  lowPassHz_ = 0.0f;
  reset();
  hasPending_ = 0;
}

void DetuneStage::setSettings(const DetuneSettings& settings) {
  pending_ = settings;
  hasPending_ = 1;
}

void DetuneStage::reset() {
  for (uint32_t c = 0; c < kMaxChannels; ++c) {
    std::memset(rings_[c], 0, sizeof(float) * (ringMask_ + 1));
    lines_[c].clear();
    lowPass_[c].reset();
  }
  write_ = 0;
  phase_ = 0.0f;
  phaseStep_ = 0.0f;
  lfoCountdown_ = 0;
  pitchLfo_.reset();
  delayLfo_.reset();
  fresh_ = 1;
  // The settings in force are applied again from scratch at the next block.
  if (configured_ != 0 && hasPending_ == 0) {
    pending_ = current_;
    hasPending_ = 1;
  }
}

void DetuneStage::plan() {
  const float fs = current_.sampleRate;
  const float centre = current_.centreCents;
  const float spread = current_.spreadCents;
  const float largest = std::fmax(centre - spread, centre + spread);
  const float largestRatio = std::exp2(largest / 1200.0f);

  // Grow the grain until its read pointer sweeps at most 10 grains per second
  // for the largest shift; a faster sweep is heard as a flutter.
  // Milliseconds are counted as integers so no rounding drift creeps in.
  int32_t ms = 50;
  float grain = std::floor(0.05f * fs + 0.5f);
  const int32_t maxMs = static_cast<int32_t>(kMaxGrainSeconds * 1000.0f);
  while (std::fabs((1.0f - largestRatio) * fs / grain) > 10.0f && ms < maxMs) {
    ++ms;
    grain = std::floor(static_cast<float>(ms) * 0.001f * fs + 0.5f);
  }
  grain_ = static_cast<uint32_t>(grain);
  if (grain_ + 2 > ringMask_) grain_ = ringMask_ - 2;
  centreSlope_ = (1.0f - std::exp2(centre / 1200.0f)) * fs / static_cast<float>(grain_);

  lowPassHz_ = std::fmin(0.4f * fs / largestRatio, 0.45f * fs);
  const int32_t ramp = fresh_ != 0 ? 0 : kFilterRamp;
  for (uint32_t c = 0; c < kMaxChannels; ++c) {
    lowPass_[c].design(kCookbookLowPass, lowPassHz_, fs, kButterworthQ, 0.0, 0.0, ramp);
  }
  pitchLfo_.setFrequency(current_.pitchRateHz);
  lfoCountdown_ = 0;
}

void DetuneStage::apply() {
  const DetuneSettings previous = current_;
  current_ = pending_;
  hasPending_ = 0;
  if (configured_ != 0 && previous.channels != current_.channels) {
    const uint8_t keep = hasPending_;
    reset();
    hasPending_ = keep;
  }
  const bool fresh = fresh_ != 0;
  const float fs = current_.sampleRate;

  if (fresh) {
    gain1_.jump(dbToGain(current_.gain1Db));
    gain2_.jump(dbToGain(current_.gain2Db));
  } else {
    gain1_.to(dbToGain(current_.gain1Db), kGainRamp);
    gain2_.to(dbToGain(current_.gain2Db), kGainRamp);
  }

  const bool rateChanged = configured_ == 0 || previous.sampleRate != fs;
  if (rateChanged) {
    uint32_t length = lineLengthFor(fs);
    if (length > lineCapacity_) length = lineCapacity_;
    for (uint32_t c = 0; c < kMaxChannels; ++c) {
      lines_[c].setLength(length);
      lines_[c].clear();
    }
    pitchLfo_.setSampleRate(fs);
    delayLfo_.setSampleRate(fs);
  }
  if (fresh || rateChanged || previous.centreCents != current_.centreCents ||
      previous.spreadCents != current_.spreadCents || previous.pitchRateHz != current_.pitchRateHz) {
    plan();
  }

  const float base = current_.baseDelayMs;
  const float depth = std::fmin(base, current_.depthMs);
  if (fresh) {
    base_.jump(base);
    depth_.jump(depth);
  } else {
    base_.to(base, kDelayRamp);
    depth_.to(depth, kDelayRamp);
  }
  if (fresh || previous.delayRateHz != current_.delayRateHz) delayLfo_.setFrequency(current_.delayRateHz);

  configured_ = 1;
  fresh_ = 0;
}

float DetuneStage::readGrain(const float* ring, float delay) const {
  const uint32_t whole = static_cast<uint32_t>(delay);
  const float a = delay - static_cast<float>(whole);
  const uint32_t i = (write_ - whole) & ringMask_;
  return (1.0f - a) * ring[i] + a * ring[(i - 1) & ringMask_];
}

void DetuneStage::process(float* const* channels, uint32_t channelCount, uint32_t n) {
  if (hasPending_ != 0) apply();
  if (configured_ == 0) return;
  const uint32_t count = channelCount < kMaxChannels ? channelCount : kMaxChannels;
  const float fs = current_.sampleRate;
  const float msToSamples = fs / 1000.0f;
  const float grain = static_cast<float>(grain_);
  const float shiftPerGrain = 1.0f / grain;

  for (uint32_t t = 0; t < n; ++t) {
    if (lfoCountdown_ == 0) {
      const float cents = current_.centreCents + current_.spreadCents * pitchLfo_.next();
      pitchLfo_.phase += pitchLfo_.increment * (kPitchChunk - 1);
      phaseStep_ = (1.0f - std::exp2(cents / 1200.0f)) * shiftPerGrain;
      lfoCountdown_ = kPitchChunk;
    }
    --lfoCountdown_;

    // Two read pointers half a grain apart, each faded in and out by a
    // triangle so that their weights always sum to one.
    float p = phase_ + phaseStep_;
    p -= std::floor(p);
    phase_ = p;
    const float p2 = p < 0.5f ? p + 0.5f : p - 0.5f;
    const float w1 = 1.0f - std::fabs(2.0f * p - 1.0f);
    const float w2 = 1.0f - w1;
    const float d1 = p * grain;
    const float d2 = p2 * grain;

    const float l = delayLfo_.next();
    // One extra sample because the line is read after the write.
    const float delay = (l * depth_.value + base_.value) * msToSamples + 1.0f;
    const float g1 = gain1_.value;
    const float g2 = gain2_.value;

    write_ = (write_ + 1) & ringMask_;
    for (uint32_t c = 0; c < count; ++c) {
      const float x = channels[c][t];
      float* ring = rings_[c];
      ring[write_] = lowPass_[c].tick(x);
      const float shifted = w1 * readGrain(ring, d1) + w2 * readGrain(ring, d2);
      lines_[c].writeSample(shifted);
      channels[c][t] = g1 * x + g2 * lines_[c].readDelayed(delay);
    }
    base_.advance();
    depth_.advance();
    gain1_.advance();
    gain2_.advance();
  }
}

}  // namespace qor
