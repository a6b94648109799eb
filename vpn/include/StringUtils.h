#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// String functions shared by the client library. All are pure functions that any thread may call.
class CStringUtils {
 public:
  CStringUtils() = delete;

  /// A copy of `text` with the ASCII letters A to Z in lower case; every other byte, those of UTF-8
  /// sequences included, is unchanged. The locale plays no part, so a cache key reads the same on
  /// every machine.
  static std::string toLower(const std::string& text);

  /// Whether two texts differ at most in the case of ASCII letters.
  static bool equalsIgnoringCase(std::string_view one, std::string_view other);

  /// `text` without the spaces, tabs and line ends around it.
  static std::string_view trimmed(std::string_view text);

  /// `text` fit for one line of a log or a terminal: control characters, bytes above 126 and the
  /// backslash become `\xNN`, and what exceeds `maxLength` characters is cut and marked "...".
  static std::string printable(const std::string& text, std::size_t maxLength = 200);

  /// Wipes a secret; see `SecureString::Reset`.
  static void wipe(std::string& secret) noexcept;
};

/// A secret text. Whatever it held is overwritten with zeros before its memory is released or
/// reused. There is one for `std::string` and one for `std::wstring`; lengths are in characters.
///
/// An object may be used by one thread at a time. Copies own buffers of their own; there is no
/// move, which might leave characters behind in the object that was moved from. Sources that are
/// null throw std::logic_error("basic_string::_S_construct null not valid"); all that copies may
/// throw std::bad_alloc.
template <class StrT>
class SecureString {
 public:
  /// Pointer to the characters of a constant text.
  using const_pointerT = typename StrT::const_pointer;

  SecureString() = default;
  /// The characters up to the terminating NUL.
  SecureString(const_pointerT str);
  /// Exactly `n` characters, NULs included. A null `str` will do if there are none.
  SecureString(const_pointerT str, std::size_t n);
  /// The characters up to the first NUL.
  SecureString(const StrT& s);
  /// A copy of the characters up to the first NUL.
  SecureString(const SecureString& other);
  ~SecureString();

  /// Wipes the own text, then takes the other's characters up to the first NUL. Assigned to itself,
  /// the text becomes empty.
  // NOLINTNEXTLINE(bugprone-unhandled-self-assignment, cert-oop54-cpp): see above
  SecureString& operator=(const SecureString& other);

  /// Appends the characters up to the first NUL. Text that no longer fits moves to a larger buffer
  /// with room for 256 characters more, after the old one has been wiped. `s` may be the own text.
  SecureString& operator+=(const StrT& s);

  /// The text itself. What its own operations outgrow or move elsewhere is not wiped.
  operator StrT&() { return m_strValue; }

  /// The text, ended by a NUL; valid until the object is changed or destroyed.
  const_pointerT c_str() const { return m_strValue.c_str(); }
  /// Its length in characters.
  std::size_t length() const { return m_strValue.length(); }

  /// Wipes a string in place and leaves it empty: every character of its buffer becomes 0, also
  /// those beyond its end, and those of a short text that the object itself held before it had a
  /// buffer. The buffer is kept. No other string is changed, and the optimiser drops none of it.
  static void Reset(StrT& s) noexcept;

  /// A copy of `str` up to its terminating NUL; the source's characters are set to 0, although
  /// `str` promises not to. They must be writable.
  static SecureString GetAndClear(const_pointerT str);

 private:
  void grow(const StrT& s);

  StrT m_strValue;
};

extern template class SecureString<std::string>;
extern template class SecureString<std::wstring>;
