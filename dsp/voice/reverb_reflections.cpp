#include "dsp/voice/reverb_reflections.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

#include "dsp/voice/reverb_network.h"

namespace qor {

namespace {

// Rounded sample count, 0 for negative or NaN input, at most `limit`.
uint32_t toSamples(double v, uint32_t limit) {
  if (!(v >= 0.0)) return 0;
  const double r = std::floor(v + 0.5);
  return r >= static_cast<double>(limit) ? limit : static_cast<uint32_t>(r);
}

constexpr uint32_t kDiffuserDelays[2][ReverbDiffuser::kStages] = {{43, 5, 11}, {43, 7, 13}};
constexpr float kDiffuserCoefficients[2][ReverbDiffuser::kStages] = {{0.62f, -0.62f, 0.62f},
                                                                      {0.62f, 0.62f, -0.62f}};

}  // namespace

void ReverbDiffuser::configure(const uint32_t* delays, const float* coefficients, double decayMs,
                               double rate) {
  for (int st = 0; st < kStages; ++st) {
    delay[st] = delays[st];
    coefficient[st] = coefficients[st];
    rest[st] = 1.0f - coefficients[st] * coefficients[st];
    loopGain[st] = static_cast<float>(reverbPlainDecayGain(decayMs, delays[st], rate));
  }
}

void ReverbDiffuser::clear() {
  std::memset(buffer, 0, sizeof buffer);
  index = 0;
}

uint32_t ReverbReflections::ringLengthFor(uint32_t rate) {
  return static_cast<uint32_t>(std::floor(6000.0 * rate / 1000.0 + 0.5));
}

void ReverbReflections::layOut(InstanceLayout& lay, uint32_t rate, uint32_t blockSize,
                               ReverbReflections* out) {
  const uint32_t len = ringLengthFor(rate);
  for (int bus = 0; bus < 2; ++bus) {
    for (int k = 0; k < 2; ++k) {
      float* buffer = lay.take<float>(len);
      if (out != nullptr) out->ring[bus][k] = buffer;
    }
  }
  if (out != nullptr) {
    out->ringLength = len;
    out->maxDelay = len - blockSize - 1;
  }
}

void ReverbReflections::clear() {
  for (auto& bus : ring) {
    for (float* buffer : bus) std::memset(buffer, 0, sizeof(float) * ringLength);
  }
  position = 0;
  for (auto& d : diffuser) d.clear();
  lowPassState[0] = lowPassState[1] = 0.0f;
  for (auto& set : sets) {
    for (auto& tap : set.taps) {
      tap.gainLeft = tap.targetLeft;
      tap.gainRight = tap.targetRight;
      tap.share = 1.0f;
      tap.oldDelay = tap.delay;
      tap.rampLeft = 0;
    }
    set.fading = 0;
  }
}

void ReverbReflections::retune(int32_t roomType, float roomSize, double rate, int32_t rampSamples) {
  const ReverbRoom& room = reverbRoom(roomType);
  for (int c = 0; c < 2; ++c) {
    ReverbTapSet& set = sets[c];
    const int32_t running = set.active + set.fading;
    set.fading = room.tapCount < running ? running - room.tapCount : 0;
    set.active = room.tapCount;
    const bool swap = c == 1 && room.mirror != 0;
    for (int32_t k = 0; k < kReverbMaxTaps; ++k) {
      ReverbTap& tap = set.taps[k];
      float left = 0.0f, right = 0.0f;
      uint32_t delay = tap.delay;
      if (k < room.tapCount) {
        const ReverbTapEntry& entry = room.taps[k];
        left = swap ? entry.gainRight : entry.gainLeft;
        right = swap ? entry.gainLeft : entry.gainRight;
        tap.bus = entry.bus;
        delay = toSamples(static_cast<double>(entry.timeMs) * roomSize * rate / 1000.0, maxDelay);
      }
      tap.targetLeft = left;
      tap.targetRight = right;
      if (rampSamples <= 0) {
        tap.gainLeft = left;
        tap.gainRight = right;
        tap.delay = tap.oldDelay = delay;
        tap.share = 1.0f;
        tap.rampLeft = 0;
        continue;
      }
      const float steps = static_cast<float>(rampSamples);
      if (delay != tap.delay) {
        // Fade from the delay written most so far to the new one.
        const bool mostlyOld = tap.delay != tap.oldDelay && tap.share < 0.5f;
        tap.oldDelay = mostlyOld ? tap.oldDelay : tap.delay;
        tap.delay = delay;
        tap.share = 0.0f;
      }
      tap.shareStep = (1.0f - tap.share) / steps;
      tap.stepLeft = (left - tap.gainLeft) / steps;
      tap.stepRight = (right - tap.gainRight) / steps;
      tap.rampLeft = rampSamples;
    }
  }
}

void ReverbReflections::setTone(float cutoffHz, double decayMs, double rate) {
  const double w = 2.0 * std::numbers::pi * std::fmax(cutoffHz, 20.0f) / rate;
  lowPass = static_cast<float>(w / (w + 1.0));
  for (int k = 0; k < 2; ++k) {
    diffuser[k].configure(kDiffuserDelays[k], kDiffuserCoefficients[k], decayMs, rate);
  }
}

void ReverbReflections::writeTap(ReverbTap& tap, const float* x, uint32_t n) {
  float* left = ring[tap.bus][0];
  float* right = ring[tap.bus][1];
  const uint32_t len = ringLength;
  auto wrap = [len](uint32_t i) { return i >= len ? i - len : i; };

  uint32_t i = 0;
  for (; i < n && tap.rampLeft > 0; ++i) {
    tap.gainLeft += tap.stepLeft;
    tap.gainRight += tap.stepRight;
    tap.share += tap.shareStep;
    if (--tap.rampLeft == 0) {
      tap.gainLeft = tap.targetLeft;
      tap.gainRight = tap.targetRight;
      tap.share = 1.0f;
      tap.oldDelay = tap.delay;
    }
    const uint32_t at = wrap(position + i + tap.delay);
    if (tap.oldDelay == tap.delay) {
      left[at] += tap.gainLeft * x[i];
      right[at] += tap.gainRight * x[i];
    } else {
      const float now = tap.share * x[i];
      const float before = x[i] - now;
      const uint32_t old = wrap(position + i + tap.oldDelay);
      left[at] += tap.gainLeft * now;
      right[at] += tap.gainRight * now;
      left[old] += tap.gainLeft * before;
      right[old] += tap.gainRight * before;
    }
  }
  if (i == n || (tap.gainLeft == 0.0f && tap.gainRight == 0.0f)) return;

  const float gl = tap.gainLeft;
  const float gr = tap.gainRight;
  uint32_t at = wrap(position + i + tap.delay);
  while (i < n) {
    const uint32_t run = std::min(n - i, len - at);
    float* __restrict l = left + at;
    float* __restrict r = right + at;
    const float* __restrict xi = x + i;
    for (uint32_t j = 0; j < run; ++j) {
      l[j] += gl * xi[j];
      r[j] += gr * xi[j];
    }
    i += run;
    at = 0;
  }
}

void ReverbReflections::process(const float* xLeft, const float* xRight, float* eLeft,
                                float* eRight, float* busA, float* busB, uint32_t n) {
  const float* inputs[2] = {xLeft, xRight};
  for (int c = 0; c < 2; ++c) {
    ReverbTapSet& set = sets[c];
    const int32_t count = set.active + set.fading;
    bool ramping = false;
    for (int32_t k = 0; k < count; ++k) {
      writeTap(set.taps[k], inputs[c], n);
      ramping = ramping || set.taps[k].rampLeft > 0;
    }
    if (!ramping) set.fading = 0;
  }

  float* outputs[2] = {eLeft, eRight};
  for (int k = 0; k < 2; ++k) {
    // Read the block and clear it behind us, so the rings only ever hold
    // what the taps added ahead of the read position.
    uint32_t at = position;
    for (uint32_t i = 0; i < n;) {
      const uint32_t run = std::min(n - i, ringLength - at);
      std::memcpy(busA + i, ring[0][k] + at, sizeof(float) * run);
      std::memcpy(busB + i, ring[1][k] + at, sizeof(float) * run);
      std::memset(ring[0][k] + at, 0, sizeof(float) * run);
      std::memset(ring[1][k] + at, 0, sizeof(float) * run);
      i += run;
      at = 0;
    }
    float y = lowPassState[k];
    ReverbDiffuser& d = diffuser[k];
    float* e = outputs[k];
    for (uint32_t i = 0; i < n; ++i) {
      y += lowPass * (busA[i] + d.tick(busB[i]) - y);
      e[i] = y;
    }
    lowPassState[k] = std::fabs(y) < 1e-15f ? 0.0f : y;
  }
  position += n;
  if (position >= ringLength) position -= ringLength;
}

}  // namespace qor
