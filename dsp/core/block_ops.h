// Block arithmetic on float buffers. n = 0 does nothing.
#pragma once

#include <cstdint>

namespace qor {

void copyBlock(const float* src, float* dst, uint32_t n);
void zeroBlock(float* buf, uint32_t n);
// out[i] = in[i] * g
void scaleBlock(const float* in, float* out, float g, uint32_t n);
void scaleBlockInPlace(float* buf, float g, uint32_t n);
// out[i] = a[i] * b[i]
void multiplyBlocks(const float* a, const float* b, float* out, uint32_t n);

}  // namespace qor
