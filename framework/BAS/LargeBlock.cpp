#include "BAS/LargeBlock.h"

#include <sys/mman.h>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <cstdint>
#include <new>

namespace BAS {

namespace {

std::size_t roundUp(std::size_t bytes) noexcept { return (bytes + LargeBlock::alignCM - 1) & ~(LargeBlock::alignCM - 1); }

}  // namespace

void* LargeBlock::allocate(std::size_t bytes, bool hugePages) {
  const std::size_t size = roundUp(bytes == 0 ? 1 : bytes);
  // Mapped with one alignment's worth to spare, then trimmed, since mmap aligns to small pages only.
  const std::size_t mapped = size + alignCM;
  void* const base = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (base == MAP_FAILED) throw std::bad_alloc();
  const auto address = reinterpret_cast<std::uintptr_t>(base);
  const std::uintptr_t aligned = (address + alignCM - 1) & ~(std::uintptr_t{alignCM} - 1);
  if (aligned != address) munmap(base, aligned - address);
  const std::uintptr_t end = aligned + size;
  if (end != address + mapped) munmap(reinterpret_cast<void*>(end), address + mapped - end);
  // Only advice: where the system has no huge page free, or does not offer them, small pages serve.
  if (hugePages) madvise(reinterpret_cast<void*>(aligned), size, MADV_HUGEPAGE);
  return reinterpret_cast<void*>(aligned);
}

void* LargeBlock::resize(void* block, std::size_t bytes, std::size_t newBytes, bool hugePages) {
  if (block == nullptr) return allocate(newBytes, hugePages);
  const std::size_t oldSize = roundUp(bytes == 0 ? 1 : bytes);
  const std::size_t size = roundUp(newBytes == 0 ? 1 : newBytes);
  void* const moved = mremap(block, oldSize, size, MREMAP_MAYMOVE);
  if (moved == MAP_FAILED) throw std::bad_alloc();
  if (hugePages) madvise(moved, size, MADV_HUGEPAGE);
  return moved;
}

void LargeBlock::release(void* block, std::size_t bytes) noexcept {
  if (block != nullptr) munmap(block, roundUp(bytes == 0 ? 1 : bytes));
}

void LargeBlock::returnFreeHeap() noexcept {
#if defined(__GLIBC__)
  malloc_trim(0);
#endif
}

}  // namespace BAS
