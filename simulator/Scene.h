#pragma once

#include <sys/socket.h>

#include <array>
#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace simulator {

/// An IPv4 or IPv6 address. IPv4 is kept in its IPv6-mapped form, so that one type serves as a key.
class IpAddress {
 public:
  IpAddress() = default;

  /// @return none when the text is not an address.
  static std::optional<IpAddress> parse(std::string_view text);
  /// From the bytes of a packet: 4 or 16 of them.
  static IpAddress fromV4(const unsigned char* bytes);
  static IpAddress fromV6(const unsigned char* bytes);

  bool isV4() const;
  std::string text() const;
  const std::array<unsigned char, 16>& bytes() const { return m_bytes; }
  /// Fills in a socket address. @return its length.
  socklen_t toSocketAddress(std::uint16_t port, sockaddr_storage& result) const;

  auto operator<=>(const IpAddress&) const = default;

 private:
  std::array<unsigned char, 16> m_bytes{};
};

/// What the way to an address and back does to packets. All figures are those of the round trip, of
/// which each direction has its share.
struct Path {
  /// 0 to 60 s.
  std::chrono::nanoseconds roundTrip{0};
  /// Mean of what is added to the round trip, exponentially distributed: most packets are little
  /// later, a few are much later, none is earlier.
  std::chrono::nanoseconds jitter{0};
  /// Chance that a packet or the answer to it is lost, 0 to 1.
  double loss = 0;
  /// Jitter may bring packets of one flow out of their order.
  bool reorder = false;
};

/// A gateway to be played.
struct Gateway {
  IpAddress address;
  /// 0 for any free port.
  std::uint16_t port = 0;
  /// How long a request waits for its answer.
  std::chrono::nanoseconds delay{0};
  /// Name of a behaviour; see Behaviours.h.
  std::string behaviour = "normal";
};

/// A name for an address.
struct HostName {
  std::string name;
  IpAddress address;
};

/// What the scene's name server says when it is asked for a name.
struct NameAnswer {
  enum class Manner {
    Addresses,
    Failure,
    Silence,
    /// The name is another name for one that is another name for it.
    Loop,
    /// The addresses, of a name of control characters that this is another name for.
    OddName,
    /// Something that cannot be read.
    Garbage,
  };
  Manner manner = Manner::Addresses;
  std::vector<IpAddress> addresses;
};

/// A line or file that cannot be understood; `what` says where and what was expected.
class SceneError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What is simulated. It is written as lines, `#` begins a comment:
///
///     path ADDRESS|default [rtt=MS] [jitter=MS] [loss=PERCENT] [reorder]
///     gateway ADDRESS:PORT [delay=MS] [behaviour=NAME]
///     name NAME ADDRESS
///     resolver ADDRESS
///     answer NAME [failure|silence|loop|odd-name|garbage] [ADDRESS...]
///
/// Milliseconds and per cent may have decimals. An IPv6 address before a port stands in brackets.
/// Gateways and network read the same file and each takes what concerns it.
struct Scene {
  /// The path to every address that has none of its own.
  Path defaultPath;
  std::map<IpAddress, Path> paths;
  std::vector<Gateway> gateways;
  std::vector<HostName> names;
  /// The DNS server that programs in the network ask; none: only `names` are known.
  std::optional<IpAddress> resolver;
  /// What it says; with any, `ahs-gateways` plays it, and it knows no other name.
  std::map<std::string, NameAnswer> answers;

  /// Adds one line, its words separated by blanks or commas. An empty one adds nothing.
  /// @throws SceneError.
  void addLine(std::string_view line);

  /// Adds the lines of a file. @throws SceneError with file and line.
  void addFile(const std::string& path);
};

}  // namespace simulator
