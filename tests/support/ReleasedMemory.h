#pragma once

#include <cstddef>
#include <new>
#include <string_view>
#include <utility>

namespace tests {

/// Whether memory holds a text. Looks at the bytes as they are: the compiler cannot take for
/// granted what they must be.
bool holds(const void* memory, std::size_t size, std::string_view text);

/// Reads memory as far as the compiler knows, so that it cannot leave out what was written there.
inline void use(const void* memory) { asm volatile("" : : "r"(memory) : "memory"); }

/// Watches the memory that the program gives back through operator delete, while it lives, for a
/// text. There is one at a time; blocks may be given back by any thread. The text is kept outside
/// the memory that is watched.
class LeakWatch {
 public:
  /// @param text 1 to 63 bytes. A part of a secret will do.
  explicit LeakWatch(std::string_view text);
  ~LeakWatch();
  LeakWatch(const LeakWatch&) = delete;
  LeakWatch& operator=(const LeakWatch&) = delete;

  /// Blocks that held the text as they were given back.
  int Leaks() const;
  /// Blocks given back.
  int Blocks() const;
};

/// Lets one allocation through operator new fail while it lives; for programs with one thread.
class FailingAllocation {
 public:
  /// @param number which one from now on, 1 for the next.
  explicit FailingAllocation(long number);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  bool HasFailed() const;
};

/// An object in storage that outlives it, so that its own bytes can be looked at afterwards.
template <class T>
class InPlace {
 public:
  template <class... Args>
  explicit InPlace(Args&&... args) {
    m_object = new (m_storage) T(std::forward<Args>(args)...);
  }
  ~InPlace() { destroy(); }
  InPlace(const InPlace&) = delete;
  InPlace& operator=(const InPlace&) = delete;

  T& operator*() { return *m_object; }
  T* operator->() { return m_object; }
  void destroy() {
    if (m_object != nullptr) {
      std::exchange(m_object, nullptr)->~T();
    }
  }
  bool holds(std::string_view text) const {
    return tests::holds(m_storage, sizeof m_storage, text);
  }

 private:
  alignas(T) unsigned char m_storage[sizeof(T)] = {};
  T* m_object;
};

}  // namespace tests
