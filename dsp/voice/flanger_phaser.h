// Flanger/phaser: one of six modulation effects chosen by `mode`: three
// delay-modulated comb flangers and three all-pass phasers that differ in
// stage count and feedback.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/result.h"

namespace QorFlangerPhaser_API_V1 {

enum class QorFlangerPhaserResult : int32_t {
  QOR_COMMON_RESULTS,
  ErrorMode = -1005000,  // raised by UpdateParameters only, after the record is copied
  ErrorDepth = -1005001,
  ErrorRate = -1005002,
  ErrorCrossfadeTime = -1005003,
};

enum QorFlangerPhaserMode : int32_t {
  QorFlangerPhaserFlangerBackward = 0,  // three-tap comb, taps sweep downwards
  QorFlangerPhaserFlangerForward = 1,   // three-tap comb, taps sweep upwards
  QorFlangerPhaserFlangerSine = 2,      // one sine-swept tap
  QorFlangerPhaserPhaser4 = 3,          // 4 stages, feedback 0.7
  QorFlangerPhaserPhaser6 = 4,          // 6 stages, feedback 0.8
  QorFlangerPhaserPhaser10 = 5,         // 10 stages, feedback 0.9
};

struct QorFlangerPhaserParameters {
  int32_t mode;         // QorFlangerPhaserMode, 0..5
  float depth;          // 0..1
  float rate;           // sweep rate in Hz, 0..5 (0 freezes the sweep)
  float crossfadeTime;  // ms, 0..100
  uint8_t enable;       // clearing it stops the effect at once
};

// 44.1 or 48 kHz (in = out), 128..4096 samples (in = out), 1 or 2 channels.
struct QorFlangerPhaserConfig {
  QOR_CONFIG_HEADER_FIELDS;
  QorFlangerPhaserParameters parameters;
};

struct QorFlangerPhaserInst;

QorFlangerPhaserResult qorFlangerPhaserGetInstanceSize(const QorFlangerPhaserConfig* config,
                                                       size_t* size);
QorFlangerPhaserResult qorFlangerPhaserInit(QorFlangerPhaserInst* inst,
                                            const QorFlangerPhaserConfig* config);
QorFlangerPhaserResult qorFlangerPhaserGetDefaultParameters(QorFlangerPhaserParameters* parameters);
QorFlangerPhaserResult qorFlangerPhaserGetParameters(QorFlangerPhaserInst* inst,
                                                     QorFlangerPhaserParameters* parameters);
// Mode, depth and rate take effect at the start of the next Process.
QorFlangerPhaserResult qorFlangerPhaserUpdateParameters(QorFlangerPhaserInst* inst,
                                                        QorFlangerPhaserParameters* parameters);
// inputChannels buffers of inputBlockSize samples, in place.
QorFlangerPhaserResult qorFlangerPhaserProcess(QorFlangerPhaserInst* inst, float** channels);
QorFlangerPhaserResult qorFlangerPhaserFlush(QorFlangerPhaserInst* inst);
QorFlangerPhaserResult qorFlangerPhaserRelease(QorFlangerPhaserInst* inst);
QorFlangerPhaserResult qorFlangerPhaserGetCurrentLatency(QorFlangerPhaserInst* inst, int* latency);

}  // namespace QorFlangerPhaser_API_V1
