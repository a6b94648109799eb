// A proxy's credentials in clear. Whatever one held is set to zero before it is released or reused.

#include "vpn/Api/ProxyIfc.h"

#include <cstring>
#include <utility>

#include "vpn/include/StringUtils.h"

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
  UnprotectedCredential copy;  // the value may be a part of the own text
  copy += value;
  return *this = copy;
}

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
  // std::string would release an outgrown buffer without wiping it.
  std::string grown;
  grown.reserve(length + length / 2);
  grown.append(m_tstrValue).append(characters, count);
  CStringUtils::wipe(m_tstrValue);
  // Larger than any buffer inside the string object, so the move hands the allocation over.
  m_tstrValue = std::move(grown);
}
