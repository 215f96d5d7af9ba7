// Symmetric Hann window.
#pragma once

#include <cstdint>

namespace qor {

// w[i] = (1 - cos(2 pi i / (n - 1))) / 2; a single point window is 1.
void hannWindow(float* w, uint32_t n);

}  // namespace qor
