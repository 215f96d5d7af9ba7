#include "qor_process/parameter_fields.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <type_traits>
#include <utility>

namespace qor::tools {

namespace {

using QorCalvera2_API_V1::QorCalvera2Parameters;

template <class T>
constexpr FieldType kindOf() {
  if constexpr (std::is_same_v<T, float>) return FieldType::Float;
  else if constexpr (std::is_same_v<T, int32_t>) return FieldType::Int32;
  else if constexpr (std::is_same_v<T, uint32_t>) return FieldType::UInt32;
  else {
    static_assert(std::is_same_v<T, uint8_t>, "unexpected field type");
    return FieldType::Flag;
  }
}

// The type comes from the record itself, so the table cannot disagree with it.
#define QOR_FIELD(member, lo, hi, meaning)                                                  \
  ParameterField {                                                                          \
    #member, kindOf<decltype(std::declval<QorCalvera2Parameters&>().member)>(),             \
        offsetof(QorCalvera2Parameters, member), lo, hi, meaning                            \
  }
#define QOR_FLAG(member, meaning) QOR_FIELD(member, 0, 1, meaning)

const ParameterField kFields[] = {
    QOR_FIELD(outputGain, -100, 12, "dB, gain at the chain's output"),
    QOR_FIELD(crossfadeTime, 0, 100, "ms, chain on/off crossfade"),
    QOR_FLAG(enable, "chain on"),

    QOR_FIELD(highPassFilter.order, 1, 2, "Butterworth order"),
    QOR_FIELD(highPassFilter.cutoffFrequency, 20, 400, "Hz"),
    QOR_FLAG(highPassFilter.enable, "stage on"),
    QOR_FIELD(highPassFilter.crossfadeTime, 0, 500, "ms, bypass crossfade"),

    QOR_FIELD(noiseReduction.reservedLevel, 0, 1000, "stored only"),
    QOR_FIELD(noiseReduction.maxExpansionDb, 0, 40, "dB, largest expansion"),
    QOR_FIELD(noiseReduction.expansionRatio, 0, 5, "expansion factor"),
    QOR_FIELD(noiseReduction.reductionFloorDb, -60, 0, "dB, deepest attenuation of a noise band"),
    QOR_FLAG(noiseReduction.enable, "stage on"),
    QOR_FIELD(noiseReduction.crossfadeTime, 0, 100, "ms, bypass crossfade"),

    QOR_FIELD(gatingCompressor.gateThreshold, -80, -6, "dB"),
    QOR_FIELD(gatingCompressor.gateFloor, -60, 0, "dB, lowest gate gain"),
    QOR_FIELD(gatingCompressor.gateAttack, 0, 200, "ms"),
    QOR_FIELD(gatingCompressor.gateRelease, 50, 1000, "ms"),
    QOR_FIELD(gatingCompressor.gateHold, 0, 200, "ms"),
    QOR_FIELD(gatingCompressor.compressorThreshold, -40, 0, "dB"),
    QOR_FIELD(gatingCompressor.compressorRatio, 1, 20, "ratio"),
    QOR_FIELD(gatingCompressor.compressorInputGain, -12, 12, "dB"),
    QOR_FIELD(gatingCompressor.compressorMakeupGain, -12, 12, "dB"),
    QOR_FIELD(gatingCompressor.compressorAttack, 0, 200, "ms"),
    QOR_FIELD(gatingCompressor.compressorRelease, 50, 1000, "ms"),
    QOR_FLAG(gatingCompressor.gateEnable, "gate on"),
    QOR_FLAG(gatingCompressor.compressorEnable, "compressor on"),
    QOR_FLAG(gatingCompressor.enable, "stage on"),
    QOR_FIELD(gatingCompressor.crossfadeTime, 0, 250, "ms, bypass crossfade"),

    QOR_FIELD(multiBandEqualiser.highPassFrequency, 5, 500, "Hz"),
    QOR_FIELD(multiBandEqualiser.highPassOrder, 0, 2, "0 off, 1 or 2 Butterworth order"),
    QOR_FIELD(multiBandEqualiser.band1Frequency, 5, 500, "Hz"),
    QOR_FIELD(multiBandEqualiser.band1Gain, -12, 12, "dB"),
    QOR_FIELD(multiBandEqualiser.band1Q, 0.5, 10, "Q"),
    QOR_FIELD(multiBandEqualiser.band2Frequency, 400, 5000, "Hz"),
    QOR_FIELD(multiBandEqualiser.band2Gain, -12, 12, "dB"),
    QOR_FIELD(multiBandEqualiser.band2Q, 0.5, 10, "Q"),
    QOR_FIELD(multiBandEqualiser.band3Frequency, 1000, 12000, "Hz"),
    QOR_FIELD(multiBandEqualiser.band3Gain, -12, 12, "dB"),
    QOR_FIELD(multiBandEqualiser.band3Q, 0.5, 10, "Q"),
    QOR_FIELD(multiBandEqualiser.lowPassFrequency, 1000, 20000, "Hz"),
    QOR_FIELD(multiBandEqualiser.lowPassOrder, 0, 2, "0 off, 1 or 2 Butterworth order"),
    QOR_FLAG(multiBandEqualiser.enable, "stage on"),
    QOR_FIELD(multiBandEqualiser.crossfadeTime, 0, 250, "ms, bypass crossfade"),

    QOR_FIELD(multiBandCompressor.lowThreshold, -50, 0, "dB"),
    QOR_FIELD(multiBandCompressor.highThreshold, -50, 0, "dB"),
    QOR_FIELD(multiBandCompressor.lowCrossoverFrequency, 60, 1000, "Hz"),
    QOR_FIELD(multiBandCompressor.lowCrossoverQ, 0.25, 20, "Q"),
    QOR_FIELD(multiBandCompressor.lowGainFloor, -60, 0, "dB"),
    QOR_FIELD(multiBandCompressor.highCrossoverFrequency, 1000, 10000, "Hz"),
    QOR_FIELD(multiBandCompressor.highCrossoverQ, 0.25, 20, "Q"),
    QOR_FIELD(multiBandCompressor.highGainFloor, -60, 0, "dB"),
    QOR_FIELD(multiBandCompressor.lowAttack, 0, 200, "ms"),
    QOR_FIELD(multiBandCompressor.ratio, 1, 20, "ratio, both bands"),
    QOR_FIELD(multiBandCompressor.lowRelease, 20, 1000, "ms"),
    QOR_FIELD(multiBandCompressor.highAttack, 0, 200, "ms"),
    QOR_FIELD(multiBandCompressor.highRelease, 20, 1000, "ms"),
    QOR_FIELD(multiBandCompressor.crossfadeTime, 0, 250, "ms, bypass crossfade"),
    QOR_FLAG(multiBandCompressor.enable, "stage on"),
    QOR_FLAG(multiBandCompressor.lowBandEnable, "low band on"),
    QOR_FLAG(multiBandCompressor.highBandEnable, "high band on"),

    QOR_FIELD(vocalChanger.voice1Type, 0, 14, "voice type, 0 = dry"),
    QOR_FIELD(vocalChanger.voice1PitchCents, -2400, 2400, "cents"),
    QOR_FIELD(vocalChanger.voice2Type, 0, 14, "voice type, 0 = off"),
    QOR_FIELD(vocalChanger.voice2PitchCents, -2400, 2400, "cents"),
    QOR_FIELD(vocalChanger.voice1LevelDb, -60, 0, "dB"),
    QOR_FIELD(vocalChanger.voice2LevelDb, -60, 0, "dB"),
    QOR_FLAG(vocalChanger.detuneEnable, "voice 2 detune on"),
    QOR_FIELD(vocalChanger.detuneDelayMs, 0, 100, "ms"),
    QOR_FIELD(vocalChanger.detuneDepthPercent, 0, 100, "%"),
    QOR_FIELD(vocalChanger.detuneRateHz, 0, 2, "Hz"),
    QOR_FIELD(vocalChanger.detuneCents, -600, 600, "cents"),
    QOR_FIELD(vocalChanger.detunePitchRateHz, 0, 2, "Hz"),
    QOR_FLAG(vocalChanger.enable, "stage on"),
    QOR_FIELD(vocalChanger.crossfadeTime, 0, 100, "ms, bypass crossfade"),

    QOR_FIELD(flangerPhaser.mode, 0, 5, "0-2 flangers, 3-5 phasers"),
    QOR_FIELD(flangerPhaser.depth, 0, 1, "depth"),
    QOR_FIELD(flangerPhaser.rate, 0, 5, "Hz"),
    QOR_FIELD(flangerPhaser.crossfadeTime, 0, 100, "ms, bypass crossfade"),
    QOR_FLAG(flangerPhaser.enable, "stage on"),

    QOR_FIELD(ringModulator.mix, 0, 1, "share of the modulated signal"),
    QOR_FIELD(ringModulator.waveform, 0, 4, "0 sine, 1 triangle, 2 ramp, 3 square, 4 half-wave cosine"),
    QOR_FIELD(ringModulator.frequency, 1, 2000, "Hz, carrier"),
    QOR_FIELD(ringModulator.crossfadeTime, 0, 250, "ms, bypass crossfade"),
    QOR_FLAG(ringModulator.enable, "stage on"),

    QOR_FIELD(hardLimiter.attack, 0, 10, "ms"),
    QOR_FIELD(hardLimiter.release, 10, 500, "ms"),
    QOR_FIELD(hardLimiter.inputGain, -20, 20, "dB"),
    QOR_FIELD(hardLimiter.crossfadeTime, 0, 250, "ms, bypass crossfade"),
    QOR_FLAG(hardLimiter.enable, "stage on"),

    QOR_FIELD(reverb.earlyLateBalance, 0, 1, "0 early reflections .. 1 late tail"),
    QOR_FIELD(reverb.roomType, 0, 9, "room table"),
    QOR_FIELD(reverb.reflectionsCutoffHz, 10, 10000, "Hz"),
    QOR_FIELD(reverb.roomSize, 0.01, 1, "size scale"),
    QOR_FIELD(reverb.lowDecayMs, 100, 6000, "ms"),
    QOR_FIELD(reverb.crossoverHz, 100, 10000, "Hz"),
    QOR_FIELD(reverb.highDecayMs, 100, 6000, "ms"),
    QOR_FIELD(reverb.mix, 0, 1, "wet share"),
    QOR_FIELD(reverb.crossfadeTime, 0, 250, "ms, bypass crossfade"),
    QOR_FLAG(reverb.enable, "stage on"),

    QOR_FIELD(delay.routing, 0, 3, "0 straight, 1 crossed, 2 both into A, 3 both into B"),
    QOR_FIELD(delay.pingPong, 0, 1, "1 = lines feed each other"),
    QOR_FIELD(delay.filterPreset, 0, 2, "feedback band: 0 wide, 1 low, 2 mid"),
    QOR_FIELD(delay.delayTimeLeftMs, 10, 2000, "ms"),
    QOR_FIELD(delay.delayTimeRightMs, 10, 2000, "ms"),
    QOR_FIELD(delay.feedback, 0, 0.6, "feedback gain"),
    QOR_FIELD(delay.mix, 0, 1, "wet share"),
    QOR_FIELD(delay.crossfadeTime, 0, 100, "ms, bypass crossfade"),
    QOR_FLAG(delay.enable, "stage on"),
};

#undef QOR_FLAG
#undef QOR_FIELD

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

bool parseNumber(std::string_view text, double& out) {
  const std::string s(text);
  if (s.empty()) return false;
  char* end = nullptr;
  out = std::strtod(s.c_str(), &end);
  return end == s.c_str() + s.size() && std::isfinite(out);
}

std::string formatNumber(double v) {
  std::ostringstream o;
  o << v;
  return o.str();
}

}  // namespace

std::span<const ParameterField> parameterFields() { return kFields; }

const ParameterField* findParameterField(std::string_view path) {
  for (const ParameterField& f : kFields) {
    if (path == f.path) return &f;
  }
  return nullptr;
}

const char* typeName(FieldType type) {
  switch (type) {
    case FieldType::Float: return "float";
    case FieldType::Int32: return "int32";
    case FieldType::UInt32: return "uint32";
    case FieldType::Flag: return "flag";
  }
  return "?";
}

bool setParameterField(QorCalvera2_API_V1::QorCalvera2Parameters& p, const ParameterField& f,
                       std::string_view text, std::string& error) {
  text = trim(text);
  double v = 0.0;
  if (f.type == FieldType::Flag) {
    if (text == "on" || text == "true" || text == "yes") {
      v = 1.0;
    } else if (text == "off" || text == "false" || text == "no") {
      v = 0.0;
    } else if (!parseNumber(text, v) || (v != 0.0 && v != 1.0)) {
      error = std::string(f.path) + ": '" + std::string(text) + "' is not a flag (use 0/1, on/off)";
      return false;
    }
  } else if (!parseNumber(text, v)) {
    error = std::string(f.path) + ": '" + std::string(text) + "' is not a number";
    return false;
  } else if (f.type != FieldType::Float && v != std::floor(v)) {
    error = std::string(f.path) + ": '" + std::string(text) + "' is not a whole number";
    return false;
  }
  if (v < f.min || v > f.max) {
    error = std::string(f.path) + ": " + std::string(text) + " is out of range " + formatNumber(f.min) +
            " .. " + formatNumber(f.max);
    return false;
  }
  auto* base = reinterpret_cast<unsigned char*>(&p) + f.offset;
  switch (f.type) {
    case FieldType::Float: {
      const float x = static_cast<float>(v);
      std::memcpy(base, &x, sizeof x);
      break;
    }
    case FieldType::Int32: {
      const int32_t x = static_cast<int32_t>(v);
      std::memcpy(base, &x, sizeof x);
      break;
    }
    case FieldType::UInt32: {
      const uint32_t x = static_cast<uint32_t>(v);
      std::memcpy(base, &x, sizeof x);
      break;
    }
    case FieldType::Flag:
      *base = v != 0.0 ? 1 : 0;
      break;
  }
  return true;
}

std::string formatParameterField(const QorCalvera2_API_V1::QorCalvera2Parameters& p, const ParameterField& f) {
  const auto* base = reinterpret_cast<const unsigned char*>(&p) + f.offset;
  switch (f.type) {
    case FieldType::Float: {
      float x;
      std::memcpy(&x, base, sizeof x);
      return formatNumber(x);
    }
    case FieldType::Int32: {
      int32_t x;
      std::memcpy(&x, base, sizeof x);
      return std::to_string(x);
    }
    case FieldType::UInt32: {
      uint32_t x;
      std::memcpy(&x, base, sizeof x);
      return std::to_string(x);
    }
    case FieldType::Flag:
      return *base != 0 ? "1" : "0";
  }
  return "?";
}

bool applySetting(QorCalvera2_API_V1::QorCalvera2Parameters& p, std::string_view setting, std::string& error) {
  const size_t eq = setting.find('=');
  if (eq == std::string_view::npos) {
    error = "'" + std::string(setting) + "' is not FIELD=VALUE";
    return false;
  }
  const std::string_view path = trim(setting.substr(0, eq));
  const ParameterField* f = findParameterField(path);
  if (f == nullptr) {
    error = "unknown field '" + std::string(path) + "' (qor-process --list shows them all)";
    return false;
  }
  return setParameterField(p, *f, setting.substr(eq + 1), error);
}

std::string describeChainResult(int32_t code) {
  struct Block {
    int32_t base;
    const char* stage;
  };
  static constexpr Block kBlocks[] = {
      {-1005000, "delay"},           {-1006000, "flanger/phaser"},     {-1007000, "gating compressor"},
      {-1008000, "hard limiter"},    {-1009000, "high-pass filter"},   {-1010000, "multi-band compressor"},
      {-1011000, "multi-band equaliser"}, {-1012000, "noise reduction"}, {-1013000, "reverb"},
      {-1014000, "ring modulator"},  {-1015000, "vocal changer"},      {-1016000, "sample-rate converter"},
      {-1017000, "level meter"}};
  switch (code) {
    case -1003001: return "unsupported sample rate";
    case -1003002: return "unsupported block size";
    case -1003003: return "unsupported input channel count";
    case -1003004: return "unsupported output channel count";
    case -1016010: return "outputGain out of range";
    case -1016011: return "crossfadeTime out of range";
    default: break;
  }
  for (const Block& b : kBlocks) {
    if (code <= b.base && code > b.base - 100) {
      return std::string(b.stage) + " refused its settings (code " + std::to_string(code) + ")";
    }
  }
  return "voice chain error " + std::to_string(code);
}

}  // namespace qor::tools
