#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "vpn/include/StringUtils.h"

/// A user name or a password. Every copy is overwritten with zeros when it goes.
using Secret = SecureString<std::string>;

/// What a proxy is told of a user.
struct Credentials {
  Secret user;
  Secret password;
};

/// The most bytes of a user name or of a password: far more than any has, and little enough for a
/// proxy to take in one header line.
constexpr std::size_t MostCredentialBytes = 1024;

/// Bytes on their way to a credential; overwritten with zeros when it goes. The last one stays 0.
class SecretBuffer {
 public:
  SecretBuffer() = default;
  ~SecretBuffer();
  SecretBuffer(const SecretBuffer&) = delete;
  SecretBuffer& operator=(const SecretBuffer&) = delete;

  char* data() { return m_bytes.data(); }
  const char* text() const { return m_bytes.data(); }

  /// Room for the longest credential, the line end after it, and one byte by which a longer one is
  /// known.
  static constexpr std::size_t Size = MostCredentialBytes + 2;

 private:
  std::array<char, Size + 1> m_bytes{};
};

/// Keeps the memory of the process out of core dumps and from debuggers that do not belong to root,
/// from now to its end. To be called before a password is read.
void keepMemoryPrivate();

/// What is wrong with a user name or a password, as a sentence that does not tell it; empty if it
/// can be used. A proxy is told neither with control characters in it, nor a name with a colon,
/// which ends it (RFC 7617, section 2).
std::string findUserError(const Secret& user);
std::string findPasswordError(const Secret& password);

/// Reads a password from a file or from a descriptor that the caller of the program has opened, to
/// its end; one line feed at the end is dropped. The file must be a regular one, no link, of this
/// user or of root, with no access for others. The descriptor is closed.
/// @return an empty string, or what is wrong and how to mend it.
std::string readPasswordFile(const std::string& path, Secret& password);
std::string readPasswordDescriptor(int descriptor, Secret& password);
