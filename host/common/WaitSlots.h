// Host::WaitSlots bounds how many waits (`await`, `after`) the control socket keeps parked at
// once, so that parked connections can never take every connection an operator needs. A
// Slot is taken before the wait begins and given back when it ends, on every way out.
// Thread-safe: every connection's thread takes and gives back slots.
#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

namespace Host {

class WaitSlots {
public:
  explicit WaitSlots(std::size_t limit) : limitM(limit) {}
  WaitSlots(const WaitSlots&) = delete;
  WaitSlots& operator=(const WaitSlots&) = delete;

  // A taken slot, given back when it ends; empty when none was free.
  class Slot {
  public:
    Slot() = default;
    explicit Slot(WaitSlots* owner) : ownerM(owner) {}
    Slot(Slot&& other) noexcept : ownerM(std::exchange(other.ownerM, nullptr)) {}
    Slot& operator=(Slot&& other) noexcept {
      if (this != &other) {
        release();
        ownerM = std::exchange(other.ownerM, nullptr);
      }
      return *this;
    }
    ~Slot() { release(); }
    explicit operator bool() const { return ownerM != nullptr; }

  private:
    void release() {
      if (ownerM != nullptr) std::exchange(ownerM, nullptr)->takenM.fetch_sub(1);
    }
    WaitSlots* ownerM = nullptr;
  };

  Slot take() {
    for (std::size_t taken = takenM.load(); taken < limitM;)
      if (takenM.compare_exchange_weak(taken, taken + 1)) return Slot(this);
    return Slot();
  }

private:
  const std::size_t limitM;
  std::atomic<std::size_t> takenM{0};  // atomic: no lock, each slot one increment and one decrement
};

}  // namespace Host
