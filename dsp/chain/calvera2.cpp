#include "dsp/chain/calvera2.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <tuple>
#include <utility>

#include "dsp/chain/frame_geometry.h"
#include "dsp/chain/result_translation.h"
#include "dsp/chain/sample_fifo.h"
#include "dsp/core/block_ops.h"
#include "dsp/core/crossfade.h"
#include "dsp/core/instance.h"
#include "dsp/core/levels.h"
#include "dsp/core/metering.h"
#include "dsp/voice/sample_rate_converter.h"

namespace QorCalvera2_API_V1 {

namespace {

using qor::ChainStage;
using Result = QorCalvera2Result;
namespace Meter = QorMetering_API_V1;
namespace Src = QorSampleRateConverter_API_V1;

constexpr uint32_t kStageRate = 48000;
constexpr uint32_t kFrame = 256;
constexpr uint32_t kStageCount = 11;

Result result(int32_t code) { return static_cast<Result>(code); }
template <class E>
int32_t code(E e) {
  return static_cast<int32_t>(e);
}

// Every stage family behind one shape, so the chain can walk its stages.
#define QOR_CHAIN_STAGE(Traits, Ns, Name, Member, Id, Stereo)                                    \
  struct Traits {                                                                                \
    using Config = Ns::Qor##Name##Config;                                                        \
    using Parameters = Ns::Qor##Name##Parameters;                                                \
    using Inst = Ns::Qor##Name##Inst;                                                            \
    static constexpr ChainStage id = ChainStage::Id;                                             \
    static constexpr bool stereo = Stereo;                                                       \
    static Parameters& of(QorCalvera2Parameters& p) { return p.Member; }                         \
    static const Parameters& of(const QorCalvera2Parameters& p) { return p.Member; }             \
    static Inst* inst(void* p) { return static_cast<Inst*>(p); }                                 \
    static int32_t defaults(Parameters* p) { return code(Ns::qor##Name##GetDefaultParameters(p)); } \
    static int32_t size(const Config* c, size_t* s) { return code(Ns::qor##Name##GetInstanceSize(c, s)); } \
    static int32_t init(void* i, const Config* c) { return code(Ns::qor##Name##Init(inst(i), c)); } \
    static int32_t update(void* i, Parameters* p) { return code(Ns::qor##Name##UpdateParameters(inst(i), p)); } \
    static int32_t process(void* i, float** ch) { return code(Ns::qor##Name##Process(inst(i), ch)); } \
    static int32_t flush(void* i) { return code(Ns::qor##Name##Flush(inst(i))); }               \
    static int32_t release(void* i) { return code(Ns::qor##Name##Release(inst(i))); }           \
    static int32_t latency(void* i, int* l) { return code(Ns::qor##Name##GetCurrentLatency(inst(i), l)); } \
  }

QOR_CHAIN_STAGE(HighPass, QorHighPassFilter_API_V1, HighPassFilter, highPassFilter, HighPassFilter, false);
QOR_CHAIN_STAGE(Noise, QorNoiseReduction_API_V1, NoiseReduction, noiseReduction, NoiseReduction, false);
QOR_CHAIN_STAGE(Gate, QorGatingCompressor_API_V1, GatingCompressor, gatingCompressor, GatingCompressor, false);
QOR_CHAIN_STAGE(Equaliser, , MultiBandEqualiser, multiBandEqualiser, MultiBandEqualiser, false);
QOR_CHAIN_STAGE(Dynamic, QorMultiBandCompressor_API_V1, MultiBandCompressor, multiBandCompressor, MultiBandCompressor, false);
QOR_CHAIN_STAGE(Vocal, QorVocalChanger_API_V1, VocalChanger, vocalChanger, VocalChanger, false);
QOR_CHAIN_STAGE(Flanger, QorFlangerPhaser_API_V1, FlangerPhaser, flangerPhaser, FlangerPhaser, false);
QOR_CHAIN_STAGE(Ring, QorRingModulator_API_V1, RingModulator, ringModulator, RingModulator, false);
QOR_CHAIN_STAGE(Echo, QorDelay_API_V1, Delay, delay, Delay, true);
QOR_CHAIN_STAGE(Room, QorReverb_API_V1, Reverb, reverb, Reverb, true);
QOR_CHAIN_STAGE(Limiter, QorHardLimiter_API_V1, HardLimiter, hardLimiter, HardLimiter, true);

#undef QOR_CHAIN_STAGE

// Chain order: placement, Init, UpdateParameters, Process, Release.
using Stages = std::tuple<HighPass, Noise, Gate, Equaliser, Dynamic, Vocal, Flanger, Ring, Echo, Room, Limiter>;
enum StageIndex : uint32_t { kHighPass, kNoise, kGate, kEqualiser, kDynamic, kVocal, kFlanger, kRing, kEcho, kRoom, kLimiter };
static_assert(std::tuple_size_v<Stages> == kStageCount);

// Calls f(stageTraits, index) for every stage in chain order until one
// returns non-zero; returns that stage's translated code.
template <class F>
int32_t forEachStage(F&& f) {
  int32_t rc = 0;
  [&]<size_t... I>(std::index_sequence<I...>) {
    ((rc == 0 ? (rc = f(std::tuple_element_t<I, Stages>{}, static_cast<uint32_t>(I)),
                 rc = rc == 0 ? 0 : qor::translateStageResult(std::tuple_element_t<I, Stages>::id, rc))
              : 0),
     ...);
  }(std::make_index_sequence<kStageCount>{});
  return rc;
}

// Metering slots. Stage points fill 4, 7, 8, 13, 14, 15 and 28; the rest are
// level meters.
constexpr uint32_t kMeterCount = 24;
constexpr uint32_t kInputMeter = 0;
constexpr uint32_t kOutputMeter = 30;
// Placement order of the 24 meters.
constexpr uint32_t kMeterSlots[kMeterCount] = {0,  1,  3,  6,  10, 12, 17, 19, 21, 2,  5,  9,
                                               11, 16, 18, 20, 22, 23, 25, 27, 24, 26, 29, 30};
// The meters UpdateParameters switches with the chain, in their order.
constexpr uint32_t kInternalMeters[22] = {1,  3,  6,  10, 12, 17, 19, 21, 23, 25, 27,
                                          2,  5,  9,  11, 16, 18, 20, 22, 24, 26, 29};
// The meters that keep running on the (idle) work buffer in bypass.
constexpr uint32_t kBypassMeters[21] = {2,  3,  5,  6,  9,  10, 11, 12, 16, 17, 18,
                                        19, 20, 21, 22, 23, 24, 25, 26, 27, 29};

bool meterIsStereo(uint32_t slot) { return slot >= 23 && slot <= 29; }

struct State {
  qor::ConfigHeader header;
  QorCalvera2Parameters parameters;
  uint8_t meteringEnabled;
  uint32_t frameSize;
  qor::FrameGeometry geometry;
  Src::QorSampleRateConverterInst* inputConverter;
  Src::QorSampleRateConverterInst* outputConverter;
  float* inputConverted[2];
  float* outputConverted[2];
  qor::SampleFifo inputFifo;
  qor::SampleFifo outputFifo;
  float* inputFifoStorage[2];
  float* outputFifoStorage[2];
  float* work[2];
  float* dry[2];
  void* stages[kStageCount];
  Meter::QorMeteringInst* meters[kCalvera2MeteringPointCount];  // by slot; null for stage points
  QorCalvera2MeteringPoints points;
  float mix;
  float crossfadeCoefficient;
  float gainCurrent;
  float gainTarget;
  float gainCoefficient;
  int32_t prefillLatency;
  uint64_t marker;
};


int32_t checkConfig(const QorCalvera2Config& c) {
  if (c.inputSampleRate < 22050 || c.inputSampleRate > 192000) return qor::ErrorSampleRate;
  if (c.outputSampleRate != c.inputSampleRate) return qor::ErrorSampleRate;
  // 8092, not 8192: kept as the host contract has always had it.
  if (c.inputBlockSize < 32 || c.inputBlockSize > 8092) return qor::ErrorBlockSize;
  if (c.outputBlockSize != c.inputBlockSize) return qor::ErrorBlockSize;
  if (c.inputChannels != 1 && c.inputChannels != 2) return qor::ErrorInputChannels;
  if (c.outputChannels != 2) return qor::ErrorOutputChannels;
  return qor::Success;
}

int32_t checkChainParameters(const QorCalvera2Parameters& p) {
  if (qor::outOfRange(p.crossfadeTime, 0.0f, 100.0f)) return qor::kChainCrossfadeTimeRange;
  if (qor::outOfRange(p.outputGain, -100.0f, 12.0f)) return qor::kChainOutputGainRange;
  return qor::Success;
}

// The per-frame operations as plain function pointers, for loops over stages.
struct StageOps {
  ChainStage id;
  int32_t (*process)(void*, float**);
  int32_t (*flush)(void*);
  int32_t (*release)(void*);
  int32_t (*latency)(void*, int*);
};

template <class S>
constexpr StageOps opsOf() {
  return {S::id, &S::process, &S::flush, &S::release, &S::latency};
}

constexpr StageOps kOps[kStageCount] = {opsOf<HighPass>(), opsOf<Noise>(),   opsOf<Gate>(),
                                        opsOf<Equaliser>(), opsOf<Dynamic>(), opsOf<Vocal>(),
                                        opsOf<Flanger>(),   opsOf<Ring>(),    opsOf<Echo>(),
                                        opsOf<Room>(),      opsOf<Limiter>()};

// Level meters that follow each stage inside the frame loop (-1: none).
constexpr int32_t kMetersAfter[kStageCount][2] = {{2, 3},   {5, 6},   {9, 10},  {11, 12},
                                                  {16, 17}, {18, 19}, {20, 21}, {22, -1},
                                                  {24, 25}, {26, 27}, {29, -1}};

// Flush order differs from chain order at the end: limiter, reverb, delay.
constexpr uint32_t kFlushOrder[kStageCount] = {kHighPass, kNoise, kGate,    kEqualiser, kDynamic, kVocal,
                                               kFlanger,  kRing,  kLimiter, kRoom,      kEcho};

template <class S>
typename S::Config stageConfig(const QorCalvera2Config& c) {
  typename S::Config sc{};
  const uint32_t channels = S::stereo ? 2 : c.inputChannels;
  sc.inputSampleRate = kStageRate;
  sc.inputBlockSize = kFrame;
  sc.inputChannels = channels;
  sc.outputSampleRate = kStageRate;
  sc.outputBlockSize = kFrame;
  sc.outputChannels = channels;
  sc.parameters = S::of(c.parameters);
  if constexpr (requires { sc.meteringEnabled; }) sc.meteringEnabled = c.meteringEnabled;
  return sc;
}

Meter::QorMeteringConfig meterConfig(const QorCalvera2Config& c, uint32_t slot) {
  Meter::QorMeteringConfig mc{};
  if (slot == kInputMeter || slot == kOutputMeter) {
    const uint32_t channels = slot == kInputMeter ? c.inputChannels : c.outputChannels;
    mc = {c.inputSampleRate, c.inputBlockSize, channels, c.inputSampleRate, c.inputBlockSize, channels, {}};
  } else {
    const uint32_t channels = meterIsStereo(slot) ? 2 : c.inputChannels;
    mc = {kStageRate, kFrame, channels, kStageRate, kFrame, channels, {}};
  }
  Meter::qorMeteringGetDefaultParameters(&mc.parameters);
  return mc;
}

int32_t translateConverter(Src::QorSampleRateConverterResult r) {
  return qor::translateStageResult(ChainStage::SampleRateConverter, code(r));
}

int32_t geometryOf(const QorCalvera2Config& c, qor::FrameGeometry& g) {
  const int32_t rc = qor::computeFrameGeometry(c.inputSampleRate, c.inputBlockSize, g);
  return rc == 0 ? 0 : qor::translateStageResult(ChainStage::SampleRateConverter, rc);
}

Src::QorSampleRateConverterConfig converterConfig(const QorCalvera2Config& c, const qor::FrameGeometry& g,
                                                  bool input) {
  Src::QorSampleRateConverterConfig cc{};
  if (input) {
    cc = {c.inputSampleRate, c.inputBlockSize, c.inputChannels, kStageRate, g.internalInputBlock, c.inputChannels, {}};
  } else {
    cc = {kStageRate, kFrame, 2, c.inputSampleRate, g.internalOutputBlock, 2, {}};
  }
  Src::qorSampleRateConverterGetDefaultParameters(&cc.parameters);
  return cc;
}

// The one layout routine: counts with a null base, places over a real one.
// Sub-instance sizes come from the stages themselves, which also validates
// their parameter records.
int32_t layOut(void* base, const QorCalvera2Config& c, size_t* size) {
  qor::InstanceLayout lay(base);
  State* s = lay.take<State>();
  qor::FrameGeometry g{};
  if (int32_t rc = geometryOf(c, g); rc != 0) return rc;
  const uint32_t inCh = c.inputChannels;

  if (g.converting) {
    for (bool input : {true, false}) {
      const Src::QorSampleRateConverterConfig cc = converterConfig(c, g, input);
      size_t bytes = 0;
      if (int32_t rc = translateConverter(Src::qorSampleRateConverterGetInstanceSize(&cc, &bytes)); rc != 0) {
        return rc;
      }
      auto* conv = static_cast<Src::QorSampleRateConverterInst*>(lay.takeBytes(bytes));
      float** out = input ? (s ? s->inputConverted : nullptr) : (s ? s->outputConverted : nullptr);
      for (uint32_t ch = 0; ch < cc.outputChannels; ++ch) {
        float* buf = lay.take<float>(cc.outputBlockSize);
        if (s) out[ch] = buf;
      }
      if (s) (input ? s->inputConverter : s->outputConverter) = conv;
    }
  }
  const uint32_t inCap = g.inputFifoCapacity;
  const uint32_t outCap = g.outputFifoCapacity;
  for (uint32_t ch = 0; ch < inCh; ++ch) {
    float* buf = lay.take<float>(inCap);
    if (s) s->inputFifoStorage[ch] = buf;
  }
  for (uint32_t ch = 0; ch < c.outputChannels; ++ch) {
    float* buf = lay.take<float>(outCap);
    if (s) s->outputFifoStorage[ch] = buf;
  }
  for (uint32_t ch = 0; ch < 2; ++ch) {
    float* buf = lay.take<float>(kFrame);
    if (s) s->work[ch] = buf;
  }
  for (uint32_t ch = 0; ch < c.outputChannels; ++ch) {
    float* buf = lay.take<float>(c.inputBlockSize);
    if (s) s->dry[ch] = buf;
  }
  if (int32_t rc = forEachStage([&](auto stage, uint32_t i) -> int32_t {
        using S = decltype(stage);
        const typename S::Config sc = stageConfig<S>(c);
        size_t bytes = 0;
        if (int32_t r = S::size(&sc, &bytes); r != 0) return r;
        void* p = lay.takeBytes(bytes);
        if (s) s->stages[i] = p;
        return 0;
      });
      rc != 0) {
    return rc;
  }
  if (c.meteringEnabled != 0) {
    for (uint32_t slot : kMeterSlots) {
      const Meter::QorMeteringConfig mc = meterConfig(c, slot);
      size_t bytes = 0;
      const int32_t rc = qor::translateStageResult(ChainStage::Metering,
                                                   code(Meter::qorMeteringGetInstanceSize(&mc, &bytes)));
      if (rc != 0) return rc;
      auto* m = static_cast<Meter::QorMeteringInst*>(lay.takeBytes(bytes));
      if (s) s->meters[slot] = m;
    }
  }
  if (s) {
    s->geometry = g;
    s->inputFifo.setUp(s->inputFifoStorage, 1, inCap, inCh);
    s->outputFifo.setUp(s->outputFifoStorage, 1, outCap, c.outputChannels);
  }
  *size = lay.size();
  return qor::Success;
}

int32_t validate(const QorCalvera2Config& c) {
  if (int32_t rc = checkConfig(c); rc != 0) return rc;
  return checkChainParameters(c.parameters);
}

// Zeros into the FIFOs so that the first host blocks can be answered before
// a frame has run. The latency they add accumulates over every Flush, as the
// host has always been told.
void prefill(State& s) {
  if (s.geometry.inputPrefill != 0) s.inputFifo.write(nullptr, s.geometry.inputPrefill);
  if (s.geometry.outputPrefill != 0) s.outputFifo.write(nullptr, s.geometry.outputPrefill);
  s.prefillLatency += s.geometry.prefillLatency;
}

int32_t runMeter(State& s, uint32_t slot, float** channels) {
  if (s.meteringEnabled == 0) return qor::Success;
  return qor::translateStageResult(ChainStage::Metering, code(Meter::qorMeteringProcess(s.meters[slot], channels)));
}

// One 256-sample frame from the input FIFO through every stage into the
// output FIFO.
int32_t runFrame(State& s) {
  s.inputFifo.read(s.work, kFrame);
  if (int32_t rc = runMeter(s, 1, s.work); rc != 0) return rc;
  for (uint32_t i = 0; i < kStageCount; ++i) {
    if (i == kEcho) {
      // The remaining stages are stereo.
      if (s.header.inputChannels == 1) qor::copyBlock(s.work[0], s.work[1], kFrame);
      if (int32_t rc = runMeter(s, 23, s.work); rc != 0) return rc;
    }
    if (int32_t rc = kOps[i].process(s.stages[i], s.work); rc != 0) {
      return qor::translateStageResult(kOps[i].id, rc);
    }
    for (int32_t slot : kMetersAfter[i]) {
      if (slot < 0) continue;
      if (int32_t rc = runMeter(s, static_cast<uint32_t>(slot), s.work); rc != 0) return rc;
    }
  }
  if (s.outputConverter != nullptr) {
    uint32_t produced = 0;
    const int32_t rc = translateConverter(
        Src::qorSampleRateConverterProcess(s.outputConverter, s.work, s.outputConverted, &produced));
    if (rc != 0) return rc;
    s.outputFifo.write(s.outputConverted, produced);
  } else {
    s.outputFifo.write(s.work, kFrame);
  }
  return qor::Success;
}

int32_t flushChain(State& s) {
  for (uint32_t i : kFlushOrder) {
    if (int32_t rc = kOps[i].flush(s.stages[i]); rc != 0) return qor::translateStageResult(kOps[i].id, rc);
  }
  for (Src::QorSampleRateConverterInst* conv : {s.inputConverter, s.outputConverter}) {
    if (conv == nullptr) continue;
    if (int32_t rc = translateConverter(Src::qorSampleRateConverterFlush(conv)); rc != 0) return rc;
  }
  s.inputFifo.clear();
  s.outputFifo.clear();
  prefill(s);
  return qor::Success;
}

int32_t updateParameters(State& s, const QorCalvera2Parameters& p) {
  if (int32_t rc = checkChainParameters(p); rc != 0) return rc;
  s.parameters = p;
  // The chain's copy is ahead of a stage that refuses its sub-record; kept.
  if (int32_t rc = forEachStage([&](auto stage, uint32_t i) -> int32_t {
        using S = decltype(stage);
        typename S::Parameters sub = S::of(s.parameters);
        return S::update(s.stages[i], &sub);
      });
      rc != 0) {
    return rc;
  }
  const float rate = static_cast<float>(s.header.inputSampleRate);
  s.crossfadeCoefficient = qor::settleCoefficient(rate, p.crossfadeTime, -100.0f);
  s.gainCurrent = s.gainTarget = qor::dbToLinear(p.outputGain);
  if (s.meteringEnabled != 0) {
    for (uint32_t slot : kInternalMeters) {
      Meter::QorMeteringParameters mp{};
      int32_t rc = code(Meter::qorMeteringGetParameters(s.meters[slot], &mp));
      if (rc == 0) {
        mp.enable = p.enable;
        rc = code(Meter::qorMeteringUpdateParameters(s.meters[slot], &mp));
      }
      // The noise reduction's input meter answer is ignored, as it always was.
      if (rc != 0 && slot != 3) return qor::translateStageResult(ChainStage::Metering, rc);
    }
  }
  return qor::Success;
}

}  // namespace

QorCalvera2Result qorCalvera2GetInstanceSize(const QorCalvera2Config* config, size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (int32_t rc = validate(*config); rc != 0) return result(rc);
  size_t bytes = 0;
  if (int32_t rc = layOut(nullptr, *config, &bytes); rc != 0) return result(rc);
  *size = bytes;
  return Result::Success;
}

QorCalvera2Result qorCalvera2Init(QorCalvera2Inst* inst, const QorCalvera2Config* config) {
  State* s = qor::stateOf<State>(inst);
  if (int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (int32_t rc = validate(*config); rc != 0) return result(rc);
  size_t size = 0;
  if (int32_t rc = layOut(nullptr, *config, &size); rc != 0) return result(rc);
  const auto* bytes = reinterpret_cast<const unsigned char*>(inst);
  for (size_t i = 0; i < size; ++i) {
    if (bytes[i] != 0) return Result::ErrorNotZeroed;
  }

  size_t used = 0;
  if (int32_t rc = layOut(inst, *config, &used); rc != 0) return result(rc);
  if (used != size) return Result::ErrorInstanceSizeMismatch;
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  s->meteringEnabled = config->meteringEnabled;
  s->frameSize = kFrame;

  if (int32_t rc = forEachStage([&](auto stage, uint32_t i) -> int32_t {
        using S = decltype(stage);
        const typename S::Config sc = stageConfig<S>(*config);
        return S::init(s->stages[i], &sc);
      });
      rc != 0) {
    return result(rc);
  }
  if (s->geometry.converting) {
    for (bool input : {true, false}) {
      const Src::QorSampleRateConverterConfig cc = converterConfig(*config, s->geometry, input);
      const int32_t rc = translateConverter(
          Src::qorSampleRateConverterInit(input ? s->inputConverter : s->outputConverter, &cc));
      if (rc != 0) return result(rc);
    }
  }

  s->prefillLatency = 0;
  prefill(*s);

  const float rate = static_cast<float>(config->inputSampleRate);
  s->crossfadeCoefficient = qor::settleCoefficient(rate, config->parameters.crossfadeTime, -100.0f);
  s->gainCoefficient = qor::settleCoefficient(
      rate, static_cast<float>(config->inputBlockSize) * 100.0f / rate, -100.0f);
  s->gainCurrent = s->gainTarget = qor::dbToLinear(config->parameters.outputGain);
  s->mix = config->parameters.enable != 0 ? 1.0f : 0.0f;

  if (s->meteringEnabled != 0) {
    for (uint32_t slot : kMeterSlots) {
      const Meter::QorMeteringConfig mc = meterConfig(*config, slot);
      int32_t rc = code(Meter::qorMeteringInit(s->meters[slot], &mc));
      const QorMeteringPoint* point = nullptr;
      if (rc == 0) rc = code(Meter::qorMeteringGetMeteringPoint(s->meters[slot], &point));
      if (rc != 0) return result(qor::translateStageResult(ChainStage::Metering, rc));
      s->points.points[slot] = point;
    }
    const QorNoiseReduction_API_V1::QorNoiseReductionMeteringPoints* nr = nullptr;
    const QorGatingCompressor_API_V1::QorGatingCompressorMeteringPoints* gc = nullptr;
    const QorMultiBandCompressor_API_V1::QorMultiBandCompressorMeteringPoints* mbc = nullptr;
    const QorHardLimiter_API_V1::QorHardLimiterMeteringPoints* hl = nullptr;
    int32_t rc = qor::translateStageResult(
        ChainStage::NoiseReduction,
        code(QorNoiseReduction_API_V1::qorNoiseReductionGetMeteringPoints(Noise::inst(s->stages[kNoise]), &nr)));
    if (rc == 0) {
      rc = qor::translateStageResult(ChainStage::GatingCompressor,
                                     code(QorGatingCompressor_API_V1::qorGatingCompressorGetMeteringPoints(
                                         Gate::inst(s->stages[kGate]), &gc)));
    }
    if (rc == 0) {
      rc = qor::translateStageResult(ChainStage::MultiBandCompressor,
                                     code(QorMultiBandCompressor_API_V1::qorMultiBandCompressorGetMeteringPoints(
                                         Dynamic::inst(s->stages[kDynamic]), &mbc)));
    }
    if (rc == 0) {
      rc = qor::translateStageResult(ChainStage::HardLimiter,
                                     code(QorHardLimiter_API_V1::qorHardLimiterGetMeteringPoints(
                                         Limiter::inst(s->stages[kLimiter]), &hl)));
    }
    if (rc != 0) return result(rc);
    s->points.points[4] = nr->points[0];
    s->points.points[7] = gc->points[0];
    s->points.points[8] = gc->points[1];
    s->points.points[13] = mbc->points[0];
    s->points.points[14] = mbc->points[1];
    s->points.points[15] = mbc->points[2];
    s->points.points[28] = hl->points[0];
  }

  s->marker = qor::kInitMarker;
  if (int32_t rc = updateParameters(*s, config->parameters); rc != 0) {
    s->marker = 0;
    return result(rc);
  }
  return Result::Success;
}

QorCalvera2Result qorCalvera2GetDefaultParameters(QorCalvera2Parameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  QorCalvera2Parameters p{};
  p.outputGain = 0.0f;
  p.crossfadeTime = 50.0f;
  p.enable = 1;
  if (int32_t rc = forEachStage([&](auto stage, uint32_t) -> int32_t {
        using S = decltype(stage);
        return S::defaults(&S::of(p));
      });
      rc != 0) {
    return result(rc);
  }
  // Inside the chain the five voice effects start switched off.
  p.vocalChanger.enable = 0;
  p.flangerPhaser.enable = 0;
  p.ringModulator.enable = 0;
  p.reverb.enable = 0;
  p.delay.enable = 0;
  *parameters = p;
  return Result::Success;
}

QorCalvera2Result qorCalvera2GetParameters(QorCalvera2Inst* inst, QorCalvera2Parameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

QorCalvera2Result qorCalvera2UpdateParameters(QorCalvera2Inst* inst, QorCalvera2Parameters* parameters) {
  State* s = qor::stateOf<State>(inst);
  if (int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  return result(updateParameters(*s, *parameters));
}

QorCalvera2Result qorCalvera2Process(QorCalvera2Inst* inst, float** channels) {
  State* s = qor::stateOf<State>(inst);
  // Both pointers are checked whatever the input channel count.
  if (int32_t rc = qor::checkProcess(s, channels, 2); rc != 0) return result(rc);
  const uint32_t n = s->header.inputBlockSize;
  const uint32_t outCh = s->header.outputChannels;

  if (int32_t rc = runMeter(*s, kInputMeter, channels); rc != 0) return result(rc);

  const bool enabled = s->parameters.enable != 0;
  const float mix = s->mix;
  const bool transition = enabled ? mix < 1.0f : mix > 0.0f;

  if (!enabled && mix <= 0.00001f) {
    // Bypassed: the meters keep reading the idle work buffer; the
    // high-pass filter's input meter keeps its last reading.
    for (uint32_t slot : kBypassMeters) {
      if (int32_t rc = runMeter(*s, slot, s->work); rc != 0) return result(rc);
    }
  } else {
    if (transition) {
      for (uint32_t ch = 0; ch < outCh; ++ch) qor::copyBlock(channels[ch], s->dry[ch], n);
    }
    if (s->inputConverter != nullptr) {
      uint32_t produced = 0;
      const int32_t rc = translateConverter(
          Src::qorSampleRateConverterProcess(s->inputConverter, channels, s->inputConverted, &produced));
      if (rc != 0) return result(rc);
      s->inputFifo.write(s->inputConverted, produced);
    } else {
      s->inputFifo.write(channels, n);
    }
    while (s->inputFifo.fill() >= kFrame && s->outputFifo.space() >= s->geometry.internalOutputBlock) {
      if (int32_t rc = runFrame(*s); rc != 0) return result(rc);
    }
    if (s->outputFifo.fill() >= n) {
      s->outputFifo.read(channels, n);
    } else {
      for (uint32_t ch = 0; ch < outCh; ++ch) qor::zeroBlock(channels[ch], n);
    }
    if (transition) {
      const float target = enabled ? 1.0f : 0.0f;
      float reached = mix;
      for (uint32_t ch = 0; ch < outCh; ++ch) {
        reached = mix;
        qor::crossfade(channels[ch], s->dry[ch], channels[ch], reached, target, s->crossfadeCoefficient, n);
      }
      s->mix = reached;
      if (std::fabs(reached - target) < 0.00001f) {
        s->mix = target;
        if (target == 0.0f) {
          if (int32_t rc = flushChain(*s); rc != 0) return result(rc);
        }
      }
    }
  }

  if (s->gainCurrent != 1.0f) {
    for (uint32_t ch = 0; ch < outCh; ++ch) qor::scaleBlockInPlace(channels[ch], s->gainCurrent, n);
  }
  if (std::fabs(s->gainTarget - s->gainCurrent) <= 0.00001f) {
    s->gainCurrent = s->gainTarget;
  } else {
    s->gainCurrent = (1.0f - s->gainCoefficient) * s->gainCurrent + s->gainCoefficient * s->gainTarget;
  }
  return result(runMeter(*s, kOutputMeter, channels));
}

QorCalvera2Result qorCalvera2Flush(QorCalvera2Inst* inst) {
  // No marker check: the chain flushes itself from inside Process too.
  if (inst == nullptr) return Result::ErrorNullPointer;
  return result(flushChain(*qor::stateOf<State>(inst)));
}

QorCalvera2Result qorCalvera2Release(QorCalvera2Inst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  for (Src::QorSampleRateConverterInst* conv : {s->inputConverter, s->outputConverter}) {
    if (conv == nullptr) continue;
    if (int32_t rc = translateConverter(Src::qorSampleRateConverterRelease(conv)); rc != 0) return result(rc);
  }
  s->inputFifo.tearDown();
  s->outputFifo.tearDown();
  for (uint32_t i = 0; i < kStageCount; ++i) {
    if (int32_t rc = kOps[i].release(s->stages[i]); rc != 0) {
      return result(qor::translateStageResult(kOps[i].id, rc));
    }
  }
  if (s->meteringEnabled != 0) {
    for (uint32_t slot : kMeterSlots) Meter::qorMeteringRelease(s->meters[slot]);
  }
  s->marker = 0;
  return Result::Success;
}

QorCalvera2Result qorCalvera2GetCurrentLatency(QorCalvera2Inst* inst, int* latency) {
  State* s = qor::stateOf<State>(inst);
  if (int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  *latency = 0;
  if (s->mix == 0.0f) return Result::Success;
  int total = 0;
  for (uint32_t i = 0; i < kStageCount; ++i) {
    // The reverb's term is always 0: its pre-delay is part of the effect.
    if (i == kRoom) continue;
    int stage = 0;
    if (int32_t rc = kOps[i].latency(s->stages[i], &stage); rc != 0) {
      return result(qor::translateStageResult(kOps[i].id, rc));
    }
    total += stage;
  }
  if (s->inputConverter != nullptr) {
    int32_t conv = 0;
    if (int32_t rc = translateConverter(Src::qorSampleRateConverterGetCurrentLatency(s->inputConverter, &conv)); rc != 0) {
      return result(rc);
    }
    total += conv;
  }
  if (s->geometry.converting) {
    total = static_cast<int>(static_cast<float>(s->header.inputSampleRate) / static_cast<float>(kStageRate) *
                             static_cast<float>(total));
  }
  if (s->outputConverter != nullptr) {
    int32_t conv = 0;
    if (int32_t rc = translateConverter(Src::qorSampleRateConverterGetCurrentLatency(s->outputConverter, &conv)); rc != 0) {
      return result(rc);
    }
    total += conv;
  }
  *latency = total + s->prefillLatency;
  return Result::Success;
}

QorCalvera2Result qorCalvera2GetMeteringPoints(const QorCalvera2Inst* const inst,
                                               const QorCalvera2MeteringPoints** points) {
  if (inst == nullptr || points == nullptr) return Result::ErrorNullPointer;
  const State* s = qor::stateOf<State>(inst);
  if (s->meteringEnabled == 0) return Result::ErrorMeteringNotEnabled;
  *points = &s->points;
  return Result::Success;
}

}  // namespace QorCalvera2_API_V1
