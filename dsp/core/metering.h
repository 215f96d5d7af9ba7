// Level meter: measures blocks without changing them and keeps, per channel,
// a held peak and a smoothed level in dB. The voice chain places 24 of them
// between its stages.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/metering_point.h"
#include "dsp/core/result.h"

namespace QorMetering_API_V1 {

enum class QorMeteringResult : int32_t { QOR_COMMON_RESULTS };

struct QorMeteringParameters {
  float crossfadeTime;  // ms, 0..100; kept for the common record shape, unused
  uint32_t enable;      // measuring on; only the low byte counts
};

// Only inputSampleRate, inputBlockSize and inputChannels are used.
struct QorMeteringConfig {
  QOR_CONFIG_HEADER_FIELDS;
  QorMeteringParameters parameters;
};

struct QorMeteringInst;

QorMeteringResult qorMeteringGetInstanceSize(const QorMeteringConfig* config, size_t* size);
QorMeteringResult qorMeteringInit(QorMeteringInst* inst, const QorMeteringConfig* config);
QorMeteringResult qorMeteringGetDefaultParameters(QorMeteringParameters* parameters);
QorMeteringResult qorMeteringGetParameters(QorMeteringInst* inst, QorMeteringParameters* parameters);
QorMeteringResult qorMeteringUpdateParameters(QorMeteringInst* inst, QorMeteringParameters* parameters);
// Measures inputBlockSize samples of each of inputChannels channels.
QorMeteringResult qorMeteringProcess(QorMeteringInst* inst, float** channels);
QorMeteringResult qorMeteringRelease(QorMeteringInst* inst);
QorMeteringResult qorMeteringGetCurrentLatency(QorMeteringInst* inst, int* latency);
// Points at the triples inside the instance (one per channel); valid until
// Release. Checks null and alignment, not initialisation.
QorMeteringResult qorMeteringGetMeteringPoint(const QorMeteringInst* const inst,
                                              const QorMeteringPoint** point);

}  // namespace QorMetering_API_V1
