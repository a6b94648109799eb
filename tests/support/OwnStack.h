#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace tests {

/// A stack in memory of the test's own, so that what a function leaves on it can be looked at after
/// its end.
class OwnStack {
 public:
  /// Runs a function on it, on a thread of its own, to its end.
  void Run(void* (*function)(void*)) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, m_memory.data() + padding(), Size);
    pthread_t thread{};
    const int error = pthread_create(&thread, &attributes, function, nullptr);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
      throw std::runtime_error("no thread");
    }
    pthread_join(thread, nullptr);
  }

  /// Whether it holds a text, whose first byte does not come again in it.
  bool Holds(std::string_view text) const {
    // Volatile: for the compiler nobody has written here.
    const volatile char* const bytes = m_memory.data();
    std::size_t same = 0;
    for (std::size_t i = 0; i < m_memory.size(); ++i) {
      const char byte = bytes[i];
      same = byte == text[same] ? same + 1 : (byte == text[0] ? 1U : 0U);
      if (same == text.size()) {
        return true;
      }
    }
    return false;
  }

 private:
  static constexpr std::size_t Size = 256UL * 1024;
  static constexpr std::size_t Alignment = 4096;

  std::size_t padding() const {
    return Alignment - reinterpret_cast<std::uintptr_t>(m_memory.data()) % Alignment;
  }

  std::vector<char> m_memory = std::vector<char>(Size + Alignment);
};

}  // namespace tests
