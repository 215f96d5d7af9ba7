// Memory for tests: zeroed 32-byte-aligned instance blocks and channel sets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace qor::test {

struct AlignedFree {
  void operator()(void* p) const;
};

// Zeroed, 32-byte-aligned block of `bytes` bytes (at least 32).
std::unique_ptr<unsigned char, AlignedFree> alignedBlock(size_t bytes);

// An instance block for a family, reinterpret as its opaque type.
class InstanceMemory {
 public:
  explicit InstanceMemory(size_t bytes) : size_(bytes), block_(alignedBlock(bytes)) {}
  template <class Inst>
  Inst* as() {
    return reinterpret_cast<Inst*>(block_.get());
  }
  unsigned char* bytes() { return block_.get(); }
  size_t size() const { return size_; }
  void zero() { std::memset(block_.get(), 0, size_); }

 private:
  size_t size_;
  std::unique_ptr<unsigned char, AlignedFree> block_;
};

// `channels` aligned buffers of `frames` floats and the float** a family takes.
class ChannelBuffers {
 public:
  ChannelBuffers(uint32_t channels, uint32_t frames);
  float** data() { return pointers_.data(); }
  float* operator[](uint32_t c) { return pointers_[c]; }
  const float* operator[](uint32_t c) const { return pointers_[c]; }
  uint32_t channels() const { return static_cast<uint32_t>(pointers_.size()); }
  uint32_t frames() const { return frames_; }
  void fill(float v);
  // Copies frames [offset, offset + frames()) of each source channel in.
  void load(const std::vector<std::vector<float>>& source, size_t offset);
  // Appends the block to each destination channel.
  void appendTo(std::vector<std::vector<float>>& destination) const;

 private:
  uint32_t frames_;
  std::unique_ptr<unsigned char, AlignedFree> block_;
  std::vector<float*> pointers_;
};

}  // namespace qor::test
