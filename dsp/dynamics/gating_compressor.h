// Gating compressor: a noise gate (a ratio-20 downward expander with hold)
// followed by a compressor, both on 32-sample sub-blocks (at 44.1/48 kHz)
// with a four-sub-block look-ahead. Gate and compressor switch separately,
// each with its own crossfade, under one overall `enable`.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/metering_point.h"
#include "dsp/core/result.h"

namespace QorGatingCompressor_API_V1 {

using QorMetering_API_V1::QorMeteringPoint;

enum class QorGatingCompressorResult : int32_t {
  QOR_COMMON_RESULTS,
  ErrorGateThreshold = -1005000,          // -80..-6 dB
  ErrorGateFloor = -1005001,              // -60..0 dB
  ErrorGateAttack = -1005002,             // 0..200 ms
  ErrorGateRelease = -1005003,            // 50..1000 ms
  ErrorGateHold = -1005004,               // 0..200 ms
  ErrorCompressorThreshold = -1005005,    // -40..0 dB
  ErrorCompressorRatio = -1005006,        // 1..20
  ErrorCompressorInputGain = -1005007,    // -12..12 dB
  ErrorCompressorMakeupGain = -1005008,   // -12..12 dB
  ErrorCompressorAttack = -1005009,       // 0..200 ms
  ErrorCompressorRelease = -1005010,      // 50..1000 ms
  ErrorCrossfadeTime = -1005011,          // 0..250 ms
};

struct QorGatingCompressorParameters {
  float gateThreshold;         // dB
  float gateFloor;             // dB, lowest gain the gate applies
  float gateAttack;            // ms
  float gateRelease;           // ms
  float gateHold;              // ms
  float compressorThreshold;   // dB
  float compressorRatio;
  float compressorInputGain;   // dB
  float compressorMakeupGain;  // dB
  float compressorAttack;      // ms
  float compressorRelease;     // ms
  uint8_t gateEnable;
  uint8_t compressorEnable;
  uint8_t enable;
  float crossfadeTime;         // ms
};

struct QorGatingCompressorConfig {
  QOR_CONFIG_HEADER_FIELDS;
  QorGatingCompressorParameters parameters;
  uint8_t meteringEnabled;
};

// Point 0: gate gain (applied dB, slow follower dB, 0). Point 1: compressor
// gain reduction, the same shape, without input and make-up gain.
struct QorGatingCompressorMeteringPoints {
  const QorMeteringPoint* points[2];
};

struct QorGatingCompressorInst;

QorGatingCompressorResult qorGatingCompressorGetInstanceSize(const QorGatingCompressorConfig* config,
                                                             size_t* size);
QorGatingCompressorResult qorGatingCompressorInit(QorGatingCompressorInst* inst,
                                                  const QorGatingCompressorConfig* config);
QorGatingCompressorResult qorGatingCompressorGetDefaultParameters(
    QorGatingCompressorParameters* parameters);
QorGatingCompressorResult qorGatingCompressorGetParameters(QorGatingCompressorInst* inst,
                                                           QorGatingCompressorParameters* parameters);
QorGatingCompressorResult qorGatingCompressorUpdateParameters(QorGatingCompressorInst* inst,
                                                              QorGatingCompressorParameters* parameters);
// Processes inputBlockSize samples of each channel in place. Block sizes that
// are not a multiple of the sub-block pass unprocessed (the crossfades still
// move).
QorGatingCompressorResult qorGatingCompressorProcess(QorGatingCompressorInst* inst, float** channels);
QorGatingCompressorResult qorGatingCompressorFlush(QorGatingCompressorInst* inst);
QorGatingCompressorResult qorGatingCompressorRelease(QorGatingCompressorInst* inst);
// 256 while the gate or the compressor is mixed in, else 0, at every rate.
QorGatingCompressorResult qorGatingCompressorGetCurrentLatency(QorGatingCompressorInst* inst,
                                                               int* latency);
// Fails with -1003005 when the configuration had meteringEnabled 0.
QorGatingCompressorResult qorGatingCompressorGetMeteringPoints(
    const QorGatingCompressorInst* const inst, const QorGatingCompressorMeteringPoints** points);

}  // namespace QorGatingCompressor_API_V1
