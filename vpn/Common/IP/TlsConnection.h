#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "vpn/Common/IP/TlsWatch.h"

/// TLS over one connected socket, which it never waits for. Trusts and checks as libcurl does: the
/// chain, and the host by `ProbeTarget::host`. Used by one thread at a time.
class TlsConnection {
 public:
  enum class State { Done, Waits, Closed, Failed };

  /// Null if there is no memory. @param socket outlives it.
  static std::unique_ptr<TlsConnection> make(int socket, const std::string& host);
  /// Says goodbye.
  ~TlsConnection();
  TlsConnection(const TlsConnection&) = delete;
  TlsConnection& operator=(const TlsConnection&) = delete;

  State shakeHands();
  State write(const char* bytes, std::size_t size, std::size_t& count);
  State read(char* bytes, std::size_t size, std::size_t& count);

  /// libcurl's code for what failed last.
  unsigned int code() const { return m_code; }
  TlsWatch& watch() { return m_watch; }
  const TlsWatch& watch() const { return m_watch; }
  /// Whether bytes have come that nobody has read.
  bool hasPending() const;
  /// Whether what waits has read all that has come; else it can go on at once.
  bool isDrained() const { return m_wire.isDrained; }

  /// Whether what waits has to write first.
  bool mustWrite() const;

  /// What is below.
  struct Wire {
    int socket;
    bool isDrained = false;
  };

 private:
  using Handle = std::unique_ptr<ssl_st, void (*)(ssl_st*)>;

  TlsConnection(int socket, const std::string& host, Handle handle);
  State stateOf(int result, unsigned int codeOfFailure);
  bool isForHost() const;

  const std::string m_host;
  Wire m_wire;
  TlsWatch m_watch;
  const Handle m_handle;
  unsigned int m_code = 0;
  bool m_stands = false;
};
