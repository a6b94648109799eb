#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "simulator/Certificates.h"

namespace simulator {

/// The request that a gateway answers.
struct Request {
  /// It came within TLS. A TLS gateway refuses a plain one.
  bool secure = false;
  /// Its first line and header lines; empty where the gateway acts on the first bytes of a
  /// connection, whatever they are.
  std::string head;
};

/// A part of an answer.
struct Piece {
  std::string bytes;
  /// Wait before it is sent; the gateway's own delay is added to that of the first piece.
  std::chrono::nanoseconds pause{0};
};

/// What is particular about a gateway's TLS.
struct TlsManner {
  CertificateFlaw flaw = CertificateFlaw::None;
  bool demandsClientCertificate = false;
  /// As OpenSSL numbers them (TLS1_2_VERSION); 0 for no limit.
  int oldestVersion = 0;
  int newestVersion = 0;
};

/// How a gateway deals with those who connect. A new one is a new line in the table of
/// Behaviours.cpp, and a function if it answers in a way that no other does.
struct Behaviour {
  enum class Door {
    Open,
    /// Refuses connections.
    Closed,
    /// Has them wait without a word, as an address does at which nobody is.
    Blocked,
  };
  enum class Acts { Never, OnAccept, OnFirstBytes, OnRequest };
  enum class Afterwards { AsHttpSays, Keep, Close, Reset };

  std::string_view name;
  /// One line for the help text.
  std::string_view summary;
  Door door = Door::Open;
  Acts acts = Acts::OnRequest;
  /// Piece number `index` of the answer, none after the last; null for no answer. A piece may be
  /// asked for only once and in order, and an answer may go on for ever.
  std::optional<Piece> (*answer)(const Request& request, std::size_t index) = nullptr;
  /// What becomes of the connection when the answer is out.
  Afterwards afterwards = Afterwards::Close;
  /// Where it acts on a request, it speaks TLS with those who do.
  TlsManner tls = {};
  /// The behaviour that a connection's later requests meet; empty for the same.
  std::string_view later = {};
};

/// All behaviours; the first is the default.
std::span<const Behaviour> allBehaviours();

/// @return null if there is none of this name.
const Behaviour* findBehaviour(std::string_view name);

/// Whether the connection ends after the answer to this request: as HTTP/1.1 has it.
bool endsConnection(const Request& request);

}  // namespace simulator
