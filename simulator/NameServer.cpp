// A name server whose answers, right or wrong, follow the scene. Each answer begins with a copy of
// the question, so that all its names can point there.

#include "simulator/NameServer.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <optional>
#include <system_error>

namespace simulator {
namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::uint16_t DnsPort = 53;
constexpr std::size_t HeaderBytes = 12;
constexpr std::size_t MostNameBytes = 255;

// RFC 1035, section 4.1.1: an authoritative answer of a recursive server.
constexpr unsigned char FlagsHigh = 0x84;
constexpr unsigned char FlagsLow = 0x80;
constexpr unsigned char ServerFailure = 2;
constexpr unsigned char NoSuchName = 3;

constexpr unsigned char A = 1;
constexpr unsigned char Cname = 5;
constexpr unsigned char Aaaa = 28;

/// A pointer to the name in the question.
constexpr std::array<unsigned char, 2> AskedNamePointer = {0xC0, HeaderBytes};

struct Question {
  std::string name;
  unsigned int type = 0;
  /// Offset of the question's end.
  std::size_t end = 0;
};

std::optional<Question> parse(const Bytes& packet) {
  Question question;
  std::size_t at = HeaderBytes;
  while (at < packet.size() && packet[at] != 0) {
    const std::size_t length = packet[at++];
    if (at + length > packet.size() || question.name.size() + length > MostNameBytes) return {};
    if (!question.name.empty()) question.name += '.';
    for (std::size_t i = 0; i < length; ++i) {
      question.name += static_cast<char>(std::tolower(packet[at + i]));
    }
    at += length;
  }
  constexpr std::size_t TypeAndClass = 4;
  question.end = at + 1 + TypeAndClass;
  if (question.end > packet.size()) return {};
  question.type = packet[at + 1] * 256U + packet[at + 2];
  return question;
}

/// An answer being built.
class Message {
 public:
  Message(const Bytes& question, std::size_t end)
      : m_bytes(question.begin(), place(question, end)) {
    m_bytes[2] = static_cast<unsigned char>(FlagsHigh | (question[2] & 1));
    m_bytes[3] = FlagsLow;
    // One question, and no records yet.
    for (std::size_t i = 4; i < HeaderBytes; ++i) m_bytes[i] = i == 5 ? 1 : 0;
  }

  void fail(unsigned char code) { m_bytes[3] |= code; }

  /// Adds a record. @return the offset of its data.
  std::size_t add(const Bytes& owner, unsigned char type, const Bytes& data) {
    append(owner);
    append({0, type, 0, 1, 0, 0, 0, 0});  // class IN, time to live 0
    append({static_cast<unsigned char>(data.size() >> 8), static_cast<unsigned char>(data.size())});
    const std::size_t begin = m_bytes.size();
    append(data);
    if (++m_bytes[7] == 0) ++m_bytes[6];
    return begin;
  }

  Bytes take() { return std::move(m_bytes); }

 private:
  static Bytes::const_iterator place(const Bytes& bytes, std::size_t index) {
    return bytes.begin() + static_cast<Bytes::difference_type>(index);
  }
  void append(const Bytes& bytes) { m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end()); }

  Bytes m_bytes;
};

Bytes nameAsked() { return {AskedNamePointer.begin(), AskedNamePointer.end()}; }

Bytes pointerTo(std::size_t place) {
  return {static_cast<unsigned char>(0xC0U | (place >> 8)), static_cast<unsigned char>(place)};
}

void addAddresses(const Bytes& owner, unsigned int type, const std::vector<IpAddress>& addresses,
                  Message& message) {
  for (const IpAddress& address : addresses) {
    const auto& bytes = address.bytes();
    if (type == A && address.isV4()) message.add(owner, A, {bytes.begin() + 12, bytes.end()});
    if (type == Aaaa && !address.isV4()) message.add(owner, Aaaa, {bytes.begin(), bytes.end()});
  }
}

