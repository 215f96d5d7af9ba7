// Writes the vocal changer's seven carrier signals as one binary file of
// little-endian 32-bit floats, each array padded to a multiple of 8 floats, in
// the order tone, 7, 8, 9, 10, 11, 12. Runs on the build machine (also for the
// Windows cross build); the library embeds the file as read-only data.
//
// Every signal is synthesised from integer-seeded arithmetic only (own PRNG,
// no std distributions), so each build produces the same bytes. Each array
// loops: periodic parts have a whole number of cycles over the array and the
// rest is crossfaded across the loop point. Peaks are normalised to 1.0.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kRate = 48000.0;  // the rate the material is designed for
constexpr double kRoomNoiseDb = 30.0;  // room noise below the signal's rms
constexpr double kDrive = 3.0;         // saturation before normalising

using Signal = std::vector<double>;

struct Rng {  // xorshift64*, fixed seed per carrier
  uint64_t s;
  uint64_t next() {
    s ^= s >> 12;
    s ^= s << 25;
    s ^= s >> 27;
    return s * 0x2545F4914F6CDD1DULL;
  }
  double uniform() { return static_cast<double>(next() >> 11) * (1.0 / 9007199254740992.0) * 2.0 - 1.0; }
};

// Frequency of the nearest whole number of cycles over n samples.
double loopFrequency(double hz, size_t n) {
  const double cycles = std::floor(hz * static_cast<double>(n) / kRate + 0.5);
  return cycles * kRate / static_cast<double>(n);
}

// Band-limited sawtooth and pulse by additive synthesis up to 0.45 * rate.
void addSaw(Signal& x, double hz, double amp, double vibratoHz = 0.0, double vibratoDepth = 0.0) {
  const size_t n = x.size();
  const int harmonics = static_cast<int>(0.45 * kRate / (hz * (1.0 + vibratoDepth)));
  double phase = 0.0;
  for (size_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / kRate;
    const double f = hz * (1.0 + vibratoDepth * std::sin(2.0 * kPi * vibratoHz * t));
    phase += 2.0 * kPi * f / kRate;
    double v = 0.0;
    // sin(k p) by the Chebyshev recurrence: one sin/cos per sample.
    const double c2 = 2.0 * std::cos(phase);
    double s0 = 0.0, s1 = std::sin(phase);
    for (int k = 1; k <= harmonics; ++k) {
      v += s1 / k;
      const double s2 = c2 * s1 - s0;
      s0 = s1;
      s1 = s2;
    }
    x[i] += amp * v;
  }
}

// Narrow pulse: harmonics of equal weight with a gentle roll-off.
void addPulse(Signal& x, double hz, double amp, double rolloff, double vibratoHz, double vibratoDepth) {
  const size_t n = x.size();
  const int harmonics = static_cast<int>(0.45 * kRate / (hz * (1.0 + vibratoDepth)));
  double phase = 0.0;
  for (size_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / kRate;
    phase += 2.0 * kPi * hz * (1.0 + vibratoDepth * std::sin(2.0 * kPi * vibratoHz * t)) / kRate;
    const double c2 = 2.0 * std::cos(phase);
    double c0 = 1.0, c1 = std::cos(phase), g = 1.0, v = 0.0;
    for (int k = 1; k <= harmonics; ++k) {
      v += g * c1;
      g *= rolloff;
      const double c = c2 * c1 - c0;
      c0 = c1;
      c1 = c;
    }
    x[i] += amp * v;
  }
}

// Two-pole resonator (formant) applied in place, unity-ish peak gain.
void resonate(const Signal& in, Signal& out, const std::vector<double>& hz, double bandwidth, double gain) {
  double y1 = 0.0, y2 = 0.0;
  const double r = std::exp(-kPi * bandwidth / kRate);
  for (size_t i = 0; i < in.size(); ++i) {
    const double a1 = 2.0 * r * std::cos(2.0 * kPi * hz[i] / kRate);
    const double y = (1.0 - r) * in[i] + a1 * y1 - r * r * y2;
    y2 = y1;
    y1 = y;
    out[i] += gain * y;
  }
}

// One-pole low-pass in place.
void lowPass(Signal& x, double hz) {
  const double c = 1.0 - std::exp(-2.0 * kPi * hz / kRate);
  double y = 0.0;
  for (double& v : x) {
    y += c * (v - y);
    v = y;
  }
}

// Generates `n + fade` samples with `make`, then folds the tail over the head
// so that the array loops without a click.
template <class Make>
Signal looped(size_t n, size_t fade, Make make) {
  Signal x(n + fade, 0.0);
  make(x);
  Signal y(x.begin(), x.begin() + static_cast<std::ptrdiff_t>(n));
  for (size_t i = 0; i < fade; ++i) {
    const double a = (static_cast<double>(i) + 0.5) / static_cast<double>(fade);
    y[i] = a * x[i] + (1.0 - a) * x[n + i];
  }
  return y;
}

