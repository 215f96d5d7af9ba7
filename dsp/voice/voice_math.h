// Branch-free float phase arithmetic for the per-bin loops of the voice
// processors. Written with selects instead of library calls so that gcc can
// vectorise a loop over bins; accuracy (about 1e-5 rad, 1e-6 in sin/cos) is
// far below what a frame of audio can resolve.
#pragma once

#include <cmath>
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
  const float a = hi > 0.0f ? lo / hi : 0.0f;
  const float s = a * a;
  float r = -0.0117212f;
  r = r * s + 0.05265332f;
  r = r * s - 0.11643287f;
  r = r * s + 0.19354346f;
  r = r * s - 0.33262347f;
  r = r * s + 0.99997726f;
  r *= a;
  r = ay > ax ? 0.5f * pi - r : r;
  r = x < 0.0f ? pi - r : r;
  return y < 0.0f ? -r : r;
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

}  // namespace qor
