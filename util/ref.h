// ref.h - objects that several owners share: each holds a REF, and the last one to go deletes.
#pragma once

#include <atomic>
#include <utility>

#include "sys/linux/qlntypes.h"

/// Born with the one count that its maker's REF adopts.
///
/// Threads: the count alone is safe from any thread; the object says itself what else is.
class COUNTED {
 public:
  COUNTED() = default;
  virtual ~COUNTED() = default;
  COUNTED(const COUNTED&) = delete;
  COUNTED& operator=(const COUNTED&) = delete;

 private:
  template <typename T>
  friend class REF;
  std::atomic<UI4> refs{1};
};

/// One count of a T, or none.
///
/// Threads: a REF belongs to one thread at a time, or to a lock.
template <typename T>
class REF {
 public:
  REF() = default;
  /// Adopts the count that `made` was born with; null is none.
  explicit REF(T* made) : object(made) {}
  REF(const REF& other) : object(other.object) {
    if (object) object->refs.fetch_add(1, std::memory_order_relaxed);
  }
  REF(REF&& other) noexcept : object(std::exchange(other.object, nullptr)) {}
  REF& operator=(REF other) {
    std::swap(object, other.object);
    return *this;
  }
  ~REF() {
    // Whoever deletes sees all that the other owners did.
    if (object && object->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete object;
  }

  T* Get() const { return object; }
  /// One more count of what somebody else holds one of; null is none.
  static REF Share(T* held) {
    if (held) held->refs.fetch_add(1, std::memory_order_relaxed);
    return REF(held);
  }
  /// Passes the count on, to a field that says so; another REF adopts it from there.
  [[nodiscard]] T* Release() { return std::exchange(object, nullptr); }
  T* operator->() const { return object; }
  T& operator*() const { return *object; }
  explicit operator bool() const { return object != nullptr; }

 private:
  T* object = nullptr;
};
