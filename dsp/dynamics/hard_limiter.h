// Hard limiter: a look-ahead peak limiter that keeps the signal under a fixed
// ceiling of 0.8 (about -1.94 dBFS), then clips at +-1.0. Works on 32-sample
// sub-blocks (at 44.1/48 kHz) with a four-sub-block look-ahead.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/metering_point.h"
#include "dsp/core/result.h"

namespace QorHardLimiter_API_V1 {

using QorMetering_API_V1::QorMeteringPoint;

enum class QorHardLimiterResult : int32_t {
  QOR_COMMON_RESULTS,
  ErrorAttack = -1005000,         // 0..10 ms
  ErrorRelease = -1005001,        // 10..500 ms
  ErrorInputGain = -1005002,      // -20..20 dB
  ErrorCrossfadeTime = -1005003,  // 0..250 ms
};

struct QorHardLimiterParameters {
  float attack;         // ms
  float release;        // ms
  float inputGain;      // dB, applied before limiting
  float crossfadeTime;  // ms; defaults to 50.5
  uint8_t enable;
};

struct QorHardLimiterConfig {
  QOR_CONFIG_HEADER_FIELDS;
  QorHardLimiterParameters parameters;
  uint8_t meteringEnabled;
};

// One point: (applied limiter gain dB, slow follower gain dB, 0).
struct QorHardLimiterMeteringPoints {
  const QorMeteringPoint* points[1];
};

struct QorHardLimiterInst;

QorHardLimiterResult qorHardLimiterGetInstanceSize(const QorHardLimiterConfig* config, size_t* size);
QorHardLimiterResult qorHardLimiterInit(QorHardLimiterInst* inst, const QorHardLimiterConfig* config);
QorHardLimiterResult qorHardLimiterGetDefaultParameters(QorHardLimiterParameters* parameters);
QorHardLimiterResult qorHardLimiterGetParameters(QorHardLimiterInst* inst,
                                                 QorHardLimiterParameters* parameters);
QorHardLimiterResult qorHardLimiterUpdateParameters(QorHardLimiterInst* inst,
                                                    QorHardLimiterParameters* parameters);
// Limits inputBlockSize samples of each channel in place. Block sizes that
// are not a multiple of the sub-block pass unprocessed.
QorHardLimiterResult qorHardLimiterProcess(QorHardLimiterInst* inst, float** channels);
QorHardLimiterResult qorHardLimiterFlush(QorHardLimiterInst* inst);
QorHardLimiterResult qorHardLimiterRelease(QorHardLimiterInst* inst);
// 128 while the limiter is mixed in, 0 when fully bypassed, at every rate.
QorHardLimiterResult qorHardLimiterGetCurrentLatency(QorHardLimiterInst* inst, int* latency);
// Fails with -1003005 when the configuration had meteringEnabled 0.
QorHardLimiterResult qorHardLimiterGetMeteringPoints(const QorHardLimiterInst* const inst,
                                                     const QorHardLimiterMeteringPoints** points);

}  // namespace QorHardLimiter_API_V1
