#pragma once

#include <memory>
#include <optional>
#include <string>

#include "cli/login/Credentials.h"
#include "cli/login/Terminal.h"
#include "vpn/Api/ProxyIfc.h"

/// How the command logs in to the proxy: with what the options give, else with what a person types
/// at the terminal, who may try three times. Used by one thread.
class ProxyLogin {
 public:
  /// @param user name that an option gives; empty for none.
  /// @param password that an option gives, with the user's name; no one is asked then.
  /// @param terminal where a person can be asked; null for nowhere.
  /// @param systemProxy the proxy is the one that the system is set to.
  ProxyLogin(const Secret& user, const std::optional<Secret>& password,
             std::shared_ptr<Terminal> terminal, bool systemProxy);

  /// The provider for the next run; null when it needs none.
  std::unique_ptr<ProxyIfc> provider() const;

  /// Whether there are credentials for the next run.
  bool hasCredentials() const;

  /// A run has met a proxy that asks for a login, and does not accept the one that the run had.
  /// @param proxy where it is, for the person; empty if that is not known.
  /// @param realm what the proxy says the login is for; may be empty and hold anything.
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

/// A proxy's realm for a person: what could be taken for something else is shown as its code, and a
/// long one is cut.
std::string visibleRealm(const std::string& realm);
