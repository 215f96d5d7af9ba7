// Multi-band equaliser: three peaking bands, then a switchable Butterworth
// high-pass and low-pass section. No metering points, no latency.
//
// Unlike the other families it is declared at global scope, without an
// _API_V1 namespace; the result enumeration is scoped so that its names stay
// out of the global namespace.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/result.h"

enum class QorMultiBandEqualiserResult : int32_t {
  QOR_COMMON_RESULTS,
  // Parameter checks, numbered in validation order (frequency, Q, gain per
  // band). The two order fields are never checked, so -1005001 and -1005012
  // are never returned.
  ErrorHighPassFrequency = -1005000,
  ErrorBand1Frequency = -1005002,
  ErrorBand1Q = -1005003,
  ErrorBand1Gain = -1005004,
  ErrorBand2Frequency = -1005005,
  ErrorBand2Q = -1005006,
  ErrorBand2Gain = -1005007,
  ErrorBand3Frequency = -1005008,
  ErrorBand3Q = -1005009,
  ErrorBand3Gain = -1005010,
  ErrorLowPassFrequency = -1005011,
  ErrorCrossfadeTime = -1005013,
};

struct QorMultiBandEqualiserParameters {
  float highPassFrequency;  // Hz, 5..500
  int32_t highPassOrder;    // 0 = off, 1 or 2 = Butterworth order
  float band1Frequency;     // Hz, 5..500
  float band1Gain;          // dB, -12..12
  float band1Q;             // 0.5..10
  float band2Frequency;     // Hz, 400..5000
  float band2Gain;          // dB, -12..12
  float band2Q;             // 0.5..10
  float band3Frequency;     // Hz, 1000..12000
  float band3Gain;          // dB, -12..12
  float band3Q;             // 0.5..10
  float lowPassFrequency;   // Hz, 1000..20000
  int32_t lowPassOrder;     // 0 = off, 1 or 2
  uint8_t enable;
  float crossfadeTime;      // ms, 0..250
};

// Rates 44100 or 48000, blocks 128..4096, any channel count >= 1; input and
// output must agree.
struct QorMultiBandEqualiserConfig {
  QOR_CONFIG_HEADER_FIELDS;
  QorMultiBandEqualiserParameters parameters;
};

struct QorMultiBandEqualiserInst;

QorMultiBandEqualiserResult qorMultiBandEqualiserGetInstanceSize(
    const QorMultiBandEqualiserConfig* config, size_t* size);
QorMultiBandEqualiserResult qorMultiBandEqualiserInit(QorMultiBandEqualiserInst* inst,
                                                      const QorMultiBandEqualiserConfig* config);
QorMultiBandEqualiserResult qorMultiBandEqualiserGetDefaultParameters(
    QorMultiBandEqualiserParameters* parameters);
QorMultiBandEqualiserResult qorMultiBandEqualiserGetParameters(
    QorMultiBandEqualiserInst* inst, QorMultiBandEqualiserParameters* parameters);
// Peaking bands change at once. A high-pass or low-pass frequency change,
// once the stage has run, moves one 10 ms block-rate glide step per call.
QorMultiBandEqualiserResult qorMultiBandEqualiserUpdateParameters(
    QorMultiBandEqualiserInst* inst, QorMultiBandEqualiserParameters* parameters);
// Filters inputBlockSize samples of each of inputChannels channels in place.
QorMultiBandEqualiserResult qorMultiBandEqualiserProcess(QorMultiBandEqualiserInst* inst,
                                                         float** channels);
QorMultiBandEqualiserResult qorMultiBandEqualiserFlush(QorMultiBandEqualiserInst* inst);
QorMultiBandEqualiserResult qorMultiBandEqualiserRelease(QorMultiBandEqualiserInst* inst);
// Always 0.
QorMultiBandEqualiserResult qorMultiBandEqualiserGetCurrentLatency(QorMultiBandEqualiserInst* inst,
                                                                   int* latency);
