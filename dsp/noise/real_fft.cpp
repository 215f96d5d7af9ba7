#include "dsp/noise/real_fft.h"

#include <cmath>
#include <cstddef>
#include <numbers>

#if defined(__SSE2__) && !defined(QOR_FFT_PORTABLE)
#include <emmintrin.h>
#define QOR_FFT_SSE2 1
#else
#define QOR_FFT_SSE2 0
#endif

// An N-point real transform runs as an N/2-point complex transform on the
// even/odd samples (split re/im arrays in the scratch), followed by the usual
// half-length untangling step. The complex part is decimation in time: a
// bit-reversed gather fused with the first two stages, then pairs of stages
// fused into radix-4 passes, vectorised four butterflies wide. All twiddles
// come from the per-stage quarter-wave tables, rotated by -i where a
// butterfly needs the second or later quadrant.

namespace qor {

namespace {

constexpr uint32_t kHeaderBytes = 24;
constexpr uint32_t kDirectTableOffset = 32;
static_assert(sizeof(RealFftSetup) <= kHeaderBytes);

bool isPowerOfTwo(uint32_t n) { return n != 0 && (n & (n - 1)) == 0; }

uint32_t log2Of(uint32_t n) {
  uint32_t b = 0;
  while ((1u << b) < n) ++b;
  return b;
}

// Pair offset of stage L's table (L = 8, 16, ...): sum of L'/4 - 1 below L.
uint32_t stageOffset(uint32_t stage) { return stage / 4 + 1 - log2Of(stage); }

// Points at stage L's table so that entry j (1 <= j < L/4) is at [2j], [2j+1].
const float* stageTable(const float* twiddles, uint32_t stage) {
  return twiddles + 2 * static_cast<ptrdiff_t>(stageOffset(stage)) - 2;
}

// e^(-2 pi i j / L) for any 0 <= j < L, from the quarter-wave table.
void twiddle(const float* table, uint32_t stage, uint32_t j, float& wr, float& wi) {
  const uint32_t quarter = stage / 4;
  const uint32_t r = j % quarter;
  float c = r == 0 ? 1.0f : table[2 * r];
  float s = r == 0 ? 0.0f : table[2 * r + 1];
  for (uint32_t q = j / quarter; q > 0; --q) {  // times -i per quadrant
    const float t = c;
    c = s;
    s = -t;
  }
  wr = c;
  wi = s;
}

// ---- four-wide vectors: SSE2, or a plain twin with the same arithmetic ----
#if QOR_FFT_SSE2
using V = __m128;
inline V load(const float* p) { return _mm_load_ps(p); }
inline V loadu(const float* p) { return _mm_loadu_ps(p); }
inline void store(float* p, V a) { _mm_store_ps(p, a); }
inline void storeu(float* p, V a) { _mm_storeu_ps(p, a); }
inline V add(V a, V b) { return _mm_add_ps(a, b); }
inline V sub(V a, V b) { return _mm_sub_ps(a, b); }
inline V mul(V a, V b) { return _mm_mul_ps(a, b); }
inline V splat(float x) { return _mm_set1_ps(x); }
inline V lanes(float a, float b, float c, float d) { return _mm_setr_ps(a, b, c, d); }
inline V reverse(V a) { return _mm_shuffle_ps(a, a, _MM_SHUFFLE(0, 1, 2, 3)); }
// Four (x, y) pairs at p into x and y vectors.
inline void loadPairs(const float* p, V& x, V& y) {
  const V a = _mm_loadu_ps(p), b = _mm_loadu_ps(p + 4);
  x = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
  y = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
}
inline void storePairs(float* p, V x, V y) {
  _mm_storeu_ps(p, _mm_unpacklo_ps(x, y));
  _mm_storeu_ps(p + 4, _mm_unpackhi_ps(x, y));
}
#else
struct V {
  float v[4];
};
inline V load(const float* p) { return {{p[0], p[1], p[2], p[3]}}; }
inline V loadu(const float* p) { return load(p); }
inline void store(float* p, V a) {
  for (int i = 0; i < 4; ++i) p[i] = a.v[i];
}
inline void storeu(float* p, V a) { store(p, a); }
inline V add(V a, V b) { return {{a.v[0] + b.v[0], a.v[1] + b.v[1], a.v[2] + b.v[2], a.v[3] + b.v[3]}}; }
inline V sub(V a, V b) { return {{a.v[0] - b.v[0], a.v[1] - b.v[1], a.v[2] - b.v[2], a.v[3] - b.v[3]}}; }
inline V mul(V a, V b) { return {{a.v[0] * b.v[0], a.v[1] * b.v[1], a.v[2] * b.v[2], a.v[3] * b.v[3]}}; }
inline V splat(float x) { return {{x, x, x, x}}; }
inline V lanes(float a, float b, float c, float d) { return {{a, b, c, d}}; }
inline V reverse(V a) { return {{a.v[3], a.v[2], a.v[1], a.v[0]}}; }
inline void loadPairs(const float* p, V& x, V& y) {
  x = {{p[0], p[2], p[4], p[6]}};
  y = {{p[1], p[3], p[5], p[7]}};
}
inline void storePairs(float* p, V x, V y) {
  for (int i = 0; i < 4; ++i) {
    p[2 * i] = x.v[i];
    p[2 * i + 1] = y.v[i];
  }
}
#endif

// Twiddles e^(-2 pi i j / L) for j = j0 .. j0 + 3 (j0 a multiple of 4).
void twiddles4(const float* twiddleBase, uint32_t stage, uint32_t j0, V& wr, V& wi) {
  const float* table = stageTable(twiddleBase, stage);
  const uint32_t quarter = stage / 4;
  const uint32_t r = j0 % quarter;
  if (quarter >= 4 && r != 0) {
    // Whole group in one quadrant and clear of the implicit j = 0 entry.
    V c, s;
    loadPairs(table + 2 * r, c, s);
    switch (j0 / quarter) {
      case 0: wr = c; wi = s; break;
      case 1: wr = s; wi = sub(splat(0.0f), c); break;
      case 2: wr = sub(splat(0.0f), c); wi = sub(splat(0.0f), s); break;
      default: wr = sub(splat(0.0f), s); wi = c; break;
    }
    return;
  }
  float r0, r1, r2, r3, i0, i1, i2, i3;
  twiddle(table, stage, j0, r0, i0);
  twiddle(table, stage, j0 + 1, r1, i1);
  twiddle(table, stage, j0 + 2, r2, i2);
  twiddle(table, stage, j0 + 3, r3, i3);
  wr = lanes(r0, r1, r2, r3);
  wi = lanes(i0, i1, i2, i3);
}

// Bit-reversed gather of m complex points (element k at src[k * stride])
// fused with the two trivial first stages. rev_m(k) = bitReverse[2k].
void gatherFirstStages(const float* srcRe, const float* srcIm, uint32_t stride,
                       const uint32_t* bitReverse, uint32_t m, float* zr, float* zi) {
  const uint32_t half = m / 2 * stride, quarter = m / 4 * stride;
  for (uint32_t g = 0; g < m / 4; ++g) {
    const uint32_t i0 = bitReverse[8 * g] * stride;
    const uint32_t i1 = i0 + half, i2 = i0 + quarter, i3 = i0 + half + quarter;
    const float s01r = srcRe[i0] + srcRe[i1], s01i = srcIm[i0] + srcIm[i1];
    const float d01r = srcRe[i0] - srcRe[i1], d01i = srcIm[i0] - srcIm[i1];
    const float s23r = srcRe[i2] + srcRe[i3], s23i = srcIm[i2] + srcIm[i3];
    const float d23r = srcRe[i2] - srcRe[i3], d23i = srcIm[i2] - srcIm[i3];
    float* r = zr + 4 * g;
    float* i = zi + 4 * g;
    r[0] = s01r + s23r;
    i[0] = s01i + s23i;
    r[2] = s01r - s23r;
    i[2] = s01i - s23i;
    // -i * d23 = (d23i, -d23r)
    r[1] = d01r + d23i;
    i[1] = d01i - d23r;
    r[3] = d01r - d23i;
    i[3] = d01i + d23r;
  }
}

// One radix-2 stage of length 8 (four butterflies per block, one vector).
void radix2Stage8(const float* twiddleBase, uint32_t m, float* zr, float* zi) {
  V wr, wi;
  twiddles4(twiddleBase, 8, 0, wr, wi);
  for (uint32_t s = 0; s < m; s += 8) {
    const V ar = load(zr + s), ai = load(zi + s);
    const V br = load(zr + s + 4), bi = load(zi + s + 4);
    const V tr = sub(mul(br, wr), mul(bi, wi));
    const V ti = add(mul(br, wi), mul(bi, wr));
    store(zr + s, add(ar, tr));
    store(zi + s, add(ai, ti));
    store(zr + s + 4, sub(ar, tr));
    store(zi + s + 4, sub(ai, ti));
  }
}

// Stages L/2 and L fused: per block, quarters A0 A1 B0 B1 of length Q = L/4.
void radix4Stages(const float* twiddleBase, uint32_t stage, uint32_t m, float* zr, float* zi) {
  const uint32_t q = stage / 4;
  for (uint32_t j = 0; j < q; j += 4) {
    V w1r, w1i, w2r, w2i;
    twiddles4(twiddleBase, stage / 2, j, w1r, w1i);
    twiddles4(twiddleBase, stage, j, w2r, w2i);
    for (uint32_t s = j; s < m; s += stage) {
      float* r = zr + s;
      float* i = zi + s;
      const V a0r = load(r), a0i = load(i);
      const V a1r = load(r + q), a1i = load(i + q);
      const V b0r = load(r + 2 * q), b0i = load(i + 2 * q);
      const V b1r = load(r + 3 * q), b1i = load(i + 3 * q);
      // First stage: twiddle w1 on the odd quarters.
      V tr = sub(mul(a1r, w1r), mul(a1i, w1i));
      V ti = add(mul(a1r, w1i), mul(a1i, w1r));
      const V u0r = add(a0r, tr), u0i = add(a0i, ti);
      const V u1r = sub(a0r, tr), u1i = sub(a0i, ti);
      tr = sub(mul(b1r, w1r), mul(b1i, w1i));
      ti = add(mul(b1r, w1i), mul(b1i, w1r));
      const V v0r = add(b0r, tr), v0i = add(b0i, ti);
      const V v1r = sub(b0r, tr), v1i = sub(b0i, ti);
      // Second stage: w2 on v0, -i * w2 on v1.
      tr = sub(mul(v0r, w2r), mul(v0i, w2i));
      ti = add(mul(v0r, w2i), mul(v0i, w2r));
      store(r, add(u0r, tr));
      store(i, add(u0i, ti));
      store(r + 2 * q, sub(u0r, tr));
      store(i + 2 * q, sub(u0i, ti));
      tr = sub(mul(v1r, w2r), mul(v1i, w2i));
      ti = add(mul(v1r, w2i), mul(v1i, w2r));
      // -i * (tr + i ti) = ti - i tr
      store(r + q, add(u1r, ti));
      store(i + q, sub(u1i, tr));
      store(r + 3 * q, sub(u1r, ti));
      store(i + 3 * q, add(u1i, tr));
    }
  }
}

// In-place complex DFT of m points (m >= 4) whose first two stages are done.
void remainingStages(const float* twiddleBase, uint32_t m, float* zr, float* zi) {
  uint32_t stage = 8;
  if ((log2Of(m) & 1) != 0 && m >= 8) {
    radix2Stage8(twiddleBase, m, zr, zi);
    stage = 16;
  }
  for (; stage * 2 <= m; stage *= 4) radix4Stages(twiddleBase, stage * 2, m, zr, zi);
}

float* alignScratch(void* scratch) {
  const uintptr_t p = (reinterpret_cast<uintptr_t>(scratch) + 15) & ~static_cast<uintptr_t>(15);
  return reinterpret_cast<float*>(p);
}

void forwardPowerOfTwo(const RealFftSetup& setup, const float* input, float* re, float* im,
                       float* scratch) {
  const uint32_t n = setup.size, m = n / 2, h = m / 2;
  float* zr = scratch;
  float* zi = scratch + m;
  gatherFirstStages(input, input + 1, 2, setup.bitReverse, m, zr, zi);
  remainingStages(setup.twiddles, m, zr, zi);

  // Untangle: X[k] = E + T, X[m-k] = conj(E - T) with E = (Z[k] + conj Z[m-k]) / 2,
  // T = w^k * (-i/2) (Z[k] - conj Z[m-k]), w = e^(-2 pi i / n).
  re[0] = zr[0] + zi[0];
  im[0] = 0.0f;
  re[m] = zr[0] - zi[0];
  im[m] = 0.0f;
  const float* table = stageTable(setup.twiddles, n);
  const V half = splat(0.5f);
  uint32_t k = 1;
  for (; k + 3 < h; k += 4) {
    const V ar = loadu(zr + k), ai = loadu(zi + k);
    const V br = reverse(loadu(zr + m - k - 3)), bi = reverse(loadu(zi + m - k - 3));
    const V er = mul(half, add(ar, br)), ei = mul(half, sub(ai, bi));
    const V orr = mul(half, add(ai, bi)), oi = mul(half, sub(br, ar));
    V wr, wi;
    loadPairs(table + 2 * k, wr, wi);
    const V tr = sub(mul(wr, orr), mul(wi, oi));
    const V ti = add(mul(wr, oi), mul(wi, orr));
    storeu(re + k, add(er, tr));
    storeu(im + k, add(ei, ti));
    storeu(re + m - k - 3, reverse(sub(er, tr)));
    storeu(im + m - k - 3, reverse(sub(ti, ei)));
  }
  for (; k < h; ++k) {
    const float ar = zr[k], ai = zi[k], br = zr[m - k], bi = zi[m - k];
    const float er = 0.5f * (ar + br), ei = 0.5f * (ai - bi);
    const float orr = 0.5f * (ai + bi), oi = 0.5f * (br - ar);
    float wr, wi;
    twiddle(table, n, k, wr, wi);
    const float tr = wr * orr - wi * oi, ti = wr * oi + wi * orr;
    re[k] = er + tr;
    im[k] = ei + ti;
    re[m - k] = er - tr;
    im[m - k] = ti - ei;
  }
  re[h] = zr[h];
  im[h] = -zi[h];
}

void inversePowerOfTwo(const RealFftSetup& setup, const float* re, const float* im, float* output,
                       float* scratch) {
  const uint32_t n = setup.size, m = n / 2, h = m / 2;
  float* zr = scratch;
  float* zi = scratch + m;
  float* tr = scratch + n;
  float* ti = scratch + n + m;

  // Retangle into 2 Z: Z[k] = E + i conj(w^k) D, Z[m-k] = conj(E - i conj(w^k) D)
  // with E = X[k] + conj X[m-k], D = X[k] - conj X[m-k].
  tr[0] = re[0] + re[m];
  ti[0] = re[0] - re[m];
  const float* table = stageTable(setup.twiddles, n);
  uint32_t k = 1;
  for (; k + 3 < h; k += 4) {
    const V ar = loadu(re + k), ai = loadu(im + k);
    const V br = reverse(loadu(re + m - k - 3)), bi = reverse(loadu(im + m - k - 3));
    const V er = add(ar, br), ei = sub(ai, bi);
    const V dr = sub(ar, br), di = add(ai, bi);
    V wr, wi;
    loadPairs(table + 2 * k, wr, wi);
    const V ur = sub(mul(wi, dr), mul(wr, di));
    const V ui = add(mul(wr, dr), mul(wi, di));
    storeu(tr + k, add(er, ur));
    storeu(ti + k, add(ei, ui));
    storeu(tr + m - k - 3, reverse(sub(er, ur)));
    storeu(ti + m - k - 3, reverse(sub(ui, ei)));
  }
  for (; k < h; ++k) {
    const float ar = re[k], ai = im[k], br = re[m - k], bi = im[m - k];
    const float er = ar + br, ei = ai - bi, dr = ar - br, di = ai + bi;
    float wr, wi;
    twiddle(table, n, k, wr, wi);
    const float ur = wi * dr - wr * di, ui = wr * dr + wi * di;
    tr[k] = er + ur;
    ti[k] = ei + ui;
    tr[m - k] = er - ur;
    ti[m - k] = ui - ei;
  }
  tr[h] = 2.0f * re[h];
  ti[h] = -2.0f * im[h];

  // The inverse DFT is the forward one with re and im swapped on both sides.
  gatherFirstStages(ti, tr, 1, setup.bitReverse, m, zr, zi);
  remainingStages(setup.twiddles, m, zr, zi);

  // 1/n is a power of two, so the product equals the division exactly.
  const V scale = splat(1.0f / static_cast<float>(n));
  for (uint32_t j = 0; j < m; j += 4) {
    storePairs(output + 2 * j, mul(load(zi + j), scale), mul(load(zr + j), scale));
  }
}

// Any other length: a direct transform over the table of N roots of unity,
// summed in double.
void forwardDirect(const RealFftSetup& setup, const float* input, float* re, float* im) {
  const uint32_t n = setup.size;
  const float* roots = setup.twiddles;  // (cos, sin) of 2 pi k / n
  for (uint32_t k = 0; k <= n / 2; ++k) {
    double sr = 0.0, si = 0.0;
    uint32_t index = 0;
    for (uint32_t t = 0; t < n; ++t) {
      sr += static_cast<double>(input[t]) * roots[2 * index];
      si += static_cast<double>(input[t]) * roots[2 * index + 1];
      index += k;
      if (index >= n) index -= n;
    }
    re[k] = static_cast<float>(sr);
    im[k] = static_cast<float>(-si);
  }
  im[0] = 0.0f;
  if (n % 2 == 0) im[n / 2] = 0.0f;
}

void inverseDirect(const RealFftSetup& setup, const float* re, const float* im, float* output) {
  const uint32_t n = setup.size;
  const float* roots = setup.twiddles;
  for (uint32_t t = 0; t < n; ++t) {
    double acc = re[0];
    uint32_t index = 0;
    for (uint32_t k = 1; 2 * k < n; ++k) {
      index += t;
      if (index >= n) index -= n;
      acc += 2.0 * (static_cast<double>(re[k]) * roots[2 * index] -
                    static_cast<double>(im[k]) * roots[2 * index + 1]);
    }
    if (n % 2 == 0) acc += (t % 2 == 0 ? 1.0 : -1.0) * re[n / 2];
    output[t] = static_cast<float>(acc) / static_cast<float>(n);
  }
}

}  // namespace

uint32_t fftTwiddlePairs(uint32_t n) {
  if (!isPowerOfTwo(n) || n < 8) return 0;
  return n / 2 - log2Of(n);
}

uint32_t fftSetupSize(uint32_t n) {
  if (!isPowerOfTwo(n)) return 8 * n + 32;
  if (n < 8) return 24 + 4 * (n + 4);
  return ((8 * fftTwiddlePairs(n) + 31) & ~7u) + 4 * (n + 4);
}

uint32_t fftScratchSize(uint32_t n) { return isPowerOfTwo(n) ? 8 * n + 16 : 16 * n + 16; }

int32_t fftInit(RealFftSetup* setup, uint32_t n) {
  if (setup == nullptr) return kFftNullSetup;
  if ((reinterpret_cast<uintptr_t>(setup) & 7) != 0) return kFftMisaligned;
  if (n < 8) return kFftTooShort;

  unsigned char* base = reinterpret_cast<unsigned char*>(setup);
  setup->size = n;
  size_t used = 0;
  constexpr double kTwoPi = 2.0 * std::numbers::pi;
  if (isPowerOfTwo(n)) {
    float* table = reinterpret_cast<float*>(base + kHeaderBytes);
    size_t pairs = 0;
    for (uint32_t stage = 8; stage <= n; stage *= 2) {
      for (uint32_t j = 1; j < stage / 4; ++j, ++pairs) {
        const double angle = kTwoPi * j / stage;
        table[2 * pairs] = static_cast<float>(std::cos(angle));
        table[2 * pairs + 1] = static_cast<float>(-std::sin(angle));
      }
    }
    uint32_t* reversal = reinterpret_cast<uint32_t*>(base + kHeaderBytes + 8 * pairs);
    const uint32_t bits = log2Of(n);
    for (uint32_t i = 0; i < n; ++i) {
      uint32_t r = 0;
      for (uint32_t b = 0; b < bits; ++b) r |= ((i >> b) & 1u) << (bits - 1 - b);
      reversal[i] = r;
    }
    for (uint32_t i = n; i < n + 4; ++i) reversal[i] = 0;  // tail pad of the region
    setup->twiddles = table;
    setup->bitReverse = reversal;
    used = kHeaderBytes + 8 * pairs + 4 * (static_cast<size_t>(n) + 4);
  } else {
    float* table = reinterpret_cast<float*>(base + kDirectTableOffset);
    for (uint32_t k = 0; k < n; ++k) {
      const double angle = kTwoPi * k / n;
      table[2 * k] = static_cast<float>(std::cos(angle));
      table[2 * k + 1] = static_cast<float>(std::sin(angle));
    }
    setup->twiddles = table;
    setup->bitReverse = nullptr;
    used = kDirectTableOffset + 8 * static_cast<size_t>(n);
  }
  return used == fftSetupSize(n) ? kFftSuccess : kFftSizeMismatch;
}

int32_t fftForward(const RealFftSetup* setup, const float* input, float* re, float* im,
                   void* scratch) {
  if (setup == nullptr) return kFftNullSetup;
  if (setup->size < 8) return kFftSuccess;
  if (setup->bitReverse != nullptr) {
    forwardPowerOfTwo(*setup, input, re, im, alignScratch(scratch));
  } else {
    forwardDirect(*setup, input, re, im);
  }
  return kFftSuccess;
}

int32_t fftInverse(const RealFftSetup* setup, const float* re, const float* im, float* output,
                   void* scratch) {
  if (setup == nullptr) return kFftNullSetup;
  if (setup->size < 8) return kFftSuccess;
  if (setup->bitReverse != nullptr) {
    inversePowerOfTwo(*setup, re, im, output, alignScratch(scratch));
  } else {
    inverseDirect(*setup, re, im, output);
  }
  return kFftSuccess;
}

}  // namespace qor
