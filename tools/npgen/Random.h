// NpGen::Random is the generator's pseudo-random source: xoshiro256** seeded through splitmix64.
// Every draw is plain integer arithmetic, so a seed gives the same files with any compiler and
// standard library (the standard distributions do not promise that). Used by every part of npgen.
#pragma once

#include <cstdint>

namespace NpGen {

class Random {
public:
  explicit Random(std::uint64_t seed) {
    std::uint64_t x = seed;
    for (std::uint64_t& word : stateM) {
      x += goldenCM;
      word = mix(x);
    }
  }

  // Seeds a stream of its own for one purpose (a number's history, the event file, ...), so
  // that what one stream draws never shifts what another draws.
  static Random stream(std::uint64_t seed, std::uint64_t purpose, std::uint64_t index = 0) {
    return Random(mix(mix(seed ^ (purpose * goldenCM)) + index));
  }

  // The splitmix64 finaliser: a bijection of 64-bit words that scatters every input bit.
  static constexpr std::uint64_t mix(std::uint64_t x) {
    x ^= x >> 30;
    x *= 0xBF58476D1CE4E5B9ULL;
    x ^= x >> 27;
    x *= 0x94D049BB133111EBULL;
    x ^= x >> 31;
    return x;
  }

  std::uint64_t next() {
    const std::uint64_t result = rotate(stateM[1] * 5, 7) * 9;
    const std::uint64_t t = stateM[1] << 17;
    stateM[2] ^= stateM[0];
    stateM[3] ^= stateM[1];
    stateM[1] ^= stateM[2];
    stateM[0] ^= stateM[3];
    stateM[2] ^= t;
    stateM[3] = rotate(stateM[3], 45);
    return result;
  }

  // Uniform in [0, bound); 0 for a bound of 0. Rejects the top sliver so that no value is
  // favoured by the modulo.
  std::uint64_t below(std::uint64_t bound) {
    if (bound == 0) {
      return 0;
    }
    const std::uint64_t threshold = (0 - bound) % bound;
    for (;;) {
      const std::uint64_t r = next();
      if (r >= threshold) {
        return r % bound;
      }
    }
  }

  // Uniform in [low, high); low when the range is empty.
  std::int64_t between(std::int64_t low, std::int64_t high) {
    return high <= low ? low : low + static_cast<std::int64_t>(below(static_cast<std::uint64_t>(high - low)));
  }

  // True with the given probability.
  bool chance(double probability) { return static_cast<double>(next() >> 11) * 0x1p-53 < probability; }

  static constexpr std::uint64_t goldenCM = 0x9E3779B97F4A7C15ULL;

private:
  static constexpr std::uint64_t rotate(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

  std::uint64_t stateM[4];
};

}  // namespace NpGen
