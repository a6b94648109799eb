#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "vpn/include/StringUtils.h"

/// A user name or a password. The destructor of each copy overwrites it with zeros.
using Secret = SecureString<std::string>;

/// What a user tells a proxy.
struct Credentials {
  Secret user;
  Secret password;
};

/// The most bytes of a user name or a password: far more than needed, and few enough for one header
/// line.
constexpr std::size_t MostCredentialBytes = 1024;

/// A buffer for a credential; the destructor overwrites it with zeros. Its last byte stays 0.
class SecretBuffer {
 public:
  SecretBuffer() = default;
  ~SecretBuffer();
  SecretBuffer(const SecretBuffer&) = delete;
  SecretBuffer& operator=(const SecretBuffer&) = delete;

  char* data() { return m_bytes.data(); }
  const char* text() const { return m_bytes.data(); }

  /// Room for the longest credential, its line end, and one more byte to detect a longer one.
  static constexpr std::size_t Size = MostCredentialBytes + 2;

 private:
  std::array<char, Size + 1> m_bytes{};
};

/// From now on keeps the memory of the process out of core dumps, and debuggers out unless root
/// runs them. To be called before a password is read.
void keepMemoryPrivate();

/// Why a user name or a password cannot be used, as a sentence without it; empty if it can. Control
/// characters are refused, and a colon in a name, which would end it (RFC 7617, section 2).
std::string findUserError(const Secret& user);
std::string findPasswordError(const Secret& password);

/// Reads a password to the end of a file, or of a descriptor that the caller of the program has
/// opened; drops one line feed at the end. The file must be a regular one of this user or root
/// without access for others, on a path that no other user can change. The descriptor is closed.
/// @return an empty string, or what is wrong and how to mend it.
std::string readPasswordFile(const std::string& path, Secret& password);
std::string readPasswordDescriptor(int descriptor, Secret& password);
