#include "dsp/core/block_ops.h"

#include <cstring>

namespace qor {

// Plain loops: the compiler vectorises them and the results equal the scalar
// definitions exactly (one multiply per element, no reassociation).

void copyBlock(const float* src, float* dst, uint32_t n) {
  if (n > 0 && src != dst) std::memmove(dst, src, sizeof(float) * n);
}

void zeroBlock(float* buf, uint32_t n) {
  if (n > 0) std::memset(buf, 0, sizeof(float) * n);
}

void scaleBlock(const float* in, float* out, float g, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) out[i] = in[i] * g;
}

void scaleBlockInPlace(float* buf, float g, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) buf[i] *= g;
}

void multiplyBlocks(const float* a, const float* b, float* out, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) out[i] = a[i] * b[i];
}

}  // namespace qor
