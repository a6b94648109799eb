// What gateways do, as a table. An answer is a pure function of request and piece number, so that a
// behaviour needs no state of its own and one gateway can play it for thousands of connections.

#include "simulator/Behaviours.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace simulator {
namespace {

using Acts = Behaviour::Acts;
using Afterwards = Behaviour::Afterwards;

std::string Response(const Request& request, std::string_view status, std::string_view text) {
  const std::string body = "<html><head><title>" + std::string(text) + "</title></head><body>" +
                           std::string(text) + "</body></html>\r\n";
  std::string response = "HTTP/1.1 " + std::string(status) +
                         "\r\nServer: gateway\r\nContent-Type: text/html\r\nContent-Length: " +
                         std::to_string(body.size()) +
                         "\r\nConnection: " + (EndsConnection(request) ? "close" : "keep-alive") +
                         "\r\n\r\n";
  if (!request.head.starts_with("HEAD ")) response += body;
  return response;
}

/// A web server's: a page within TLS, a complaint about a plain request.
std::string WebAnswer(const Request& request) {
  return request.secure ? Response(request, "200 OK", "Gateway")
                        : Response(request, "400 Bad Request",
                                   "The plain HTTP request was sent to HTTPS port");
}

std::optional<Piece> WholeAnswer(const Request& request, std::size_t index) {
  if (index > 0) return {};
  return Piece{WebAnswer(request), {}};
}

/// Reader's patience is what this one is about: each byte is in time, the answer never is.
std::optional<Piece> OneByteASecond(const Request& request, std::size_t index) {
  const std::string answer = WebAnswer(request);
  if (index >= answer.size()) return {};
  return Piece{answer.substr(index, 1), std::chrono::seconds(index == 0 ? 0 : 1)};
}

/// Neither HTTP nor TLS. Fixed bytes, so that a failure can be repeated.
std::optional<Piece> Garbage(const Request&, std::size_t index) {
  constexpr std::size_t kLength = 512;
  if (index > 0) return {};
  std::string bytes;
  unsigned int state = 0x9E3779B9;
  while (bytes.size() < kLength) {
    state = state * 1664525 + 1013904223;
    bytes += static_cast<char>(state >> 24);
  }
  return Piece{bytes, {}};
}

constexpr std::array kBehaviours = {
    Behaviour{"normal", "answers 200 over TLS, 400 to a plain request", true, Acts::OnRequest,
              WholeAnswer, Afterwards::AsHttpSays},
    Behaviour{"silent", "accepts and says nothing", true, Acts::Never, nullptr, Afterwards::Close},
    Behaviour{"refuse", "does not listen", false, Acts::Never, nullptr, Afterwards::Close},
    Behaviour{"closes", "closes the connection without a word when it is spoken to", true,
              Acts::OnFirstBytes, nullptr, Afterwards::Close},
    Behaviour{"resets", "resets the connection when it is spoken to", true, Acts::OnFirstBytes,
              nullptr, Afterwards::Reset},
    Behaviour{"garbage", "answers with what is neither HTTP nor TLS", true, Acts::OnFirstBytes,
              Garbage, Afterwards::Close},
    Behaviour{"drip", "answers as normal does, one byte a second", true, Acts::OnRequest,
              OneByteASecond, Afterwards::AsHttpSays},
};

}  // namespace

std::span<const Behaviour> AllBehaviours() { return kBehaviours; }

const Behaviour* FindBehaviour(std::string_view name) {
  const auto found = std::ranges::find(kBehaviours, name, &Behaviour::name);
  return found == kBehaviours.end() ? nullptr : &*found;
}

bool EndsConnection(const Request& request) {
  if (!request.secure) return true;
  const std::string_view firstLine =
      std::string_view(request.head).substr(0, request.head.find('\r'));
  return !firstLine.ends_with("HTTP/1.1") ||
         strcasestr(request.head.c_str(), "\nConnection: close") != nullptr;
}

}  // namespace simulator
