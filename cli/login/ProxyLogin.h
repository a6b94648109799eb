#pragma once

#include <memory>
#include <optional>
#include <string>

#include "cli/login/Credentials.h"
#include "cli/login/Terminal.h"
#include "vpn/Api/ProxyIfc.h"

/// How the command logs in to the proxy: with the options' login, else with a login typed at the
/// terminal; a person may try three times. Used by one thread.
class ProxyLogin {
 public:
  /// @param user name from an option; empty for none.
  /// @param password from an option, with the user's name; then nobody is asked.
  /// @param terminal where to ask a person; null for nowhere.
  /// @param systemProxy the proxy comes from the system's settings.
  ProxyLogin(const Secret& user, const std::optional<Secret>& password,
             std::shared_ptr<Terminal> terminal, bool systemProxy);

  /// The provider for the next run; null if the run needs none.
  /// @param secure has the headends measured over TLS in any case.
  std::unique_ptr<ProxyIfc> provider(bool secure = false) const;

  /// Whether there are credentials for the next run.
  bool hasCredentials() const;

  /// Finds another login after a proxy has refused the run's login or asked for one.
  /// @param proxy host and port, for the person.
  /// @param realm what the login is for, as the proxy says; may be empty and hold anything.
  /// @return whether there is another login to try.
  bool find(const std::string& proxy, const std::string& realm);

 private:
  void greet(const std::string& proxy, const std::string& realm);
  bool askPerson();
  bool ask(const std::string& prompt, Terminal::Echo echo, std::string (*findError)(const Secret&),
           Secret& answer);

  const Secret m_user;
  const std::shared_ptr<Terminal> m_terminal;
  const bool m_mayAsk;
  const bool m_isSystemProxy;
  int m_attempts;
  std::optional<Credentials> m_credentials;
};

/// A proxy's realm for a person: suspicious characters as their codes, a long realm cut.
std::string visibleRealm(const std::string& realm);
