// Deterministic random numbers for the synthetic stacks.
//
// Every independent piece of a stack (a spot, a section's noise, a channel's
// model) draws from its own generator, seeded from the run's seed and the
// piece's coordinates. So the output does not depend on how many threads
// render it or in which order, and one seed gives byte-identical files.
// The distributions are written out here rather than taken from <random>,
// whose distributions differ between standard libraries.
#pragma once

#include <cmath>
#include <cstdint>

namespace synth {

// One step of SplitMix64: a good 64-bit mixer, used to spread seeds.
inline uint64_t splitMix64(uint64_t& state) {
  uint64_t z = (state += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// A seed for the piece named by up to four coordinates under `seed`.
inline uint64_t mixKey(uint64_t seed, uint64_t a, uint64_t b = 0, uint64_t c = 0, uint64_t d = 0) {
  uint64_t state = seed;
  uint64_t h = splitMix64(state);
  for (uint64_t part : {a, b, c, d}) {
    state ^= part + 0x632BE59BD9B4E019ull + (h << 6) + (h >> 2);
    h ^= splitMix64(state);
  }
  return h;
}

// xoshiro256** with polar-method normals and a Poisson sampler.
class Random {
 public:
  explicit Random(uint64_t seed) {
    for (uint64_t& word : s_) word = splitMix64(seed);
  }

  uint64_t next() {
    const uint64_t result = rotl(s_[1] * 5, 7) * 9;
    const uint64_t t = s_[1] << 17;
    s_[2] ^= s_[0];
    s_[3] ^= s_[1];
    s_[1] ^= s_[2];
    s_[0] ^= s_[3];
    s_[2] ^= t;
    s_[3] = rotl(s_[3], 45);
    return result;
  }

  // Uniform on [0, 1): the top 53 bits make an exact double.
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
  // Uniform on [-bound, bound).
  double symmetric(double bound) { return uniform(-bound, bound); }

  // Standard normal by Marsaglia's polar method; the second value of a pair
  // is kept. Free of trigonometry, which costs more than the rejections.
  double normal() {
    if (haveSpare_) {
      haveSpare_ = false;
      return spare_;
    }
    double u, v, s;
    do {
      u = 2.0 * uniform() - 1.0;
      v = 2.0 * uniform() - 1.0;
      s = u * u + v * v;
    } while (s >= 1.0 || s == 0.0);
    const double m = std::sqrt(-2.0 * std::log(s) / s);
    spare_ = v * m;
    haveSpare_ = true;
    return u * m;
  }

  // A Poisson count of mean `mean` (>= 0). Exact by multiplication of
  // uniforms for small means; above kPoissonNormalMean the normal
  // approximation, whose error there is far below the read noise.
  double poisson(double mean) {
    if (mean <= 0.0) return 0.0;
    if (mean >= kPoissonNormalMean) {
      const double v = std::floor(mean + std::sqrt(mean) * normal() + 0.5);
      return v < 0.0 ? 0.0 : v;
    }
    const double limit = std::exp(-mean);
    double product = uniform();
    double count = 0.0;
    while (product > limit) {
      product *= uniform();
      count += 1.0;
    }
    return count;
  }

  static constexpr double kPoissonNormalMean = 30.0;

 private:
  static uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

  uint64_t s_[4];
  double spare_ = 0.0;
  bool haveSpare_ = false;
};

}  // namespace synth
