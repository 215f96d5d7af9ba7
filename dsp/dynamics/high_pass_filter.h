// High-pass filter: a first- or second-order Butterworth high-pass that
// removes rumble and handling noise below 20..400 Hz. A new cutoff glides
// there block by block; switching on or off crossfades with the dry signal.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dsp/core/config_header.h"
#include "dsp/core/result.h"

namespace QorHighPassFilter_API_V1 {

enum class QorHighPassFilterResult : int32_t {
  QOR_COMMON_RESULTS,
  ErrorOrder = -1005000,            // order not 1 or 2
  ErrorCutoffFrequency = -1005001,  // outside 20..400 Hz
  ErrorCrossfadeTime = -1005002,    // outside 0..500 ms
};

struct QorHighPassFilterParameters {
  uint32_t order;         // 1 or 2
  float cutoffFrequency;  // Hz, 20..400
  uint8_t enable;
  float crossfadeTime;    // ms, 0..500; read by Init only
};

// Only inputSampleRate (44100 or 48000), inputBlockSize (32..4096) and
// inputChannels are used.
struct QorHighPassFilterConfig {
  QOR_CONFIG_HEADER_FIELDS;
  QorHighPassFilterParameters parameters;
};

struct QorHighPassFilterInst;

QorHighPassFilterResult qorHighPassFilterGetInstanceSize(const QorHighPassFilterConfig* config,
                                                         size_t* size);
QorHighPassFilterResult qorHighPassFilterInit(QorHighPassFilterInst* inst,
                                              const QorHighPassFilterConfig* config);
QorHighPassFilterResult qorHighPassFilterGetDefaultParameters(QorHighPassFilterParameters* parameters);
QorHighPassFilterResult qorHighPassFilterGetParameters(QorHighPassFilterInst* inst,
                                                       QorHighPassFilterParameters* parameters);
// A new cutoff glides in over the following Process calls; a new
// crossfadeTime takes effect at the next Init.
QorHighPassFilterResult qorHighPassFilterUpdateParameters(QorHighPassFilterInst* inst,
                                                          QorHighPassFilterParameters* parameters);
// Filters inputBlockSize samples of each channel in place. channels[0] and
// channels[1] are both checked for alignment whatever the channel count, so
// the array must hold two entries (a null second entry passes).
QorHighPassFilterResult qorHighPassFilterProcess(QorHighPassFilterInst* inst, float** channels);
QorHighPassFilterResult qorHighPassFilterFlush(QorHighPassFilterInst* inst);
QorHighPassFilterResult qorHighPassFilterRelease(QorHighPassFilterInst* inst);
// Always 0.
QorHighPassFilterResult qorHighPassFilterGetCurrentLatency(QorHighPassFilterInst* inst, int* latency);

}  // namespace QorHighPassFilter_API_V1
