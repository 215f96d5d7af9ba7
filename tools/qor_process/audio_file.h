// Reading and writing audio files for the tools, through libsndfile.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qor::tools {

struct AudioData {
  uint32_t rate = 0;
  int format = 0;                          // libsndfile format of the source
  std::vector<std::vector<float>> channels;  // non-interleaved
  size_t frames() const { return channels.empty() ? 0 : channels[0].size(); }
};

// False with a one-line reason (naming the file) on failure.
bool readAudioFile(const std::string& path, AudioData& audio, std::string& error);

// Writes through a temporary file next to `path` and renames it into place,
// so a failure never leaves a partial output. The container follows the
// file name's extension (wav, flac, aiff, caf, ogg); the sample format
// follows `sourceFormat` where the container allows it.
bool writeAudioFile(const std::string& path, const AudioData& audio, int sourceFormat, std::string& error);

}  // namespace qor::tools
