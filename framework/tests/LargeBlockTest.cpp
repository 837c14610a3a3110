#include "BAS/LargeBlock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

namespace {

TEST(LargeBlock, HandsOutAlignedZeroedBlocksThatCanBeUsedToTheirEnd) {
  for (const bool hugePages : {false, true}) {
    for (const std::size_t bytes : {std::size_t{1}, BAS::LargeBlock::alignCM, 3 * BAS::LargeBlock::alignCM + 5}) {
      SCOPED_TRACE(std::to_string(bytes) + (hugePages ? " with huge pages" : ""));
      auto* const block = static_cast<unsigned char*>(BAS::LargeBlock::allocate(bytes, hugePages));
      ASSERT_NE(block, nullptr);
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % BAS::LargeBlock::alignCM, 0U);
      EXPECT_TRUE(std::all_of(block, block + bytes, [](unsigned char byte) { return byte == 0; }));
      std::fill(block, block + bytes, 0xA5);
      EXPECT_EQ(block[bytes - 1], 0xA5);
      BAS::LargeBlock::release(block, bytes);
    }
  }
  BAS::LargeBlock::release(nullptr, 1);
}

}  // namespace
