// A table of what gateways do. An answer is a pure function of request and piece number, so a
// behaviour has no state and one gateway can play it for thousands of connections.

#include "simulator/Behaviours.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace simulator {
namespace {

using Acts = Behaviour::Acts;
using Afterwards = Behaviour::Afterwards;
using Door = Behaviour::Door;

std::string response(const Request& request, std::string_view status, std::string_view text) {
  const std::string body = "<html><head><title>" + std::string(text) + "</title></head><body>" +
                           std::string(text) + "</body></html>\r\n";
  std::string response = "HTTP/1.1 " + std::string(status) +
                         "\r\nServer: gateway\r\nContent-Type: text/html\r\nContent-Length: " +
                         std::to_string(body.size()) +
                         "\r\nConnection: " + (endsConnection(request) ? "close" : "keep-alive") +
                         "\r\n\r\n";
  if (!request.head.starts_with("HEAD ")) response += body;
  return response;
}

/// Like a web server: a page over TLS, a complaint about a plain request.
std::string webAnswer(const Request& request) {
  return request.secure ? response(request, "200 OK", "Gateway")
                        : response(request, "400 Bad Request",
                                   "The plain HTTP request was sent to HTTPS port");
}

std::optional<Piece> wholeAnswer(const Request& request, std::size_t index) {
  if (index > 0) return {};
  return Piece{webAnswer(request), {}};
}

/// Each byte is in time, the whole answer never is.
std::optional<Piece> oneByteASecond(const Request& request, std::size_t index) {
  const std::string answer = webAnswer(request);
  if (index >= answer.size()) return {};
  return Piece{answer.substr(index, 1), std::chrono::seconds(index == 0 ? 0 : 1)};
}

/// Neither HTTP nor TLS. The bytes are fixed, so that a failure can be repeated.
std::optional<Piece> garbage(const Request&, std::size_t index) {
  constexpr std::size_t Length = 512;
  if (index > 0) return {};
  std::string bytes;
  unsigned int state = 0x9E3779B9;
  while (bytes.size() < Length) {
    state = state * 1664525 + 1013904223;
    bytes += static_cast<char>(state >> 24);
  }
  return Piece{bytes, {}};
}

/// Repeats the unit up to a piece large enough to fill a connection.
std::string repeated(std::string_view unit) {
  constexpr std::size_t PieceBytes = 64UL * 1024;
  std::string text;
  text.reserve(PieceBytes + unit.size());
  while (text.size() < PieceBytes) text += unit;
  return text;
}

/// The fatal alert "protocol version", a TLS server's answer to a client without TLS.
std::optional<Piece> tlsAlert(const Request&, std::size_t index) {
  if (index > 0) return {};
  return Piece{std::string("\x15\x03\x01\x00\x02\x02\x46", 7), {}};
}

/// Long enough for the first piece to arrive separately.
constexpr std::chrono::milliseconds Midway{50};

/// The first part of a head; the rest never comes.
std::optional<Piece> beginningOfAHead(const Request&, std::size_t index) {
  if (index > 1) return {};
  return index == 0 ? Piece{"HTTP/1.1 200 OK\r\nServer: gate", {}} : Piece{{}, Midway};
}

std::optional<Piece> endlessHeaders(const Request&, std::size_t index) {
  static const std::string lines = repeated("X-Header: some value or other\r\n");
  return Piece{index == 0 ? "HTTP/1.1 200 OK\r\n" : lines, {}};
}

std::optional<Piece> longHeader(const Request&, std::size_t index) {
  static const std::string part = repeated("x");
  constexpr std::size_t Parts = 160;  // 10 MiB
  if (index == 0) return Piece{"HTTP/1.1 200 OK\r\nX-Long: ", {}};
  if (index <= Parts) return Piece{part, {}};
  if (index == Parts + 1) return Piece{"\r\nContent-Length: 0\r\n\r\n", {}};
  return {};
}

std::optional<Piece> endlessBody(const Request&, std::size_t index) {
  static const std::string part = repeated("All work and no play makes a dull gateway.\n");
  return Piece{index == 0 ? "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n" : part, {}};
}

std::optional<Piece> interimFlood(const Request&, std::size_t) {
  static const std::string flood = repeated("HTTP/1.1 100 Continue\r\n\r\n");
  return Piece{flood, {}};
}

std::string compressedHead(std::string_view coding) {
  return "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nContent-Encoding: " + std::string(coding) +
         "\r\n\r\n";
}

/// An endless DEFLATE stream (RFC 1951) that expands 159 times, to zeros: one block with the fixed
/// codes, in which one zero is followed by repetitions of the last byte, 258 times each. A
/// repetition takes 13 bits, so 13 bytes hold eight.
std::string deflatedZeros(std::size_t index) {
  constexpr std::string_view Start = "01000110000";  // not the last block, fixed codes; a zero
  constexpr std::string_view Repetition = "1100010100000";
  constexpr std::size_t Bytes = 13UL * 4096;
  std::string bytes(Bytes, '\0');
  const std::size_t firstBit = index * Bytes * 8;
  for (std::size_t i = 0; i < Bytes * 8; ++i) {
    const std::size_t at = firstBit + i;
    const char bit =
        at < Start.size() ? Start[at] : Repetition[(at - Start.size()) % Repetition.size()];
    if (bit == '1') bytes[i / 8] = static_cast<char>(bytes[i / 8] | (1 << (i % 8)));
  }
  return bytes;
}

std::optional<Piece> deflateBomb(std::string_view coding, std::string_view start,
                                 std::size_t index) {
  static const std::string first = deflatedZeros(0);
  static const std::string others = deflatedZeros(1);
  if (index > 1) return Piece{others, {}};
  return Piece{index == 0 ? compressedHead(coding) : std::string(start) + first, {}};
}

std::optional<Piece> gzipBomb(const Request&, std::size_t index) {
  return deflateBomb("gzip", {"\x1F\x8B\x08\0\0\0\0\0\0\xFF", 10}, index);
}

std::optional<Piece> zlibBomb(const Request&, std::size_t index) {
  return deflateBomb("deflate", "\x78\x9C", index);
}

/// Zeros as the encoder of RFC 7932's authors writes them, flushed every 16 MiB.
std::optional<Piece> brotliBomb(const Request&, std::size_t index) {
  constexpr std::string_view FirstZeros(
      "\xCB\xFF\xFF\x3F\x00\x24\x00\xE2\xB1\x40\x72\xEF\xFF\xF8\xFF\xFF\x07\x80\x04\x40\x1C\x16"
      "\x80\xEE\xFD\x9F\x01",
      27);
  constexpr std::string_view MoreZeros(
      "\xFC\xFF\xFF\x03\x40\x02\x20\x0E\x0B\x40\xF7\xFE\x8F\xFF\xFF\x7F\x00\x48\x00\xC4\x61\x01"
      "\xE8\xDE\xFF\x19",
      26);
  static const std::string others = repeated(MoreZeros);
  if (index == 0) return Piece{compressedHead("br"), {}};
  return Piece{index == 1 ? std::string(FirstZeros) : others, {}};
}

std::optional<Piece> redirectToItself(const Request&, std::size_t index) {
  if (index > 0) return {};
  return Piece{"HTTP/1.1 302 Found\r\nLocation: /\r\nContent-Length: 0\r\n\r\n", {}};
}

std::optional<Piece> redirectToALogin(const Request& request, std::size_t index) {
  if (index > 0) return {};
  std::string answer = response(request, "302 Found", "Sign in");
  answer.insert(answer.find('\r') + 2, "Location: http://login.portal.example/?from=gateway\r\n");
  return Piece{answer, {}};
}

std::optional<Piece> loginPage(const Request& request, std::size_t index) {
  if (index > 0) return {};
  return Piece{response(request, "200 OK", "Sign in"), {}};
}

std::optional<Piece> busy(const Request& request, std::size_t index) {
  if (index > 0) return {};
  return Piece{response(request, "503 Service Unavailable", "Busy"), {}};
}

/// Control sequences for terminals and for printf, where programs often show a server's text.
std::optional<Piece> controlSequences(const Request&, std::size_t index) {
  if (index > 0) return {};
  return Piece{
      "HTTP/1.1 200 \x1B]0;evil\x07%n%s\r\nServer: \x1B[2Jevil\x7F\xC2\x9B"
      "31m\xE2\x80\xAE\r\n"
      "Location: http://evil\x1B[31m.example/\r\nContent-Length: 0\r\n\r\n",
      {}};
}

std::optional<Piece> controlSequencesInARealm(const Request&, std::size_t index) {
  if (index > 0) return {};
  return Piece{
      "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic realm=\""
      "\x1B]0;evil\x07%n%s \x1B[2J\x7F\xC2\x9B"
      "31m\xE2\x80\xAE \xFF office\"\r\nContent-Length: 0\r\n"
      "\r\n",
      {}};
}

/// Announces a body and sends half of it; a reader that expects the rest waits.
std::optional<Piece> halfABody(const Request&, std::size_t index) {
  constexpr std::chrono::hours Never{24};
  if (index > 0) return Piece{{}, Never};
  return Piece{"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + std::string(50, 'x'), {}};
}

/// Short chunks without a last one.
std::optional<Piece> endlessChunks(const Request&, std::size_t index) {
  static const std::string chunks = repeated("5\r\nagain\r\n");
  return Piece{index == 0 ? "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" : chunks, {}};
}

/// Promises to keep the connection, over TLS or not.
std::optional<Piece> keepingAnswer(const Request&, std::size_t index) {
  if (index > 0) return {};
  return Piece{"HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: keep-alive\r\n\r\n", {}};
}

/// Answers for the whole connection, the later ones just after the request that they guess.
std::optional<Piece> answersAhead(const Request& request, std::size_t index) {
  constexpr std::size_t Answers = 100;
  constexpr std::chrono::milliseconds Guess{3};
  if (index >= Answers) return {};
  auto piece = keepingAnswer(request, 0);
  if (index > 0) piece->pause = Guess;
  return piece;
}

/// Announces the connection's end and closes it: every request needs a new connection.
std::optional<Piece> partingAnswer(const Request&, std::size_t index) {
  if (index > 0) return {};
  return Piece{"HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n", {}};
}

/// No answer over TLS, only noise.
std::optional<Piece> endlessNoise(const Request& request, std::size_t index) {
  return request.secure ? Piece{} : wholeAnswer(request, index);
}

/// 200,000 messages of noise before an answer.
std::optional<Piece> lateAnswer(const Request& request, std::size_t index) {
  constexpr std::size_t Pieces = 200'000 / NoiseAtOnce;
  return request.secure && index < Pieces
             ? Piece{}
             : wholeAnswer(request, request.secure ? index - Pieces : index);
}

constexpr TlsManner withFlaw(CertificateFlaw flaw) { return {.flaw = flaw}; }

constexpr TlsManner wantsCertificate(int version) {
  return {.demandsClientCertificate = true, .oldestVersion = version, .newestVersion = version};
}

constexpr TlsManner BeforeTls12 = {.newestVersion = TLS1_1_VERSION};

constexpr Behaviour webServer(std::string_view name, std::string_view summary, TlsManner tls = {}) {
  return {.name = name,
          .summary = summary,
          .answer = wholeAnswer,
          .afterwards = Afterwards::AsHttpSays,
          .tls = tls};
}

/// Over TLS, makes noise after a request. A plain request is answered as by a web server.
constexpr Behaviour noisy(std::string_view name, std::string_view summary, TlsNoise noise,
                          int newestVersion = 0,
                          decltype(Behaviour::answer) answer = endlessNoise) {
  return {.name = name,
          .summary = summary,
          .answer = answer,
          .afterwards = Afterwards::AsHttpSays,
          .tls = {.newestVersion = newestVersion, .noise = noise}};
}

/// Answers requests while the connection lasts, then ends it.
constexpr Behaviour answers(std::string_view name, std::string_view summary,
                            decltype(Behaviour::answer) answer,
                            Afterwards afterwards = Afterwards::Close) {
  return {.name = name, .summary = summary, .answer = answer, .afterwards = afterwards};
}

/// Answers once, keeps the connection, and then behaves like `later`.
constexpr Behaviour keeps(std::string_view name, std::string_view summary, std::string_view later) {
  return {.name = name,
          .summary = summary,
          .answer = keepingAnswer,
          .afterwards = Afterwards::Keep,
          .later = later};
}

constexpr std::array Behaviours = {
    webServer("normal", "answers 200 over TLS, 400 to a plain request"),

    Behaviour{
        .name = "refuse", .summary = "does not listen", .door = Door::Closed, .acts = Acts::Never},
    Behaviour{.name = "drop",
              .summary = "neither takes connections nor refuses them",
              .door = Door::Blocked,
              .acts = Acts::Never},
    Behaviour{.name = "silent", .summary = "accepts and says nothing", .acts = Acts::Never},
    Behaviour{.name = "closes",
              .summary = "closes the connection silently at the first byte",
              .acts = Acts::OnFirstBytes},
    Behaviour{.name = "closes-late", .summary = "closes the connection silently after a request"},
    Behaviour{.name = "resets-at-once",
              .summary = "resets the connection at once",
              .acts = Acts::OnAccept,
              .afterwards = Afterwards::Reset},
    Behaviour{.name = "resets",
              .summary = "resets the connection at the first byte",
              .acts = Acts::OnFirstBytes,
              .afterwards = Afterwards::Reset},
    answers("resets-midway", "resets the connection within the head of its answer",
            beginningOfAHead, Afterwards::Reset),
    Behaviour{.name = "alert",
              .summary = "answers all input with a TLS alert",
              .acts = Acts::OnFirstBytes,
              .answer = tlsAlert},
    Behaviour{.name = "garbage",
              .summary = "answers with what is neither HTTP nor TLS",
              .acts = Acts::OnFirstBytes,
              .answer = garbage},

    answers("drip", "answers as normal does, one byte a second", oneByteASecond,
            Afterwards::AsHttpSays),
    answers("endless-headers", "answers with header lines without end", endlessHeaders),
    answers("long-header", "answers with a header line of 10 MiB", longHeader),
    answers("endless-body", "answers with a body without end", endlessBody),
    answers("endless-chunks", "the same in chunks", endlessChunks),
    answers("stalls", "announces a body and sends half of it", halfABody),
    answers("bomb-gzip", "answers with an endless body that gzip makes 159 times as long",
            gzipBomb),
    answers("bomb-deflate", "the same for deflate", zlibBomb),
    answers("bomb-br", "the same for br, 600,000 times", brotliBomb),
    answers("interim-flood", "announces an answer for ever, with 100 Continue", interimFlood),
    answers("redirect-loop", "redirects to the same address", redirectToItself, Afterwards::Keep),
    answers("portal", "redirects to a login, as a captive portal does", redirectToALogin),
    answers("portal-page", "shows a login in place of the answer", loginPage),
    answers("busy", "answers 503", busy),
    answers("escapes", "answers with what terminals and printf obey", controlSequences),
    answers("challenge", "demands a login for a realm that terminals and printf obey",
            controlSequencesInARealm),

    keeps("keeps-then-closes", "answers and closes the connection at the second request", "closes"),
    keeps("keeps-then-resets", "answers and resets the connection at the second request", "resets"),
    keeps("keeps-then-silent", "answers and says nothing to the second request", "silent"),
    keeps("keeps-then-garbage", "answers and talks garbage at the second request", "garbage"),
    keeps("keeps-then-resets-midway", "answers and resets within its second answer",
          "resets-midway"),
    Behaviour{.name = "answers-early",
              .summary = "answers before it is asked, in plain HTTP",
              .acts = Acts::OnAccept,
              .answer = answersAhead},
    answers("leaves", "promises to keep the connection, and closes it", keepingAnswer),
    answers("parts", "answers, says that it closes the connection, and does", partingAnswer),

    webServer("expired", "as normal, with a certificate that has expired",
              withFlaw(CertificateFlaw::Expired)),
    webServer("not-yet-valid", "as normal, with a certificate valid from next month",
              withFlaw(CertificateFlaw::NotYetValid)),
    webServer("self-signed", "as normal, with a self-signed certificate",
              withFlaw(CertificateFlaw::SelfSigned)),
    webServer("wrong-host", "as normal, with another host's certificate",
              withFlaw(CertificateFlaw::OtherHost)),
    webServer("inspector", "as normal, with a certificate of an inspector of TLS",
              withFlaw(CertificateFlaw::Inspected)),
    webServer("client-certificate-12", "as normal, demands a client certificate under TLS 1.2",
              wantsCertificate(TLS1_2_VERSION)),
    webServer("client-certificate-13", "as normal, demands a client certificate under TLS 1.3",
              wantsCertificate(TLS1_3_VERSION)),
    noisy("key-updates", "changes its keys for ever", TlsNoise::KeyUpdates),
    noisy("key-updates-with-reply", "the same, and demands new keys for each",
          TlsNoise::KeyUpdatesWithReply),
    noisy("hello-requests", "begins TLS 1.2 again for ever", TlsNoise::HelloRequests,
          TLS1_2_VERSION),
    noisy("tickets", "gives tickets for later sessions for ever", TlsNoise::Tickets),
    noisy("many-tickets", "gives 200,000 tickets and answers", TlsNoise::Tickets, 0, lateAnswer),
    webServer("old-tls", "as normal, knows TLS 1.0 and 1.1 alone", BeforeTls12),
};

}  // namespace

std::span<const Behaviour> allBehaviours() { return Behaviours; }

const Behaviour* findBehaviour(std::string_view name) {
  const auto found = std::ranges::find(Behaviours, name, &Behaviour::name);
  return found == Behaviours.end() ? nullptr : &*found;
}

bool endsConnection(const Request& request) {
  if (!request.secure) return true;
  const std::string_view firstLine =
      std::string_view(request.head).substr(0, request.head.find('\r'));
  return !firstLine.ends_with("HTTP/1.1") ||
         strcasestr(request.head.c_str(), "\nConnection: close") != nullptr;
}

}  // namespace simulator
