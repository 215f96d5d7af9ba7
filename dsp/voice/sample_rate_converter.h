// Sample-rate converter: band-limited interpolation with a tabulated
// Kaiser-windowed sinc, evaluated at the exact position of every output
// sample. A fixed input block rarely maps to a whole number of output samples,
// so a call produces a variable count (at most outputBlockSize) and a drift
// correction adds or drops one sample when the running total strays from the
// exact count. Equal rates are a plain copy. The voice chain runs one instance
// from the host rate to 48 kHz and one back.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/result.h"

namespace QorSampleRateConverter_API_V1 {

enum class QorSampleRateConverterResult : int32_t {
  QOR_COMMON_RESULTS,
  ErrorOutputBlockSize = -1003005,         // outputBlockSize is not the computed one
  ErrorNumZeroCrossings = -1003006,        // numZeroCrossings outside 2..100
  ErrorSamplesPerZeroCrossing = -1003007,  // samplesPerZeroCrossing outside 32..2048
  ErrorKaiserBeta = -1003008               // kaiserBeta outside 1..25
};

struct QorSampleRateConverterParameters {
  uint32_t numZeroCrossings;        // one-sided kernel length in sinc zero crossings, 2..100
  uint32_t samplesPerZeroCrossing;  // table entries per zero crossing, 32..2048
  float kaiserBeta;                 // window shape, 1..25
};

// Rates 1000..192000 Hz, blocks 32..4096; outputBlockSize must be what
// qorSampleRateConverterComputeOutputBlockSize gives; outputChannels equals
// inputChannels (at least 1).
struct QorSampleRateConverterConfig {
  QOR_CONFIG_HEADER_FIELDS;
  QorSampleRateConverterParameters parameters;
};

struct QorSampleRateConverterInst;

// The output block for a configuration: ceil(outputRate / inputRate x
// inputBlockSize), quotient and product in float. `outputBlockSize` is not
// checked for null.
QorSampleRateConverterResult qorSampleRateConverterComputeOutputBlockSize(uint32_t inputSampleRate,
                                                                          uint32_t inputBlockSize,
                                                                          uint32_t outputSampleRate,
                                                                          uint32_t* outputBlockSize);
QorSampleRateConverterResult qorSampleRateConverterGetDefaultParameters(
    QorSampleRateConverterParameters* parameters);
QorSampleRateConverterResult qorSampleRateConverterGetInstanceSize(
    const QorSampleRateConverterConfig* config, size_t* size);
QorSampleRateConverterResult qorSampleRateConverterInit(QorSampleRateConverterInst* inst,
                                                        const QorSampleRateConverterConfig* config);
// Converts inputBlockSize samples of each channel of `input` into `output`
// (each channel room for outputBlockSize samples) and writes the number of
// samples produced per channel. Input and output must not overlap unless the
// rates are equal.
QorSampleRateConverterResult qorSampleRateConverterProcess(QorSampleRateConverterInst* inst,
                                                           float** input, float** output,
                                                           uint32_t* outputCount);
// Clears the signal history; the drift-correction counters carry on.
QorSampleRateConverterResult qorSampleRateConverterFlush(QorSampleRateConverterInst* inst);
QorSampleRateConverterResult qorSampleRateConverterGetParameters(
    QorSampleRateConverterInst* inst, QorSampleRateConverterParameters* parameters);
// Delay in output samples as reported to the chain: 2 Nz + 1 when
// down-sampling, trunc(2 x outputRate / inputRate x Nz + 2) when up-sampling.
// It is the delay of the first block after Init or Flush. That block is
// filled from the zeros the converter starts with, so it cannot take all of
// its input; the input it leaves out shortens the delay from then on to
// between (H - 1) and (H + 1) x outputRate / inputRate, H being the kernel's
// half width in input samples (about 12 instead of 23 from 44.1 to 48 kHz).
QorSampleRateConverterResult qorSampleRateConverterGetCurrentLatency(QorSampleRateConverterInst* inst,
                                                                     int32_t* latency);
QorSampleRateConverterResult qorSampleRateConverterRelease(QorSampleRateConverterInst* inst);

}  // namespace QorSampleRateConverter_API_V1

namespace qor {

enum class TapKernel : uint32_t;

// Pins an initialised converter to one tap kernel (dsp/voice/interpolation_taps.h),
// so tests can hold the kernels against each other; false, changing nothing,
// when the instance is not initialised or the kernel cannot run here.
bool sampleRateConverterUseTaps(QorSampleRateConverter_API_V1::QorSampleRateConverterInst* inst,
                                TapKernel kernel);

}  // namespace qor
