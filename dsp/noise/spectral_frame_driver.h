// Block-to-frame driver for spectral effects: turns fixed host blocks into
// 50 %-overlapping frames of N samples, hands each complete frame to the
// owner's frame processor, and plays the finished hop back out. The pipeline
// delay is N - B samples for blocks of B that divide N/2.
//
// Frame processor contract: it receives the channel's full input frame
// (N samples, oldest first; it must not change it) and the channel's output
// frame, and leaves the finished samples of this hop in output[0, N/2) and the
// windowed tail for the next frame in output[N/2, N). frameDriverAnalyse and
// frameDriverSynthesise are the sine-window overlap-add halves that do this
// around a spectral modification.
#pragma once

#include <cstdint>

#include "dsp/core/instance.h"

namespace qor {

// Per-channel frames are stored with the stride of the largest frame length.
constexpr uint32_t kFrameStride = 4096;
// Bookkeeping overrun: the block size does not fit the hop.
constexpr int32_t kFrameDriverOverrun = -10019;

// 1024 up to 48 kHz, 2048 up to 96 kHz, 4096 above.
uint32_t frameLengthForRate(uint32_t sampleRate);

// Sine window over n points with constants fixed for n = 1024, where its
// square sums to exactly 1 at 50 % overlap (they are not rescaled for other n).
void sineWindow(float* window, uint32_t n);

using FrameProcessor = void (*)(void* owner, uint32_t channel, const float* inputFrame,
                                float* outputFrame);

struct SpectralFrameDriver {
  int32_t frameLength;  // N
  int32_t hop;          // N / 2
  uint32_t channels;
  int32_t* fillCount;     // per channel: samples in the input frame
  int32_t* readPosition;  // per channel: next sample of the output frame to hand out
  float* inputFrames;     // channels x kFrameStride
  float* outputFrames;    // channels x kFrameStride
  float* window;          // kFrameStride
  FrameProcessor processor;
  void* owner;
};

// Reserves the driver's arrays for `channels` channels; places them into
// `driver` when the layout is placing (driver may be null while counting).
void frameDriverLayOut(InstanceLayout& layout, SpectralFrameDriver* driver, uint32_t channels);

// Sets the frame length, window and processor over zeroed, laid-out memory.
void frameDriverInit(SpectralFrameDriver& driver, uint32_t frameLength, FrameProcessor processor,
                     void* owner);

// Moves one block of one channel through the pipeline; input and output may
// be the same buffer. Returns 0 or kFrameDriverOverrun.
int32_t frameDriverProcess(SpectralFrameDriver& driver, uint32_t channel, const float* input,
                           float* output, uint32_t blockSize);

// Clears every channel's frames and counters; the next block primes the
// pipeline again with N - B samples of silence.
void frameDriverReset(SpectralFrameDriver& driver);

// windowed[i] = inputFrame[i] * w[i], i < N.
void frameDriverAnalyse(const SpectralFrameDriver& driver, const float* inputFrame, float* windowed);

// Overlap-add of a resynthesised frame y: the head gets y * w plus the old
// tail, the tail becomes y * w.
void frameDriverSynthesise(const SpectralFrameDriver& driver, const float* y, float* outputFrame);

}  // namespace qor
