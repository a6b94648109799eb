// Secrets in freed memory: whatever a run has held of a proxy's user and password is wiped before
// its block is given back.

#include <string>

#include "tests/support/ReleasedMemory.h"
#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

// Longer than what a string keeps inside itself, so that each copy has a block of its own.
constexpr char Marker[] = "swordfish-swordfish";

/// A provider that keeps its credentials out of the watched memory.
class DiscreetProvider : public ProxyIfc {
 public:
  UnprotectedCredential getProxyUser() override { return make("-as-the-name-of-a-user"); }
  UnprotectedCredential getProxyPswd() override { return make("-as-the-password-of-that-user"); }
  std::string getProxyHost() override { return {}; }
  ProxyType getProxyType() override { return BasicProxy; }

 private:
  static UnprotectedCredential make(const char* rest) {
    UnprotectedCredential credential;
    credential = Marker;
    credential += rest;
    return credential;
  }
};

class Secrets : public SelectionTest {
 protected:
  Secrets() { makeFor({"gw1"}).SetProxy(new DiscreetProvider); }

  /// Sends the test probe, which is answered so, and asks in the middle whether its record's user
  /// and password stand there, and whether they still do when what follows it is logged.
  void dispatch(unsigned int httpStatus, const char* line, long status) {
    const auto seen = [this] {
      return holds(m_user, sizeof Marker, Marker) || holds(m_password, sizeof Marker, Marker);
    };
    // The probe double's own note of the credentials is not the product's.
    probes().isForgetful = true;
    probes().answerTest({.httpStatus = httpStatus, .during = [&] {
                           const ProbeCall call = probes().testCalls().back();
                           m_user = call.userBuffer;
                           m_password = call.pswdBuffer;
                           EXPECT_TRUE(seen());
                         }});
    int lines = 0;
    doubles::log().setHook([&](const doubles::LogLine& logged) {
      if (logged.function == "finishAHS" || logged.format == line) {
        ++lines;
        EXPECT_FALSE(seen()) << logged.toString();
      }
    });
    const LeakWatch watch(Marker);
    std::string extraInfo;
    EXPECT_EQ(call<StartPingThreads>(*run, extraInfo), status);
    call<FinishAHS>(*run, true, status, extraInfo);
    EXPECT_EQ(watch.Leaks(), 0);
    EXPECT_GT(lines, 0);
  }

 private:
  const void* m_user = nullptr;
  const void* m_password = nullptr;
};

TEST_F(Secrets, AreGoneBeforeTheTestProbesTimeIsLogged) {
  dispatch(200, "QIB test ping took %d", Success);
}

TEST_F(Secrets, AreGoneWhenAnAuthenticatingProxyEndsTheMeasurement) {
  dispatch(407, "", AuthProxy);
}

TEST_F(Secrets, OfTheRunsOwnProxyRecordGoWithTheRun) {
  DiscreetProvider provider;
  member<ProxyData>(*run).proxyUser = provider.getProxyUser().c_str();
  member<ProxyData>(*run).proxyPswd = provider.getProxyPswd().c_str();
  const LeakWatch watch(Marker);
  destroy();

  EXPECT_EQ(watch.Leaks(), 0);
}

}  // namespace
}  // namespace tests
