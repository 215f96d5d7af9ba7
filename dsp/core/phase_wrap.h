// Wraps an angle into [-pi, pi).
#pragma once

#include <cmath>
#include <numbers>

namespace qor {

template <class T>
inline T wrapPhase(T angle) {
  constexpr T pi = std::numbers::pi_v<T>;
  constexpr T twoPi = 2 * std::numbers::pi_v<T>;
  T wrapped = angle - twoPi * std::floor((angle + pi) / twoPi);
  // Rounding can land exactly on +pi; the interval is half open.
  if (wrapped >= pi) wrapped -= twoPi;
  return wrapped;
}

}  // namespace qor
