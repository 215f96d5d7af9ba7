// The 32 triangular mel bands of the noise reduction, laid out for a
// 1024-point transform at 44.1 kHz and used unchanged at every rate.
#pragma once

#include <cstdint>

namespace qor {

struct NoiseBandTable {
  static constexpr int32_t kBands = 32;
  static constexpr int32_t kMaxWeights = 100;
  int32_t first[kBands];  // first bin of each band
  int32_t last[kBands];   // last bin (inclusive)
  float weights[kBands][kMaxWeights];  // weight i applies to bin first + i
};

// Constant data shared by every instance. Adjacent bands' weights sum to 1
// at every bin 0..511; bin 512 and above belong to no band.
const NoiseBandTable& noiseBandTable();

}  // namespace qor
