// Reverb: a stereo room around the voice. Early reflections from one of ten
// room patterns scaled by a room size (some through a diffuser), then a late
// tail from a 16-line feedback delay network with separate decay times below
// and above a crossover, and a low end kept mono-compatible.
//
// Settings changed by UpdateParameters take effect at the start of the next
// processed block; reflection taps glide to their new times and gains over
// 128 samples, except right after Init or a completed fade-out.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/result.h"

namespace QorReverb_API_V1 {

enum class QorReverbResult : int32_t {
  QOR_COMMON_RESULTS,
  ErrorEarlyLateBalance = -1005000,
  ErrorReflectionsCutoff = -1005002,
  ErrorRoomSize = -1005003,
  ErrorLowDecay = -1005004,
  ErrorCrossover = -1005005,
  ErrorHighDecay = -1005006,
  ErrorMix = -1005007,
  ErrorCrossfadeTime = -1005008,
};

struct QorReverbParameters {
  float earlyLateBalance;     // 0..1: 0 all reflections, 1 all late tail
  int32_t roomType;           // 0..9 (0: no reflections); others are clamped
  float reflectionsCutoffHz;  // 10..10000, low-pass on the reflections
  float roomSize;             // 0.01..1, scales reflection times and the late pre-delay
  float lowDecayMs;           // 100..6000, decay below the crossover
  float crossoverHz;          // 100..10000
  float highDecayMs;          // 100..6000, decay above the crossover
  float mix;                  // 0..1, wet share of the whole effect
  float crossfadeTime;        // 0..250 ms, on/off crossfade
  uint8_t enable;
};

// Rates 44100 or 48000, blocks 128..4096, two channels in and out; input and
// output fields equal.
struct QorReverbConfig {
  QOR_CONFIG_HEADER_FIELDS;
  QorReverbParameters parameters;
};

struct QorReverbInst;

QorReverbResult qorReverbGetInstanceSize(const QorReverbConfig* config, size_t* size);
QorReverbResult qorReverbInit(QorReverbInst* inst, const QorReverbConfig* config);
QorReverbResult qorReverbGetDefaultParameters(QorReverbParameters* parameters);
QorReverbResult qorReverbGetParameters(QorReverbInst* inst, QorReverbParameters* parameters);
QorReverbResult qorReverbUpdateParameters(QorReverbInst* inst, QorReverbParameters* parameters);
// Processes one block of two channels in place.
QorReverbResult qorReverbProcess(QorReverbInst* inst, float** channels);
// Silences every ring, line and filter; parameters stay.
QorReverbResult qorReverbFlush(QorReverbInst* inst);
QorReverbResult qorReverbRelease(QorReverbInst* inst);
// Always 0: the dry path is not delayed.
QorReverbResult qorReverbGetCurrentLatency(QorReverbInst* inst, int* latency);

}  // namespace QorReverb_API_V1
