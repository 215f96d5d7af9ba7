// Ring modulator: multiplies the voice by a wavetable carrier, from a
// tremolo at a few hertz to a metallic robot colour at some hundred hertz.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/result.h"

namespace QorRingModulator_API_V1 {

enum class QorRingModulatorResult : int32_t {
  QOR_COMMON_RESULTS,
  ErrorMix = -1005000,
  ErrorFrequency = -1005002,
  ErrorCrossfadeTime = -1005003,
};

// Carrier waveforms; any other value plays the sine.
enum QorRingModulatorWaveform : int32_t {
  QorRingModulatorSine = 0,
  QorRingModulatorTriangle = 1,
  QorRingModulatorRisingRamp = 2,
  QorRingModulatorSquare = 3,
  QorRingModulatorRectifiedCosine = 4,
};

struct QorRingModulatorParameters {
  float mix;            // 0..1, share of the modulated signal (S-shaped internally)
  int32_t waveform;     // QorRingModulatorWaveform; not range-checked
  float frequency;      // carrier Hz, 1..2000
  float crossfadeTime;  // ms, 0..250
  uint8_t enable;
};

// Rates, block sizes and channel counts are free; input and output must match.
struct QorRingModulatorConfig {
  QOR_CONFIG_HEADER_FIELDS;
  QorRingModulatorParameters parameters;
};

struct QorRingModulatorInst;

QorRingModulatorResult qorRingModulatorGetInstanceSize(const QorRingModulatorConfig* config,
                                                       size_t* size);
QorRingModulatorResult qorRingModulatorInit(QorRingModulatorInst* inst,
                                            const QorRingModulatorConfig* config);
QorRingModulatorResult qorRingModulatorGetDefaultParameters(QorRingModulatorParameters* parameters);
QorRingModulatorResult qorRingModulatorGetParameters(QorRingModulatorInst* inst,
                                                     QorRingModulatorParameters* parameters);
QorRingModulatorResult qorRingModulatorUpdateParameters(QorRingModulatorInst* inst,
                                                        QorRingModulatorParameters* parameters);
// inputChannels buffers of inputBlockSize samples, in place. One carrier step
// per frame, shared by all channels.
QorRingModulatorResult qorRingModulatorProcess(QorRingModulatorInst* inst, float** channels);
// Returns the carrier to its start phase.
QorRingModulatorResult qorRingModulatorFlush(QorRingModulatorInst* inst);
QorRingModulatorResult qorRingModulatorRelease(QorRingModulatorInst* inst);
QorRingModulatorResult qorRingModulatorGetCurrentLatency(QorRingModulatorInst* inst, int* latency);

}  // namespace QorRingModulator_API_V1
