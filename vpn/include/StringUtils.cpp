// Small string functions and the class for secrets. Every holder of a secret wipes it with
// SecureString::Reset before its memory is released or reused.

#include "vpn/include/StringUtils.h"

#include <string.h>

#include <algorithm>
#include <stdexcept>

namespace {

/// Without a branch: it is asked for each byte of a thousand names.
char lowered(char c) {
  const auto byte = static_cast<unsigned char>(c);
  const unsigned int isCapital = byte - static_cast<unsigned int>('A') < 26U ? 1 : 0;
  return static_cast<char>(byte | (isCapital << 5U));
}

}  // namespace

std::string CStringUtils::toLower(const std::string& text) {
  std::string result(text);
  for (char& c : result) {
    c = lowered(c);
  }
  return result;
}

bool CStringUtils::equalsIgnoringCase(std::string_view one, std::string_view other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [](char a, char b) { return lowered(a) == lowered(b); });
}

std::string_view CStringUtils::trimmed(std::string_view text) {
  constexpr std::string_view Blanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(Blanks);
  return first == std::string_view::npos
             ? std::string_view()
             : text.substr(first, text.find_last_not_of(Blanks) - first + 1);
}

std::string CStringUtils::printable(const std::string& text, std::size_t maxLength) {
  static const char digits[] = "0123456789abcdef";
  std::string escaped;
  for (const char c : text) {
    if (escaped.size() >= maxLength) {
      escaped += "...";
      break;
    }
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte > 0x7e || c == '\\') {
      escaped += "\\x";
      escaped += digits[byte >> 4U];
      escaped += digits[byte & 0xfU];
    } else {
      escaped += c;
    }
  }
  return escaped;
}

void CStringUtils::wipe(std::string& secret) noexcept { SecureString<std::string>::Reset(secret); }

namespace {

/// So many characters are to fit after text has moved to a larger buffer: a run of small appends
/// shall not copy the secret each time.
constexpr std::size_t Headroom = 256;

template <class CharT>
const CharT* checked(const CharT* str) {
  if (str == nullptr) {
    throw std::logic_error("basic_string::_S_construct null not valid");
  }
  return str;
}

/// To the optimiser, memset of memory that is about to be released would be dead code.
template <class CharT>
void zero(CharT* characters, std::size_t count) {
  explicit_bzero(characters, count * sizeof(CharT));
}

/// Empties a string after its whole buffer has been set to zero. Allocates nothing.
template <class StrT>
void zeroBuffer(StrT& s) {
  s.resize(s.capacity());  // a longer earlier text may be behind the end
  zero(s.data(), s.size());
  s.clear();
}

}  // namespace

template <class StrT>
SecureString<StrT>::SecureString(const_pointerT str) : m_strValue(checked(str)) {}

template <class StrT>
SecureString<StrT>::SecureString(const_pointerT str, std::size_t n) {
  if (n != 0) {
    m_strValue.assign(checked(str), n);
  }
}

// A text ends at its first NUL, here and below.
template <class StrT>
// NOLINTNEXTLINE(readability-redundant-string-cstr)
SecureString<StrT>::SecureString(const StrT& s) : m_strValue(s.c_str()) {}

template <class StrT>
SecureString<StrT>::SecureString(const SecureString& other) : m_strValue(other.c_str()) {}

template <class StrT>
SecureString<StrT>::~SecureString() {
  Reset(m_strValue);
}

// Without a check for self-assignment on purpose: callers know that it empties the text.
template <class StrT>
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment, cert-oop54-cpp)
SecureString<StrT>& SecureString<StrT>::operator=(const SecureString& other) {
  Reset(m_strValue);
  m_strValue.assign(other.c_str());  // a buffer released here holds zeros
  return *this;
}

template <class StrT>
SecureString<StrT>& SecureString<StrT>::operator+=(const StrT& s) {
  if (m_strValue.length() + s.length() < m_strValue.capacity()) {
    // NOLINTNEXTLINE(readability-redundant-string-cstr)
    m_strValue.append(s.c_str());
  } else {
    grow(s);
  }
  return *this;
}

template <class StrT>
void SecureString<StrT>::grow(const StrT& s) {
  const SecureString tmp(m_strValue.data(), m_strValue.length());
  const bool itself = &s == &m_strValue;
  const StrT& added = itself ? tmp.m_strValue : s;  // an own text is about to be wiped
  const std::size_t needed = added.length() + tmp.length() + Headroom;
  Reset(m_strValue);
  m_strValue.reserve(needed);
  m_strValue.assign(tmp.m_strValue);
  // NOLINTNEXTLINE(readability-redundant-string-cstr)
  m_strValue.append(added.c_str());
}

template <class StrT>
void SecureString<StrT>::Reset(StrT& s) noexcept {
  zeroBuffer(s);
  // A short text lies inside the string object, and its characters stay there when the text moves
  // to a buffer. Parking the buffer elsewhere makes that space reachable.
  StrT parked;
  parked.swap(s);
  zeroBuffer(s);
  s.swap(parked);
}

template <class StrT>
SecureString<StrT> SecureString<StrT>::GetAndClear(const_pointerT str) {
  SecureString copy(str);
  zero(const_cast<typename StrT::value_type*>(str), copy.length());
  return copy;
}

template class SecureString<std::string>;
template class SecureString<std::wstring>;
