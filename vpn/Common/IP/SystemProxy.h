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
    Failed,  ///< the settings could not be asked, or the caller is cancelled
    Late,    ///< they gave no answer within the limit
  };

  SystemProxy() = delete;

  /// Asks, and waits at most until `limit` has passed.
  ///
  /// The settings are libproxy's, whose modules may crash or hang: each question has a process of
  /// its own, the program ahs-proxy, without privileges. It is no child of this process, raises no
  /// signal in it, and ends by itself when this returns. Where that program is not installed,
  /// there are no settings and the way is direct.
  ///
  /// @param url the server's, "http://host:port/" or "https://host:port/".
  /// @param cancel a descriptor that polls readable when the caller is cancelled; -1 for none.
  /// @param entries receives what to try, best first: "direct://" for no proxy,
  ///        "http://host:port", other schemes as the settings have them; not checked. A user name
  ///        and a password in an entry are left out of it.
  /// @return the outcome; throws nothing but std::bad_alloc.
  static Outcome find(const std::string& url, std::chrono::milliseconds limit, int cancel,
                      std::vector<std::string>& entries);
};
