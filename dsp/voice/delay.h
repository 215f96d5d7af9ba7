// Stereo echo: two delay lines (A feeds the left output, B the right) with
// input routing, self or ping-pong feedback through a band limit, and an
// equal-power wet/dry mix. Also turns note values at a tempo into rates.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/result.h"

namespace QorDelay_API_V1 {

enum class QorDelayResult : int32_t {
  QOR_COMMON_RESULTS,
  ErrorDelayTimeLeft = -1005003,
  ErrorDelayTimeRight = -1005004,
  ErrorFeedback = -1005005,
  ErrorMix = -1005006,
  ErrorCrossfadeTime = -1005007,
};

// Which input feeds which line.
enum QorDelayRouting : int32_t {
  QorDelayRoutingStraight = 0,  // left -> A, right -> B
  QorDelayRoutingCrossed = 1,   // right -> A, left -> B
  QorDelayRoutingSumToA = 2,    // left + right -> A
  QorDelayRoutingSumToB = 3,    // left + right -> B
};

// Band limit of the feedback path; other values act as the wide band.
enum QorDelayFilterPreset : int32_t {
  QorDelayFilterWide = 0,    // 60 Hz .. 18 kHz
  QorDelayFilterLow = 1,     // 80 Hz .. 800 Hz
  QorDelayFilterMiddle = 2,  // 1 kHz .. 10 kHz
};

// Note values: 2 is a quarter note; each step down doubles the duration,
// each step up halves it, without bound.
enum QorDelayNoteDurations : int32_t {
  QorDelayNoteDoubleWhole = -1,
  QorDelayNoteWhole = 0,
  QorDelayNoteHalf = 1,
  QorDelayNoteQuarter = 2,
  QorDelayNoteEighth = 3,
  QorDelayNoteSixteenth = 4,
  QorDelayNoteThirtySecond = 5,
};

// Other values act as plain.
enum QorDelayNoteDurationMod : uint32_t {
  QorDelayNotePlain = 0,
  QorDelayNoteTriplet = 1,       // x 2/3
  QorDelayNoteDotted = 2,        // x 1.5
  QorDelayNoteDoubleDotted = 3,  // x 1.75
};

struct QorDelayParameters {
  int32_t routing;         // QorDelayRouting; not range-checked
  int32_t pingPong;        // 1: each line is fed back from the other one
  int32_t filterPreset;    // QorDelayFilterPreset; not range-checked
  float delayTimeLeftMs;   // line A, 10..2000
  float delayTimeRightMs;  // line B, 10..2000
  float feedback;          // 0..0.6
  float mix;               // wet share, 0..1, equal power
  float crossfadeTime;     // ms, 0..100
  uint8_t enable;
};

// Input 44.1 or 48 kHz, 128..4096 samples, exactly two channels in and out.
struct QorDelayConfig {
  QOR_CONFIG_HEADER_FIELDS;
  QorDelayParameters parameters;
};

struct QorDelayInst;

QorDelayResult qorDelayGetInstanceSize(const QorDelayConfig* config, size_t* size);
QorDelayResult qorDelayInit(QorDelayInst* inst, const QorDelayConfig* config);
QorDelayResult qorDelayGetDefaultParameters(QorDelayParameters* parameters);
QorDelayResult qorDelayGetParameters(QorDelayInst* inst, QorDelayParameters* parameters);
// A changed delay time clears that line's echoes.
QorDelayResult qorDelayUpdateParameters(QorDelayInst* inst, QorDelayParameters* parameters);
// Two channels of inputBlockSize samples, in place.
QorDelayResult qorDelayProcess(QorDelayInst* inst, float** channels);
QorDelayResult qorDelayFlush(QorDelayInst* inst);
QorDelayResult qorDelayRelease(QorDelayInst* inst);
QorDelayResult qorDelayGetCurrentLatency(QorDelayInst* inst, int* latency);
// Writes 1000 / (duration of `note` with `modifier` at `tempoBpm`, in ms).
QorDelayResult qorDelayGetNoteDurationInHertz(QorDelayInst* inst, float tempoBpm,
                                              QorDelayNoteDurations note,
                                              QorDelayNoteDurationMod modifier, float* hertz);

}  // namespace QorDelay_API_V1
