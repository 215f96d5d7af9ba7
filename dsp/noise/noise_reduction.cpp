#include "dsp/noise/noise_reduction.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "dsp/core/block_ops.h"
#include "dsp/core/crossfade.h"
#include "dsp/core/instance.h"
#include "dsp/core/levels.h"
#include "dsp/noise/noise_band_table.h"
#include "dsp/noise/real_fft.h"
#include "dsp/noise/spectral_frame_driver.h"

namespace QorNoiseReduction_API_V1 {

namespace {

using Result = QorNoiseReductionResult;

constexpr int32_t kBands = qor::NoiseBandTable::kBands;
constexpr uint32_t kSpectrumLength = 2048;
constexpr float kStartLevelDb = -60.0f;
constexpr float kSnap = 0.00001f;

// One-pole smoother with separate rise and fall coefficients at frame rate.
struct Tracker {
  float hysteresis;
  float rise;
  float fall;

  void setUp(float frameRate, float hysteresisDb, float riseMs, float fallMs) {
    hysteresis = qor::dbToLinear(-std::fabs(hysteresisDb));
    rise = qor::timeConstantCoefficient(frameRate, riseMs);
    fall = qor::timeConstantCoefficient(frameRate, fallMs);
  }
  float update(float y, float x) const {
    const float c = x * hysteresis > y ? rise : fall;
    return (1.0f - c) * y + c * x;
  }
};

struct Settings {
  int32_t enable;
  float maxExpansionDb;
  float expansionRatio;
  float floorDepth;  // 1 - floor gain
  Tracker levelSlow, noiseFloor, gainFast, gainSlow;
};

struct MeteringRecord {
  QorNoiseReductionMeteringPoints points;
  QorMeteringPoint point;
};

struct State {
  qor::ConfigHeader header;
  QorNoiseReductionParameters parameters;
  Settings settings;
  uint8_t meteringEnabled;
  uint32_t frameLength;
  float normalisationDb;  // 20 log10(N / 2)
  float mix;
  float fadeCoefficient;
  int32_t fadeInCount;
  uint64_t marker;
  qor::SpectralFrameDriver driver;
  qor::RealFftSetup* fft;
  void* fftScratch;
  // Per channel, kBands each.
  float* levelSlow;
  float* noiseFloor;
  float* hold;
  float* gainFast;
  float* gainSlow;
  // Work arrays shared by the channels.
  float* timeFrame;
  float* binGain;
  float* re;
  float* im;
  float* bandLevel;
  float* threshold;
  float* gainExponent;
  float* spare;
  float* dry;
  MeteringRecord* metering;
  float* meterData;
};

Result result(int32_t code) { return static_cast<Result>(code); }

int32_t checkConfig(const QorNoiseReductionConfig& c) {
  if (c.inputSampleRate != 44100 && c.inputSampleRate != 48000) return qor::ErrorSampleRate;
  if (c.inputBlockSize != 256 && c.inputBlockSize != 512) return qor::ErrorBlockSize;
  if (c.inputChannels == 0) return qor::ErrorInputChannels;
  if (c.outputChannels == 0 || c.outputChannels != c.inputChannels) return qor::ErrorOutputChannels;
  return qor::Success;
}

int32_t checkParameters(const QorNoiseReductionParameters& p) {
  if (qor::outOfRange(p.reservedLevel, 0.0f, 1000.0f)) return qor::parameterError(1);
  if (qor::outOfRange(p.maxExpansionDb, 0.0f, 40.0f)) return qor::parameterError(2);
  if (qor::outOfRange(p.expansionRatio, 0.0f, 5.0f)) return qor::parameterError(3);
  if (qor::outOfRange(p.reductionFloorDb, -60.0f, 0.0f)) return qor::parameterError(4);
  if (qor::outOfRange(p.crossfadeTime, 0.0f, 100.0f)) return qor::parameterError(0);
  return qor::Success;
}

size_t layOut(void* base, const QorNoiseReductionConfig& config, State** out) {
  qor::InstanceLayout lay(base);
  State* s = lay.take<State>();
  const uint32_t channels = config.inputChannels;
  const uint32_t n = qor::frameLengthForRate(config.inputSampleRate);
  const size_t perChannel = static_cast<size_t>(channels) * kBands;
  qor::frameDriverLayOut(lay, s != nullptr ? &s->driver : nullptr, channels);
  void* fft = lay.takeBytes(qor::fftSetupSize(n));
  void* scratch = lay.takeBytes(qor::fftScratchSize(n));
  float* levelSlow = lay.take<float>(perChannel);
  float* noiseFloor = lay.take<float>(perChannel);
  float* hold = lay.take<float>(perChannel);
  float* gainFast = lay.take<float>(perChannel);
  float* gainSlow = lay.take<float>(perChannel);
  float* timeFrame = lay.take<float>(qor::kFrameStride);
  float* binGain = lay.take<float>(kSpectrumLength);
  float* re = lay.take<float>(kSpectrumLength);
  float* im = lay.take<float>(kSpectrumLength);
  float* bandLevel = lay.take<float>(kBands);
  float* threshold = lay.take<float>(kBands);
  float* gainExponent = lay.take<float>(kBands);
  float* spare = lay.take<float>(kBands);
  float* dry = lay.take<float>(config.inputBlockSize);
  MeteringRecord* metering = nullptr;
  float* meterData = nullptr;
  if (config.meteringEnabled != 0) {
    metering = lay.take<MeteringRecord>();
    meterData = lay.take<float>(3 * kBands);
  }
  if (s != nullptr) {
    s->fft = static_cast<qor::RealFftSetup*>(fft);
    s->fftScratch = scratch;
    s->levelSlow = levelSlow;
    s->noiseFloor = noiseFloor;
    s->hold = hold;
    s->gainFast = gainFast;
    s->gainSlow = gainSlow;
    s->timeFrame = timeFrame;
    s->binGain = binGain;
    s->re = re;
    s->im = im;
    s->bandLevel = bandLevel;
    s->threshold = threshold;
    s->gainExponent = gainExponent;
    s->spare = spare;
    s->dry = dry;
    s->metering = metering;
    s->meterData = meterData;
    *out = s;
  }
  return lay.size();
}

void deriveSettings(State& s, const QorNoiseReductionParameters& p) {
  Settings& t = s.settings;
  t.enable = p.enable != 0 ? 1 : 0;
  t.maxExpansionDb = p.maxExpansionDb;
  t.expansionRatio = p.expansionRatio;
  t.floorDepth = 1.0f - std::pow(10.0f, p.reductionFloorDb / 20.0f);
  // Frames per second with the integer division kept: 92 at 48 kHz, 86 at 44.1 kHz.
  const auto frameRate = static_cast<float>(2 * (s.header.inputSampleRate / s.frameLength));
  t.levelSlow.setUp(frameRate, 0.0f, 5000.0f, 1250.0f);
  t.noiseFloor.setUp(frameRate, 0.0f, 5000.0f, 50.0f);
  t.gainFast.setUp(frameRate, 0.0f, 0.0f, 100.0f);
  t.gainSlow.setUp(frameRate, 0.0f, 100.0f, 1000.0f);
}

// Levels and floors back to -60 dB, gain smoothers open, frames silent.
void resetProcessor(State& s) {
  qor::frameDriverReset(s.driver);
  const size_t count = static_cast<size_t>(s.header.inputChannels) * kBands;
  std::fill_n(s.levelSlow, count, kStartLevelDb);
  std::fill_n(s.noiseFloor, count, kStartLevelDb);
  std::fill_n(s.gainFast, count, 1.0f);
  std::fill_n(s.gainSlow, count, 1.0f);
}

void updateMetering(State& s) {
  if (s.metering == nullptr) return;
  const float silent = qor::linearToDb(0.0f);
  const bool enabled = s.parameters.enable != 0;
  for (int32_t b = 0; b < kBands; ++b) {
    float* t = s.meterData + 3 * b;
    t[0] = enabled ? s.noiseFloor[b] : silent;
    t[1] = enabled ? qor::linearToDb(std::min(s.gainFast[b], s.gainSlow[b])) : silent;
    t[2] = 0.0f;
  }
}

// The frame step for one channel: analyse, per-band expansion, resynthesis.
void processFrame(void* owner, uint32_t channel, const float* inputFrame, float* outputFrame) {
  State& s = *static_cast<State*>(owner);
  const Settings& set = s.settings;
  const qor::NoiseBandTable& bands = qor::noiseBandTable();
  const uint32_t n = s.frameLength, half = n / 2;
  float* re = s.re;
  float* im = s.im;
  float* gain = s.binGain;

  qor::frameDriverAnalyse(s.driver, inputFrame, s.timeFrame);
  qor::fftForward(s.fft, s.timeFrame, re, im, s.fftScratch);

  // Power of bins 0..511 (the bands' range), kept in the gain array for now.
  constexpr int32_t kBandBins = 512;
  for (int32_t j = 0; j < kBandBins; ++j) gain[j] = re[j] * re[j] + im[j] * im[j];
  for (int32_t b = 0; b < kBands; ++b) {
    const float* w = bands.weights[b];
    const float* p = gain + bands.first[b];
    const int32_t count = bands.last[b] - bands.first[b] + 1;
    float energy = 0.0f;
    for (int32_t i = 0; i < count; ++i) energy += p[i] * w[i];
    s.bandLevel[b] = std::max(qor::powerToDb(energy) - s.normalisationDb, -144.0f);
  }

  const size_t base = static_cast<size_t>(channel) * kBands;
  float* slow = s.levelSlow + base;
  float* floorDb = s.noiseFloor + base;
  float* hold = s.hold + base;
  float* fast = s.gainFast + base;
  float* slowGain = s.gainSlow + base;
  for (int32_t b = 0; b < kBands; ++b) {
    const float level = s.bandLevel[b];
    slow[b] = set.levelSlow.update(slow[b], level);
    floorDb[b] = set.noiseFloor.update(floorDb[b], level);
    const float t =
        floorDb[b] + std::min((slow[b] - floorDb[b]) * set.expansionRatio, set.maxExpansionDb);
    s.threshold[b] = t;
    // How far the band stands above its threshold (dB, never positive).
    const float g = level > t ? t - 1.0f - level : 0.0f;
    // The more open of this frame and the last wins.
    const float held = std::min(hold[b], g);
    hold[b] = g;
    s.gainExponent[b] = held;
    const float raw = 1.0f - std::pow(10.0f, held * 0.05f) * set.floorDepth;
    fast[b] = set.gainFast.update(fast[b], raw);
    slowGain[b] = set.gainSlow.update(slowGain[b], raw);
    s.spare[b] = std::min(fast[b], slowGain[b]);
  }

  // Spread the band gains back onto the bins with the same weights.
  std::memset(gain, 0, sizeof(float) * kSpectrumLength);
  for (int32_t b = 0; b < kBands; ++b) {
    const float a = s.spare[b];
    const float* w = bands.weights[b];
    float* g = gain + bands.first[b];
    const int32_t count = bands.last[b] - bands.first[b] + 1;
    for (int32_t i = 0; i < count; ++i) g[i] += a * w[i];
  }
  for (uint32_t j = kBandBins; j < half; ++j) gain[j] = gain[kBandBins - 1];
  gain[half] = 0.0f;  // the Nyquist bin is always removed
  for (uint32_t j = 0; j <= half; ++j) {
    re[j] *= gain[j];
    im[j] *= gain[j];
  }

  qor::fftInverse(s.fft, re, im, s.timeFrame, s.fftScratch);
  qor::frameDriverSynthesise(s.driver, s.timeFrame, outputFrame);
}

}  // namespace

Result qorNoiseReductionGetInstanceSize(const QorNoiseReductionConfig* config, size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorNoiseReductionInit(QorNoiseReductionInst* inst, const QorNoiseReductionConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  s->meteringEnabled = config->meteringEnabled;
  s->frameLength = qor::frameLengthForRate(config->inputSampleRate);
  s->normalisationDb = 20.0f * std::log10(static_cast<float>(s->frameLength / 2));
  qor::frameDriverInit(s->driver, s->frameLength, &processFrame, s);
  if (qor::fftInit(s->fft, s->frameLength) != qor::kFftSuccess) return Result::ErrorProcessing;
  resetProcessor(*s);
  deriveSettings(*s, s->parameters);
  const bool enabled = s->parameters.enable != 0;
  s->mix = enabled ? 1.0f : 0.0f;
  s->fadeInCount = 0;
  s->fadeCoefficient = qor::settleCoefficient(static_cast<float>(config->inputSampleRate),
                                              s->parameters.crossfadeTime, -100.0f);
  if (s->metering != nullptr) {
    s->metering->point = {s->meterData, static_cast<uint32_t>(kBands)};
    s->metering->points.points[0] = &s->metering->point;
    updateMetering(*s);
  }

  s->marker = qor::kInitMarker;
  QorNoiseReductionParameters initial = s->parameters;
  if (const Result rc = qorNoiseReductionUpdateParameters(inst, &initial); rc != Result::Success) {
    s->marker = 0;
    return rc;
  }
  return Result::Success;
}

Result qorNoiseReductionGetDefaultParameters(QorNoiseReductionParameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  *parameters = {75.0f, 25.0f, 2.5f, -20.0f, 1, 50.0f};
  return Result::Success;
}

Result qorNoiseReductionGetParameters(QorNoiseReductionInst* inst,
                                      QorNoiseReductionParameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

Result qorNoiseReductionUpdateParameters(QorNoiseReductionInst* inst,
                                         QorNoiseReductionParameters* parameters) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(*parameters); rc != 0) return result(rc);
  deriveSettings(*s, *parameters);
  s->parameters = *parameters;
  return Result::Success;
}

Result qorNoiseReductionProcess(QorNoiseReductionInst* inst, float** channels) {
  State* s = qor::stateOf<State>(inst);
  const uint32_t channelCount = s != nullptr ? s->header.inputChannels : 0;
  if (const int32_t rc = qor::checkProcess(s, channels, channelCount); rc != 0) return result(rc);

  const uint32_t block = s->header.inputBlockSize;
  const auto n = static_cast<int32_t>(s->frameLength);
  const bool enabled = s->settings.enable != 0;
  const float start = s->mix;
  const bool active = enabled || start > kSnap;
  if (active) {
    const bool fadingIn = enabled && start < 1.0f;
    const bool fadingOut = !enabled && start > 0.0f;
    const bool crossfading = fadingIn || fadingOut;
    // While fading in, the target waits at 0 until the analysis frames hold
    // real signal.
    const float target = !enabled || (fadingIn && s->fadeInCount <= n) ? 0.0f : 1.0f;
    for (uint32_t c = 0; c < channelCount; ++c) {
      float* x = channels[c];
      if (crossfading) qor::copyBlock(x, s->dry, block);
      if (qor::frameDriverProcess(s->driver, c, x, x, block) != 0) return Result::ErrorProcessing;
      if (crossfading) {
        float m = start;
        qor::crossfade(x, s->dry, x, m, target, s->fadeCoefficient, block);
        s->mix = m;
      }
      if (fadingIn && 1.0f - s->mix < kSnap) s->mix = 1.0f;
      if (fadingOut && s->mix < kSnap) {
        resetProcessor(*s);
        s->fadeInCount = 0;
        s->mix = 0.0f;
      }
    }
    if (fadingIn && s->fadeInCount <= n) s->fadeInCount += static_cast<int32_t>(block);
  }
  updateMetering(*s);
  return Result::Success;
}

Result qorNoiseReductionFlush(QorNoiseReductionInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  resetProcessor(*s);
  return Result::Success;
}

Result qorNoiseReductionRelease(QorNoiseReductionInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  s->marker = 0;
  return Result::Success;
}

Result qorNoiseReductionGetCurrentLatency(QorNoiseReductionInst* inst, int* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  *latency = s->mix == 0.0f
                 ? 0
                 : static_cast<int>(s->frameLength) - static_cast<int>(s->header.inputBlockSize);
  return Result::Success;
}

Result qorNoiseReductionGetMeteringPoints(const QorNoiseReductionInst* const inst,
                                          const QorNoiseReductionMeteringPoints** points) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, points); rc != 0) return result(rc);
  if (s->meteringEnabled == 0) return Result::ErrorMeteringDisabled;
  *points = &s->metering->points;
  return Result::Success;
}

}  // namespace QorNoiseReduction_API_V1
