#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestCertificates.h"

namespace tests {

/// A real server, in the foreground as the test's child; it runs from its construction on. Used by
/// one thread. Constructors throw std::runtime_error, with what the server has written,
/// when it cannot be started.
class RealServer {
 public:
  ~RealServer();
  RealServer(const RealServer&) = delete;
  RealServer& operator=(const RealServer&) = delete;

  /// Where it listens.
  const Endpoint& Where() const { return m_where; }
  /// The same as text, as it is written in a profile.
  std::string Address() const { return m_where.Text(); }

  /// Ends it and waits for it.
  void Stop();

  /// What it has written so far.
  std::string Output() const;

 protected:
  /// Chooses where it is to listen; starts nothing.
  explicit RealServer(const std::string& address);

  /// Starts the server with this command and waits until it takes connections.
  void Start(const std::vector<std::string>& command);
  const TemporaryDirectory& Directory() const { return m_directory; }

 private:
  TemporaryDirectory m_directory;
  Endpoint m_where;
  std::unique_ptr<ChildProcess> m_process;
};

/// nginx with TLS; it answers a plain HTTP request with 400. Runs from its construction on, like
/// the others below.
class NginxServer : public RealServer {
 public:
  explicit NginxServer(const TestCertificates& certificates,
                       const std::string& address = "127.0.0.1");

  /// The requests that it has read, a line each; complete once it has been stopped.
  std::vector<std::string> Requests() const;
};

/// HAProxy with TLS that answers every request itself; it hangs up on a plain HTTP request.
class HaproxyServer : public RealServer {
 public:
  explicit HaproxyServer(const TestCertificates& certificates);
};

/// `openssl s_server`; it hangs up on a plain HTTP request and serves one connection after another.
class OpensslServer : public RealServer {
 public:
  explicit OpensslServer(const TestCertificates& certificates);
};

/// squid, a proxy. It takes tunnels to one port alone, and may send them to another proxy instead
/// of where they are to go. Started by root it runs as squid's own user.
class SquidProxy : public RealServer {
 public:
  struct Settings {
    std::string address = "127.0.0.1";
    /// Realm of the Basic authentication that it demands; empty: it lets everybody in. It is sent
    /// as it stands: squid escapes nothing.
    std::string realm;
    /// Demands NTLM besides, or alone without a realm, and takes every password.
    bool ntlm = false;
    /// The one port that tunnels may go to.
    unsigned short tunnelPort = 443;
    /// Port of a proxy of this machine that all tunnels are sent to; 0 for none.
    unsigned short parent = 0;
  };
  /// The user that Basic authentication knows.
  static constexpr const char* User = "anna";
  static constexpr const char* Password = "swordfish-Of-The-Office";

  explicit SquidProxy(const Settings& settings);
};

}  // namespace tests
