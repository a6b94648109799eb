#pragma once

#include <chrono>
#include <string>
#include <vector>

/// Asks the system's proxy settings for the way to a server: the desktop's settings and, if the
/// machine supports it, a PAC file, which may have to be fetched over the network.
///
/// All operations are static and may be called from any thread.
class SystemProxy {
 public:
  enum class Outcome {
    Found,   ///< the list is what the settings say
    Failed,  ///< the settings could not be asked
    Late,    ///< they gave no answer within the limit
  };

  SystemProxy() = delete;

  /// Asks, and waits at most until `limit` has passed.
  ///
  /// The settings have no time limit, so a separate thread asks them. A late thread ends when its
  /// answer comes, which is dropped. At most four ask at a time; while all four are late, a call
  /// returns `Failed` at once.
  ///
  /// @param url the server's, "http://host:port/" or "https://host:port/".
  /// @param entries receives what to try, best first: "direct://" for no proxy,
  ///        "http://host:port", other schemes as the settings have them; not checked. A user name
  ///        and a password in an entry are left out of it and wiped where they came from.
  /// @return the outcome; throws nothing but std::bad_alloc.
  static Outcome find(const std::string& url, std::chrono::milliseconds limit,
                      std::vector<std::string>& entries);
};
