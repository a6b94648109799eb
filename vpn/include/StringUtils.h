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
/// One thread at a time may use an object. Copies own their buffers. There is no move: it might
/// leave characters in the source. A null source throws
/// std::logic_error("basic_string::_S_construct null not valid"); every copy may throw
/// std::bad_alloc.
template <class StrT>
class SecureString {
 public:
  /// Pointer to the characters of a constant text.
  using const_pointerT = typename StrT::const_pointer;

  SecureString() = default;
  /// The characters up to the terminating NUL.
  SecureString(const_pointerT str);
  /// Exactly `n` characters, NULs included. `str` may be null if `n` is 0.
  SecureString(const_pointerT str, std::size_t n);
  /// The characters up to the first NUL.
  SecureString(const StrT& s);
  /// A copy of the characters up to the first NUL.
  SecureString(const SecureString& other);
  ~SecureString();

  /// Wipes this text, then copies `other` up to its first NUL. Self-assignment empties the text.
  // NOLINTNEXTLINE(bugprone-unhandled-self-assignment, cert-oop54-cpp): see above
  SecureString& operator=(const SecureString& other);

  /// Appends the characters up to the first NUL. If they do not fit, wipes the old buffer and moves
  /// to one with room for 256 more characters. `s` may be this object's text.
  SecureString& operator+=(const StrT& s);

  /// The text itself. Buffers that its own operations release are not wiped.
  operator StrT&() { return m_strValue; }

  /// The text, ended by a NUL; valid until the object is changed or destroyed.
  const_pointerT c_str() const { return m_strValue.c_str(); }
  /// Its length in characters.
  std::size_t length() const { return m_strValue.length(); }

  /// Wipes a string in place, empties it and keeps its buffer. Zeroes the whole buffer, also beyond
  /// the text's end, and the space inside the object where a short text was. Changes no other
  /// string; the optimiser cannot drop the writes.
  static void Reset(StrT& s) noexcept;

  /// Copies `str` up to its NUL, then sets the source's characters to 0. They must be writable,
  /// although `str` points to const.
  static SecureString GetAndClear(const_pointerT str);

 private:
  void grow(const StrT& s);

  StrT m_strValue;
};

extern template class SecureString<std::string>;
extern template class SecureString<std::wstring>;
