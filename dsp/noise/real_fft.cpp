#include "dsp/noise/real_fft.h"

#include <cmath>
#include <cstddef>
#include <cstring>
#include <numbers>

#include "dsp/core/cpu_features.h"

#if defined(__SSE2__) && !defined(QOR_FFT_PORTABLE)
#include <emmintrin.h>
#define QOR_FFT_SSE2 1
#else
#define QOR_FFT_SSE2 0
#endif

// The library is built for baseline x86-64; the eight-lane passes are
// compiled for AVX function by function and run only when fftInit found it.
// No FMA: fused products would round differently from the four-lane path.
#if QOR_FFT_SSE2 && defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <immintrin.h>
#define QOR_FFT_AVX 1
#define QOR_AVX __attribute__((target("avx")))
#else
#define QOR_FFT_AVX 0
#endif

// An N-point real transform runs as an N/2-point complex transform on the
// even/odd samples (split re/im arrays in the scratch), followed by the usual
// half-length untangling step. The complex part is decimation in time: a
// bit-reversed gather fused with the first two or three stages, then pairs of stages
// fused into radix-4 passes, vectorised four butterflies wide. All twiddles
// come from the per-stage quarter-wave tables, rotated by -i where a
// butterfly needs the second or later quadrant. The eight-lane kernel runs
// the same arithmetic in the same order; its gather works on 8x8 tiles and,
// for an even stage count, also does the length-16 stage.

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
inline void transpose(V& a, V& b, V& c, V& d) { _MM_TRANSPOSE4_PS(a, b, c, d); }
// Four complex values stored as (re, im) pairs at p + i[l], one 8-byte load each.
inline void gatherPairs(const float* p, const uint32_t* i, V& re, V& im) {
  double d0, d1, d2, d3;
  std::memcpy(&d0, p + i[0], 8);
  std::memcpy(&d1, p + i[1], 8);
  std::memcpy(&d2, p + i[2], 8);
  std::memcpy(&d3, p + i[3], 8);
  const V a = _mm_castpd_ps(_mm_set_pd(d1, d0)), b = _mm_castpd_ps(_mm_set_pd(d3, d2));
  re = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
  im = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
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
inline void transpose(V& a, V& b, V& c, V& d) {
  const V r[4] = {a, b, c, d};
  a = {{r[0].v[0], r[1].v[0], r[2].v[0], r[3].v[0]}};
  b = {{r[0].v[1], r[1].v[1], r[2].v[1], r[3].v[1]}};
  c = {{r[0].v[2], r[1].v[2], r[2].v[2], r[3].v[2]}};
  d = {{r[0].v[3], r[1].v[3], r[2].v[3], r[3].v[3]}};
}
inline void gatherPairs(const float* p, const uint32_t* i, V& re, V& im) {
  re = {{p[i[0]], p[i[1]], p[i[2]], p[i[3]]}};
  im = {{p[i[0] + 1], p[i[1] + 1], p[i[2] + 1], p[i[3] + 1]}};
}
#endif

// Twiddles of one stage: its table and quarter length.
struct Stage {
  const float* table;
  uint32_t length;
  uint32_t quarter;
  uint32_t quarterBits;

  Stage(const float* twiddleBase, uint32_t stage)
      : table(stageTable(twiddleBase, stage)),
        length(stage),
        quarter(stage / 4),
        quarterBits(log2Of(stage / 4)) {}
};

// Twiddles e^(-2 pi i j / L) for j = j0 .. j0 + 3 (j0 a multiple of 4).
inline void twiddles4(const Stage& st, uint32_t j0, V& wr, V& wi) {
  const uint32_t r = j0 & (st.quarter - 1);
  if (st.quarter >= 4 && r != 0) {
    // Whole group in one quadrant and clear of the implicit j = 0 entry.
    V c, s;
    loadPairs(st.table + 2 * r, c, s);
    switch (j0 >> st.quarterBits) {
      case 0: wr = c; wi = s; break;
      case 1: wr = s; wi = sub(splat(0.0f), c); break;
      case 2: wr = sub(splat(0.0f), c); wi = sub(splat(0.0f), s); break;
      default: wr = sub(splat(0.0f), s); wi = c; break;
    }
    return;
  }
  float r0, r1, r2, r3, i0, i1, i2, i3;
  twiddle(st.table, st.length, j0, r0, i0);
  twiddle(st.table, st.length, j0 + 1, r1, i1);
  twiddle(st.table, st.length, j0 + 2, r2, i2);
  twiddle(st.table, st.length, j0 + 3, r3, i3);
  wr = lanes(r0, r1, r2, r3);
  wi = lanes(i0, i1, i2, i3);
}

// Bit-reversed gather of m complex points stored as (re, im) pairs, fused
// with the two trivial first stages, four groups of four per round.
// rev_m(k) = bitReverse[2k]; within a group the reversed indices step by
// m/2 and m/4.
void gatherFirstStagesSmall(const float* pairs, const uint32_t* bitReverse, uint32_t m, float* zr,
                            float* zi) {
  const float* srcRe = pairs;
  const float* srcIm = pairs + 1;
  const uint32_t half = m, quarter = m / 2;
  for (uint32_t g = 0; g < m / 4; ++g) {
    const uint32_t i0 = bitReverse[8 * g] * 2;
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
    r[1] = d01r + d23i;
    i[1] = d01i - d23r;
    r[3] = d01r - d23i;
    i[3] = d01i + d23r;
  }
}

void gatherFirstStages(const float* pairs, const uint32_t* bitReverse, uint32_t m, float* zr,
                       float* zi) {
  const uint32_t half = m, quarter = m / 2;  // in floats: m/2 and m/4 pairs
  if (m < 16) {
    gatherFirstStagesSmall(pairs, bitReverse, m, zr, zi);
    return;
  }
  for (uint32_t g = 0; g < m / 4; g += 4) {
    uint32_t i0[4], i1[4], i2[4], i3[4];
    for (uint32_t l = 0; l < 4; ++l) {
      i0[l] = bitReverse[8 * (g + l)] * 2;
      i1[l] = i0[l] + half;
      i2[l] = i0[l] + quarter;
      i3[l] = i0[l] + half + quarter;
    }
    V a0r, a0i, a1r, a1i, a2r, a2i, a3r, a3i;
    gatherPairs(pairs, i0, a0r, a0i);
    gatherPairs(pairs, i1, a1r, a1i);
    gatherPairs(pairs, i2, a2r, a2i);
    gatherPairs(pairs, i3, a3r, a3i);
    const V s01r = add(a0r, a1r), s01i = add(a0i, a1i);
    const V d01r = sub(a0r, a1r), d01i = sub(a0i, a1i);
    const V s23r = add(a2r, a3r), s23i = add(a2i, a3i);
    const V d23r = sub(a2r, a3r), d23i = sub(a2i, a3i);
    // Outputs 0..3 of each group; -i * d23 = (d23i, -d23r).
    V y0r = add(s01r, s23r), y1r = add(d01r, d23i), y2r = sub(s01r, s23r), y3r = sub(d01r, d23i);
    V y0i = add(s01i, s23i), y1i = sub(d01i, d23r), y2i = sub(s01i, s23i), y3i = add(d01i, d23r);
    transpose(y0r, y1r, y2r, y3r);
    transpose(y0i, y1i, y2i, y3i);
    float* r = zr + 4 * g;
    float* i = zi + 4 * g;
    store(r, y0r);
    store(r + 4, y1r);
    store(r + 8, y2r);
    store(r + 12, y3r);
    store(i, y0i);
    store(i + 4, y1i);
    store(i + 8, y2i);
    store(i + 12, y3i);
  }
}

// As above for an odd number of stages: the gather also does the stage of
// length 8, so groups are eight points (reversed indices step by m/8).
void gatherFirstThreeStages(const float* pairs, const uint32_t* bitReverse, uint32_t m, float* zr,
                            float* zi, float h) {
  const uint32_t eighth = m / 8 * 2;  // in floats
  auto at = [&](const uint32_t* base, uint32_t offset, V& re, V& im) {
    const uint32_t i[4] = {base[0] + offset, base[1] + offset, base[2] + offset, base[3] + offset};
    gatherPairs(pairs, i, re, im);
  };
  // Four-point DFT of the inputs at base + {0, 4, 2, 6} * m/8 (+ shift).
  auto fourPoint = [&](const uint32_t* base, uint32_t shift, V* yr, V* yi) {
    V a0r, a0i, a1r, a1i, a2r, a2i, a3r, a3i;
    at(base, shift, a0r, a0i);
    at(base, shift + 4 * eighth, a1r, a1i);
    at(base, shift + 2 * eighth, a2r, a2i);
    at(base, shift + 6 * eighth, a3r, a3i);
    const V s01r = add(a0r, a1r), s01i = add(a0i, a1i);
    const V d01r = sub(a0r, a1r), d01i = sub(a0i, a1i);
    const V s23r = add(a2r, a3r), s23i = add(a2i, a3i);
    const V d23r = sub(a2r, a3r), d23i = sub(a2i, a3i);
    yr[0] = add(s01r, s23r);
    yi[0] = add(s01i, s23i);
    yr[1] = add(d01r, d23i);
    yi[1] = sub(d01i, d23r);
    yr[2] = sub(s01r, s23r);
    yi[2] = sub(s01i, s23i);
    yr[3] = sub(d01r, d23i);
    yi[3] = add(d01i, d23r);
  };
  const V hv = splat(h);
  for (uint32_t g = 0; g < m / 8; g += 4) {
    uint32_t base[4];
    for (uint32_t l = 0; l < 4; ++l) base[l] = bitReverse[16 * (g + l)] * 2;
    V yr[4], yi[4], zr4[4], zi4[4];
    fourPoint(base, 0, yr, yi);
    fourPoint(base, eighth, zr4, zi4);
    // Twiddles w8^p on the second half: 1, h(1 - i), -i, -h(1 + i).
    V tr[4], ti[4];
    tr[0] = zr4[0];
    ti[0] = zi4[0];
    tr[1] = mul(hv, add(zr4[1], zi4[1]));
    ti[1] = mul(hv, sub(zi4[1], zr4[1]));
    tr[2] = zi4[2];
    ti[2] = sub(splat(0.0f), zr4[2]);
    tr[3] = mul(hv, sub(zi4[3], zr4[3]));
    ti[3] = sub(splat(0.0f), mul(hv, add(zr4[3], zi4[3])));
    V lo_r[4], lo_i[4], hi_r[4], hi_i[4];
    for (int p = 0; p < 4; ++p) {
      lo_r[p] = add(yr[p], tr[p]);
      lo_i[p] = add(yi[p], ti[p]);
      hi_r[p] = sub(yr[p], tr[p]);
      hi_i[p] = sub(yi[p], ti[p]);
    }
    transpose(lo_r[0], lo_r[1], lo_r[2], lo_r[3]);
    transpose(lo_i[0], lo_i[1], lo_i[2], lo_i[3]);
    transpose(hi_r[0], hi_r[1], hi_r[2], hi_r[3]);
    transpose(hi_i[0], hi_i[1], hi_i[2], hi_i[3]);
    for (uint32_t l = 0; l < 4; ++l) {
      float* r = zr + 8 * (g + l);
      float* i = zi + 8 * (g + l);
      store(r, lo_r[l]);
      store(r + 4, hi_r[l]);
      store(i, lo_i[l]);
      store(i + 4, hi_i[l]);
    }
  }
}

// One radix-2 stage of length 8 (four butterflies per block, one vector).
void radix2Stage8(const float* twiddleBase, uint32_t m, float* zr, float* zi) {
  V wr, wi;
  twiddles4(Stage(twiddleBase, 8), 0, wr, wi);
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

// Stages L/2 and L fused into one radix-4 pass. After the earlier stages a
// block holds the quarter-length DFTs D0, D2, D1, D3 (bit-reversed order);
// they combine with twiddles 1, w^2j, w^j, w^3j, w = e^(-2 pi i / L).
void radix4Stages(const float* twiddleBase, uint32_t stage, uint32_t m, float* zr, float* zi) {
  const uint32_t q = stage / 4;
  const Stage half(twiddleBase, stage / 2), full(twiddleBase, stage);
  for (uint32_t j = 0; j < q; j += 4) {
    V w2r, w2i, w1r, w1i;
    twiddles4(half, j, w2r, w2i);  // w^2j
    twiddles4(full, j, w1r, w1i);  // w^j
    const V w3r = sub(mul(w1r, w2r), mul(w1i, w2i));
    const V w3i = add(mul(w1r, w2i), mul(w1i, w2r));
    for (uint32_t s = j; s < m; s += stage) {
      float* r = zr + s;
      float* i = zi + s;
      const V d0r = load(r), d0i = load(i);
      V xr = load(r + q), xi = load(i + q);
      const V br = sub(mul(xr, w2r), mul(xi, w2i)), bi = add(mul(xr, w2i), mul(xi, w2r));
      xr = load(r + 2 * q);
      xi = load(i + 2 * q);
      const V cr = sub(mul(xr, w1r), mul(xi, w1i)), ci = add(mul(xr, w1i), mul(xi, w1r));
      xr = load(r + 3 * q);
      xi = load(i + 3 * q);
      const V dr = sub(mul(xr, w3r), mul(xi, w3i)), di = add(mul(xr, w3i), mul(xi, w3r));
      const V s0r = add(d0r, br), s0i = add(d0i, bi);
      const V s1r = sub(d0r, br), s1i = sub(d0i, bi);
      const V s2r = add(cr, dr), s2i = add(ci, di);
      const V s3r = sub(cr, dr), s3i = sub(ci, di);
      store(r, add(s0r, s2r));
      store(i, add(s0i, s2i));
      store(r + 2 * q, sub(s0r, s2r));
      store(i + 2 * q, sub(s0i, s2i));
      // -i * s3 = (s3i, -s3r)
      store(r + q, add(s1r, s3i));
      store(i + q, sub(s1i, s3r));
      store(r + 3 * q, sub(s1r, s3i));
      store(i + 3 * q, add(s1i, s3r));
    }
  }
}


#if QOR_FFT_AVX
// ---- eight-lane versions of the hot passes (AVX, no FMA) ----
using W = __m256;

QOR_AVX inline W join(__m128 lo, __m128 hi) {
  return _mm256_insertf128_ps(_mm256_castps128_ps256(lo), hi, 1);
}
QOR_AVX inline W zero8() { return _mm256_setzero_ps(); }
QOR_AVX inline W reverse8(W a) {
  const W swapped = _mm256_permute2f128_ps(a, a, 1);
  return _mm256_permute_ps(swapped, _MM_SHUFFLE(0, 1, 2, 3));
}
// Eight (x, y) pairs at p into x and y vectors.
QOR_AVX inline void loadPairs8(const float* p, W& x, W& y) {
  const W a = join(_mm_loadu_ps(p), _mm_loadu_ps(p + 8));       // pairs 0 1 | 4 5
  const W b = join(_mm_loadu_ps(p + 4), _mm_loadu_ps(p + 12));  // pairs 2 3 | 6 7
  x = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
  y = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
}
QOR_AVX inline void storePairs8(float* p, W x, W y) {
  const W lo = _mm256_unpacklo_ps(x, y), hi = _mm256_unpackhi_ps(x, y);
  _mm256_storeu_ps(p, _mm256_permute2f128_ps(lo, hi, 0x20));
  _mm256_storeu_ps(p + 8, _mm256_permute2f128_ps(lo, hi, 0x31));
}

// Twiddles e^(-2 pi i j / L) for j = j0 .. j0 + 7 (j0 a multiple of 8), the
// same values twiddles4 gives.
QOR_AVX inline void twiddles8(const Stage& st, uint32_t j0, W& wr, W& wi) {
  if (st.quarter < 8) {
    V r0, i0, r1, i1;
    twiddles4(st, j0, r0, i0);
    twiddles4(st, j0 + 4, r1, i1);
    wr = join(r0, r1);
    wi = join(i0, i1);
    return;
  }
  const uint32_t r = j0 & (st.quarter - 1);
  W c, s;
  // Entry 0 is implicit (1, 0); the pair below it is read and replaced.
  loadPairs8(st.table + 2 * r, c, s);
  if (r == 0) {
    c = _mm256_blend_ps(c, _mm256_set1_ps(1.0f), 1);
    s = _mm256_blend_ps(s, zero8(), 1);
  }
  switch (j0 >> st.quarterBits) {
    case 0: wr = c; wi = s; break;
    case 1: wr = s; wi = _mm256_sub_ps(zero8(), c); break;
    case 2: wr = _mm256_sub_ps(zero8(), c); wi = _mm256_sub_ps(zero8(), s); break;
    default: wr = _mm256_sub_ps(zero8(), s); wi = c; break;
  }
}

// Where the tile gathers read: complex values as (re, im) pairs at `re` (im
// null), or split over `re` and `im`.
struct Rows {
  const float* re;
  const float* im;
};

// Group (rev3 of t) in each lane after loadRow. Pairs split by shuffles alone
// leave t in lane order 0 1 4 5 2 3 6 7.
constexpr uint32_t kGroupOfLanePairs[8] = {0, 4, 1, 5, 2, 6, 3, 7};
constexpr uint32_t kGroupOfLaneSplit[8] = {0, 4, 2, 6, 1, 5, 3, 7};

// Eight complex values from index `first` on.
QOR_AVX inline void loadRow(Rows src, uint32_t first, W& xr, W& xi) {
  if (src.im == nullptr) {
    const W a = _mm256_loadu_ps(src.re + 2 * first);
    const W b = _mm256_loadu_ps(src.re + 2 * first + 8);
    xr = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
    xi = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
  } else {
    xr = _mm256_loadu_ps(src.re + first);
    xi = _mm256_loadu_ps(src.im + first);
  }
}

// 8x8 transpose: afterwards a[j] holds lane j of the old a[0..7].
QOR_AVX inline void transpose8(W* a) {
  W t[8], u[8];
  for (int k = 0; k < 8; k += 2) {
    t[k] = _mm256_unpacklo_ps(a[k], a[k + 1]);
    t[k + 1] = _mm256_unpackhi_ps(a[k], a[k + 1]);
  }
  for (int k = 0; k < 8; k += 4) {
    u[k] = _mm256_shuffle_ps(t[k], t[k + 2], _MM_SHUFFLE(1, 0, 1, 0));
    u[k + 1] = _mm256_shuffle_ps(t[k], t[k + 2], _MM_SHUFFLE(3, 2, 3, 2));
    u[k + 2] = _mm256_shuffle_ps(t[k + 1], t[k + 3], _MM_SHUFFLE(1, 0, 1, 0));
    u[k + 3] = _mm256_shuffle_ps(t[k + 1], t[k + 3], _MM_SHUFFLE(3, 2, 3, 2));
  }
  for (int k = 0; k < 4; ++k) {
    a[k] = _mm256_permute2f128_ps(u[k], u[k + 4], 0x20);
    a[k + 4] = _mm256_permute2f128_ps(u[k], u[k + 4], 0x31);
  }
}

// Four-point DFT of x[r0], x[r1], x[r2], x[r3] into y[0..3], in gatherFirstStages'
// order of operations.
QOR_AVX inline void dft4(const W* xr, const W* xi, int r0, int r1, int r2, int r3, W* yr, W* yi) {
  const W s01r = _mm256_add_ps(xr[r0], xr[r1]), s01i = _mm256_add_ps(xi[r0], xi[r1]);
  const W d01r = _mm256_sub_ps(xr[r0], xr[r1]), d01i = _mm256_sub_ps(xi[r0], xi[r1]);
  const W s23r = _mm256_add_ps(xr[r2], xr[r3]), s23i = _mm256_add_ps(xi[r2], xi[r3]);
  const W d23r = _mm256_sub_ps(xr[r2], xr[r3]), d23i = _mm256_sub_ps(xi[r2], xi[r3]);
  yr[0] = _mm256_add_ps(s01r, s23r);
  yi[0] = _mm256_add_ps(s01i, s23i);
  yr[1] = _mm256_add_ps(d01r, d23i);
  yi[1] = _mm256_sub_ps(d01i, d23r);
  yr[2] = _mm256_sub_ps(s01r, s23r);
  yi[2] = _mm256_sub_ps(s01i, s23i);
  yr[3] = _mm256_sub_ps(d01r, d23i);
  yi[3] = _mm256_add_ps(d01i, d23r);
}

// Bit-reversed gather fused with the first three stages (groups of eight),
// one 8x8 tile per round; needs m >= 64. Source
// pair t + 8c + (m/8) u lands at rev(8c) + rev3(t) m/8 + rev3(u): a tile's
// rows u are contiguous, and after the butterflies run down the rows, a
// transpose makes every group contiguous too.
QOR_AVX void gatherTiles8(Rows src, const uint32_t* bitReverse, uint32_t m, float* zr, float* zi,
                          float h) {
  const uint32_t* groupOfLane = src.im == nullptr ? kGroupOfLanePairs : kGroupOfLaneSplit;
  const W hv = _mm256_set1_ps(h);
  for (uint32_t c = 0; c < m / 64; ++c) {
    W xr[8], xi[8];
    for (uint32_t u = 0; u < 8; ++u) loadRow(src, 8 * c + u * (m / 8), xr[u], xi[u]);
    W yr[8], yi[8];
    dft4(xr, xi, 0, 4, 2, 6, yr, yi);
    dft4(xr, xi, 1, 5, 3, 7, yr + 4, yi + 4);
    // Twiddles w8^p on the second half: 1, h(1 - i), -i, -h(1 + i).
    const W* zr4 = yr + 4;
    const W* zi4 = yi + 4;
    W tr[4], ti[4];
    tr[0] = zr4[0];
    ti[0] = zi4[0];
    tr[1] = _mm256_mul_ps(hv, _mm256_add_ps(zr4[1], zi4[1]));
    ti[1] = _mm256_mul_ps(hv, _mm256_sub_ps(zi4[1], zr4[1]));
    tr[2] = zi4[2];
    ti[2] = _mm256_sub_ps(zero8(), zr4[2]);
    tr[3] = _mm256_mul_ps(hv, _mm256_sub_ps(zi4[3], zr4[3]));
    ti[3] = _mm256_sub_ps(zero8(), _mm256_mul_ps(hv, _mm256_add_ps(zr4[3], zi4[3])));
    for (int p = 0; p < 4; ++p) {
      const W lr = yr[p], li = yi[p];
      yr[p] = _mm256_add_ps(lr, tr[p]);
      yi[p] = _mm256_add_ps(li, ti[p]);
      yr[p + 4] = _mm256_sub_ps(lr, tr[p]);
      yi[p + 4] = _mm256_sub_ps(li, ti[p]);
    }
    transpose8(yr);
    transpose8(yi);
    const uint32_t base = bitReverse[16 * c];
    for (uint32_t j = 0; j < 8; ++j) {
      const uint32_t at = base + groupOfLane[j] * (m / 8);
      _mm256_storeu_ps(zr + at, yr[j]);
      _mm256_storeu_ps(zi + at, yi[j]);
    }
  }
}

// For an even number of stages: the tile gather with two stages, fused with
// the length-16 radix-4 stage. Tiles c and c + m/128 fill the two halves of
// every block of sixteen, so both are done per round; needs m >= 128.
QOR_AVX void gatherTilesRadix16x8(Rows src, const uint32_t* bitReverse, const float* twiddleBase,
                                  uint32_t m, float* zr, float* zi) {
  // Per output point p: w^2p, w^p, w^3p with w = e^(-2 pi i / 16), as radix4Stages has them.
  V w2r, w2i, w1r, w1i;
  twiddles4(Stage(twiddleBase, 8), 0, w2r, w2i);
  twiddles4(Stage(twiddleBase, 16), 0, w1r, w1i);
  float tw[6][4];
  store(tw[0], w2r);
  store(tw[1], w2i);
  store(tw[2], w1r);
  store(tw[3], w1i);
  store(tw[4], sub(mul(w1r, w2r), mul(w1i, w2i)));
  store(tw[5], add(mul(w1r, w2i), mul(w1i, w2r)));
  const uint32_t* groupOfLane = src.im == nullptr ? kGroupOfLanePairs : kGroupOfLaneSplit;
  for (uint32_t c = 0; c < m / 128; ++c) {
    // y[0..3] = D0, y[4..7] = D2, y[8..11] = D1, y[12..15] = D3 of each lane's block.
    W yr[16], yi[16];
    for (uint32_t half = 0; half < 2; ++half) {
      const uint32_t first = 8 * (c + half * (m / 128));
      W xr[8], xi[8];
      for (uint32_t u = 0; u < 8; ++u) loadRow(src, first + u * (m / 8), xr[u], xi[u]);
      dft4(xr, xi, 0, 4, 2, 6, yr + 8 * half, yi + 8 * half);
      dft4(xr, xi, 1, 5, 3, 7, yr + 8 * half + 4, yi + 8 * half + 4);
    }
    W outr[16], outi[16];
    for (int p = 0; p < 4; ++p) {
      const W w2rv = _mm256_set1_ps(tw[0][p]), w2iv = _mm256_set1_ps(tw[1][p]);
      const W w1rv = _mm256_set1_ps(tw[2][p]), w1iv = _mm256_set1_ps(tw[3][p]);
      const W w3rv = _mm256_set1_ps(tw[4][p]), w3iv = _mm256_set1_ps(tw[5][p]);
      const W d0r = yr[p], d0i = yi[p];
      W xr = yr[4 + p], xi = yi[4 + p];
      const W br = _mm256_sub_ps(_mm256_mul_ps(xr, w2rv), _mm256_mul_ps(xi, w2iv));
      const W bi = _mm256_add_ps(_mm256_mul_ps(xr, w2iv), _mm256_mul_ps(xi, w2rv));
      xr = yr[8 + p];
      xi = yi[8 + p];
      const W cr = _mm256_sub_ps(_mm256_mul_ps(xr, w1rv), _mm256_mul_ps(xi, w1iv));
      const W ci = _mm256_add_ps(_mm256_mul_ps(xr, w1iv), _mm256_mul_ps(xi, w1rv));
      xr = yr[12 + p];
      xi = yi[12 + p];
      const W dr = _mm256_sub_ps(_mm256_mul_ps(xr, w3rv), _mm256_mul_ps(xi, w3iv));
      const W di = _mm256_add_ps(_mm256_mul_ps(xr, w3iv), _mm256_mul_ps(xi, w3rv));
      const W s0r = _mm256_add_ps(d0r, br), s0i = _mm256_add_ps(d0i, bi);
      const W s1r = _mm256_sub_ps(d0r, br), s1i = _mm256_sub_ps(d0i, bi);
      const W s2r = _mm256_add_ps(cr, dr), s2i = _mm256_add_ps(ci, di);
      const W s3r = _mm256_sub_ps(cr, dr), s3i = _mm256_sub_ps(ci, di);
      outr[p] = _mm256_add_ps(s0r, s2r);
      outi[p] = _mm256_add_ps(s0i, s2i);
      outr[p + 8] = _mm256_sub_ps(s0r, s2r);
      outi[p + 8] = _mm256_sub_ps(s0i, s2i);
      outr[p + 4] = _mm256_add_ps(s1r, s3i);
      outi[p + 4] = _mm256_sub_ps(s1i, s3r);
      outr[p + 12] = _mm256_sub_ps(s1r, s3i);
      outi[p + 12] = _mm256_add_ps(s1i, s3r);
    }
    transpose8(outr);
    transpose8(outr + 8);
    transpose8(outi);
    transpose8(outi + 8);
    const uint32_t base = bitReverse[16 * c];
    for (uint32_t j = 0; j < 8; ++j) {
      const uint32_t at = base + groupOfLane[j] * (m / 8);
      _mm256_storeu_ps(zr + at, outr[j]);
      _mm256_storeu_ps(zr + at + 8, outr[8 + j]);
      _mm256_storeu_ps(zi + at, outi[j]);
      _mm256_storeu_ps(zi + at + 8, outi[8 + j]);
    }
  }
}

// radix4Stages, eight butterflies wide; needs L/4 >= 8.
QOR_AVX void radix4Stages8(const float* twiddleBase, uint32_t stage, uint32_t m, float* zr,
                           float* zi) {
  const uint32_t q = stage / 4;
  const Stage half(twiddleBase, stage / 2), full(twiddleBase, stage);
  for (uint32_t j = 0; j < q; j += 8) {
    W w2r, w2i, w1r, w1i;
    twiddles8(half, j, w2r, w2i);
    twiddles8(full, j, w1r, w1i);
    const W w3r = _mm256_sub_ps(_mm256_mul_ps(w1r, w2r), _mm256_mul_ps(w1i, w2i));
    const W w3i = _mm256_add_ps(_mm256_mul_ps(w1r, w2i), _mm256_mul_ps(w1i, w2r));
    for (uint32_t s = j; s < m; s += stage) {
      float* r = zr + s;
      float* i = zi + s;
      const W d0r = _mm256_loadu_ps(r), d0i = _mm256_loadu_ps(i);
      W xr = _mm256_loadu_ps(r + q), xi = _mm256_loadu_ps(i + q);
      const W br = _mm256_sub_ps(_mm256_mul_ps(xr, w2r), _mm256_mul_ps(xi, w2i));
      const W bi = _mm256_add_ps(_mm256_mul_ps(xr, w2i), _mm256_mul_ps(xi, w2r));
      xr = _mm256_loadu_ps(r + 2 * q);
      xi = _mm256_loadu_ps(i + 2 * q);
      const W cr = _mm256_sub_ps(_mm256_mul_ps(xr, w1r), _mm256_mul_ps(xi, w1i));
      const W ci = _mm256_add_ps(_mm256_mul_ps(xr, w1i), _mm256_mul_ps(xi, w1r));
      xr = _mm256_loadu_ps(r + 3 * q);
      xi = _mm256_loadu_ps(i + 3 * q);
      const W dr = _mm256_sub_ps(_mm256_mul_ps(xr, w3r), _mm256_mul_ps(xi, w3i));
      const W di = _mm256_add_ps(_mm256_mul_ps(xr, w3i), _mm256_mul_ps(xi, w3r));
      const W s0r = _mm256_add_ps(d0r, br), s0i = _mm256_add_ps(d0i, bi);
      const W s1r = _mm256_sub_ps(d0r, br), s1i = _mm256_sub_ps(d0i, bi);
      const W s2r = _mm256_add_ps(cr, dr), s2i = _mm256_add_ps(ci, di);
      const W s3r = _mm256_sub_ps(cr, dr), s3i = _mm256_sub_ps(ci, di);
      _mm256_storeu_ps(r, _mm256_add_ps(s0r, s2r));
      _mm256_storeu_ps(i, _mm256_add_ps(s0i, s2i));
      _mm256_storeu_ps(r + 2 * q, _mm256_sub_ps(s0r, s2r));
      _mm256_storeu_ps(i + 2 * q, _mm256_sub_ps(s0i, s2i));
      _mm256_storeu_ps(r + q, _mm256_add_ps(s1r, s3i));
      _mm256_storeu_ps(i + q, _mm256_sub_ps(s1i, s3r));
      _mm256_storeu_ps(r + 3 * q, _mm256_sub_ps(s1r, s3i));
      _mm256_storeu_ps(i + 3 * q, _mm256_add_ps(s1i, s3r));
    }
  }
}

// The forward untangle for k = 1 .. while eight fit below h; returns the next k.
QOR_AVX uint32_t untangle8(const float* zr, const float* zi, const float* table, uint32_t m,
                           float* re, float* im) {
  const uint32_t h = m / 2;
  const W half = _mm256_set1_ps(0.5f);
  uint32_t k = 1;
  for (; k + 7 < h; k += 8) {
    const W ar = _mm256_loadu_ps(zr + k), ai = _mm256_loadu_ps(zi + k);
    const W br = reverse8(_mm256_loadu_ps(zr + m - k - 7));
    const W bi = reverse8(_mm256_loadu_ps(zi + m - k - 7));
    const W er = _mm256_mul_ps(half, _mm256_add_ps(ar, br));
    const W ei = _mm256_mul_ps(half, _mm256_sub_ps(ai, bi));
    const W orr = _mm256_mul_ps(half, _mm256_add_ps(ai, bi));
    const W oi = _mm256_mul_ps(half, _mm256_sub_ps(br, ar));
    W wr, wi;
    loadPairs8(table + 2 * k, wr, wi);
    const W tr = _mm256_sub_ps(_mm256_mul_ps(wr, orr), _mm256_mul_ps(wi, oi));
    const W ti = _mm256_add_ps(_mm256_mul_ps(wr, oi), _mm256_mul_ps(wi, orr));
    _mm256_storeu_ps(re + k, _mm256_add_ps(er, tr));
    _mm256_storeu_ps(im + k, _mm256_add_ps(ei, ti));
    _mm256_storeu_ps(re + m - k - 7, reverse8(_mm256_sub_ps(er, tr)));
    _mm256_storeu_ps(im + m - k - 7, reverse8(_mm256_sub_ps(ti, ei)));
  }
  return k;
}

// The inverse retangle into (im, re) pairs at t, as far as eight fit.
QOR_AVX uint32_t retangle8(const float* re, const float* im, const float* table, uint32_t m,
                           float* t) {
  const uint32_t h = m / 2;
  uint32_t k = 1;
  for (; k + 7 < h; k += 8) {
    const W ar = _mm256_loadu_ps(re + k), ai = _mm256_loadu_ps(im + k);
    const W br = reverse8(_mm256_loadu_ps(re + m - k - 7));
    const W bi = reverse8(_mm256_loadu_ps(im + m - k - 7));
    const W er = _mm256_add_ps(ar, br), ei = _mm256_sub_ps(ai, bi);
    const W dr = _mm256_sub_ps(ar, br), di = _mm256_add_ps(ai, bi);
    W wr, wi;
    loadPairs8(table + 2 * k, wr, wi);
    const W ur = _mm256_sub_ps(_mm256_mul_ps(wi, dr), _mm256_mul_ps(wr, di));
    const W ui = _mm256_add_ps(_mm256_mul_ps(wr, dr), _mm256_mul_ps(wi, di));
    storePairs8(t + 2 * k, _mm256_add_ps(ei, ui), _mm256_add_ps(er, ur));
    storePairs8(t + 2 * (m - k - 7), reverse8(_mm256_sub_ps(ui, ei)),
                reverse8(_mm256_sub_ps(er, ur)));
  }
  return k;
}

// The whole inverse retangle, into split arrays: ta gets what retangle8
// puts first in each pair, tb the second.
QOR_AVX void retangleSplit8(const float* re, const float* im, const float* table, uint32_t n,
                            float* ta, float* tb) {
  const uint32_t m = n / 2, h = m / 2;
  ta[0] = re[0] - re[m];
  tb[0] = re[0] + re[m];
  uint32_t k = 1;
  for (; k + 7 < h; k += 8) {
    const W ar = _mm256_loadu_ps(re + k), ai = _mm256_loadu_ps(im + k);
    const W br = reverse8(_mm256_loadu_ps(re + m - k - 7));
    const W bi = reverse8(_mm256_loadu_ps(im + m - k - 7));
    const W er = _mm256_add_ps(ar, br), ei = _mm256_sub_ps(ai, bi);
    const W dr = _mm256_sub_ps(ar, br), di = _mm256_add_ps(ai, bi);
    W wr, wi;
    loadPairs8(table + 2 * k, wr, wi);
    const W ur = _mm256_sub_ps(_mm256_mul_ps(wi, dr), _mm256_mul_ps(wr, di));
    const W ui = _mm256_add_ps(_mm256_mul_ps(wr, dr), _mm256_mul_ps(wi, di));
    _mm256_storeu_ps(ta + k, _mm256_add_ps(ei, ui));
    _mm256_storeu_ps(tb + k, _mm256_add_ps(er, ur));
    _mm256_storeu_ps(ta + m - k - 7, reverse8(_mm256_sub_ps(ui, ei)));
    _mm256_storeu_ps(tb + m - k - 7, reverse8(_mm256_sub_ps(er, ur)));
  }
  for (; k < h; ++k) {
    const float ar = re[k], ai = im[k], br = re[m - k], bi = im[m - k];
    const float er = ar + br, ei = ai - bi, dr = ar - br, di = ai + bi;
    float wr, wi;
    twiddle(table, n, k, wr, wi);
    const float ur = wi * dr - wr * di, ui = wr * dr + wi * di;
    ta[k] = ei + ui;
    tb[k] = er + ur;
    ta[m - k] = ui - ei;
    tb[m - k] = er - ur;
  }
  ta[h] = -2.0f * im[h];
  tb[h] = 2.0f * re[h];
}

// Scaled (zi, zr) pairs into output, m a multiple of 8.
QOR_AVX void interleaveScaled8(const float* zr, const float* zi, uint32_t m, float scale,
                               float* output) {
  const W sv = _mm256_set1_ps(scale);
  for (uint32_t j = 0; j < m; j += 8) {
    storePairs8(output + 2 * j, _mm256_mul_ps(_mm256_loadu_ps(zi + j), sv),
                _mm256_mul_ps(_mm256_loadu_ps(zr + j), sv));
  }
}

#endif

#if QOR_FFT_AVX
// Whether the eight-lane complex transform (tile gathers included) runs.
bool wideTransform(const RealFftSetup& setup, uint32_t m) {
  return setup.kernel == kFftKernel8 && m >= ((log2Of(m) & 1) != 0 ? 64u : 128u);
}

// DFT of the m complex points in src into zr, zi; wideTransform must hold.
void complexTransform8(Rows src, const RealFftSetup& setup, uint32_t m, float* zr, float* zi) {
  uint32_t stage;
  if ((log2Of(m) & 1) != 0) {
    float h, unused;
    twiddle(stageTable(setup.twiddles, 8), 8, 1, h, unused);
    gatherTiles8(src, setup.bitReverse, m, zr, zi, h);
    stage = 16;
  } else {
    gatherTilesRadix16x8(src, setup.bitReverse, setup.twiddles, m, zr, zi);
    stage = 32;
  }
  for (; stage * 2 <= m; stage *= 4) radix4Stages8(setup.twiddles, stage * 2, m, zr, zi);
}
#endif

// DFT of m >= 4 complex points stored as (re, im) pairs into zr, zi.
void complexTransform(const float* pairs, const RealFftSetup& setup, uint32_t m, float* zr,
                      float* zi) {
#if QOR_FFT_AVX
  if (wideTransform(setup, m)) {
    complexTransform8(Rows{pairs, nullptr}, setup, m, zr, zi);
    return;
  }
#endif
  const bool odd = (log2Of(m) & 1) != 0;
  uint32_t stage = 8;
  if (odd && m >= 32) {
    float h, unused;
    twiddle(stageTable(setup.twiddles, 8), 8, 1, h, unused);
    gatherFirstThreeStages(pairs, setup.bitReverse, m, zr, zi, h);
    stage = 16;
  } else {
    gatherFirstStages(pairs, setup.bitReverse, m, zr, zi);
    if (odd && m >= 8) {
      radix2Stage8(setup.twiddles, m, zr, zi);
      stage = 16;
    }
  }
  for (; stage * 2 <= m; stage *= 4) radix4Stages(setup.twiddles, stage * 2, m, zr, zi);
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
  complexTransform(input, setup, m, zr, zi);

  // Untangle: X[k] = E + T, X[m-k] = conj(E - T) with E = (Z[k] + conj Z[m-k]) / 2,
  // T = w^k * (-i/2) (Z[k] - conj Z[m-k]), w = e^(-2 pi i / n).
  re[0] = zr[0] + zi[0];
  im[0] = 0.0f;
  re[m] = zr[0] - zi[0];
  im[m] = 0.0f;
  const float* table = stageTable(setup.twiddles, n);
  const V half = splat(0.5f);
  uint32_t k = 1;
#if QOR_FFT_AVX
  if (setup.kernel == kFftKernel8) k = untangle8(zr, zi, table, m, re, im);
#endif
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
  // 2 Z as (im, re) pairs: the inverse DFT is the forward one with re and im
  // swapped on both sides.
  float* t = scratch + n;

  // Retangle into 2 Z: Z[k] = E + i conj(w^k) D, Z[m-k] = conj(E - i conj(w^k) D)
  // with E = X[k] + conj X[m-k], D = X[k] - conj X[m-k].
  const float* table = stageTable(setup.twiddles, n);
#if QOR_FFT_AVX
  if (wideTransform(setup, m)) {
    // Split halves of t: no interleaving on the way out or back in.
    retangleSplit8(re, im, table, n, t, t + m);
    complexTransform8(Rows{t, t + m}, setup, m, zr, zi);
    interleaveScaled8(zr, zi, m, 1.0f / static_cast<float>(n), output);
    return;
  }
#endif
  t[0] = re[0] - re[m];
  t[1] = re[0] + re[m];
  uint32_t k = 1;
#if QOR_FFT_AVX
  if (setup.kernel == kFftKernel8) k = retangle8(re, im, table, m, t);
#endif
  for (; k + 3 < h; k += 4) {
    const V ar = loadu(re + k), ai = loadu(im + k);
    const V br = reverse(loadu(re + m - k - 3)), bi = reverse(loadu(im + m - k - 3));
    const V er = add(ar, br), ei = sub(ai, bi);
    const V dr = sub(ar, br), di = add(ai, bi);
    V wr, wi;
    loadPairs(table + 2 * k, wr, wi);
    const V ur = sub(mul(wi, dr), mul(wr, di));
    const V ui = add(mul(wr, dr), mul(wi, di));
    storePairs(t + 2 * k, add(ei, ui), add(er, ur));
    storePairs(t + 2 * (m - k - 3), reverse(sub(ui, ei)), reverse(sub(er, ur)));
  }
  for (; k < h; ++k) {
    const float ar = re[k], ai = im[k], br = re[m - k], bi = im[m - k];
    const float er = ar + br, ei = ai - bi, dr = ar - br, di = ai + bi;
    float wr, wi;
    twiddle(table, n, k, wr, wi);
    const float ur = wi * dr - wr * di, ui = wr * dr + wi * di;
    t[2 * k] = ei + ui;
    t[2 * k + 1] = er + ur;
    t[2 * (m - k)] = ui - ei;
    t[2 * (m - k) + 1] = er - ur;
  }
  t[2 * h] = -2.0f * im[h];
  t[2 * h + 1] = 2.0f * re[h];

  complexTransform(t, setup, m, zr, zi);

  // 1/n is a power of two, so the product equals the division exactly.
  uint32_t j = 0;
#if QOR_FFT_AVX
  if (setup.kernel == kFftKernel8 && m >= 8) {
    interleaveScaled8(zr, zi, m, 1.0f / static_cast<float>(n), output);
    j = m;
  }
#endif
  const V scale = splat(1.0f / static_cast<float>(n));
  for (; j < m; j += 4) {
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
  setup->kernel = fftKernel8Available() ? kFftKernel8 : kFftKernel4;
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

bool fftKernel8Available() { return QOR_FFT_AVX != 0 && avxUsable(); }

bool fftUseKernel(RealFftSetup* setup, RealFftKernel kernel) {
  if (setup == nullptr) return false;
  if (kernel == kFftKernel8 && !fftKernel8Available()) return false;
  if (kernel != kFftKernel4 && kernel != kFftKernel8) return false;
  setup->kernel = kernel;
  return true;
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
