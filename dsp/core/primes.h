// Nearest prime from the table of the first 1000 primes (2 .. 7919).
#pragma once

#include <cstdint>

namespace qor {

constexpr int32_t kPrimeCount = 1000;

// The table prime nearest to n; the smaller one when two are equally near.
int32_t nearestPrime(int32_t n);

// The i-th prime (0-based, i < kPrimeCount).
int32_t primeAt(int32_t i);

}  // namespace qor
