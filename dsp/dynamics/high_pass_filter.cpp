#include "dsp/dynamics/high_pass_filter.h"

#include <cmath>

#include "dsp/core/biquad_cascade.h"
#include "dsp/core/block_ops.h"
#include "dsp/core/butterworth.h"
#include "dsp/core/bypass.h"
#include "dsp/core/instance.h"
#include "dsp/core/levels.h"

namespace QorHighPassFilter_API_V1 {

namespace {

using Result = QorHighPassFilterResult;
using Parameters = QorHighPassFilterParameters;

constexpr uint32_t kMinBlock = 32;
constexpr uint32_t kMaxBlock = 4096;

struct State {
  qor::ConfigHeader header;
  Parameters parameters;
  uint8_t updatePending;
  uint32_t currentOrder;
  float currentCutoff;  // glides towards parameters.cutoffFrequency
  float coefficients[6];  // one section and the cascade gain
  qor::BypassFade fade;
  uint64_t marker;
  float* filterState;  // s1, s2 per channel
  float* dry;          // one channel of one block, used by the channels in turn
};

Result result(int32_t code) { return static_cast<Result>(code); }

int32_t checkParameters(const Parameters& p) {
  if (p.order < 1 || p.order > 2) return qor::parameterError(0);
  if (qor::outOfRange(p.cutoffFrequency, 20.0f, 400.0f)) return qor::parameterError(1);
  if (qor::outOfRange(p.crossfadeTime, 0.0f, 500.0f)) return qor::parameterError(2);
  return qor::Success;
}

// The output half of the header and the channel count are not used.
int32_t checkConfig(const QorHighPassFilterConfig& c) {
  if (c.inputSampleRate != 44100 && c.inputSampleRate != 48000) return qor::ErrorSampleRate;
  if (c.inputBlockSize < kMinBlock || c.inputBlockSize > kMaxBlock) return qor::ErrorBlockSize;
  return checkParameters(c.parameters);
}

size_t layOut(void* base, const QorHighPassFilterConfig& config, State** out) {
  qor::InstanceLayout lay(base);
  State* s = lay.take<State>();
  float* filterState = lay.take<float>(2 * static_cast<size_t>(config.inputChannels));
  float* dry = lay.take<float>(config.inputBlockSize);
  if (s != nullptr) {
    s->filterState = filterState;
    s->dry = dry;
    *out = s;
  }
  return lay.size();
}

void zeroFilterState(State& s) { qor::zeroBlock(s.filterState, 2 * s.header.inputChannels); }

// Moves the running cutoff 10 % of the way to the target per call and
// redesigns on a change. Unforced updates keep the filter state, so the glide
// is click-free; the forced one (Init) starts from silence.
void updateCoefficients(State& s, bool forced) {
  const Parameters& p = s.parameters;
  bool changed = false;
  if (p.cutoffFrequency != s.currentCutoff) {
    s.currentCutoff = 0.9f * s.currentCutoff + 0.1f * p.cutoffFrequency;
    changed = true;
  }
  if (p.order != s.currentOrder) {
    s.currentOrder = p.order;
    changed = true;
  }
  if (std::fabs(p.cutoffFrequency - s.currentCutoff) < 1.0f) {
    s.currentCutoff = p.cutoffFrequency;
    s.updatePending = 0;
  }
  if (forced) zeroFilterState(s);
  if (changed || forced) {
    for (float& c : s.coefficients) c = 0.0f;
    qor::designButterworth(s.currentCutoff, s.currentOrder, s.header.inputSampleRate,
                           qor::kButterworthHighPass, s.coefficients);
  }
  s.fade.mix = p.enable != 0 ? 1.0f : 0.0f;
}

// Null pointers, instance alignment, the channel pointers (the first two are
// checked for alignment whatever the channel count), then the marker.
int32_t checkProcess(const State* s, float* const* channels) {
  if (s == nullptr || channels == nullptr) return qor::ErrorNullPointer;
  if (!qor::isAligned32(s)) return qor::ErrorMisaligned;
  for (uint32_t c = 0; c < s->header.inputChannels; ++c) {
    if (channels[c] == nullptr) return qor::ErrorNullPointer;
  }
  if (!qor::isAligned32(channels[0]) || !qor::isAligned32(channels[1])) return qor::ErrorMisaligned;
  if (s->marker != qor::kInitMarker) return qor::ErrorNotInitialised;
  return qor::Success;
}

}  // namespace

Result qorHighPassFilterGetInstanceSize(const QorHighPassFilterConfig* config, size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorHighPassFilterInit(QorHighPassFilterInst* inst, const QorHighPassFilterConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  s->marker = qor::kInitMarker;
  Parameters initial = config->parameters;
  if (const Result rc = qorHighPassFilterUpdateParameters(inst, &initial); rc != Result::Success) {
    s->marker = 0;
    return rc;
  }
  s->currentOrder = initial.order;
  s->currentCutoff = initial.cutoffFrequency;
  updateCoefficients(*s, true);
  s->updatePending = 0;
  s->fade.setTime(initial.crossfadeTime, static_cast<float>(s->header.inputSampleRate));
  return Result::Success;
}

Result qorHighPassFilterGetDefaultParameters(Parameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  *parameters = Parameters{1, 60.0f, 1, 50.0f};
  return Result::Success;
}

Result qorHighPassFilterGetParameters(QorHighPassFilterInst* inst, Parameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

Result qorHighPassFilterUpdateParameters(QorHighPassFilterInst* inst, Parameters* parameters) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(*parameters); rc != 0) return result(rc);
  s->parameters = *parameters;
  // The crossfade coefficient stays as Init computed it.
  s->updatePending = 1;
  return Result::Success;
}

Result qorHighPassFilterProcess(QorHighPassFilterInst* inst, float** channels) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = checkProcess(s, channels); rc != 0) return result(rc);

  // The crossfade starts from the mix this call found, even though the
  // coefficient update below resets the stored mix to its target.
  const float m = s->fade.mix;
  if (s->updatePending != 0) updateCoefficients(*s, false);

  const bool enabled = s->parameters.enable != 0;
  if (!enabled && m <= 0.00001f) return Result::Success;

  const uint32_t n = s->header.inputBlockSize;
  const bool transition = enabled ? m < 1.0f : m > 0.0f;
  const float* dry = s->dry;
  if (!transition) {
    // No fade to interleave with: channels go through in pairs.
    const uint32_t count = s->header.inputChannels;
    uint32_t c = 0;
    for (; c + 1 < count; c += 2) {
      qor::processBiquadCascadePair(channels[c], channels[c + 1], n, s->coefficients, s->filterState + 2 * c,
                                    s->filterState + 2 * (c + 1), 1);
    }
    if (c < count) qor::processBiquadCascade(channels[c], n, s->coefficients, s->filterState + 2 * c, 1);
    return Result::Success;
  }
  // Fading, channel by channel: reaching dry clears every channel's filter.
  for (uint32_t c = 0; c < s->header.inputChannels; ++c) {
    float* channel = channels[c];
    qor::copyBlock(channel, s->dry, n);
    qor::processBiquadCascade(channel, n, s->coefficients, s->filterState + 2 * c, 1);
    s->fade.mix = m;
    if (s->fade.finish(enabled, &channel, &dry, 1, n)) zeroFilterState(*s);
  }
  return Result::Success;
}

Result qorHighPassFilterFlush(QorHighPassFilterInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  zeroFilterState(*s);
  return Result::Success;
}

Result qorHighPassFilterRelease(QorHighPassFilterInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  s->marker = 0;
  return Result::Success;
}

Result qorHighPassFilterGetCurrentLatency(QorHighPassFilterInst* inst, int* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  *latency = 0;
  return Result::Success;
}

}  // namespace QorHighPassFilter_API_V1
