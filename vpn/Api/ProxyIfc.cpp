// The proxy provider's interface and its credentials in clear. A credential's characters exist only
// in the buffer that it holds at the moment: whatever it held before is set to zero before it is
// released or reused, on assignment, on growth and on destruction.

#include "vpn/Api/ProxyIfc.h"

#include <cstring>
#include <functional>
#include <utility>

#include "vpn/include/StringUtils.h"

namespace {

bool pointsInto(const std::string& text, const char* characters) {
  // std::less orders any two pointers; the built-in comparison only those of one object.
  const std::less<const char*> before;
  return !before(characters, text.data()) && !before(text.data() + text.size(), characters);
}

}  // namespace

ProxyIfc::~ProxyIfc() = default;

ProxyIfc::UnprotectedCredential::UnprotectedCredential() = default;

ProxyIfc::UnprotectedCredential::UnprotectedCredential(const UnprotectedCredential& other) =
    default;

ProxyIfc::UnprotectedCredential::UnprotectedCredential(const std::string& value)
    : m_tstrValue(value) {}

ProxyIfc::UnprotectedCredential::~UnprotectedCredential() { CStringUtils::wipe(m_tstrValue); }

ProxyIfc::UnprotectedCredential& ProxyIfc::UnprotectedCredential::operator=(
    const UnprotectedCredential& other) {
  if (this != &other) {
    CStringUtils::wipe(m_tstrValue);
    append(other.m_tstrValue.data(), other.m_tstrValue.size());
  }
  return *this;
}

ProxyIfc::UnprotectedCredential& ProxyIfc::UnprotectedCredential::operator=(const char* value) {
  if (value == nullptr) {
    CStringUtils::wipe(m_tstrValue);
  } else if (pointsInto(m_tstrValue, value)) {
    // A part of itself: the copy dies wiped, so nothing of the old value is left.
    UnprotectedCredential copy;
    copy.append(value, std::strlen(value));
    *this = copy;
  } else {
    CStringUtils::wipe(m_tstrValue);
    append(value, std::strlen(value));
  }
  return *this;
}

const std::string& ProxyIfc::UnprotectedCredential::GetValue() const { return m_tstrValue; }

const char* ProxyIfc::UnprotectedCredential::c_str() const { return m_tstrValue.c_str(); }

std::size_t ProxyIfc::UnprotectedCredential::GetLength() const { return m_tstrValue.size(); }

std::size_t ProxyIfc::UnprotectedCredential::length() const { return m_tstrValue.size(); }

bool ProxyIfc::UnprotectedCredential::empty() const { return m_tstrValue.empty(); }

ProxyIfc::UnprotectedCredential& ProxyIfc::UnprotectedCredential::operator+=(
    const UnprotectedCredential& other) {
  append(other.m_tstrValue.data(), other.m_tstrValue.size());
  return *this;
}

ProxyIfc::UnprotectedCredential& ProxyIfc::UnprotectedCredential::operator+=(const char* value) {
  if (value != nullptr) {
    append(value, std::strlen(value));
  }
  return *this;
}

void ProxyIfc::UnprotectedCredential::append(const char* characters, std::size_t count) {
  const std::size_t length = m_tstrValue.size() + count;
  if (length <= m_tstrValue.capacity()) {
    m_tstrValue.append(characters, count);
    return;
  }
  // std::string would release the buffer that it outgrows as it is.
  std::string grown;
  grown.reserve(length + length / 2);
  grown.append(m_tstrValue).append(characters, count);
  CStringUtils::wipe(m_tstrValue);
  // Larger than any buffer inside the string object, so the move hands the allocation over.
  m_tstrValue = std::move(grown);
}
