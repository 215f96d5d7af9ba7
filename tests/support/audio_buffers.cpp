#include "support/audio_buffers.h"

#include <algorithm>

#include "dsp/core/instance.h"

namespace qor::test {

void AlignedFree::operator()(void* p) const {
#ifdef _WIN32
  _aligned_free(p);
#else
  std::free(p);
#endif
}

std::unique_ptr<unsigned char, AlignedFree> alignedBlock(size_t bytes) {
  const size_t rounded = qor::roundUp32(std::max<size_t>(bytes, 32));
#ifdef _WIN32
  void* p = _aligned_malloc(rounded, 32);
#else
  void* p = std::aligned_alloc(32, rounded);
#endif
  std::memset(p, 0, rounded);
  return std::unique_ptr<unsigned char, AlignedFree>(static_cast<unsigned char*>(p));
}

ChannelBuffers::ChannelBuffers(uint32_t channels, uint32_t frames)
    : frames_(frames), block_(alignedBlock(qor::roundUp32(frames * sizeof(float)) * channels)) {
  const size_t stride = qor::roundUp32(frames * sizeof(float)) / sizeof(float);
  for (uint32_t c = 0; c < channels; ++c) {
    pointers_.push_back(reinterpret_cast<float*>(block_.get()) + c * stride);
  }
}

void ChannelBuffers::fill(float v) {
  for (float* p : pointers_) std::fill(p, p + frames_, v);
}

void ChannelBuffers::load(const std::vector<std::vector<float>>& source, size_t offset) {
  for (size_t c = 0; c < pointers_.size(); ++c) {
    const std::vector<float>& s = source[std::min(c, source.size() - 1)];
    for (uint32_t i = 0; i < frames_; ++i) {
      pointers_[c][i] = offset + i < s.size() ? s[offset + i] : 0.0f;
    }
  }
}

void ChannelBuffers::appendTo(std::vector<std::vector<float>>& destination) const {
  destination.resize(pointers_.size());
  for (size_t c = 0; c < pointers_.size(); ++c) {
    destination[c].insert(destination[c].end(), pointers_[c], pointers_[c] + frames_);
  }
}

}  // namespace qor::test
