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

/// An IPv4 or IPv6 address. IPv4 is stored in IPv6-mapped form, so that one type serves as a key.
class IpAddress {
 public:
  IpAddress() = default;

  /// @return none when the text is not an address.
  static std::optional<IpAddress> parse(std::string_view text);
  /// Makes an address from 4 or 16 bytes of a packet.
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

/// What the way to an address and back does to packets. All figures are for the round trip; each
/// direction has its share.
struct Path {
  /// 0 to 60 s.
  std::chrono::nanoseconds roundTrip{0};
  /// Added to the round trip of a SYN and its SYN-ACK, as if what ends TCP near the client asked
  /// the far side first. 0 to 60 s.
  std::chrono::nanoseconds opening{0};
  /// Mean of the time added to the round trip, exponentially distributed: most packets are a little
  /// later, a few much later, none earlier.
  std::chrono::nanoseconds jitter{0};
  /// Chance that a packet or its answer is lost, 0 to 1.
  double loss = 0;
  /// Jitter may change the order of a flow's packets.
  bool reorder = false;
};

/// How the client is connected: what its router and its line let through to the gateways.
struct Link {
  /// SYNs a second, five of them at once; the others are dropped. 0: all pass.
  double openings = 0;
  /// Bits a second. 0: any number.
  double bitRate = 0;
  /// Packets that wait for the line; more are dropped.
  std::size_t queue = 100;
};

/// A gateway of the scene.
struct Gateway {
  IpAddress address;
  /// 0 for any free port.
  std::uint16_t port = 0;
  /// Delay before a request is answered.
  std::chrono::nanoseconds delay{0};
  /// Name of a behaviour; see Behaviours.h.
  std::string behaviour = "normal";
};

/// A name for an address.
struct HostName {
  std::string name;
  IpAddress address;
};

/// The answer of the scene's name server for a name.
struct NameAnswer {
  enum class Manner {
    Addresses,
    Failure,
    Silence,
    /// Two names are aliases for each other.
    Loop,
    /// An alias for a name of control characters, with the addresses.
    OddName,
    /// A malformed answer.
    Garbage,
  };
  Manner manner = Manner::Addresses;
  std::vector<IpAddress> addresses;
};

/// An invalid line or file; `what` says where, and what was expected.
class SceneError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The simulated scene. Its text form has lines; `#` begins a comment:
///
///     path ADDRESS|default [rtt=MS] [opening=MS] [jitter=MS] [loss=PERCENT] [reorder]
///     link [syns=PER-SECOND] [mbit=MEGABITS-PER-SECOND] [queue=PACKETS]
///     gateway ADDRESS:PORT [delay=MS] [behaviour=NAME]
///     name NAME ADDRESS
///     resolver ADDRESS
///     answer NAME|* [failure|silence|loop|odd-name|garbage] [ADDRESS...]
///
/// A gateway at 0.0.0.0 answers for every address, `answer *` for every name without its own.
/// Milliseconds and per cent may have decimals. Brackets enclose an IPv6 address before a port.
/// Gateways and network read the same file; each uses its own lines.
struct Scene {
  /// The path to addresses without their own.
  Path defaultPath;
  std::map<IpAddress, Path> paths;
  Link link;
  std::vector<Gateway> gateways;
  std::vector<HostName> names;
  /// The DNS server for programs in the network; none: only `names` are known.
  std::optional<IpAddress> resolver;
  /// Its answers; if there are any, `ahs-gateways` plays it, with these answers only.
  std::map<std::string, NameAnswer> answers;

  /// Adds one line; blanks or commas separate its words. An empty line adds nothing.
  /// @throws SceneError.
  void addLine(std::string_view line);

  /// Adds the lines of a file. @throws SceneError with file and line.
  void addFile(const std::string& path);
};

}  // namespace simulator
