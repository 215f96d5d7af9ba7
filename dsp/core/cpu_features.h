// What the running processor offers beyond the baseline the library is
// built for. Families ask once, at Init, and keep the answer in their state.
#pragma once

namespace qor {

// True when the eight-lane AVX kernels can run: the processor has AVX and
// the operating system saves the upper register halves.
bool avxUsable();

}  // namespace qor
