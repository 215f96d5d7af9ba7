// The six fields that open every family's configuration record.
#pragma once

#include <cstdint>

// Used inside each QorXConfig so that the header fields are members of the
// record itself: QorXConfig{48000, 256, 2, 48000, 256, 2, params}.
#define QOR_CONFIG_HEADER_FIELDS \
  uint32_t inputSampleRate;      \
  uint32_t inputBlockSize;       \
  uint32_t inputChannels;        \
  uint32_t outputSampleRate;     \
  uint32_t outputBlockSize;      \
  uint32_t outputChannels

namespace qor {

struct ConfigHeader {
  QOR_CONFIG_HEADER_FIELDS;
};

// Copies the header part of any family configuration.
template <class Config>
constexpr ConfigHeader headerOf(const Config& c) {
  return {c.inputSampleRate, c.inputBlockSize, c.inputChannels,
          c.outputSampleRate, c.outputBlockSize, c.outputChannels};
}

}  // namespace qor
