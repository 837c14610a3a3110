#include "Permutation.h"

#include "Random.h"

namespace NpGen {

Permutation::Permutation(std::uint64_t size, std::uint64_t key) : sizeM(size), keyM(Random::mix(key)) {
  // Half of the bits, rounded up, so the network's range is below 4 * size and the walk back
  // into [0, size) takes four steps at most on average.
  while ((std::uint64_t{1} << (2 * halfBitsM)) < size) {
    ++halfBitsM;
  }
  halfMaskM = (std::uint64_t{1} << halfBitsM) - 1;
}

std::uint64_t Permutation::apply(std::uint64_t value) const {
  if (sizeM <= 1) {
    return value;
  }
  do {
    value = encrypt(value);
  } while (value >= sizeM);
  return value;
}

std::uint64_t Permutation::invert(std::uint64_t value) const {
  if (sizeM <= 1) {
    return value;
  }
  do {
    value = decrypt(value);
  } while (value >= sizeM);
  return value;
}

std::uint64_t Permutation::round(unsigned index, std::uint64_t half) const {
  return Random::mix(keyM ^ (half + (index + 1) * Random::goldenCM)) & halfMaskM;
}

std::uint64_t Permutation::encrypt(std::uint64_t value) const {
  std::uint64_t left = value >> halfBitsM;
  std::uint64_t right = value & halfMaskM;
  for (unsigned i = 0; i < roundsCM; ++i) {
    const std::uint64_t next = left ^ round(i, right);
    left = right;
    right = next;
  }
  return (left << halfBitsM) | right;
}

std::uint64_t Permutation::decrypt(std::uint64_t value) const {
  std::uint64_t left = value >> halfBitsM;
  std::uint64_t right = value & halfMaskM;
  for (unsigned i = roundsCM; i-- > 0;) {
    const std::uint64_t previous = right ^ round(i, left);
    right = left;
    left = previous;
  }
  return (left << halfBitsM) | right;
}

}  // namespace NpGen
