#include "dsp/voice/voice_carrier_processor.h"

#include <cmath>
#include <cstring>

#include "dsp/core/hann_window.h"
#include "dsp/voice/voice_fft.h"
#include "dsp/voice/voice_math.h"

namespace qor {

namespace {

constexpr uint32_t kRing = 2560;  // one frame plus one hop
constexpr uint32_t kNyquist = VoiceCarrierProcessor::kBins - 1;
constexpr float kSpectrumScale = 1.0f / 1024.0f;
constexpr float kGainFloor = 0.0015f;  // bins below this gain are dropped

uint32_t nextRandom(uint32_t& state) {
  state = state * 1103515245u + 12345u;
  return (state >> 16) & 0x7FFFu;
}

}  // namespace

int32_t VoiceCarrierProcessor::lifterFor(float rate, float frequencyHz) {
  if (!(frequencyHz > 0.0f)) return static_cast<int32_t>(kMaxLifter);
  const double p = std::floor(static_cast<double>(rate) / frequencyHz + 0.5);
  if (!(p < kMaxLifter)) return static_cast<int32_t>(kMaxLifter);
  return p < 1.0 ? 1 : static_cast<int32_t>(p);
}

void VoiceCarrierProcessor::layOut(InstanceLayout& layout, VoiceCarrierProcessor* self,
                                   uint32_t maxChannels) {
  if (maxChannels > kMaxChannels) maxChannels = kMaxChannels;
  VoiceFft fft{};
  VoiceFft::layOut(layout, self != nullptr ? &fft : nullptr, kFrameSize);
  float* window = layout.take<float>(kFrameSize);
  float* carrierIn = layout.take<float>(kHop);
  float* frame = layout.take<float>(kFrameSize);
  float* voiceRe = layout.take<float>(kBins);
  float* voiceIm = layout.take<float>(kBins);
  float* voiceEnvelope = layout.take<float>(kBins);
  float* logMagnitude = layout.take<float>(kBins);
  float* cepstrum = layout.take<float>(kFrameSize);
  float* envelopeIm = layout.take<float>(kBins);
  if (self != nullptr) {
    self->channelsLaidOut = maxChannels;
    self->fftSetup = fft.setup;
    self->fftScratch = fft.scratch;
    self->window = window;
    self->carrierIn = carrierIn;
    self->frame = frame;
    self->voiceRe = voiceRe;
    self->voiceIm = voiceIm;
    self->voiceEnvelope = voiceEnvelope;
    self->logMagnitude = logMagnitude;
    self->cepstrum = cepstrum;
    self->envelopeIm = envelopeIm;
  }
  for (uint32_t c = 0; c < maxChannels; ++c) {
    float* sRe = layout.take<float>(kBins);
    float* sIm = layout.take<float>(kBins);
    float* sEnv = layout.take<float>(kBins);
    VoiceFrameRing::layOut(layout, self != nullptr ? &self->carrierRings[c] : nullptr, kRing, 0);
    VoiceFrameRing::layOut(layout, self != nullptr ? &self->voiceRings[c] : nullptr, kRing, kRing);
    if (self != nullptr) {
      self->carrierRe[c] = sRe;
      self->carrierIm[c] = sIm;
      self->carrierEnvelope[c] = sEnv;
    }
  }
}

size_t VoiceCarrierProcessor::bytes(uint32_t maxChannels) {
  InstanceLayout counter(nullptr);
  layOut(counter, nullptr, maxChannels);
  return counter.size();
}

int32_t VoiceCarrierProcessor::init(float rate) {
  sampleRate = rate;
  VoiceFft fft{fftSetup, fftScratch};
  if (const int32_t rc = fft.init(kFrameSize); rc != 0) return rc;
  hannWindow(window, kFrameSize);
  settings = {1600.0f, 800.0f, 1.0f, nullptr, 0, -6.0f};
  pendingSettings = settings;
  applySettings();
  pitchHz = 0.0f;
  pendingPitchHz = 0.0f;
  pendingFlag = 0;
  for (uint32_t c = 0; c < channelsLaidOut; ++c) preFilter[c] = CookbookBiquad{};
  designPreFilter(0);
  reset();
  return 0;
}

void VoiceCarrierProcessor::setSettings(const VoiceCarrierSettings& s) {
  pendingSettings = s;
  pendingFlag |= 1u;
}

void VoiceCarrierProcessor::setPitchFrequency(float hz) {
  pendingPitchHz = hz;
  pendingFlag |= 2u;
}

void VoiceCarrierProcessor::applySettings() {
  lifterA = lifterFor(sampleRate, settings.primaryHz);
  lifterB = lifterFor(sampleRate, settings.secondaryHz);
  float mu = std::fabs(settings.mix);
  if (!(mu <= 1.0f)) mu = 1.0f;
  carrierWeight = mu;
  voiceWeight = std::sqrt(1.0f - mu * mu);
  gain = std::pow(10.0f, settings.carrierGainDb / 20.0f) * kGainFactor;
  if (settings.carrier == nullptr) settings.carrierLength = 0;
  if (carrierPosition >= settings.carrierLength) carrierPosition = 0;
}

void VoiceCarrierProcessor::designPreFilter(int32_t rampSamples) {
  // The carrier is brought far down before analysis; the output gain lifts
  // the result back to speaking level.
  const double floorDb = 20.0 * std::log10(1.0 / 256.0);
  double frequency = 1000.0, peakDb = 0.0, outputDb = floorDb - 12.0;
  if (pitchHz > 0.0f) {
    frequency = pitchHz;
    peakDb = 20.0;
    outputDb = floorDb - 20.0;
  }
  const double highest = 0.45 * sampleRate;  // keep the design below Nyquist
  if (frequency > highest) frequency = highest;
  for (uint32_t c = 0; c < channelsLaidOut; ++c) {
    preFilter[c].design(kCookbookPeaking, frequency, sampleRate, 2.0, peakDb, outputDb,
                        rampSamples);
  }
}

void VoiceCarrierProcessor::reset() {
  available = kFrameSize - kHop;  // primed: the first frame comes after one hop
  for (uint32_t c = 0; c < channelsLaidOut; ++c) {
    carrierRings[c].reset(kHop);
    voiceRings[c].reset(kHop);
    preFilter[c].reset();
    preFilter[c].set(preFilter[c].target, 0);  // a glide in flight lands
  }
  carrierPosition = 0;
  random = 1;
}

void VoiceCarrierProcessor::envelopeOf(const float* sRe, const float* sIm, int32_t lifter,
                                       float* envelope) {
  const VoiceFft fft{fftSetup, fftScratch};
  // Magnitudes first (square roots stay scalar), then the logarithms vectorised.
  for (uint32_t n = 0; n < kBins; ++n) logMagnitude[n] = std::sqrt(sRe[n] * sRe[n] + sIm[n] * sIm[n]);
  for (uint32_t n = 0; n < kBins; ++n) logMagnitude[n] = voiceLog(logMagnitude[n] + 0.000001f);
  // Real cepstrum of the log spectrum, kept one-sided up to the lifter with
  // element 0 halved: the real part of its transform is half the smoothed log
  // magnitude, so exp(2 (Ev - Ec)) is the ratio of the two envelopes.
  std::memset(envelopeIm, 0, sizeof(float) * kBins);
  fft.inverse(logMagnitude, envelopeIm, cepstrum);
  cepstrum[0] *= 0.5f;
  const uint32_t p = static_cast<uint32_t>(lifter);
  std::memset(cepstrum + p, 0, sizeof(float) * (kFrameSize - p));
  fft.forward(cepstrum, envelope, envelopeIm);
}

void VoiceCarrierProcessor::processFrames(uint32_t channelCount) {
  const VoiceFft fft{fftSetup, fftScratch};
  // With a pure carrier both channels analyse the same signal.
  const bool shareCarrier = channelCount == 2 && carrierWeight == 1.0f;
  for (uint32_t c = 0; c < channelCount; ++c) {
    const uint32_t sc = shareCarrier ? 0 : c;
    float* sRe = carrierRe[sc];
    float* sIm = carrierIm[sc];
    const float* ec = carrierEnvelope[sc];
    if (!(shareCarrier && c == 1)) {
      carrierRings[c].latest(frame, kFrameSize);
      for (uint32_t i = 0; i < kFrameSize; ++i) frame[i] *= window[i];
      fft.forward(frame, sRe, sIm);
      for (uint32_t n = 0; n < kBins; ++n) {
        sRe[n] *= kSpectrumScale;
        sIm[n] *= kSpectrumScale;
      }
      envelopeOf(sRe, sIm, lifterA, carrierEnvelope[c]);
    }

    voiceRings[c].latest(frame, kFrameSize);
    for (uint32_t i = 0; i < kFrameSize; ++i) frame[i] *= window[i];
    fft.forward(frame, voiceRe, voiceIm);
    for (uint32_t n = 0; n < kBins; ++n) {
      voiceRe[n] *= kSpectrumScale;
      voiceIm[n] *= kSpectrumScale;
    }
    envelopeOf(voiceRe, voiceIm, lifterB, voiceEnvelope);

    for (uint32_t n = 0; n < kBins; ++n) {
      float g = voiceExp(2.0f * (voiceEnvelope[n] - ec[n]));
      g = g < kGainFloor ? 0.0f : g;
      voiceRe[n] = g * sRe[n];
      voiceIm[n] = g * sIm[n];
    }
    fft.inverse(voiceRe, voiceIm, frame);
    for (uint32_t i = 0; i < kFrameSize; ++i) frame[i] *= window[i] * 1024.0f;
    voiceRings[c].overlapAdd(frame, kFrameSize, kHop);
  }
}

void VoiceCarrierProcessor::process(float* const* channels, uint32_t blockSize,
                                    uint32_t channelCount) {
  if (channelCount > channelsLaidOut) channelCount = channelsLaidOut;
  if ((pendingFlag & 1u) != 0) {
    if (pendingSettings.carrier != settings.carrier) carrierPosition = 0;
    settings = pendingSettings;
    applySettings();
  }
  if ((pendingFlag & 2u) != 0 && pendingPitchHz != pitchHz) {
    pitchHz = pendingPitchHz;
    designPreFilter(kGlideSamples);
  }
  pendingFlag = 0;

  uint32_t done = 0;
  while (done < blockSize) {
    const uint32_t toFrame = kFrameSize - available;
    const uint32_t n = blockSize - done < toFrame ? blockSize - done : toFrame;

    // One carrier stream for all channels.
    if (settings.carrierLength > 0) {
      const float* source = settings.carrier;
      const uint32_t length = settings.carrierLength;
      uint32_t at = carrierPosition;
      for (uint32_t i = 0; i < n; ++i) {
        carrierIn[i] = source[at];
        at = at + 1 == length ? 0 : at + 1;
      }
      carrierPosition = at;
    } else {
      for (uint32_t i = 0; i < n; ++i) {
        carrierIn[i] = 2.0f * static_cast<float>(nextRandom(random)) / 32767.0f - 1.0f;
      }
    }

    for (uint32_t c = 0; c < channelCount; ++c) {
      float* x = channels[c] + done;
      for (uint32_t i = 0; i < n; ++i) frame[i] = carrierIn[i] * carrierWeight + x[i] * voiceWeight;
      preFilter[c].process(frame, n);
      carrierRings[c].push(frame, n);
      voiceRings[c].push(x, n);
      voiceRings[c].pull(x, n, gain);
    }
    available += n;
    done += n;
    if (available >= kFrameSize) {
      processFrames(channelCount);
      available -= kHop;
    }
  }
}

}  // namespace qor
