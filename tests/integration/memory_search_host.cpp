// A host whose memory is searched after a selection through an authenticating proxy. It keeps user
// name and password only in wiping holders. It prints each step on standard output, and keeps
// running. Usage: memory_search_host SECRETS DIRECTORY AUTHORITY SCHEME LEFT ADDRESS... SECRETS: a
// file with user name and password, one per line. DIRECTORY: contains user.xml and global.xml.
// AUTHORITY: the certificate to trust. SCHEME: basic, ntlm, kerberos. LEFT: nothing, or what to
// leave of the password, to prove that the search finds it: freed, stack. ADDRESS: the headends.
// to find it: freed, stack. ADDRESS: the headends.

#include <fcntl.h>
#include <malloc.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Api/ProxyProviders.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/IP/TransportMemory.h"
#include "vpn/Common/Utility/Thread.h"

// The C library's allocator, except that freed and outgrown blocks are kept unchanged.
extern "C" {

void free(void* /*block*/) noexcept {}

void* realloc(void* block, std::size_t size) noexcept {
  void* const moved = malloc(size);
  if (moved != nullptr && block != nullptr) {
    memcpy(moved, block, std::min(size, malloc_usable_size(block)));
  }
  return moved;
}
}

namespace {

using Secret = SecureString<std::string>;

constexpr unsigned int ProxyAuthentication = 3;
constexpr std::size_t LongestLine = 512;

/// Reads a line without its end, byte by byte so that no buffer holds it.
Secret readLine(int file) {
  std::array<char, LongestLine> line{};
  std::size_t length = 0;
  while (length < line.size() && read(file, &line[length], 1) == 1 && line[length] != '\n') {
    ++length;
  }
  Secret secret(line.data(), length);
  explicit_bzero(line.data(), line.size());
  return secret;
}

/// Keeps the compiler from dropping memory that nobody reads.
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

/// Records the only call.
class Client : public ClientIfcBase {
 public:
  void AHSSelectedHost(unsigned int /*reason*/, const std::vector<std::string>& headends,
                       long status, const std::string& /*extraInfo*/) override {
    std::string text = "status " + std::to_string(status);
    for (const std::string& headend : headends) {
      text.append(" ").append(headend);
    }
    outcome = text;
  }

  std::string outcome;
};

/// A whole selection, gone when this returns.
std::string select(const std::string& scheme, const Secret& user, const Secret& password) {
  const unsigned int threadsBefore = CThread::RunningCount();
  Client client;
  long status = -1;
  auto* const run = new CHeadendSelection(&client, "", ProxyAuthentication, status);
  const ProxyType type = scheme == "ntlm"       ? NTLMProxy
                         : scheme == "kerberos" ? KerberosProxy
                                                : BasicProxy;
  run->SetProxy(new CProxyProvider(type, user, password));
  if (status != 0) {
    delete run;
    return "not constructed";
  }
  std::thread([run] { run->run(); }).join();
  while (CThread::RunningCount() > threadsBefore) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return client.outcome;
}

std::string selectWithSecrets(int file, const std::string& scheme, const std::string& left) {
  const Secret user = readLine(file);
  const Secret password = readLine(file);
  std::string outcome = select(scheme, user, password);
  leaveBehind(left, password);
  return outcome;
}

/// Clears the stack of this program's own functions afterwards.
[[gnu::noinline]] std::string selectAndForget(int file, const std::string& scheme,
                                              const std::string& left) {
  std::string outcome = selectWithSecrets(file, scheme, left);
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
  const int file = open(values[1], O_RDONLY | O_CLOEXEC);
  if (status != 0 || file < 0) {
    return EXIT_FAILURE;
  }
  std::printf("ended, %s\n", selectAndForget(file, values[4], left).c_str());
  std::fflush(stdout);
  pause();
  return EXIT_SUCCESS;
}
