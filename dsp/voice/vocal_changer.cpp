#include "dsp/voice/vocal_changer.h"

#include <cmath>
#include <cstring>

#include "dsp/core/block_ops.h"
#include "dsp/core/bypass.h"
#include "dsp/core/cookbook_biquad.h"
#include "dsp/core/instance.h"
#include "dsp/voice/carriers.h"
#include "dsp/voice/detune_stage.h"
#include "dsp/voice/voice_carrier_processor.h"
#include "dsp/voice/voice_pitch_shifter.h"
#include "dsp/voice/voice_spectral_processor.h"

namespace QorVocalChanger_API_V1 {

namespace {

using Result = QorVocalChangerResult;

constexpr uint32_t kMaxChannels = 2;
constexpr int32_t kFilterRamp = 64;
constexpr double kButterworthQ = 0.70710678118654752;
constexpr float kWarpReference = 46.875f;         // lifter 1024 at 48 kHz
constexpr float kWarpReferenceCombined = 480.0f;  // lifter 100 for type 3
constexpr float kCarrierPitchBase = 440.0f;

// The part of the parameters that reconfigures the voices; compared as
// bytes, so it is always built from a zeroed record.
struct VoiceSettings {
  int32_t type[2];
  float pitch[2];
  float level[2];
  uint8_t detuneEnable;
  float detuneDelayMs;
  float detuneDepthPercent;
  float detuneRateHz;
  float detuneCents;
  float detunePitchRateHz;
};
static_assert(sizeof(VoiceSettings) == 48);

struct CarrierVoice {
  float primaryHz;
  float secondaryHz;
  int32_t carrier;  // -1 none (white noise), 0 tone, 7..12
  float gainDb;
  float mix;
};

// Carrier-driven voice types 6..14.
constexpr CarrierVoice kCarrierVoices[9] = {
    {1600.0f, 800.0f, -1, -6.0f, 1.0f},  // 6
    {480.0f, 400.0f, 7, 0.0f, 1.0f},     // 7
    {480.0f, 320.0f, 8, 0.0f, 1.0f},     // 8
    {960.0f, 240.0f, 9, 0.0f, 1.0f},     // 9
    {480.0f, 320.0f, 10, 0.0f, 1.0f},    // 10
    {800.0f, 400.0f, 11, 0.0f, 1.0f},    // 11
    {800.0f, 384.0f, 12, 0.0f, 1.0f},    // 12
    {400.0f, 4800.0f, 0, 0.0f, 0.95f},   // 13
    {400.0f, 4800.0f, 0, 6.0f, 1.0f},    // 14
};

qor::CarrierData carrierData(int32_t id) {
  switch (id) {
    case 0: return qor::CarrierTone;
    case 7: return qor::Carrier7;
    case 8: return qor::Carrier8;
    case 9: return qor::Carrier9;
    case 10: return qor::Carrier10;
    case 11: return qor::Carrier11;
    case 12: return qor::Carrier12;
    default: return {nullptr, 0};
  }
}

int32_t mapType(int32_t type) { return type >= 1 && type <= 14 ? type : 0; }
bool isCarrierType(int32_t type) { return type >= 6 && type <= 14; }

struct Voice {
  qor::VoiceSpectralProcessor spectral;
  qor::VoicePitchShifter shifter;
  qor::VoiceCarrierProcessor carrier;
  qor::CookbookBiquad highPass[kMaxChannels];
  qor::CookbookBiquad lowPass[kMaxChannels];
};

struct State {
  qor::ConfigHeader header;
  QorVocalChangerParameters parameters;
  qor::BypassFade fade;
  float sampleRate;
  uint8_t stereo;
  uint8_t pendingFlag;
  VoiceSettings current;
  VoiceSettings pending;
  float gain1;
  float gain2;
  uint64_t marker;
  float* work[kMaxChannels];  // voice 2's copy of the input
  float* dry[kMaxChannels];   // bypass crossfade
  Voice voices[2];
  qor::DetuneStage detune;
};

Result result(int32_t code) { return static_cast<Result>(code); }

int32_t checkConfig(const QorVocalChangerConfig& c) {
  if (c.inputSampleRate != 44100 && c.inputSampleRate != 48000) return qor::ErrorSampleRate;
  if (c.inputBlockSize < 128 || c.inputBlockSize > 4096) return qor::ErrorBlockSize;
  if (c.inputChannels < 1 || c.inputChannels > 2) return qor::ErrorInputChannels;
  if (c.outputChannels < 1 || c.outputChannels > 2 || c.outputChannels != c.inputChannels) {
    return qor::ErrorOutputChannels;
  }
  return qor::Success;
}

int32_t checkParameters(const QorVocalChangerParameters& p) {
  using qor::outOfRange;
  using qor::parameterError;
  if (outOfRange(p.voice1PitchCents, -2400.0f, 2400.0f)) return parameterError(2);
  if (outOfRange(p.voice2PitchCents, -2400.0f, 2400.0f)) return parameterError(4);
  if (outOfRange(p.voice1LevelDb, -60.0f, 0.0f)) return parameterError(5);
  if (outOfRange(p.voice2LevelDb, -60.0f, 0.0f)) return parameterError(6);
  if (outOfRange(p.detuneDelayMs, 0.0f, 100.0f)) return parameterError(7);
  if (outOfRange(p.detuneDepthPercent, 0.0f, 100.0f)) return parameterError(8);
  if (outOfRange(p.detuneRateHz, 0.0f, 2.0f)) return parameterError(9);
  if (outOfRange(p.detuneCents, -600.0f, 600.0f)) return parameterError(10);
  if (outOfRange(p.detunePitchRateHz, 0.0f, 2.0f)) return parameterError(11);
  if (outOfRange(p.crossfadeTime, 0.0f, 100.0f)) return parameterError(0);
  return qor::Success;
}

size_t layOut(void* base, const QorVocalChangerConfig& config, State** out) {
  qor::InstanceLayout lay(base);
  State* s = lay.take<State>();
  // Every processor is sized for two channels so nothing depends on the
  // voice types chosen later.
  for (uint32_t v = 0; v < 2; ++v) {
    Voice* voice = s != nullptr ? &s->voices[v] : nullptr;
    qor::VoiceSpectralProcessor::layOut(lay, voice != nullptr ? &voice->spectral : nullptr, kMaxChannels);
    qor::VoicePitchShifter::layOut(lay, voice != nullptr ? &voice->shifter : nullptr, kMaxChannels);
    qor::VoiceCarrierProcessor::layOut(lay, voice != nullptr ? &voice->carrier : nullptr, kMaxChannels);
  }
  qor::DetuneStage::carve(lay, s != nullptr ? &s->detune : nullptr, config.inputSampleRate);
  for (uint32_t c = 0; c < config.inputChannels; ++c) {
    float* work = lay.take<float>(config.inputBlockSize);
    float* dry = lay.take<float>(config.inputBlockSize);
    if (s != nullptr) {
      s->work[c] = work;
      s->dry[c] = dry;
    }
  }
  if (s != nullptr) *out = s;
  return lay.size();
}

void resetVoice(Voice& voice) {
  voice.spectral.reset();
  voice.shifter.reset();
  voice.carrier.reset();
  for (uint32_t c = 0; c < kMaxChannels; ++c) {
    voice.highPass[c].reset();
    voice.lowPass[c].reset();
  }
}

// Processor set-up for a voice type; the pitch-dependent parts follow.
void configureType(Voice& voice, int32_t type) {
  switch (type) {
    case 4: voice.shifter.setMode(qor::kVoicePitchPhaseFree); break;
    case 5: voice.shifter.setMode(qor::kVoicePitchRandomPhase); break;
    default: voice.shifter.setMode(qor::kVoicePitchNatural); break;
  }
  if (isCarrierType(type)) {
    const CarrierVoice& cv = kCarrierVoices[type - 6];
    const qor::CarrierData data = carrierData(cv.carrier);
    voice.carrier.setSettings({cv.primaryHz, cv.secondaryHz, cv.mix, data.samples, data.length, cv.gainDb});
  }
}

void applySettings(State& s, const VoiceSettings& next, bool forced) {
  const float fs = s.sampleRate;
  for (uint32_t v = 0; v < 2; ++v) {
    Voice& voice = s.voices[v];
    const int32_t type = next.type[v];
    const float pitch = next.pitch[v];
    const float ratio = std::exp2(pitch / 1200.0f);
    const bool typeChanged = forced || type != s.current.type[v];
    const bool pitchChanged = forced || pitch != s.current.pitch[v];

    if (typeChanged) {
      configureType(voice, type);
      resetVoice(voice);
      if (v == 1) s.detune.reset();  // part of voice 2: a new voice starts clean
    }

    // Band limits move outwards with the shift so the shifted voice stays
    // inside 50 Hz .. 12 kHz.
    const float spread = std::exp2(std::fabs(pitch) / 1200.0f);
    const int32_t ramp = forced ? 0 : kFilterRamp;
    for (uint32_t c = 0; c < kMaxChannels; ++c) {
      voice.highPass[c].design(qor::kCookbookHighPass, 50.0 * spread, fs, kButterworthQ, 0.0, 0.0, ramp);
      voice.lowPass[c].design(qor::kCookbookLowPass, 12000.0 / spread, fs, kButterworthQ, 0.0, 0.0, ramp);
    }

    if (type == 3) {
      voice.spectral.setWarp(1.0f / ratio, kWarpReferenceCombined);
    } else {
      voice.spectral.setWarp(ratio, kWarpReference);
    }

    if (pitchChanged || typeChanged) {
      voice.shifter.setRatio(ratio);
      // Voice 1's pitch decides for both voices whether the pre-filter
      // follows the pitch; kept as the product has always behaved.
      voice.carrier.setPitchFrequency(next.pitch[0] != 0.0f ? kCarrierPitchBase * ratio : 0.0f);
    }
  }

  s.gain1 = std::pow(10.0f, next.level[0] / 20.0f);
  s.gain2 = std::pow(10.0f, next.level[1] / 20.0f);

  qor::DetuneSettings detune{};
  detune.sampleRate = fs;
  detune.baseDelayMs = next.detuneDelayMs + 2000.0f / fs;  // never below two samples
  detune.depthMs = next.detuneDelayMs * next.detuneDepthPercent / 100.0f;
  detune.delayRateHz = next.detuneRateHz;
  detune.centreCents = next.detuneCents / 2.0f;
  detune.spreadCents = next.detuneCents / 2.0f;
  detune.pitchRateHz = next.detunePitchRateHz;
  detune.channels = s.stereo != 0 ? 2 : 1;
  detune.gain1Db = -200.0f;
  detune.gain2Db = 0.0f;
  s.detune.setSettings(detune);

  s.current = next;
}

VoiceSettings settingsOf(const QorVocalChangerParameters& p) {
  VoiceSettings v;
  std::memset(&v, 0, sizeof v);
  v.type[0] = mapType(p.voice1Type);
  v.type[1] = mapType(p.voice2Type);
  v.pitch[0] = p.voice1PitchCents;
  v.pitch[1] = p.voice2PitchCents;
  v.level[0] = p.voice1LevelDb;
  v.level[1] = p.voice2LevelDb;
  v.detuneEnable = p.detuneEnable;
  v.detuneDelayMs = p.detuneDelayMs;
  v.detuneDepthPercent = p.detuneDepthPercent;
  v.detuneRateHz = p.detuneRateHz;
  v.detuneCents = p.detuneCents;
  v.detunePitchRateHz = p.detunePitchRateHz;
  return v;
}

// Fresh core for the configured rate and channels: all history cleared and
// the neutral settings (both voices dry) applied.
int32_t initCore(State& s) {
  s.sampleRate = static_cast<float>(s.header.inputSampleRate);
  s.stereo = s.header.inputChannels == 2 ? 1 : 0;
  for (Voice& voice : s.voices) {
    if (voice.spectral.init(s.sampleRate) != 0) return qor::ErrorProcessing;
    if (voice.shifter.init(s.sampleRate) != 0) return qor::ErrorProcessing;
    if (voice.carrier.init(s.sampleRate) != 0) return qor::ErrorProcessing;
  }
  s.detune.init();
  for (uint32_t c = 0; c < s.header.inputChannels; ++c) {
    qor::zeroBlock(s.work[c], s.header.inputBlockSize);
    qor::zeroBlock(s.dry[c], s.header.inputBlockSize);
  }
  std::memset(&s.current, 0, sizeof s.current);
  std::memset(&s.pending, 0, sizeof s.pending);
  s.pendingFlag = 0;
  applySettings(s, s.current, true);
  return qor::Success;
}

void bandLimit(Voice& voice, float* const* channels, uint32_t count, uint32_t n) {
  for (uint32_t c = 0; c < count; ++c) {
    voice.highPass[c].process(channels[c], n);
    voice.lowPass[c].process(channels[c], n);
  }
}

void runVoice(Voice& voice, int32_t type, float* const* channels, uint32_t count, uint32_t n) {
  switch (type) {
    case 0:
      break;
    case 1:
      bandLimit(voice, channels, count, n);
      voice.spectral.process(channels, n, count);
      break;
    case 3:
      bandLimit(voice, channels, count, n);
      voice.spectral.process(channels, n, count);
      voice.shifter.process(channels, n, count);
      break;
    default:
      if (isCarrierType(type)) {
        voice.carrier.process(channels, n, count);
      } else {
        bandLimit(voice, channels, count, n);
        voice.shifter.process(channels, n, count);
      }
      break;
  }
}

void processCore(State& s, float* const* channels) {
  const uint32_t count = s.header.inputChannels;
  const uint32_t n = s.header.inputBlockSize;
  if (s.pendingFlag != 0) {
    applySettings(s, s.pending, false);
    s.pendingFlag = 0;
  }
  const int32_t type2 = s.current.type[1];
  if (type2 != 0) {
    for (uint32_t c = 0; c < count; ++c) qor::copyBlock(channels[c], s.work[c], n);
  }
  runVoice(s.voices[0], s.current.type[0], channels, count, n);
  // Voice 1 alone is the output as it stands, without its level.
  if (type2 == 0) return;

  runVoice(s.voices[1], type2, s.work, count, n);
  if (s.current.detuneEnable != 0) s.detune.process(s.work, count, n);
  const float g1 = s.gain1;
  const float g2 = s.gain2;
  for (uint32_t c = 0; c < count; ++c) {
    float* out = channels[c];
    const float* second = s.work[c];
    for (uint32_t i = 0; i < n; ++i) out[i] = out[i] * g1 + second[i] * g2;
  }
}

int32_t latencyOfType(int32_t type) {
  switch (type) {
    case 0: return 0;
    case 1: return qor::VoiceSpectralProcessor::kLatency;
    case 2:
    case 4:
    case 5: return qor::VoicePitchShifter::kLatency;
    case 3: return qor::VoiceSpectralProcessor::kLatency + qor::VoicePitchShifter::kLatency;
    default: return qor::VoiceCarrierProcessor::kLatency;
  }
}

}  // namespace

Result qorVocalChangerGetInstanceSize(const QorVocalChangerConfig* config, size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorVocalChangerInit(QorVocalChangerInst* inst, const QorVocalChangerConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  if (const int32_t rc = initCore(*s); rc != 0) return result(rc);

  s->marker = qor::kInitMarker;
  QorVocalChangerParameters initial = config->parameters;
  if (const Result rc = qorVocalChangerUpdateParameters(inst, &initial); rc != Result::Success) {
    s->marker = 0;
    return rc;
  }
  s->fade.init(s->parameters.enable != 0, s->parameters.crossfadeTime, s->sampleRate);
  return Result::Success;
}

Result qorVocalChangerGetDefaultParameters(QorVocalChangerParameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  QorVocalChangerParameters p;
  std::memset(&p, 0, sizeof p);
  p.voice1Type = 0;
  p.voice1PitchCents = 0.0f;
  p.voice2Type = 0;
  p.voice2PitchCents = 0.0f;
  p.voice1LevelDb = 0.0f;
  p.voice2LevelDb = -3.0f;
  p.detuneEnable = 1;
  p.detuneDelayMs = 0.0f;
  p.detuneDepthPercent = 0.0f;
  p.detuneRateHz = 0.0f;
  p.detuneCents = 0.0f;
  p.detunePitchRateHz = 0.0f;
  p.enable = 1;
  p.crossfadeTime = 50.0f;
  *parameters = p;
  return Result::Success;
}

Result qorVocalChangerGetParameters(QorVocalChangerInst* inst, QorVocalChangerParameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

Result qorVocalChangerUpdateParameters(QorVocalChangerInst* inst, QorVocalChangerParameters* parameters) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(*parameters); rc != 0) return result(rc);
  s->parameters = *parameters;
  const VoiceSettings next = settingsOf(*parameters);
  if (std::memcmp(&next, &s->current, sizeof next) != 0) {
    s->pending = next;
    s->pendingFlag = 1;
  } else {
    // Back to what is in force: a change staged earlier is dropped.
    s->pendingFlag = 0;
  }
  s->fade.setTime(s->parameters.crossfadeTime, s->sampleRate);
  return Result::Success;
}

Result qorVocalChangerProcess(QorVocalChangerInst* inst, float** channels) {
  State* s = qor::stateOf<State>(inst);
  const uint32_t count = s != nullptr ? s->header.inputChannels : 0;
  if (const int32_t rc = qor::checkProcess(s, channels, count); rc != 0) return result(rc);

  const bool enabled = s->parameters.enable != 0;
  if (!s->fade.active(enabled)) return Result::Success;
  const uint32_t n = s->header.inputBlockSize;
  if (s->fade.transition(enabled)) qor::BypassFade::keepDry(channels, s->dry, count, n);
  processCore(*s, channels);
  if (s->fade.finish(enabled, channels, s->dry, count, n)) {
    return qorVocalChangerFlush(inst);
  }
  return Result::Success;
}

Result qorVocalChangerFlush(QorVocalChangerInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  if (const int32_t rc = initCore(*s); rc != 0) return result(rc);
  QorVocalChangerParameters again = s->parameters;
  return qorVocalChangerUpdateParameters(inst, &again);
}

Result qorVocalChangerRelease(QorVocalChangerInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  for (Voice& voice : s->voices) resetVoice(voice);
  s->detune.reset();
  s->marker = 0;
  return Result::Success;
}

Result qorVocalChangerGetCurrentLatency(QorVocalChangerInst* inst, int* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  // Voice 2's type is deliberately left out.
  *latency = s->fade.mix == 0.0f ? 0 : latencyOfType(s->current.type[0]);
  return Result::Success;
}

}  // namespace QorVocalChanger_API_V1
