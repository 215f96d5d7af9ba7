#include "dsp/voice/voice_pitch_shifter.h"

#include <cmath>
#include <cstring>
#include <numbers>

#include "dsp/core/hann_window.h"
#include "dsp/voice/voice_fft.h"
#include "dsp/voice/voice_math.h"

namespace qor {

namespace {

constexpr uint32_t kInputRing = 4096;
constexpr uint32_t kOutputRing = 10240;
constexpr uint32_t kSynthesisHop = 256;

float gainForMode(int32_t mode) {
  switch (mode) {
    case kVoicePitchPhaseFree:
      return 1.9952623f;  // +6 dB: zero-phase frames sit mostly under the window's tails
    case kVoicePitchRandomPhase:
      return 1.0f;
    default:
      return 0.3548134f;  // -9 dB: about 3x from the overlapping squared windows
  }
}

int32_t modeOf(int32_t mode) {
  return mode == kVoicePitchPhaseFree || mode == kVoicePitchRandomPhase ? mode : kVoicePitchNatural;
}

}  // namespace

int32_t VoicePitchShifter::hopForRatio(float ratio) {
  float r = ratio;
  if (!(r >= 0.25f)) r = 0.25f;  // NaN takes the lowest ratio rather than poisoning the tables
  if (r > 4.0f) r = 4.0f;
  return static_cast<int32_t>(std::floor(256.0f / r + 0.5f));
}

void VoicePitchShifter::layOut(InstanceLayout& layout, VoicePitchShifter* self,
                               uint32_t maxChannels) {
  if (maxChannels > kMaxChannels) maxChannels = kMaxChannels;
  VoiceFft fft{};
  VoiceFft::layOut(layout, self != nullptr ? &fft : nullptr, kFrameSize);
  float* window = layout.take<float>(kFrameSize);
  float* expected = layout.take<float>(kBins);
  uint32_t* sourceIndex = layout.take<uint32_t>(kMaxResampled);
  float* sourceFraction = layout.take<float>(kMaxResampled);
  float* frame = layout.take<float>(kFrameSize + 1);
  float* re = layout.take<float>(kBins);
  float* im = layout.take<float>(kBins);
  float* resampled = layout.take<float>(kMaxResampled);
  if (self != nullptr) {
    self->channelsLaidOut = maxChannels;
    self->fftSetup = fft.setup;
    self->fftScratch = fft.scratch;
    self->window = window;
    self->expected = expected;
    self->sourceIndex = sourceIndex;
    self->sourceFraction = sourceFraction;
    self->frame = frame;
    self->re = re;
    self->im = im;
    self->resampled = resampled;
  }
  for (uint32_t c = 0; c < maxChannels; ++c) {
    float* previous = layout.take<float>(kBins);
    float* synthesis = layout.take<float>(kBins);
    VoiceFrameRing::layOut(layout, self != nullptr ? &self->rings[c] : nullptr, kInputRing,
                           kOutputRing);
    if (self != nullptr) {
      self->previousPhase[c] = previous;
      self->synthesisPhase[c] = synthesis;
    }
  }
}

size_t VoicePitchShifter::bytes(uint32_t maxChannels) {
  InstanceLayout counter(nullptr);
  layOut(counter, nullptr, maxChannels);
  return counter.size();
}

int32_t VoicePitchShifter::init(float rate) {
  sampleRate = rate;
  VoiceFft fft{fftSetup, fftScratch};
  if (const int32_t rc = fft.init(kFrameSize); rc != 0) return rc;
  hannWindow(window, kFrameSize);
  frame[kFrameSize] = 0.0f;  // guard for the resampler's last right-hand neighbour
  mode = kVoicePitchNatural;
  outputGain = gainForMode(mode);
  applyRatio(256);
  pendingRatio = 1.0f;
  pendingMode = mode;
  pendingFlag = 0;
  reset();
  return 0;
}

void VoicePitchShifter::setRatio(float ratio) {
  pendingRatio = ratio;
  pendingFlag = 1;
}

void VoicePitchShifter::setMode(int32_t m) {
  pendingMode = modeOf(m);
  pendingFlag = 1;
}

void VoicePitchShifter::applyRatio(int32_t hop) {
  k = hop;
  const double advance = static_cast<double>(hop) * 2.0 * std::numbers::pi / kFrameSize;
  for (uint32_t n = 0; n < kBins; ++n) expected[n] = static_cast<float>(advance * n);
  // The frame is read at steps of 256 / k: 8 k points cover it at any ratio.
  const uint32_t points = 8 * static_cast<uint32_t>(hop);
  const double step = static_cast<double>(kFrameSize) / points;
  for (uint32_t i = 0; i < points; ++i) {
    const double p = step * i;
    const double whole = std::floor(p);
    sourceIndex[i] = static_cast<uint32_t>(whole);
    sourceFraction[i] = static_cast<float>(p - whole);
  }
}

void VoicePitchShifter::reset() {
  // The first frame comes after one hop, as if k samples of silence had
  // preceded the input by a whole frame: full gain from the first sample.
  available = kFrameSize - static_cast<uint32_t>(k);
  for (uint32_t c = 0; c < channelsLaidOut; ++c) {
    rings[c].reset(static_cast<uint32_t>(k));
    std::memset(previousPhase[c], 0, sizeof(float) * kBins);
    std::memset(synthesisPhase[c], 0, sizeof(float) * kBins);
    random[c] = 1;
  }
}

void VoicePitchShifter::processFrame(uint32_t c) {
  const VoiceFft fft{fftSetup, fftScratch};
  rings[c].latest(frame, kFrameSize);
  for (uint32_t i = 0; i < kFrameSize; ++i) frame[i] *= window[i];
  fft.forward(frame, re, im);

  // DC and Nyquist keep their size with phase 0.
  re[0] = std::fabs(re[0]);
  re[kBins - 1] = std::fabs(re[kBins - 1]);
  im[0] = 0.0f;
  im[kBins - 1] = 0.0f;

  // Bins 1 .. 1023. The new phase is applied by rotating each bin by
  // (target - analysis phase), which keeps the loops free of square roots
  // and lets them vectorise.
  float* __restrict bre = re + 1;
  float* __restrict bim = im + 1;
  constexpr uint32_t count = kBins - 2;
  if (mode == kVoicePitchNatural) {
    float* __restrict previous = previousPhase[c] + 1;
    float* __restrict psi = synthesisPhase[c] + 1;
    const float* __restrict e = expected + 1;
    const float stretch = static_cast<float>(kSynthesisHop) / static_cast<float>(k);
    for (uint32_t n = 0; n < count; ++n) {
      const float phase = voiceAtan2(bim[n], bre[n]);
      const float advance = e[n] + voiceWrap(phase - previous[n] - e[n]);
      previous[n] = phase;
      const float next = voiceWrap(psi[n] + advance * stretch);
      psi[n] = next;
      float s, co;
      voiceSinCos(next - phase, &s, &co);
      const float r = bre[n], i = bim[n];
      bre[n] = r * co - i * s;
      bim[n] = r * s + i * co;
    }
  } else if (mode == kVoicePitchPhaseFree) {
    for (uint32_t n = 0; n < count; ++n) {
      bre[n] = std::sqrt(bre[n] * bre[n] + bim[n] * bim[n]);
      bim[n] = 0.0f;
    }
  } else {
    // The generator is serial; draw the angles first, rotate in a second pass.
    float* __restrict angle = resampled;
    uint32_t state = random[c];
    constexpr float scale = 2.0f * std::numbers::pi_v<float> / 32767.0f;
    for (uint32_t n = 0; n < count; ++n) {
      state = state * 1103515245u + 12345u;
      angle[n] = scale * static_cast<float>((state >> 16) & 0x7FFFu);
    }
    random[c] = state;
    for (uint32_t n = 0; n < count; ++n) {
      float s, co;
      voiceSinCos(angle[n] - voiceAtan2(bim[n], bre[n]), &s, &co);
      const float r = bre[n], i = bim[n];
      bre[n] = r * co - i * s;
      bim[n] = r * s + i * co;
    }
  }

  fft.inverse(re, im, frame);
  for (uint32_t i = 0; i < kFrameSize; ++i) frame[i] *= window[i];
  const uint32_t points = 8 * static_cast<uint32_t>(k);
  for (uint32_t i = 0; i < points; ++i) {
    const uint32_t j = sourceIndex[i];
    const float a = sourceFraction[i];
    resampled[i] = frame[j] + a * (frame[j + 1] - frame[j]);
  }
  rings[c].overlapAdd(resampled, points, static_cast<uint32_t>(k));
}

void VoicePitchShifter::process(float* const* channels, uint32_t blockSize,
                                uint32_t channelCount) {
  if (channelCount > channelsLaidOut) channelCount = channelsLaidOut;
  if (pendingFlag != 0) {
    pendingFlag = 0;
    const int32_t hop = hopForRatio(pendingRatio);
    if (hop != k) applyRatio(hop);
    mode = pendingMode;
    outputGain = gainForMode(mode);
  }
  uint32_t done = 0;
  while (done < blockSize) {
    const uint32_t toFrame = kFrameSize - available;
    const uint32_t n = blockSize - done < toFrame ? blockSize - done : toFrame;
    for (uint32_t c = 0; c < channelCount; ++c) {
      rings[c].push(channels[c] + done, n);
      rings[c].pull(channels[c] + done, n, outputGain);
    }
    available += n;
    done += n;
    if (available >= kFrameSize) {
      for (uint32_t c = 0; c < channelCount; ++c) processFrame(c);
      available -= static_cast<uint32_t>(k);
    }
  }
}

}  // namespace qor
