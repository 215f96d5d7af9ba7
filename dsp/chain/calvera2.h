// The Calvera 2 voice chain: the one effect family the host calls.
//
// It takes the capture stream at the host's rate and block size, converts it
// to 48 kHz and cuts it into 256-sample frames, runs eleven stages on every
// frame (high-pass filter, noise reduction, gating compressor, multi-band
// equaliser, multi-band compressor, vocal changer, flanger/phaser, ring
// modulator, delay, reverb, hard limiter), converts back and returns exactly
// one block for every block in. Around the stages: an on/off crossfade, an
// output gain and 31 metering points.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/metering_point.h"
#include "dsp/core/result.h"
#include "dsp/dynamics/gating_compressor.h"
#include "dsp/dynamics/hard_limiter.h"
#include "dsp/dynamics/high_pass_filter.h"
#include "dsp/dynamics/multi_band_compressor.h"
#include "dsp/dynamics/multi_band_equaliser.h"
#include "dsp/noise/noise_reduction.h"
#include "dsp/voice/delay.h"
#include "dsp/voice/flanger_phaser.h"
#include "dsp/voice/reverb.h"
#include "dsp/voice/ring_modulator.h"
#include "dsp/voice/vocal_changer.h"

namespace QorCalvera2_API_V1 {

using QorMetering_API_V1::QorMeteringPoint;

enum class QorCalvera2Result : int32_t {
  QOR_COMMON_RESULTS,
  ErrorMeteringNotEnabled = -1003006,
  // Stage codes arrive in per-stage blocks: delay -1005000, flanger/phaser
  // -1006000, gating compressor -1007000, hard limiter -1008000, high-pass
  // filter -1009000, multi-band compressor -1010000, multi-band equaliser
  // -1011000, noise reduction -1012000, reverb -1013000, ring modulator
  // -1014000, vocal changer -1015000, sample-rate converter -1016000,
  // level meter -1017000.
  ErrorConverterZeroCrossings = -1016000,
  ErrorConverterResolution = -1016001,
  ErrorConverterKaiserBeta = -1016002,
  ErrorOutputGain = -1016010,
  ErrorCrossfadeTime = -1016011,
  ErrorMeterParameter = -1017000,
};

// Record order is binding: the hard limiter's sub-record comes before reverb
// and delay, although it runs last.
struct QorCalvera2Parameters {
  float outputGain;     // dB, -100..12
  float crossfadeTime;  // ms, 0..100: on/off crossfade
  uint8_t enable;       // chain on (1) or bypassed (0)
  QorHighPassFilter_API_V1::QorHighPassFilterParameters highPassFilter;
  QorNoiseReduction_API_V1::QorNoiseReductionParameters noiseReduction;
  QorGatingCompressor_API_V1::QorGatingCompressorParameters gatingCompressor;
  QorMultiBandEqualiserParameters multiBandEqualiser;
  QorMultiBandCompressor_API_V1::QorMultiBandCompressorParameters multiBandCompressor;
  QorVocalChanger_API_V1::QorVocalChangerParameters vocalChanger;
  QorFlangerPhaser_API_V1::QorFlangerPhaserParameters flangerPhaser;
  QorRingModulator_API_V1::QorRingModulatorParameters ringModulator;
  QorHardLimiter_API_V1::QorHardLimiterParameters hardLimiter;
  QorReverb_API_V1::QorReverbParameters reverb;
  QorDelay_API_V1::QorDelayParameters delay;
};

// Rates 22050..192000 (input = output), blocks 32..8092 (input = output),
// input 1 or 2 channels, output exactly 2.
struct QorCalvera2Config {
  QOR_CONFIG_HEADER_FIELDS;
  QorCalvera2Parameters parameters;
  uint8_t meteringEnabled;
};

constexpr uint32_t kCalvera2MeteringPointCount = 31;

// In publication order, "input_metering" .. "output_metering".
struct QorCalvera2MeteringPoints {
  const QorMeteringPoint* points[kCalvera2MeteringPointCount];
};

struct QorCalvera2Inst;

QorCalvera2Result qorCalvera2GetInstanceSize(const QorCalvera2Config* config, size_t* size);
// The block must be zero-filled over the size GetInstanceSize reported.
QorCalvera2Result qorCalvera2Init(QorCalvera2Inst* inst, const QorCalvera2Config* config);
// Chain defaults: every stage's defaults, with the vocal changer,
// flanger/phaser, ring modulator, reverb and delay switched off.
QorCalvera2Result qorCalvera2GetDefaultParameters(QorCalvera2Parameters* parameters);
QorCalvera2Result qorCalvera2GetParameters(QorCalvera2Inst* inst, QorCalvera2Parameters* parameters);
// May run on another thread than Process; the chain takes no lock, so a
// block processed meanwhile may see part of the old and part of the new
// settings.
QorCalvera2Result qorCalvera2UpdateParameters(QorCalvera2Inst* inst, QorCalvera2Parameters* parameters);
// `channels` always holds two 32-byte-aligned pointers of inputBlockSize
// samples. With mono input only channels[0] is read; both are written.
QorCalvera2Result qorCalvera2Process(QorCalvera2Inst* inst, float** channels);
QorCalvera2Result qorCalvera2Flush(QorCalvera2Inst* inst);
QorCalvera2Result qorCalvera2Release(QorCalvera2Inst* inst);
// In host-rate samples.
QorCalvera2Result qorCalvera2GetCurrentLatency(QorCalvera2Inst* inst, int* latency);
QorCalvera2Result qorCalvera2GetMeteringPoints(const QorCalvera2Inst* const inst,
                                               const QorCalvera2MeteringPoints** points);

}  // namespace QorCalvera2_API_V1
