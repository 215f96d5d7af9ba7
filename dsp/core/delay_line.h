// Circular delay line over a buffer that belongs to the caller's instance.
//
// The line never owns memory: attach() records a buffer carved from an
// instance block and detach() only forgets it. All reads are inline because
// effects call them per sample.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

namespace qor {

struct DelayLine {
  float* buffer;
  uint32_t write;        // w
  uint32_t read;         // r, for readAndClear
  uint32_t length;       // len, <= capacity
  uint32_t initialFill;  // read position and fill count after clear()
  uint32_t fillCount;
  uint8_t external;      // buffer belongs to someone else (always, here)
  uint8_t empty;         // readAndClear met the write mark
  uint32_t capacity;

  void attach(uint32_t cap, float* buf) {
    *this = DelayLine{};
    buffer = buf;
    capacity = cap;
    length = cap;
    external = 1;
  }

  void detach() {
    if (buffer != nullptr) *this = DelayLine{};
  }

  // Sets the working length (clamped to the capacity); positions wrap in it.
  void setLength(uint32_t len) {
    length = len > capacity ? capacity : len;
    if (length == 0) length = 1;
    if (write >= length) write = 0;
    if (read >= length) read = 0;
  }

  void clear() {
    if (buffer != nullptr) std::memset(buffer, 0, sizeof(float) * length);
    fillCount = initialFill;
    read = initialFill;
    write = 0;
    empty = 0;
  }

  // Returns the sample written `length` pushes ago and stores x in its place.
  float push(float x) {
    const float out = buffer[write];
    buffer[write] = x;
    advance();
    return out;
  }

  void writeSample(float x) {
    buffer[write] = x;
    advance();
  }

  void addAt(uint32_t offset, float x) { buffer[(write + offset) % length] += x; }

  float readCurrent() const { return buffer[write]; }

  float readAndClear() {
    const float out = buffer[read];
    buffer[read] = 0.0f;
    read = read + 1 == length ? 0 : read + 1;
    --fillCount;
    if (read == write) empty = 1;
    return out;
  }

  // 0 <= f <= 1: the sample round(len * f) (plus one with `extra`) behind w.
  float readRounded(float f, bool extra) const {
    if (!(f >= 0.0f && f <= 1.0f)) return buffer[write];
    const int64_t d = static_cast<int64_t>(std::floor(static_cast<float>(length) * f + 0.5f));
    return buffer[behind(d + (extra ? 1 : 0))];
  }

  // 0 < f < 1: linear interpolation at len * f samples behind w.
  float readFraction(float f) const {
    if (!(f > 0.0f && f < 1.0f)) return buffer[write];
    return interpolate(static_cast<float>(length) * f);
  }

  float readFractionOr(float f, float fallback) const {
    if (f <= 0.0f) return fallback;
    return readFraction(f);
  }

  // 0 < x < len: linear interpolation at x samples behind w.
  float readDelayed(float x) const {
    if (!(x > 0.0f && x < static_cast<float>(length))) return buffer[write];
    return interpolate(x);
  }

  float readDelayedOr(float x, float fallback) const {
    if (x <= 0.0f) return fallback;
    return readDelayed(x);
  }

  float lengthMs(float rate) const { return static_cast<float>(length) * 1000.0f / rate; }

 private:
  void advance() { write = write + 1 == length ? 0 : write + 1; }

  // Index d samples behind w, for any d >= 0.
  uint32_t behind(int64_t d) const {
    const int64_t len = length;
    int64_t idx = static_cast<int64_t>(write) - d;
    if (idx < 0) {
      idx += len;  // the usual case: one wrap, no division
      if (idx < 0) idx = ((idx % len) + len) % len;
    }
    return static_cast<uint32_t>(idx);
  }

  float interpolate(float x) const {
    const float whole = std::floor(x);
    const float a = x - whole;
    const int64_t i = static_cast<int64_t>(whole);
    return (1.0f - a) * buffer[behind(i)] + a * buffer[behind(i + 1)];
  }
};

}  // namespace qor
