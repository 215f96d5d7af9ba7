#include "dsp/voice/voice_frame_ring.h"

#include <cstring>

namespace qor {

void VoiceFrameRing::layOut(InstanceLayout& layout, VoiceFrameRing* self, uint32_t inSize,
                            uint32_t outSize) {
  float* in = layout.take<float>(inSize);
  float* out = layout.take<float>(outSize);
  if (self != nullptr) {
    self->input = in;
    self->output = out;
    self->inputSize = inSize;
    self->outputSize = outSize;
  }
}

void VoiceFrameRing::reset(uint32_t firstHop) {
  if (input != nullptr) std::memset(input, 0, sizeof(float) * inputSize);
  if (output != nullptr) std::memset(output, 0, sizeof(float) * outputSize);
  inputWrite = 0;
  outputRead = 0;
  outputWrite = outputSize == 0 ? 0 : firstHop % outputSize;
}

void VoiceFrameRing::push(const float* x, uint32_t n) {
  // At most two straight copies: up to the end of the ring, then from its start.
  const uint32_t first = n < inputSize - inputWrite ? n : inputSize - inputWrite;
  std::memcpy(input + inputWrite, x, sizeof(float) * first);
  std::memcpy(input, x + first, sizeof(float) * (n - first));
  inputWrite += n;
  if (inputWrite >= inputSize) inputWrite -= inputSize;
}

void VoiceFrameRing::latest(float* frame, uint32_t frameSize) const {
  const uint32_t start =
      inputWrite >= frameSize ? inputWrite - frameSize : inputWrite + inputSize - frameSize;
  const uint32_t first = inputSize - start < frameSize ? inputSize - start : frameSize;
  std::memcpy(frame, input + start, sizeof(float) * first);
  std::memcpy(frame + first, input, sizeof(float) * (frameSize - first));
}

void VoiceFrameRing::pull(float* y, uint32_t n, float gain) {
  uint32_t done = 0;
  while (done < n) {
    const uint32_t room = outputSize - outputRead;
    const uint32_t m = n - done < room ? n - done : room;
    float* src = output + outputRead;
    float* dst = y + done;
    for (uint32_t i = 0; i < m; ++i) dst[i] = src[i] * gain;
    std::memset(src, 0, sizeof(float) * m);
    done += m;
    outputRead += m;
    if (outputRead == outputSize) outputRead = 0;
  }
}

void VoiceFrameRing::overlapAdd(const float* frame, uint32_t n, uint32_t hop) {
  uint32_t done = 0;
  uint32_t at = outputWrite;
  while (done < n) {
    const uint32_t room = outputSize - at;
    const uint32_t m = n - done < room ? n - done : room;
    float* dst = output + at;
    const float* src = frame + done;
    for (uint32_t i = 0; i < m; ++i) dst[i] += src[i];
    done += m;
    at += m;
    if (at == outputSize) at = 0;
  }
  outputWrite = (outputWrite + hop) % outputSize;
}

}  // namespace qor
