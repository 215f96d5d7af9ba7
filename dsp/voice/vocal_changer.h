// Vocal changer: turns the voice into one or two transformed voices and mixes
// them. Each voice has a type (0 dry, 1 formant warp, 2/4/5 pitch shift in
// three resynthesis modes, 3 warp then shift, 6..14 carrier-driven voices)
// and a pitch offset in cents; voice 2 can also run through a detune stage
// (grain pitch wobble plus modulated delay).
//
// Setting changes are staged and take effect at the start of the next
// processed block; a type change restarts that voice's processors. Two
// deliberate quirks are kept for compatibility: voice 1 alone (voice 2 type
// 0) is not level-scaled, and voice 1's pitch decides whether either voice's
// carrier pre-filter follows the pitch. The latency reported follows voice 1.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/result.h"

namespace QorVocalChanger_API_V1 {

enum class QorVocalChangerResult : int32_t {
  QOR_COMMON_RESULTS,
  ErrorCrossfadeTime = -1005000,
  ErrorVoice1Pitch = -1005002,
  ErrorVoice2Pitch = -1005004,
  ErrorVoice1Level = -1005005,
  ErrorVoice2Level = -1005006,
  ErrorDetuneDelay = -1005007,
  ErrorDetuneDepth = -1005008,
  ErrorDetuneRate = -1005009,
  ErrorDetuneCents = -1005010,
  ErrorDetunePitchRate = -1005011,
};

struct QorVocalChangerParameters {
  int32_t voice1Type;        // 0..14; anything else acts as 0
  float voice1PitchCents;    // -2400..2400
  int32_t voice2Type;        // 0..14; anything else acts as 0
  float voice2PitchCents;    // -2400..2400
  float voice1LevelDb;       // -60..0; unused while voice 2 is off
  float voice2LevelDb;       // -60..0
  uint8_t detuneEnable;
  float detuneDelayMs;       // 0..100
  float detuneDepthPercent;  // 0..100, of the delay
  float detuneRateHz;        // 0..2
  float detuneCents;         // -600..600
  float detunePitchRateHz;   // 0..2
  uint8_t enable;
  float crossfadeTime;       // ms, 0..100
};

// Rate 44100 or 48000, block 128..4096, 1 or 2 channels (in = out).
struct QorVocalChangerConfig {
  QOR_CONFIG_HEADER_FIELDS;
  QorVocalChangerParameters parameters;
};

struct QorVocalChangerInst;

QorVocalChangerResult qorVocalChangerGetInstanceSize(const QorVocalChangerConfig* config, size_t* size);
QorVocalChangerResult qorVocalChangerInit(QorVocalChangerInst* inst, const QorVocalChangerConfig* config);
QorVocalChangerResult qorVocalChangerGetDefaultParameters(QorVocalChangerParameters* parameters);
QorVocalChangerResult qorVocalChangerGetParameters(QorVocalChangerInst* inst,
                                                   QorVocalChangerParameters* parameters);
// Validates the whole record; identical voice settings change nothing, so
// re-sending them never restarts a processor.
QorVocalChangerResult qorVocalChangerUpdateParameters(QorVocalChangerInst* inst,
                                                      QorVocalChangerParameters* parameters);
// In place, inputBlockSize samples of each of inputChannels channels.
QorVocalChangerResult qorVocalChangerProcess(QorVocalChangerInst* inst, float** channels);
QorVocalChangerResult qorVocalChangerFlush(QorVocalChangerInst* inst);
QorVocalChangerResult qorVocalChangerRelease(QorVocalChangerInst* inst);
// Samples of delay voice 1's current type adds (0 when fully bypassed).
QorVocalChangerResult qorVocalChangerGetCurrentLatency(QorVocalChangerInst* inst, int* latency);

}  // namespace QorVocalChanger_API_V1
