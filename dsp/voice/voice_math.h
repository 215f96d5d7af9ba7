// Branch-free float arithmetic (phases, logarithms, exponentials) for the per-bin loops of the voice
// processors. Written with selects instead of library calls so that gcc can
// vectorise a loop over bins; accuracy (about 1e-5 rad, 1e-6 in sin/cos) is
// far below what a frame of audio can resolve.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <numbers>

namespace qor {

// Nearest integer for |x| < 2^22, exact in the default rounding mode.
inline float voiceRound(float x) {
  constexpr float magic = 12582912.0f;  // 1.5 * 2^23
  return (x + magic) - magic;
}

// Maps an angle into [-pi, pi] by whole turns.
inline float voiceWrap(float x) {
  constexpr float turn = 2.0f * std::numbers::pi_v<float>;
  constexpr float perTurn = 1.0f / turn;
  return x - turn * voiceRound(x * perTurn);
}

inline float voiceAtan2(float y, float x) {
  constexpr float pi = std::numbers::pi_v<float>;
  const float ax = std::fabs(x), ay = std::fabs(y);
  const float hi = ax > ay ? ax : ay;
  const float lo = ax > ay ? ay : ax;
  const float a = lo / (hi > 1.1754944e-38f ? hi : 1.1754944e-38f);  // 0/0 reads as 0
  const float s = a * a;
  float r = -0.0117212f;
  r = r * s + 0.05265332f;
  r = r * s - 0.11643287f;
  r = r * s + 0.19354346f;
  r = r * s - 0.33262347f;
  r = r * s + 0.99997726f;
  r *= a;
  // Octant fix-ups as multiply-adds with selected constants and a sign copy:
  // selects between constants are what the vectoriser accepts.
  const bool steep = ay > ax;
  r = (steep ? -1.0f : 1.0f) * r + (steep ? 0.5f * pi : 0.0f);
  const bool left = x < 0.0f;
  r = (left ? -1.0f : 1.0f) * r + (left ? pi : 0.0f);
  return std::copysign(r, y);
}

// sin and cos of an angle of moderate size (|x| up to a few thousand turns).
inline void voiceSinCos(float x, float* sine, float* cosine) {
  constexpr float twoOverPi = 2.0f / std::numbers::pi_v<float>;
  // pi/2 split in two so the reduction stays exact for moderate quadrants.
  constexpr float halfPiHi = 1.5703125f;
  constexpr float halfPiLo = 4.8382679e-4f;
  const float q = voiceRound(x * twoOverPi);
  const float y = (x - q * halfPiHi) - q * halfPiLo;
  const float z = y * y;
  float s = -1.9515295e-4f;
  s = s * z + 8.3321608e-3f;
  s = s * z - 1.6666654e-1f;
  s = s * z * y + y;
  float c = 2.443315711809948e-5f;
  c = c * z - 1.388731625493765e-3f;
  c = c * z + 4.166664568298827e-2f;
  c = c * z * z - 0.5f * z + 1.0f;
  const int quadrant = static_cast<int>(q) & 3;
  const bool swap = (quadrant & 1) != 0;
  const float sv = swap ? c : s;
  const float cv = swap ? s : c;
  *sine = (quadrant & 2) != 0 ? -sv : sv;
  *cosine = ((quadrant + 1) & 2) != 0 ? -cv : cv;
}

// Natural logarithm of a positive normal float (what the envelope loops feed
// it: magnitudes plus a floor). Relative error about 1e-7.
inline float voiceLog(float x) {
  const uint32_t bits = std::bit_cast<uint32_t>(x);
  // Split into 2^e * m with m in [sqrt(1/2), sqrt(2)).
  const uint32_t shifted = bits + (0x3F800000u - 0x3F3504F3u);
  const int32_t e = static_cast<int32_t>(shifted >> 23) - 127;
  const float m = std::bit_cast<float>((shifted & 0x007FFFFFu) + 0x3F3504F3u);
  const float s = (m - 1.0f) / (m + 1.0f);
  const float z = s * s;
  float p = 0.11111111f;  // 2 atanh(s) = ln m, odd series to s^9
  p = p * z + 0.14285715f;
  p = p * z + 0.2f;
  p = p * z + 0.33333334f;
  p = p * z + 1.0f;
  return 2.0f * s * p + static_cast<float>(e) * std::numbers::ln2_v<float>;
}

// e^x with relative error about 2e-7 for x in -87 .. 88; outside it the
// result saturates near 2^-126 or 2^127 (|x| must stay below about 1e6).
inline float voiceExp(float x) {
  const float n = voiceRound(x * std::numbers::log2e_v<float>);
  // x - n ln2 in two parts, so the reduction stays exact.
  const float r = (x - n * 0.693145752f) - n * 1.42860677e-6f;
  float p = 1.98756912e-4f;
  p = p * r + 1.39819994e-3f;
  p = p * r + 8.33345205e-3f;
  p = p * r + 4.16664568e-2f;
  p = p * r + 1.66666716e-1f;
  p = p * r + 0.5f;
  p = p * r * r + r + 1.0f;
  // The exponent is clamped as an integer: a float clamp feeding arithmetic
  // would stop gcc from vectorising the caller's loop.
  int32_t e = static_cast<int32_t>(n);
  e = e < -126 ? -126 : e;
  e = e > 127 ? 127 : e;
  return p * std::bit_cast<float>((e + 127) << 23);
}

}  // namespace qor