// A recording always carries a little broadband room noise. The carrier
// processor divides by the carrier's spectral envelope, so a carrier with
// empty bands would amplify its own rounding noise there; this floor keeps
// every band of every carrier alive.
Signal withRoomNoise(Signal x, double belowDb, uint64_t seed) {
  double power = 0.0;
  for (double v : x) power += v * v;
  const double level = std::sqrt(power / static_cast<double>(x.size())) * std::pow(10.0, -belowDb / 20.0);
  Rng rng{seed};
  // Uniform noise has an rms of 1/sqrt(3).
  for (double& v : x) v += level * std::sqrt(3.0) * rng.uniform();
  return x;
}

// Gentle tape-like saturation: lowers the crest factor so that the carriers
// sit at similar loudness, and fills the spectrum between partials.
Signal saturated(Signal x, double drive) {
  double peak = 0.0;
  for (double v : x) peak = std::fmax(peak, std::fabs(v));
  for (double& v : x) v = std::tanh(drive * v / peak);
  return x;
}

std::vector<float> normalised(const Signal& x) {
  double peak = 0.0;
  for (double v : x) peak = std::fmax(peak, std::fabs(v));
  std::vector<float> y(x.size());
  for (size_t i = 0; i < x.size(); ++i) y[i] = static_cast<float>(x[i] / peak);
  // Exactly full scale after rounding.
  size_t at = 0;
  for (size_t i = 0; i < y.size(); ++i)
    if (std::fabs(y[i]) > std::fabs(y[at])) at = i;
  y[at] = y[at] < 0.0f ? -1.0f : 1.0f;
  return y;
}

// Periodic tone: 65 cycles over the array, a band-limited sawtooth blended
// with a square-ish odd series, so it loops exactly.
Signal tone(size_t n) {
  Signal x(n, 0.0);
  const double cycles = 65.0;
  const int harmonics = static_cast<int>(0.45 * kRate * static_cast<double>(n) / (cycles * kRate));
  for (size_t i = 0; i < n; ++i) {
    const double p = 2.0 * kPi * cycles * static_cast<double>(i) / static_cast<double>(n);
    const double c2 = 2.0 * std::cos(p);
    double s0 = 0.0, s1 = std::sin(p), v = 0.0;
    for (int k = 1; k <= harmonics; ++k) {
      v += s1 * ((k & 1) ? 1.3 : 0.7) / k;
      const double s2 = c2 * s1 - s0;
      s0 = s1;
      s1 = s2;
    }
    x[i] = v;
  }
  return x;
}

// Metallic ring: inharmonic bell partials, each with a whole number of
// cycles over the array, slowly beating against detuned twins.
Signal metallicRing(size_t n) {
  Signal x(n, 0.0);
  const double base = 190.0;
  const double ratios[] = {1.0, 2.76, 5.40, 8.93, 13.34, 18.64, 24.8};
  const double amps[] = {1.0, 0.8, 0.65, 0.5, 0.4, 0.3, 0.22};
  for (int p = 0; p < 7; ++p) {
    const double f = loopFrequency(base * ratios[p], n);
    const double g = loopFrequency(base * ratios[p] * 1.004, n);
    for (size_t i = 0; i < n; ++i) {
      const double t = static_cast<double>(i) / kRate;
      x[i] += amps[p] * (std::sin(2.0 * kPi * f * t) + 0.6 * std::sin(2.0 * kPi * g * t + p));
    }
  }
  return x;
}

// Buzzy chord: three detuned sawtooth pairs (a minor triad) with slow vibrato.
Signal buzzyChord(size_t n) {
  return looped(n, 4800, [](Signal& x) {
    const double notes[] = {110.0, 130.81, 164.81};
    for (int k = 0; k < 3; ++k) {
      addSaw(x, notes[k], 1.0, 0.23 + 0.07 * k, 0.003);
      addSaw(x, notes[k] * 1.006, 0.7, 0.31 + 0.05 * k, 0.002);
    }
  });
}

// Machine hum: 60 Hz mains-like hum with strong odd harmonics, a motor
// whine and a rhythmic clatter of filtered noise bursts.
Signal machineHum(size_t n) {
  return looped(n, 4800, [](Signal& x) {
    Rng rng{0x6d616368696e65ULL};
    const size_t len = x.size();
    Signal clatter(len, 0.0);
    for (size_t i = 0; i < len; ++i) clatter[i] = rng.uniform();
    lowPass(clatter, 2500.0);
    for (size_t i = 0; i < len; ++i) {
      const double t = static_cast<double>(i) / kRate;
      double hum = 0.0;
      for (int k = 1; k <= 60; ++k) {
        const double w = (k & 1) ? 1.0 / k : 0.35 / k;
        hum += w * std::sin(2.0 * kPi * 60.0 * k * t + 0.3 * k);
      }
      const double whine = 0.25 * std::sin(2.0 * kPi * 1430.0 * t + 3.0 * std::sin(2.0 * kPi * 0.7 * t));
      // Eight strokes per second with a fast decay.
      const double stroke = std::fmod(t * 8.0, 1.0);
      const double env = std::exp(-stroke * 30.0);
      x[i] = hum + whine + 2.5 * env * clatter[i] + 0.08 * rng.uniform();
    }
  });
}

