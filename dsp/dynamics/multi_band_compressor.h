// Multi-band compressor: a two-band dynamic equaliser. Around each of two
// centre frequencies a band-pass measures the level, a compressor curve turns
// it into a gain, and an all-pass mix applies that gain to the band only.
// Works on 32-sample sub-blocks (at 44.1/48 kHz) with a four-sub-block
// look-ahead.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/metering_point.h"
#include "dsp/core/result.h"

namespace QorMultiBandCompressor_API_V1 {

using QorMetering_API_V1::QorMeteringPoint;

enum class QorMultiBandCompressorResult : int32_t {
  QOR_COMMON_RESULTS,
  // Parameter checks in field order.
  ErrorLowThreshold = -1005000,
  ErrorHighThreshold = -1005001,
  ErrorLowCrossoverFrequency = -1005002,
  ErrorLowCrossoverQ = -1005003,
  ErrorLowGainFloor = -1005004,
  ErrorHighCrossoverFrequency = -1005005,
  ErrorHighCrossoverQ = -1005006,
  ErrorHighGainFloor = -1005007,
  ErrorLowAttack = -1005008,
  ErrorRatio = -1005009,
  ErrorLowRelease = -1005010,
  ErrorHighAttack = -1005011,
  ErrorHighRelease = -1005012,
  ErrorCrossfadeTime = -1005013,
};

struct QorMultiBandCompressorParameters {
  float lowThreshold;            // dB, -50..0
  float highThreshold;           // dB, -50..0
  float lowCrossoverFrequency;   // Hz, 60..1000: centre of the low band
  float lowCrossoverQ;           // 0.25..20
  float lowGainFloor;            // dB, -60..0
  float highCrossoverFrequency;  // Hz, 1000..10000: centre of the high band
  float highCrossoverQ;          // 0.25..20
  float highGainFloor;           // dB, -60..0
  float lowAttack;               // ms, 0..200
  float ratio;                   // 1..20, both bands
  float lowRelease;              // ms, 20..1000
  float highAttack;              // ms, 0..200
  float highRelease;             // ms, 20..1000
  float crossfadeTime;           // ms, 0..250; also the centre-frequency glide time
  uint8_t enable;
  uint8_t lowBandEnable;
  uint8_t highBandEnable;
};

// Rates 44100..192000, blocks 128..4096 (a multiple of the sub-block for
// Process to succeed), 1 or 2 channels; input and output must agree.
struct QorMultiBandCompressorConfig {
  QOR_CONFIG_HEADER_FIELDS;
  QorMultiBandCompressorParameters parameters;
  uint8_t meteringEnabled;
};

// 0: low band gain (applied dB, slow follower dB, 0).
// 1: high band gain, the same.
// 2: frequency response, count 1: 1024 frequencies in Hz from 0 to half the
//    rate, then 1024 magnitudes in dB (1.0 each while the stage is disabled).
struct QorMultiBandCompressorMeteringPoints {
  const QorMeteringPoint* points[3];
};

struct QorMultiBandCompressorInst;

QorMultiBandCompressorResult qorMultiBandCompressorGetInstanceSize(
    const QorMultiBandCompressorConfig* config, size_t* size);
QorMultiBandCompressorResult qorMultiBandCompressorInit(QorMultiBandCompressorInst* inst,
                                                        const QorMultiBandCompressorConfig* config);
QorMultiBandCompressorResult qorMultiBandCompressorGetDefaultParameters(
    QorMultiBandCompressorParameters* parameters);
QorMultiBandCompressorResult qorMultiBandCompressorGetParameters(
    QorMultiBandCompressorInst* inst, QorMultiBandCompressorParameters* parameters);
// New centre frequencies and Qs are reached by a glide that advances once
// per Process call.
QorMultiBandCompressorResult qorMultiBandCompressorUpdateParameters(
    QorMultiBandCompressorInst* inst, QorMultiBandCompressorParameters* parameters);
// Returns ErrorProcessing when the block is not a whole number of sub-blocks.
QorMultiBandCompressorResult qorMultiBandCompressorProcess(QorMultiBandCompressorInst* inst,
                                                           float** channels);
QorMultiBandCompressorResult qorMultiBandCompressorFlush(QorMultiBandCompressorInst* inst);
QorMultiBandCompressorResult qorMultiBandCompressorRelease(QorMultiBandCompressorInst* inst);
// 128 while the stage mixes in any processed signal, else 0.
QorMultiBandCompressorResult qorMultiBandCompressorGetCurrentLatency(
    QorMultiBandCompressorInst* inst, int* latency);
// ErrorMeteringDisabled unless the configuration enabled metering.
QorMultiBandCompressorResult qorMultiBandCompressorGetMeteringPoints(
    const QorMultiBandCompressorInst* const inst, const QorMultiBandCompressorMeteringPoints** points);

}  // namespace QorMultiBandCompressor_API_V1
