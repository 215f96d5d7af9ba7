// A program outside the repository: only the installed umbrella header and
// library. It runs a level meter over a block and checks the reading, then
// starts the whole voice chain and runs a block through it.
#include <qor_dsp.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace QorMetering_API_V1;

int main() {
  QorMeteringConfig config{};
  config.inputSampleRate = 48000;
  config.inputBlockSize = 256;
  config.inputChannels = 1;
  if (qorMeteringGetDefaultParameters(&config.parameters) != QorMeteringResult::Success) return 1;

  size_t size = 0;
  if (qorMeteringGetInstanceSize(&config, &size) != QorMeteringResult::Success) return 2;
  void* block = std::aligned_alloc(32, (size + 31) / 32 * 32);
  std::memset(block, 0, size);
  auto* inst = static_cast<QorMeteringInst*>(block);
  if (qorMeteringInit(inst, &config) != QorMeteringResult::Success) return 3;

  alignas(32) float samples[256];
  for (float& s : samples) s = 0.5f;
  float* channels[] = {samples};
  if (qorMeteringProcess(inst, channels) != QorMeteringResult::Success) return 4;

  const QorMeteringPoint* point = nullptr;
  if (qorMeteringGetMeteringPoint(inst, &point) != QorMeteringResult::Success) return 5;
  const float peak = point->data[0];
  qorMeteringRelease(inst);
  std::free(block);
  std::printf("peak %.2f dB\n", peak);
  if (std::fabs(peak - 20.0f * std::log10(0.5f)) >= 0.01f) return 6;

  using namespace QorCalvera2_API_V1;
  QorCalvera2Config chain{};
  chain.inputSampleRate = chain.outputSampleRate = 48000;
  chain.inputBlockSize = chain.outputBlockSize = 256;
  chain.inputChannels = 1;
  chain.outputChannels = 2;
  if (qorCalvera2GetDefaultParameters(&chain.parameters) != QorCalvera2Result::Success) return 7;
  if (qorCalvera2GetInstanceSize(&chain, &size) != QorCalvera2Result::Success) return 8;
  block = std::aligned_alloc(32, (size + 31) / 32 * 32);
  std::memset(block, 0, size);
  auto* voice = static_cast<QorCalvera2Inst*>(block);
  if (qorCalvera2Init(voice, &chain) != QorCalvera2Result::Success) return 9;
  alignas(32) float left[256] = {};
  alignas(32) float right[256] = {};
  float* stereo[] = {left, right};
  if (qorCalvera2Process(voice, stereo) != QorCalvera2Result::Success) return 10;
  qorCalvera2Release(voice);
  std::free(block);
  std::printf("voice chain ran\n");
  return 0;
}
