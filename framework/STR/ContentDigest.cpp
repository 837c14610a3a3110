#include "STR/ContentDigest.h"

#include <new>
#include <xxhash.h>

namespace STR {

namespace {

XXH3_state_t* stateOf(void* state) { return static_cast<XXH3_state_t*>(state); }

}  // namespace

ContentDigest::ContentDigest() : stateM(XXH3_createState()) {
  if (stateM == nullptr) throw std::bad_alloc();
  restart();
}

ContentDigest::~ContentDigest() { XXH3_freeState(stateOf(stateM)); }

void ContentDigest::restart() noexcept {
  XXH3_128bits_reset(stateOf(stateM));
  sizeM = 0;
}

void ContentDigest::add(const void* bytes, std::size_t size) noexcept {
  XXH3_128bits_update(stateOf(stateM), bytes, size);
  sizeM += size;
}

FileDigests::Digest ContentDigest::digest() const noexcept {
  const XXH128_hash_t hash = XXH3_128bits_digest(stateOf(stateM));
  return FileDigests::Digest{hash.high64, hash.low64};
}

}  // namespace STR
