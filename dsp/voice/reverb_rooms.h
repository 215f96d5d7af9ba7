// Early-reflection patterns of the reverb's ten room types.
#pragma once

#include <cstdint>

namespace qor {

constexpr int32_t kReverbRoomCount = 10;
constexpr int32_t kReverbMaxTaps = 16;

// Bus A is summed plainly; bus B goes through the reflection diffuser.
enum ReverbBus : uint8_t { kReverbBusA = 0, kReverbBusB = 1 };

struct ReverbTapEntry {
  float timeMs;  // at roomSize 1
  float gainLeft;
  float gainRight;
  uint8_t bus;
};

struct ReverbRoom {
  int32_t tapCount;
  uint8_t mirror;      // the right input's taps use the gains swapped
  float lateOffsetMs;  // late pre-delay at roomSize 1
  ReverbTapEntry taps[kReverbMaxTaps];
};

// Room types outside 0..9 are clamped to the nearest one.
const ReverbRoom& reverbRoom(int32_t type);

}  // namespace qor