/// Two aliases, NAME and "x.NAME", each for the other.
void addLoop(Message& message) {
  const std::size_t other = message.add(nameAsked(), Cname, {1, 'x', 0xC0, HeaderBytes});
  message.add(pointerTo(other), Cname, nameAsked());
}

/// An alias for a name with bytes that no host name has, and that name's addresses.
void addOddName(unsigned int type, const std::vector<IpAddress>& addresses, Message& message) {
  const Bytes odd = {9, 0x1B, '[', '3', '1', 'm', '\n', '%', 'n', 0xFF, 0};
  const std::size_t name = message.add(nameAsked(), Cname, odd);
  addAddresses(pointerTo(name), type, addresses, message);
}

/// Announces more records than it has; the first has itself as its name.
Bytes garbage(Message message) {
  Bytes bytes = message.take();
  bytes[6] = bytes[7] = 0xFF;
  const Bytes self = pointerTo(bytes.size());
  bytes.insert(bytes.end(), self.begin(), self.end());
  return bytes;
}

}  // namespace

std::vector<unsigned char> answerTo(const std::vector<unsigned char>& question,
                                    const std::map<std::string, NameAnswer>& answers) {
  const auto asked = question.size() > HeaderBytes ? parse(question) : std::nullopt;
  if (!asked) return {};
  Message message(question, asked->end);
  auto found = answers.find(asked->name);
  if (found == answers.end()) found = answers.find("*");
  if (found == answers.end()) {
    message.fail(NoSuchName);
    return message.take();
  }
  switch (found->second.manner) {
    case NameAnswer::Manner::Addresses:
      addAddresses(nameAsked(), asked->type, found->second.addresses, message);
      break;
    case NameAnswer::Manner::Failure:
      message.fail(ServerFailure);
      break;
    case NameAnswer::Manner::Silence:
      return {};
    case NameAnswer::Manner::Loop:
      addLoop(message);
      break;
    case NameAnswer::Manner::OddName:
      addOddName(asked->type, found->second.addresses, message);
      break;
    case NameAnswer::Manner::Garbage:
      return garbage(std::move(message));
  }
  return message.take();
}

NameServer::NameServer(const Scene& scene) : m_answers(scene.answers) {
  const IpAddress& address = scene.resolver.value();
  m_socket = FileDescriptor(
      ::socket(address.isV4() ? AF_INET : AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  // Room for the waiting questions of thousands of simultaneous probes.
  const int room = 4 * 1024 * 1024;
  sockaddr_storage name;
  const socklen_t length = address.toSocketAddress(DnsPort, name);
  setsockopt(m_socket.get(), SOL_IP, IP_FREEBIND, &on, sizeof on);
  setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
  if (!m_socket || ::bind(m_socket.get(), reinterpret_cast<sockaddr*>(&name), length) != 0) {
    throw std::system_error(errno, std::generic_category(), "name server at " + address.text());
  }
}

void NameServer::answer() {
  // Other questions wait for their turn: the socket stays readable.
  constexpr int MostAtOnce = 64;
  constexpr std::size_t MostQuestionBytes = 512;
  for (int i = 0; i < MostAtOnce; ++i) {
    Bytes question(MostQuestionBytes);
    sockaddr_storage client;
    socklen_t length = sizeof client;
    const ssize_t count = recvfrom(m_socket.get(), question.data(), question.size(), 0,
                                   reinterpret_cast<sockaddr*>(&client), &length);
    if (count < 0) return;
    question.resize(static_cast<std::size_t>(count));
    const Bytes answer = answerTo(question, m_answers);
    if (answer.empty()) continue;
    // A failed send loses the answer, as on any network.
    if (sendto(m_socket.get(), answer.data(), answer.size(), 0,
               reinterpret_cast<const sockaddr*>(&client), length) < 0) {
      continue;
    }
  }
}

}  // namespace simulator
