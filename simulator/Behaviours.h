#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "simulator/Certificates.h"

namespace simulator {

/// The request to answer.
struct Request {
  /// The request came over TLS. A TLS gateway refuses a plain one.
  bool secure = false;
  /// First line and header lines; empty if the gateway acts on a connection's first bytes, whatever
  /// they are.
  std::string head;
};

/// A part of an answer.
struct Piece {
  std::string bytes;
  /// Wait before sending; the first piece also waits for the gateway's own delay.
  std::chrono::nanoseconds pause{0};
};

/// Messages of TLS that are no answer. Each empty piece of an answer is some of them.
enum class TlsNoise { None, KeyUpdates, KeyUpdatesWithReply, HelloRequests, Tickets };
constexpr int NoiseAtOnce = 64;

/// Peculiarities of a gateway's TLS.
struct TlsManner {
  CertificateFlaw flaw = CertificateFlaw::None;
  bool demandsClientCertificate = false;
  /// OpenSSL's version numbers (TLS1_2_VERSION); 0 for no limit.
  int oldestVersion = 0;
  int newestVersion = 0;
  TlsNoise noise = TlsNoise::None;
};

/// How a gateway treats its clients. A new behaviour needs a line in the table of Behaviours.cpp,
/// and a function if no other behaviour answers like it.
struct Behaviour {
  enum class Door {
    Open,
    /// Refuses connections.
    Closed,
    /// Neither accepts nor refuses connections, like an unused address.
    Blocked,
  };
  enum class Acts { Never, OnAccept, OnFirstBytes, OnRequest };
  enum class Afterwards { AsHttpSays, Keep, Close, Reset };

  std::string_view name;
  /// One line for the help text.
  std::string_view summary;
  Door door = Door::Open;
  Acts acts = Acts::OnRequest;
  /// Piece number `index` of the answer, none after the last; null for no answer. Each piece is
  /// asked for once and in order; an answer may be endless.
  std::optional<Piece> (*answer)(const Request& request, std::size_t index) = nullptr;
  /// What happens to the connection after the answer.
  Afterwards afterwards = Afterwards::Close;
  /// Used if the gateway acts on requests: it then accepts TLS.
  TlsManner tls = {};
  /// The behaviour for a connection's later requests; empty for the same.
  std::string_view later = {};
};

/// All behaviours; the first is the default.
std::span<const Behaviour> allBehaviours();

/// @return null if no behaviour has this name.
const Behaviour* findBehaviour(std::string_view name);

/// Whether the connection ends after the answer to this request, by HTTP/1.1.
bool endsConnection(const Request& request);

}  // namespace simulator
