#include "dsp/voice/voice_spectral_processor.h"

#include <cmath>
#include <cstring>

#include "dsp/core/hann_window.h"
#include "dsp/voice/voice_fft.h"
#include "dsp/voice/voice_math.h"

namespace qor {

namespace {

constexpr uint32_t kRing = 4352;  // one frame plus one hop
constexpr uint32_t kNyquist = VoiceSpectralProcessor::kBins - 1;
constexpr float kStartReference = 480.0f;

}  // namespace

int32_t VoiceSpectralProcessor::lifterFor(float rate, float referenceHz) {
  if (!(referenceHz > 0.0f)) return static_cast<int32_t>(kMaxLifter);
  const double p = std::floor(static_cast<double>(rate) / referenceHz + 0.5);
  if (!(p < kMaxLifter)) return static_cast<int32_t>(kMaxLifter);
  return p < 1.0 ? 1 : static_cast<int32_t>(p);
}

void VoiceSpectralProcessor::layOut(InstanceLayout& layout, VoiceSpectralProcessor* self,
                                    uint32_t maxChannels) {
  if (maxChannels > kMaxChannels) maxChannels = kMaxChannels;
  VoiceFft fft{};
  VoiceFft::layOut(layout, self != nullptr ? &fft : nullptr, kFrameSize);
  float* window = layout.take<float>(kFrameSize);
  uint32_t* warpMap = layout.take<uint32_t>(kBins);
  float* frame = layout.take<float>(kFrameSize);
  float* re = layout.take<float>(kBins);
  float* im = layout.take<float>(kBins);
  float* logMagnitude = layout.take<float>(kBins);
  float* cepstrum = layout.take<float>(kFrameSize);
  float* cepstrumRe = layout.take<float>(kBins);
  float* cepstrumIm = layout.take<float>(kBins);
  if (self != nullptr) {
    self->channelsLaidOut = maxChannels;
    self->fftSetup = fft.setup;
    self->fftScratch = fft.scratch;
    self->window = window;
    self->warpMap = warpMap;
    self->frame = frame;
    self->re = re;
    self->im = im;
    self->logMagnitude = logMagnitude;
    self->cepstrum = cepstrum;
    self->cepstrumRe = cepstrumRe;
    self->cepstrumIm = cepstrumIm;
  }
  for (uint32_t c = 0; c < maxChannels; ++c) {
    VoiceFrameRing::layOut(layout, self != nullptr ? &self->rings[c] : nullptr, kRing, kRing);
  }
}

size_t VoiceSpectralProcessor::bytes(uint32_t maxChannels) {
  InstanceLayout counter(nullptr);
  layOut(counter, nullptr, maxChannels);
  return counter.size();
}

int32_t VoiceSpectralProcessor::init(float rate) {
  sampleRate = rate;
  VoiceFft fft{fftSetup, fftScratch};
  if (const int32_t rc = fft.init(kFrameSize); rc != 0) return rc;
  hannWindow(window, kFrameSize);
  q = 1.0f;
  lifterLength = lifterFor(rate, kStartReference);
  rebuildWarpMap();
  pendingRatio = q;
  pendingReference = kStartReference;
  pendingFlag = 0;
  reset();
  return 0;
}

void VoiceSpectralProcessor::setWarp(float ratio, float referenceHz) {
  pendingRatio = ratio;
  pendingReference = referenceHz;
  pendingFlag = 1;
}

void VoiceSpectralProcessor::rebuildWarpMap() {
  // Bin n takes the envelope of bin n / q; beyond the top, the Nyquist bin.
  for (uint32_t n = 0; n < kBins; ++n) {
    const double source = static_cast<double>(n) / q;
    warpMap[n] = source < kNyquist ? static_cast<uint32_t>(source) : kNyquist;
  }
}

void VoiceSpectralProcessor::reset() {
  available = kFrameSize - kHop;  // primed: the first frame comes after one hop
  for (uint32_t c = 0; c < channelsLaidOut; ++c) rings[c].reset(kHop);
}

void VoiceSpectralProcessor::processFrame(uint32_t c) {
  const VoiceFft fft{fftSetup, fftScratch};
  rings[c].latest(frame, kFrameSize);
  for (uint32_t i = 0; i < kFrameSize; ++i) frame[i] *= window[i];
  fft.forward(frame, re, im);

  // Magnitudes first (square roots stay scalar), then the logarithms vectorised.
  for (uint32_t n = 0; n < kBins; ++n) logMagnitude[n] = std::sqrt(re[n] * re[n] + im[n] * im[n]);
  for (uint32_t n = 0; n < kBins; ++n) logMagnitude[n] = voiceLog(logMagnitude[n] + 0.000001f);
  // Real cepstrum, kept one-sided up to the lifter with element 0 halved: the
  // real part of its transform is then half the smoothed log magnitude, which
  // the doubled exponent below restores.
  std::memset(cepstrumIm, 0, sizeof(float) * kBins);
  fft.inverse(logMagnitude, cepstrumIm, cepstrum);
  cepstrum[0] *= 0.5f;
  const uint32_t lifter = static_cast<uint32_t>(lifterLength);
  std::memset(cepstrum + lifter, 0, sizeof(float) * (kFrameSize - lifter));
  fft.forward(cepstrum, cepstrumRe, cepstrumIm);

  const float* envelope = cepstrumRe;
  float* target = cepstrumIm;  // free again: only the real part is the envelope
  const float nyquistLog = logMagnitude[kNyquist];
  for (uint32_t n = 0; n < kBins; ++n) {
    const uint32_t m = warpMap[n];
    target[n] = m >= kNyquist ? nyquistLog : envelope[m];
  }
  for (uint32_t n = 0; n < kBins; ++n) {
    const float g = voiceExp(2.0f * (target[n] - envelope[n]));
    re[n] *= g;
    im[n] *= g;
  }
  fft.inverse(re, im, frame);
  for (uint32_t i = 0; i < kFrameSize; ++i) frame[i] *= window[i];
  rings[c].overlapAdd(frame, kFrameSize, kHop);
}

void VoiceSpectralProcessor::process(float* const* channels, uint32_t blockSize,
                                     uint32_t channelCount) {
  if (channelCount > channelsLaidOut) channelCount = channelsLaidOut;
  if (pendingFlag != 0) {
    pendingFlag = 0;
    const float ratio = pendingRatio > 0.0f && std::isfinite(pendingRatio) ? pendingRatio : 1.0f;
    if (ratio != q) {
      q = ratio;
      rebuildWarpMap();
    }
    lifterLength = lifterFor(sampleRate, pendingReference);
  }
  uint32_t done = 0;
  while (done < blockSize) {
    const uint32_t toFrame = kFrameSize - available;
    const uint32_t n = blockSize - done < toFrame ? blockSize - done : toFrame;
    for (uint32_t c = 0; c < channelCount; ++c) {
      rings[c].push(channels[c] + done, n);
      rings[c].pull(channels[c] + done, n, kOutputGain);
    }
    available += n;
    done += n;
    if (available >= kFrameSize) {
      for (uint32_t c = 0; c < channelCount; ++c) processFrame(c);
      available -= kHop;
    }
  }
}

}  // namespace qor
