#include "dsp/core/cpu_features.h"

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <cpuid.h>
#define QOR_HAS_CPUID 1
#else
#define QOR_HAS_CPUID 0
#endif

namespace qor {

bool avxUsable() {
#if QOR_HAS_CPUID
  unsigned a = 0, b = 0, c = 0, d = 0;
  if (__get_cpuid(1, &a, &b, &c, &d) == 0) return false;
  if ((c & bit_OSXSAVE) == 0 || (c & bit_AVX) == 0) return false;
  // XCR0 bits 1 and 2: SSE and AVX state saved on context switches.
  unsigned lo = 0, hi = 0;
  __asm__("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
  return (lo & 6u) == 6u;
#else
  return false;
#endif
}

}  // namespace qor
