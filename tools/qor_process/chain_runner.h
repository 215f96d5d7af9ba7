// Runs audio through the voice chain the way the capture path does: fixed
// host blocks in, one block out per block in.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "dsp/chain/calvera2.h"
#include "qor_process/audio_file.h"

namespace qor::tools {

struct RunSettings {
  uint32_t blockFrames = 0;         // host block; 0 = 10 ms at the file's rate
  bool compensateLatency = true;    // drop the chain's latency so output lines up with input
  std::function<void(double)> progress;  // fraction done, called between blocks
};

// One metering point after the run: its publication name and its floats.
struct MeterSnapshot {
  const char* name;
  uint32_t count;
  uint32_t stride;  // floats per entry: 3 (triples) or 2048 (frequency response)
  std::vector<float> values;
};

struct RunResult {
  AudioData output;  // stereo, at the input's rate
  int latency = 0;   // host samples, as the chain reported it after Init
  std::vector<MeterSnapshot> meters;
};

extern const char* const kMeteringPointNames[QorCalvera2_API_V1::kCalvera2MeteringPointCount];

// False with a one-line reason when the chain refuses the rate, block or
// settings.
bool runChain(const QorCalvera2_API_V1::QorCalvera2Parameters& parameters, const AudioData& input,
              const RunSettings& settings, RunResult& result, std::string& error);

}  // namespace qor::tools
