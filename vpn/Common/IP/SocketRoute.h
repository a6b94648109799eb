#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

/// How sockets leave the machine. Constant once it is made; any thread may use it then.
class SocketRoute {
 public:
  struct Wish {
    std::string interface;  ///< empty for any
    std::string source;     ///< an address; empty for any
    std::uint32_t mark = 0;
    int family = AF_UNSPEC;  ///< AF_INET or AF_INET6: no other
  };
  /// What messages call the parts of a wish.
  struct Names {
    const char* interface;
    const char* source;
    const char* mark;
  };

  explicit SocketRoute(Names names) : m_names(names) {}

  /// Tries the wish on a socket. To be called once. @return an empty text, or what is wrong and
  /// why.
  std::string take(const Wish& wish);

  /// The way in words that distinguish it from others; empty for none of its own.
  std::vector<std::string> words() const;

  /// Whether sockets of a family may be used at all.
  bool allows(int family) const { return m_family == AF_UNSPEC || m_family == family; }

  /// Prepares a socket. @return an empty text, or why it cannot be used.
  std::string apply(int socket) const;

 private:
  std::string takeSource(const Wish& wish);

  const Names m_names;
  std::string m_interface;
  std::string m_sourceText;
  sockaddr_storage m_source{};
  socklen_t m_sourceLength = 0;  // 0: none
  std::uint32_t m_mark = 0;
  int m_family = AF_UNSPEC;
};
