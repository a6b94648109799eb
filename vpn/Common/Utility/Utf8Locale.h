#pragma once

#include <locale.h>

/// As long as one lives, the C library reads bytes on its thread as UTF-8, whatever locale the
/// process runs in. Without memory for that, bytes stay what the process takes them for.
class Utf8Locale {
 public:
  Utf8Locale() : m_before(nullptr) {
    // Never freed: threads may be using it while the process ends.
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (utf8 != nullptr) {
      m_before = uselocale(utf8);
    }
  }
  ~Utf8Locale() {
    if (m_before != nullptr) {
      uselocale(m_before);
    }
  }
  Utf8Locale(const Utf8Locale&) = delete;
  Utf8Locale& operator=(const Utf8Locale&) = delete;

 private:
  locale_t m_before;
};
