#include "dsp/noise/spectral_frame_driver.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace qor {

uint32_t frameLengthForRate(uint32_t sampleRate) {
  if (sampleRate <= 48000) return 1024;
  if (sampleRate <= 96000) return 2048;
  return 4096;
}

void sineWindow(float* window, uint32_t n) {
  // pi - pi/1024 and pi/2048: sin(pi (k + 0.5) / 1024) at n = 1024.
  constexpr double kSpan = 3.1385246920140215;
  constexpr double kOffset = 0.0015339807878856412;
  const double last = static_cast<double>(n) - 1.0;
  for (uint32_t k = 0; k < n; ++k) {
    window[k] = static_cast<float>(std::sin(static_cast<double>(k) / last * kSpan + kOffset));
  }
}

void frameDriverLayOut(InstanceLayout& layout, SpectralFrameDriver* driver, uint32_t channels) {
  const size_t frames = static_cast<size_t>(channels) * kFrameStride;
  int32_t* fill = layout.take<int32_t>(channels);
  int32_t* read = layout.take<int32_t>(channels);
  float* in = layout.take<float>(frames);
  float* out = layout.take<float>(frames);
  float* window = layout.take<float>(kFrameStride);
  if (layout.placing() && driver != nullptr) {
    driver->channels = channels;
    driver->fillCount = fill;
    driver->readPosition = read;
    driver->inputFrames = in;
    driver->outputFrames = out;
    driver->window = window;
  }
}

void frameDriverInit(SpectralFrameDriver& driver, uint32_t frameLength, FrameProcessor processor,
                     void* owner) {
  driver.frameLength = static_cast<int32_t>(frameLength);
  driver.hop = static_cast<int32_t>(frameLength / 2);
  driver.processor = processor;
  driver.owner = owner;
  sineWindow(driver.window, frameLength);
}

int32_t frameDriverProcess(SpectralFrameDriver& driver, uint32_t channel, const float* input,
                           float* output, uint32_t blockSize) {
  const int32_t n = driver.frameLength, hop = driver.hop;
  const auto block = static_cast<int32_t>(blockSize);
  int32_t& fill = driver.fillCount[channel];
  int32_t& read = driver.readPosition[channel];
  float* in = driver.inputFrames + static_cast<size_t>(channel) * kFrameStride;
  float* out = driver.outputFrames + static_cast<size_t>(channel) * kFrameStride;

  // First block after a reset: the frame starts with N - B samples of silence.
  if (fill <= 0) fill = std::max(0, n - block);
  int32_t done = 0;
  for (;;) {
    const int32_t count = std::min(block - done, n - fill);
    // The input span is taken before the same span of output is written, so
    // in-place operation is safe.
    std::memcpy(in + fill, input + done, sizeof(float) * static_cast<size_t>(count));
    fill += count;
    if (fill >= n) {
      driver.processor(driver.owner, channel, in, out);
      fill = hop;
      std::memmove(in, in + hop, sizeof(float) * static_cast<size_t>(hop));
    }
    done += count;
    if (done > block) return kFrameDriverOverrun;
    if (read + count > hop) return kFrameDriverOverrun;
    std::memcpy(output + (done - count), out + read, sizeof(float) * static_cast<size_t>(count));
    read += count;
    if (read == hop) read = 0;
    if (done >= block) return 0;
  }
}

void frameDriverReset(SpectralFrameDriver& driver) {
  const size_t frames = static_cast<size_t>(driver.channels) * kFrameStride;
  std::memset(driver.inputFrames, 0, sizeof(float) * frames);
  std::memset(driver.outputFrames, 0, sizeof(float) * frames);
  for (uint32_t c = 0; c < driver.channels; ++c) {
    driver.fillCount[c] = 0;
    driver.readPosition[c] = 0;
  }
}

void frameDriverAnalyse(const SpectralFrameDriver& driver, const float* inputFrame, float* windowed) {
  const float* w = driver.window;
  const int32_t n = driver.frameLength;
  for (int32_t i = 0; i < n; ++i) windowed[i] = inputFrame[i] * w[i];
}

void frameDriverSynthesise(const SpectralFrameDriver& driver, const float* y, float* outputFrame) {
  const float* w = driver.window;
  const int32_t hop = driver.hop;
  // The old tail is read before the new one overwrites it.
  for (int32_t i = 0; i < hop; ++i) outputFrame[i] = y[i] * w[i] + outputFrame[i + hop];
  for (int32_t i = hop; i < 2 * hop; ++i) outputFrame[i] = y[i] * w[i];
}

}  // namespace qor
