// A host whose memory is searched after a selection through an authenticating proxy. User name and
// password come by a pipe, a line each, and are known to nobody else; what this program keeps of
// them itself lies in wiping holders. It says on standard output what it has done and ends when the
// pipe does. Usage: memory_search_host PIPE DIRECTORY AUTHORITY SCHEME LEFT ADDRESS... PIPE: what
// to read. DIRECTORY: where user.xml and global.xml are. AUTHORITY: the certificate to trust.
// SCHEME: basic, ntlm, kerberos. LEFT: nothing, or what the program is to leave behind of the
// password, so that the search can be seen to find it: freed, stack. ADDRESS: the headends.

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Api/ProxyProviders.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/IP/TransportMemory.h"
#include "vpn/Common/Utility/Thread.h"

namespace {

using Secret = SecureString<std::string>;

constexpr unsigned int ProxyAuthentication = 3;
constexpr std::size_t LongestLine = 512;

/// A line without its end, read byte by byte: what comes after it is not for us yet.
Secret readLine(int pipe) {
  std::array<char, LongestLine> line{};
  std::size_t length = 0;
  while (length < line.size() && read(pipe, &line[length], 1) == 1 && line[length] != '\n') {
    ++length;
  }
  Secret secret(line.data(), length);
  explicit_bzero(line.data(), line.size());
  return secret;
}

void waitForEnd(int pipe) {
  char byte = 0;
  while (read(pipe, &byte, 1) == 1) {
  }
}

/// Keeps the compiler from seeing that nobody reads a piece of memory.
void touch(void* memory) { asm volatile("" : : "r"(memory) : "memory"); }

void leaveBehind(const std::string& where, const Secret& password) {
  if (where == "freed") {
    const std::string copy(password.c_str());
    touch(const_cast<char*>(copy.data()));
  } else if (where == "stack") {
    std::thread([&] {
      std::array<char, LongestLine> copy{};
      memcpy(copy.data(), password.c_str(), password.length());
      touch(copy.data());
    }).join();
  }
}

/// Remembers the one call.
class Client : public ClientIfcBase {
 public:
  void AHSSelectedHost(unsigned int /*reason*/, const std::vector<std::string>& headends,
                       long status, const std::string& /*extraInfo*/) override {
    std::string text = "status " + std::to_string(status);
    for (const std::string& headend : headends) {
      text.append(" ").append(headend);
    }
    m_called.set_value(text);
  }
  std::string Wait() { return m_called.get_future().get(); }

 private:
  std::promise<std::string> m_called;
};

ProxyIfc* makeProvider(const std::string& scheme, const Secret& user, const Secret& password) {
  if (scheme == "ntlm") {
    return new CProxyProvider(NTLMProxy, user, password);
  }
  if (scheme == "kerberos") {
    return new CProxyProvider(KerberosProxy, user, password);
  }
  return new CProxyProvider(BasicProxy, user, password);
}

/// A whole selection: nothing of it is left when this returns.
std::string select(const std::string& scheme, const Secret& user, const Secret& password) {
  const unsigned int threadsBefore = CThread::RunningCount();
  Client client;
  long status = -1;
  auto* const run = new CHeadendSelection(&client, "", ProxyAuthentication, status);
  run->SetProxy(makeProvider(scheme, user, password));
  if (status != 0) {
    delete run;
    return "not constructed";
  }
  std::thread([run] { run->run(); }).join();
  std::string outcome = client.Wait();
  while (CThread::RunningCount() > threadsBefore) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return outcome;
}

void say(const std::string& text) {
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

std::string selectWithSecrets(int pipe, const std::string& scheme, const std::string& left) {
  const Secret user = readLine(pipe);
  const Secret password = readLine(pipe);
  say("started");
  std::string outcome = select(scheme, user, password);
  leaveBehind(left, password);
  return outcome;
}

/// Forgets what has been on the stack of this program's own functions.
[[gnu::noinline]] std::string selectAndForget(int pipe, const std::string& scheme,
                                              const std::string& left) {
  std::string outcome = selectWithSecrets(pipe, scheme, left);
  TransportMemory::wipeStack();
  return outcome;
}

}  // namespace

int main(int count, char** values) {
  constexpr int FirstAddress = 6;
  if (count <= FirstAddress) {
    return EXIT_FAILURE;
  }
  const std::string directory = values[2];
  const std::string left = values[5];
  HttpProbe::setTrustFile(values[3]);
  CClientLibrary::Options options;
  options.log.file = directory + "/host.log";
  options.sources.headends.assign(values + FirstAddress, values + count);
  options.sources.userPreferencesFile = directory + "/user.xml";
  options.sources.globalPreferencesFile = directory + "/global.xml";
  STATUSCODE status = -1;
  const CClientLibrary library(options, status);
  const int pipe = open(values[1], O_RDONLY | O_CLOEXEC);
  if (status != 0 || pipe < 0) {
    return EXIT_FAILURE;
  }
  say("ended, " + selectAndForget(pipe, values[4], left));
  waitForEnd(pipe);
  return EXIT_SUCCESS;
}
