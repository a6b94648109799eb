#pragma once

/// @file
/// The address of a server.

#include <string>
#include <string_view>

/// How a URL says it is to be reached.
enum URLPROTOCOL {
  URLPROTOCOL_HTTP = 0,
  URLPROTOCOL_HTTPS = 1,
  URLPROTOCOL_LDAP = 2,
  /// The text names no scheme.
  URLPROTOCOL_NONE = 3,
  /// The text is no address that this class understands.
  URLPROTOCOL_UNKNOWN = 4,
};

/// The address of a server, as a person writes it. A value class: copies share nothing, and
/// constant objects may be read from any thread.
///
/// Grammar (RFC 3986, narrowed to what a headend address needs; spaces, tabs and line ends around
/// the text are dropped):
///
///     address  = [ scheme "://" ] host [ ":" port ] [ location ]
///     scheme   = "http" / "https" / "ldap"                       in any letter case
///     host     = name / IPv4 / "[" IPv6 [ "%25" zone ] "]"
///     name     = 1 to 253 letters, digits, "-", "_", "." and bytes above 127 (UTF-8), no empty
///                label (so no dot at the end), and a last label that is no number
///     IPv4     = four decimal numbers from 0 to 255 without leading zeros
///     IPv6     = an address as inet_pton(3) takes it
///     zone     = 1 to 15 letters, digits, "-", "_" and "."       the name of a network interface
///     port     = decimal number from 1 to 65535, or nothing
///     location = ( "/" / "?" / "#" ) followed by anything but control characters and blanks
///
/// Refused, so that the protocol is URLPROTOCOL_UNKNOWN and every other part empty: control
/// characters, characters that nobody sees (`legible`) and blanks inside the text, text that is not
/// UTF-8, user information ("user@host"), an IPv6 address without brackets, a number where a name
/// should end ("10.1.2", "0x7f000001": what reads it as an address reads it differently from a
/// person), any other scheme, a text longer than 2048 bytes.
///
/// A host is kept in the letter case and spelling it was written in; nothing is decoded.
class URL {
 public:
  /// The empty address: no scheme, no host.
  URL() = default;
  /// Parses `text`; a text that is empty or blank gives the empty address. Takes time in proportion
  /// to the text's length, whatever is in it.
  explicit URL(const std::string& text);
  /// What is wrong with `text`, as a sentence that says how to mend it; empty if it is an address.
  /// The empty text is none.
  static std::string findError(const std::string& text);

  /// How the address says it is to be reached.
  URLPROTOCOL getProtocol() const { return m_eProtocol; }

  /// The host as it is looked up: a name, an IPv4 address, or an IPv6 address without brackets, its
  /// zone after a plain "%".
  const std::string& getHost() const { return m_sHost; }

  /// The port in decimal as it was written, leading zeros dropped; empty if none was.
  const std::string& getPort() const { return m_sPort; }

  /// What follows host and port, with its leading "/", "?" or "#"; empty if nothing does.
  const std::string& getLocation() const { return m_sLocation; }

  /// The host as it stands in a URL: like `getHost`, an IPv6 address in brackets and its zone after
  /// "%25".
  std::string getHostFragment() const;

  /// The host fragment, followed by ":" and the port when there is one. Empty without a host.
  /// @param reserved always false.
  std::string getHostAndPort(bool reserved) const;

 private:
  std::string parse(std::string_view text);

  URLPROTOCOL m_eProtocol = URLPROTOCOL_NONE;
  std::string m_sHost;
  std::string m_sPort;
  std::string m_sLocation;
};
