// Noise reduction: a short-time spectral expander. Each 1024-point frame is
// split into 32 overlapping mel bands; per band a slow level and a noise floor
// are tracked, and bands at or below the threshold between them are pulled
// down towards a settable floor. The band gains are spread back onto the bins
// and the frame is resynthesised by overlap-add, which delays the signal by
// 1024 - inputBlockSize samples and always removes the Nyquist bin.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/metering_point.h"
#include "dsp/core/result.h"

namespace QorNoiseReduction_API_V1 {

using QorMetering_API_V1::QorMeteringPoint;

// Parameter checks run in field order, but the first code belongs to
// crossfadeTime, which is tested last.
enum class QorNoiseReductionResult : int32_t {
  QOR_COMMON_RESULTS,
  ErrorCrossfadeTime = -1005000,
  ErrorReservedLevel = -1005001,
  ErrorMaxExpansionDb = -1005002,
  ErrorExpansionRatio = -1005003,
  ErrorReductionFloorDb = -1005004,
};

struct QorNoiseReductionParameters {
  float reservedLevel;     // 0..1000, default 75; stored and returned only
  float maxExpansionDb;    // dB, 0..40, default 25: cap on the expanded level difference
  float expansionRatio;    // 0..5, default 2.5: factor on (slow level - noise floor)
  float reductionFloorDb;  // dB, -60..0, default -20: deepest attenuation of a noise band
  uint8_t enable;          // default 1
  float crossfadeTime;     // ms, 0..100, default 50; takes effect at Init only
};

// Sample rate 44100 or 48000, block size 256 or 512, any nonzero channel
// count with outputChannels = inputChannels. outputSampleRate and
// outputBlockSize are not checked.
struct QorNoiseReductionConfig {
  QOR_CONFIG_HEADER_FIELDS;
  QorNoiseReductionParameters parameters;
  uint8_t meteringEnabled;
};

// One point of 32 triples: (noise floor of band b in dB, applied gain of
// band b in dB, 0), both from channel 0.
struct QorNoiseReductionMeteringPoints {
  const QorMeteringPoint* points[1];
};

struct QorNoiseReductionInst;

QorNoiseReductionResult qorNoiseReductionGetInstanceSize(const QorNoiseReductionConfig* config,
                                                         size_t* size);
QorNoiseReductionResult qorNoiseReductionInit(QorNoiseReductionInst* inst,
                                              const QorNoiseReductionConfig* config);
QorNoiseReductionResult qorNoiseReductionGetDefaultParameters(QorNoiseReductionParameters* parameters);
QorNoiseReductionResult qorNoiseReductionGetParameters(QorNoiseReductionInst* inst,
                                                       QorNoiseReductionParameters* parameters);
// Recomputes the band settings; crossfadeTime keeps its Init value in force.
QorNoiseReductionResult qorNoiseReductionUpdateParameters(QorNoiseReductionInst* inst,
                                                          QorNoiseReductionParameters* parameters);
QorNoiseReductionResult qorNoiseReductionProcess(QorNoiseReductionInst* inst, float** channels);
// Clears frames, levels, floors and gain smoothers; keeps the hold values,
// the bypass mix and the fade-in counter.
QorNoiseReductionResult qorNoiseReductionFlush(QorNoiseReductionInst* inst);
QorNoiseReductionResult qorNoiseReductionRelease(QorNoiseReductionInst* inst);
// 0 while fully bypassed, else 1024 - inputBlockSize.
QorNoiseReductionResult qorNoiseReductionGetCurrentLatency(QorNoiseReductionInst* inst, int* latency);
// -1003005 when the configuration had meteringEnabled = 0.
QorNoiseReductionResult qorNoiseReductionGetMeteringPoints(
    const QorNoiseReductionInst* const inst, const QorNoiseReductionMeteringPoints** points);

}  // namespace QorNoiseReduction_API_V1
