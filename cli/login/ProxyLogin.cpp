// The login at a proxy. Asks a person only if the options give no password, and never sends a
// refused login again.

#include "cli/login/ProxyLogin.h"

#include <utility>

#include "cli/Console.h"
#include "vpn/Api/ProxyProviders.h"
#include "vpn/Common/Trust/LegibleText.h"

namespace {

// A third mistake is hardly a slip, and some proxies lock a user out after a few more.
constexpr int MostAttempts = 3;
// How often to ask again after an answer that no proxy could take.
constexpr int MostQuestions = 3;
// The proxy chooses the realm; a longer text is no name.
constexpr std::size_t MostRealmBytes = 200;

}  // namespace

ProxyLogin::ProxyLogin(const Secret& user, const std::optional<Secret>& password,
                       std::shared_ptr<Terminal> terminal, bool systemProxy)
    : m_user(user),
      m_terminal(std::move(terminal)),
      m_mayAsk(!password && m_terminal != nullptr),
      m_isSystemProxy(systemProxy),
      m_attempts(0) {
  if (password) {
    m_credentials = Credentials{user, *password};
  }
}

std::unique_ptr<ProxyIfc> ProxyLogin::provider(bool secure) const {
  const std::string host = m_isSystemProxy ? CProxyProvider::SystemHost : "";
  if (m_credentials) {
    return std::make_unique<CProxyProvider>(BasicProxy, m_credentials->user,
                                            m_credentials->password, host);
  }
  return m_isSystemProxy || secure ? std::make_unique<CProxyProvider>(secure ? BasicProxy : NoProxy,
                                                                      Secret(), Secret(), host)
                                   : nullptr;
}

bool ProxyLogin::hasCredentials() const { return m_credentials.has_value(); }

bool ProxyLogin::find(const std::string& proxy, const std::string& realm) {
  if (!m_mayAsk) {
    return false;
  }
  if (m_attempts == 0) {
    greet(proxy, realm);
  } else {
    m_terminal->say("The proxy does not accept this user name and password.");
  }
  m_credentials.reset();
  return m_attempts++ < MostAttempts && askPerson();
}

void ProxyLogin::greet(const std::string& proxy, const std::string& realm) {
  const std::string what = realm.empty() ? "" : " for '" + visibleRealm(realm) + "'";
  m_terminal->say("The proxy " + Console::visible(proxy) + " asks for a login" + what + ".");
}

bool ProxyLogin::askPerson() {
  keepMemoryPrivate();
  Credentials credentials;
  credentials.user = m_user;
  if (m_user.length() == 0 &&
      !ask("User name (empty to give up): ", Terminal::Echo::On, findUserError, credentials.user)) {
    return false;
  }
  if (credentials.user.length() == 0) {
    return false;
  }
  if (!ask("Password: ", Terminal::Echo::Off, findPasswordError, credentials.password)) {
    return false;
  }
  m_credentials = credentials;
  return true;
}

bool ProxyLogin::ask(const std::string& prompt, Terminal::Echo echo,
                     std::string (*findError)(const Secret&), Secret& answer) {
  for (int question = 0; question < MostQuestions; ++question) {
    const Terminal::Answer result = m_terminal->ask(prompt, echo, answer);
    if (result == Terminal::Answer::None) {
      return false;
    }
    const std::string error =
        result == Terminal::Answer::TooLong
            ? "it is longer than " + std::to_string(MostCredentialBytes) + " bytes."
            : findError(answer);
    if (error.empty()) {
      return true;
    }
    m_terminal->say("This cannot be used: " + error);
  }
  return false;
}

std::string visibleRealm(const std::string& realm) {
  return Console::visible(legible(realm, MostRealmBytes));
}
