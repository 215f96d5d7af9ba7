// Instance memory and argument checks shared by every family.
//
// A family carves its instance from the caller's block with one layout routine
// that walks the pieces with an InstanceLayout. Run over a null base it only
// counts (GetInstanceSize); run over the caller's block it also places the
// pieces (Init). Size and layout therefore come from the same code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "dsp/core/result.h"

namespace qor {

constexpr uint64_t kInitMarker = 0xC0FFEE;
constexpr size_t kAlignment = 32;

constexpr size_t roundUp32(size_t n) { return (n + kAlignment - 1) & ~(kAlignment - 1); }

inline bool isAligned32(const void* p) {
  return (reinterpret_cast<uintptr_t>(p) & (kAlignment - 1)) == 0;
}

class InstanceLayout {
 public:
  explicit InstanceLayout(void* base) : base_(static_cast<unsigned char*>(base)) {}

  // Reserves `count` objects of T rounded up to 32 bytes. Returns null while
  // only counting. Objects are created in place, so the zeroed block becomes
  // zero-initialised T without a constructor running over live data.
  template <class T>
  T* take(size_t count = 1) {
    static_assert(alignof(T) <= kAlignment);
    T* p = nullptr;
    if (base_ != nullptr && count > 0) {
      p = std::launder(reinterpret_cast<T*>(base_ + used_));
    }
    used_ += roundUp32(sizeof(T) * count);
    return p;
  }

  // Reserves raw bytes (sub-instances of other families).
  void* takeBytes(size_t bytes) {
    void* p = base_ != nullptr && bytes > 0 ? base_ + used_ : nullptr;
    used_ += roundUp32(bytes);
    return p;
  }

  bool placing() const { return base_ != nullptr; }
  size_t size() const { return used_; }

 private:
  unsigned char* base_;
  size_t used_ = 0;
};

// Range test that lets NaN pass: fails only below lo or above hi.
inline bool outOfRange(float v, float lo, float hi) { return v < lo || v > hi; }
inline bool outOfRange(int32_t v, int32_t lo, int32_t hi) { return v < lo || v > hi; }

// Argument checks in the order every family applies them. Each returns 0 or
// the first failing code. `State` is a family's instance record, which has a
// 64-bit `marker` member.

// Init: null, alignment, already initialised. The caller then writes 0 to the
// marker so that a failed Init leaves the instance not initialised.
template <class State>
int32_t checkInit(const State* inst, const void* config) {
  if (inst == nullptr || config == nullptr) return ErrorNullPointer;
  if (!isAligned32(inst)) return ErrorMisaligned;
  if (inst->marker == kInitMarker) return ErrorAlreadyInitialised;
  return Success;
}

// Calls on an initialised instance with one more pointer argument (a
// parameter record or an output); pass the instance again when there is none.
template <class State>
int32_t checkReady(const State* inst, const void* arg) {
  if (inst == nullptr || arg == nullptr) return ErrorNullPointer;
  if (inst->marker != kInitMarker) return ErrorNotInitialised;
  return Success;
}

// Process: null, instance alignment, each channel's alignment, marker. The
// channel count comes from the caller, usually the instance's configuration.
template <class State>
int32_t checkProcess(const State* inst, const float* const* channels, uint32_t channelCount) {
  if (inst == nullptr || channels == nullptr) return ErrorNullPointer;
  if (!isAligned32(inst)) return ErrorMisaligned;
  for (uint32_t c = 0; c < channelCount; ++c) {
    if (channels[c] == nullptr) return ErrorNullPointer;
    if (!isAligned32(channels[c])) return ErrorMisaligned;
  }
  if (inst->marker != kInitMarker) return ErrorNotInitialised;
  return Success;
}

// Reinterprets a family's opaque public instance as its state record.
template <class State, class Public>
State* stateOf(Public* inst) { return reinterpret_cast<State*>(inst); }
template <class State, class Public>
const State* stateOf(const Public* inst) { return reinterpret_cast<const State*>(inst); }

// GetParameters of a family whose state keeps its record as `parameters`:
// the checks, then the copy.
template <class State, class Public, class Parameters>
int32_t copyParameters(const Public* inst, Parameters* parameters) {
  const State* s = stateOf<State>(inst);
  if (const int32_t rc = checkReady(s, parameters); rc != 0) return rc;
  *parameters = s->parameters;
  return Success;
}

}  // namespace qor
