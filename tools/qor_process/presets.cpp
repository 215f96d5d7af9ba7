#include "qor_process/presets.h"

#include "qor_process/parameter_fields.h"

namespace qor::tools {

namespace {

const std::vector<Preset>& table() {
  static const std::vector<Preset> kPresets = {
      {"defaults", "the chain's own defaults: clean-up stages on, voice effects off", {}},
      {"broadcast",
       "clean broadcast voice: firmer high-pass, deeper noise reduction, tight gate, "
       "presence lift, gentle compression",
       {"highPassFilter.order=2", "highPassFilter.cutoffFrequency=100", "noiseReduction.reductionFloorDb=-30",
        "gatingCompressor.gateThreshold=-45", "gatingCompressor.compressorThreshold=-18",
        "gatingCompressor.compressorRatio=3", "gatingCompressor.compressorMakeupGain=4",
        "multiBandEqualiser.band1Frequency=120", "multiBandEqualiser.band1Gain=2",
        "multiBandEqualiser.band2Frequency=3000", "multiBandEqualiser.band2Gain=3",
        "multiBandEqualiser.band3Frequency=8000", "multiBandEqualiser.band3Gain=1.5"}},
      {"robot",
       "robot: phase-free resynthesis (a flat monotone) with a ring modulator",
       {"vocalChanger.enable=1", "vocalChanger.voice1Type=4", "ringModulator.enable=1",
        "ringModulator.frequency=60", "ringModulator.mix=0.5"}},
      {"deep",
       "deep voice: a fifth down, with a touch of room",
       {"vocalChanger.enable=1", "vocalChanger.voice1Type=2", "vocalChanger.voice1PitchCents=-700",
        "reverb.enable=1", "reverb.roomType=1", "reverb.mix=0.15"}},
      {"cave",
       "cave: long dark reverb and a slow echo",
       {"reverb.enable=1", "reverb.roomType=9", "reverb.roomSize=1", "reverb.lowDecayMs=5000",
        "reverb.highDecayMs=1500", "reverb.mix=0.45", "delay.enable=1", "delay.delayTimeLeftMs=450",
        "delay.delayTimeRightMs=600", "delay.feedback=0.35", "delay.mix=0.3", "delay.filterPreset=1",
        // The wet mixes sit below the dry voice; bring the whole back up.
        "outputGain=6"}},
  };
  return kPresets;
}

}  // namespace

std::span<const Preset> presets() { return table(); }

const Preset* findPreset(std::string_view name) {
  for (const Preset& p : table()) {
    if (name == p.name) return &p;
  }
  return nullptr;
}

bool presetParameters(const Preset& preset, QorCalvera2_API_V1::QorCalvera2Parameters& p, std::string& error) {
  using namespace QorCalvera2_API_V1;
  if (qorCalvera2GetDefaultParameters(&p) != QorCalvera2Result::Success) {
    error = "the voice chain did not give its defaults";
    return false;
  }
  for (const char* setting : preset.settings) {
    if (!applySetting(p, setting, error)) {
      error = std::string("preset ") + preset.name + ": " + error;
      return false;
    }
  }
  return true;
}

}  // namespace qor::tools
