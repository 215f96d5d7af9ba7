#include "dsp/core/primes.h"

#include <algorithm>
#include <array>

namespace qor {

namespace {

constexpr std::array<int32_t, kPrimeCount> makePrimes() {
  std::array<int32_t, kPrimeCount> p{};
  int32_t count = 0;
  for (int32_t n = 2; count < kPrimeCount; ++n) {
    bool prime = true;
    for (int32_t i = 0; i < count && p[i] * p[i] <= n; ++i) {
      if (n % p[i] == 0) {
        prime = false;
        break;
      }
    }
    if (prime) p[count++] = n;
  }
  return p;
}

constexpr std::array<int32_t, kPrimeCount> kPrimes = makePrimes();
static_assert(kPrimes.back() == 7919);

}  // namespace

int32_t primeAt(int32_t i) { return kPrimes[i]; }

int32_t nearestPrime(int32_t n) {
  const auto it = std::lower_bound(kPrimes.begin(), kPrimes.end(), n);
  if (it == kPrimes.begin()) return kPrimes.front();
  if (it == kPrimes.end()) return kPrimes.back();
  const int32_t above = *it;
  const int32_t below = *(it - 1);
  return n - below <= above - n ? below : above;
}

}  // namespace qor
