#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <queue>
#include <string>
#include <unordered_map>
#include <vector>

#include "simulator/Alarm.h"
#include "simulator/Behaviours.h"
#include "simulator/Certificates.h"
#include "simulator/FileDescriptor.h"
#include "simulator/Scene.h"

namespace simulator {

class Connection;

/// Plays all gateways of a scene on the thread that calls it; thousands of gateways and connections
/// are no burden. Not for several threads.
class GatewayServer {
 public:
  /// Takes every gateway's address and port, and listens where its behaviour wants it.
  /// @throws SceneError for an unknown behaviour, std::system_error for an address that cannot be
  /// had.
  GatewayServer(const Scene& scene, const CertificateAuthority& authority);
  ~GatewayServer();
  GatewayServer(const GatewayServer&) = delete;
  GatewayServer& operator=(const GatewayServer&) = delete;

  /// The gateways with their ports filled in; those that do not listen are among them.
  const std::vector<Gateway>& gateways() const { return m_gateways; }

  /// Has `Run` call a function whenever a file is readable. There is one such file.
  void serveToo(int fd, std::function<void()> serve);

  /// Serves until `stopFd` is readable.
  void Run(int stopFd);

 private:
  struct Listener {
    FileDescriptor socket;
    std::size_t gateway = 0;
    const Behaviour* behaviour = nullptr;
    /// Made when the first client speaks TLS.
    OpenSslPtr<X509> certificate;
  };
  /// A connection wants attention at a moment.
  struct Appointment {
    Clock::time_point due;
    std::uint64_t connection;
    bool operator>(const Appointment& other) const { return due > other.due; }
  };

  void makeContext();
  void listen(std::size_t gateway, const Behaviour& behaviour);
  void block(const Gateway& gateway);
  void watch(int fd, std::uint64_t key, std::uint32_t events);
  void accept(Listener& listener);
  void advance(std::uint64_t key);
  void appoint(std::uint64_t key, Connection& connection);
  void keepAppointments();
  OpenSslPtr<SSL> makeTls(int fd, Listener& listener);

  const CertificateAuthority& m_authority;
  std::unordered_multimap<std::string, std::string> m_namesOfAddress;
  OpenSslPtr<SSL_CTX> m_context;
  std::vector<Gateway> m_gateways;
  FileDescriptor m_epoll;
  std::function<void()> m_serveToo;
  Alarm m_alarm;
  std::vector<Listener> m_listeners;
  /// What is open for the sake of the ports alone: of gateways that refuse, and of blocked ones.
  std::vector<FileDescriptor> m_placeholders;
  std::uint64_t m_nextKey = 0;
  std::unordered_map<std::uint64_t, std::unique_ptr<Connection>> m_connections;
  std::priority_queue<Appointment, std::vector<Appointment>, std::greater<>> m_appointments;
};

}  // namespace simulator
