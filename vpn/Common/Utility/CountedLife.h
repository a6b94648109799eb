#pragma once

#include <atomic>
#include <cstddef>
#include <new>

/// Keeps an object alive while threads still need it, even after its owner deletes it. `delete`
/// gives up the creator's hold and returns at once; the last holder destroys the object and frees
/// its memory. Usually nobody else holds it, and `delete` does both on the spot.
///
/// @tparam T the class that derives from this. Its own `operator delete` calls `giveUp`: a
///         destroying delete needs the object's own type. Its objects are created with `new`, with
///         the ordinary alignment.
///
/// All operations may be called from any thread.
template <class T>
class CCountedLife {
 public:
  /// Takes a hold. The caller knows the object to be held already.
  void enter() noexcept { m_holders.fetch_add(1, std::memory_order_relaxed); }

  /// As `enter`, for a caller who only knows that the memory still exists: takes no hold on an
  /// object that is being destroyed.
  /// @return whether the object is held now.
  bool enterIfHeld() noexcept {
    unsigned int holders = m_holders.load(std::memory_order_relaxed);
    while (holders != 0) {
      if (m_holders.compare_exchange_weak(holders, holders + 1, std::memory_order_relaxed)) {
        return true;
      }
    }
    return false;
  }

  /// Gives up a hold, once for each `enter`. The last one destroys the object on this thread.
  void leave() noexcept {
    if (isLastOut()) {
      destroy();
    }
  }

  /// The global one; a class that has its own `delete` needs its own `new`.
  static void* operator new(std::size_t size) { return ::operator new(size); }
  /// Frees the memory of an object whose construction threw.
  static void operator delete(void* memory) noexcept { ::operator delete(memory); }

 protected:
  /// Gives up the creator's hold: what a `delete` expression does in place of the destructor.
  static void giveUp(T* object) noexcept {
    if (object != nullptr) {
      object->leave();
    }
  }

  CCountedLife() = default;
  /// A copy is an object of its own: nobody but its creator holds it.
  CCountedLife(const CCountedLife& /*other*/) noexcept {}
  CCountedLife& operator=(const CCountedLife&) = delete;
  ~CCountedLife() = default;

  /// Gives up a hold. @return whether it was the last one: then nobody takes a hold from now on,
  /// and the caller, who is alone with the object, has to destroy it.
  bool isLastOut() noexcept {
    // Release: what this holder did happens before the destruction. Acquire: so did what others
    // did.
    return m_holders.fetch_sub(1, std::memory_order_acq_rel) == 1;
  }

  void destroy() noexcept {
    auto* const object = static_cast<T*>(this);
    // Found before the destructor ends the type: this base need not be where the object starts.
    void* const whole = dynamic_cast<void*>(object);
    object->~T();
    ::operator delete(whole);
  }

 private:
  std::atomic<unsigned int> m_holders{1};
};