// Vowel drone: a glottal-like pulse at 120 Hz through three formant
// resonators that glide through a-e-i-o-u.
Signal vowelDrone(size_t n) {
  return looped(n, 4800, [](Signal& x) {
    const size_t len = x.size();
    Signal source(len, 0.0);
    addPulse(source, 120.0, 1.0, 0.985, 4.8, 0.006);
    const double formants[5][3] = {
        {730, 1090, 2440}, {530, 1840, 2480}, {270, 2290, 3010}, {570, 840, 2410}, {300, 870, 2240}};
    for (int f = 0; f < 3; ++f) {
      std::vector<double> hz(len);
      for (size_t i = 0; i < len; ++i) {
        const double pos = std::fmod(static_cast<double>(i) / kRate / 1.6, 5.0);  // 1.6 s per vowel
        const int a = static_cast<int>(pos);
        const double frac = pos - a;
        const double s = frac * frac * (3.0 - 2.0 * frac);
        hz[i] = formants[a][f] * (1.0 - s) + formants[(a + 1) % 5][f] * s;
      }
      resonate(source, x, hz, 80.0 + 40.0 * f, f == 0 ? 1.0 : 0.7);
    }
  });
}

// Low growl: a 55 Hz sawtooth with a rough, jittering subharmonic and
// breathy noise, darkened.
Signal lowGrowl(size_t n) {
  return looped(n, 4800, [](Signal& x) {
    Rng rng{0x67726f776cULL};
    const size_t len = x.size();
    addSaw(x, 55.0, 1.0, 5.5, 0.02);
    addSaw(x, 27.5, 0.6, 3.1, 0.03);
    Signal noise(len, 0.0);
    for (size_t i = 0; i < len; ++i) noise[i] = rng.uniform();
    lowPass(noise, 900.0);
    for (size_t i = 0; i < len; ++i) {
      const double t = static_cast<double>(i) / kRate;
      const double rough = 1.0 + 0.5 * std::sin(2.0 * kPi * 27.5 * t) * std::sin(2.0 * kPi * 0.37 * t);
      x[i] = x[i] * rough + 1.5 * noise[i];
    }
    lowPass(x, 3000.0);
  });
}

// Bright buzz: a narrow 220 Hz pulse train, all harmonics nearly equal, with
// a fast vibrato.
Signal brightBuzz(size_t n) {
  return looped(n, 4800, [](Signal& x) {
    addPulse(x, 220.0, 1.0, 0.997, 6.2, 0.01);
    addPulse(x, 330.0, 0.3, 0.995, 5.1, 0.008);
  });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <output file>\n", argv[0]);
    return 2;
  }
  const std::vector<std::vector<float>> carriers = {
      normalised(tone(44100)),
      normalised(withRoomNoise(saturated(metallicRing(52673), kDrive), kRoomNoiseDb, 7)),
      normalised(withRoomNoise(saturated(buzzyChord(473047), kDrive), kRoomNoiseDb, 8)),
      normalised(withRoomNoise(saturated(machineHum(326170), kDrive), kRoomNoiseDb, 9)),
      normalised(withRoomNoise(saturated(vowelDrone(465571), kDrive), kRoomNoiseDb, 10)),
      normalised(withRoomNoise(saturated(lowGrowl(459755), kDrive), kRoomNoiseDb, 11)),
      normalised(withRoomNoise(saturated(brightBuzz(327149), kDrive), kRoomNoiseDb, 12)),
  };
  std::FILE* f = std::fopen(argv[1], "wb");
  if (f == nullptr) {
    std::perror(argv[1]);
    return 1;
  }
  for (const auto& c : carriers) {
    std::vector<unsigned char> bytes((c.size() + 7) / 8 * 8 * 4, 0);
    for (size_t i = 0; i < c.size(); ++i) {
      uint32_t u;
      std::memcpy(&u, &c[i], 4);
      for (int b = 0; b < 4; ++b) bytes[4 * i + b] = static_cast<unsigned char>(u >> (8 * b));
    }
    if (std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
      std::perror(argv[1]);
      std::fclose(f);
      return 1;
    }
  }
  return std::fclose(f) == 0 ? 0 : 1;
}
