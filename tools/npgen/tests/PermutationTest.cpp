#include "Permutation.h"

#include <gtest/gtest.h>

#include <cstdint>

TEST(Permutation, IsABijectionThatInvertUndoesForAwkwardSizes) {
  for (const std::uint64_t size : {1ULL, 2ULL, 3ULL, 17ULL, 1000ULL, 4097ULL}) {
    const NpGen::Permutation permutation(size, 42 + size);
    for (std::uint64_t x = 0; x < size; ++x) {
      const std::uint64_t y = permutation.apply(x);
      // Inverting every image gives its value back, so no two values share an image.
      ASSERT_TRUE(y < size && permutation.invert(y) == x) << "size " << size << ", " << x << " -> " << y;
    }
  }
}
