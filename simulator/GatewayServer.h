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

/// Plays all gateways of a scene, thousands if need be, on the calling thread. Not thread-safe.
class GatewayServer {
 public:
  /// Reserves every gateway's address and port; listens if its behaviour does.
  /// @throws SceneError for an unknown behaviour, std::system_error for an unavailable address.
  GatewayServer(const Scene& scene, const CertificateAuthority& authority);
  ~GatewayServer();
  GatewayServer(const GatewayServer&) = delete;
  GatewayServer& operator=(const GatewayServer&) = delete;

  /// The gateways with their ports filled in, including those that do not listen.
  const std::vector<Gateway>& gateways() const { return m_gateways; }

  /// Lets `Run` call a function whenever `fd` is readable. Only one such descriptor.
  void serveToo(int fd, std::function<void()> serve);

  /// Serves until `stopFd` is readable.
  void Run(int stopFd);

 private:
  struct Listener {
    FileDescriptor socket;
    std::size_t gateway = 0;
    const Behaviour* behaviour = nullptr;
    /// Made for the first client that speaks TLS.
    OpenSslPtr<X509> certificate;
  };
  /// A time at which a connection needs attention.
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
  /// Sockets that only reserve ports: of gateways that refuse, and of blocked ones.
  std::vector<FileDescriptor> m_placeholders;
  std::uint64_t m_nextKey = 0;
  std::unordered_map<std::uint64_t, std::unique_ptr<Connection>> m_connections;
  std::priority_queue<Appointment, std::vector<Appointment>, std::greater<>> m_appointments;
};

}  // namespace simulator
