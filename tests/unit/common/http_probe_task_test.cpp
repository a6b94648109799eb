// Probes of a task: what a cancel does to them, and how they leave the machine.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <stdexcept>

#include "tests/support/ScriptedServer.h"
#include "tests/unit/common/http_probe_fixture.h"

namespace tests {
namespace {

TEST_F(HttpProbeTest, ACancelEndsTheProbeThatIsOutAndClosesItsConnection) {
  std::promise<void> asked;
  std::promise<bool> closed;
  const ScriptedServer server([&](Connection& connection) {
    connection.readHead();
    asked.set_value();
    closed.set_value(connection.readHead().empty());
  });
  auto status = std::async(std::launch::async, [&] {
    const CTask::Scope own(watcher);
    return probe(server.port());
  });
  asked.get_future().wait();
  watcher->cancel();
  EXPECT_EQ(status.get(), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_TRUE(closed.get_future().get());
}

TEST_F(HttpProbeTest, ACancelledTaskConnectsNowhere) {
  const ScriptedServer server(answering(kOk));
  const HttpProbe::KeptConnection kept;
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  watcher->cancel();
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_EQ(report().connectUs, -1);
  EXPECT_EQ(server.accepted(), 1U);
}

/// For a scope, the process may open this many descriptors more.
class FewDescriptors {
 public:
  explicit FewDescriptors(long more) {
    getrlimit(RLIMIT_NOFILE, &m_before);
    const int next = fcntl(0, F_DUPFD, 0);  // all below are open
    close(next);
    const rlimit few{static_cast<rlim_t>(next + more), m_before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
  }
  ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &m_before); }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  rlimit m_before{};
};

TEST_F(HttpProbeTest, WhatThisMachineLacksIsTold) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer opens a pipe to look at an object";
#endif
  const ScriptedServer server(answering(kOk));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);  // prepares the process
  EXPECT_EQ(probe(server.port(), 1, "localhost"), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(report().shortage, Shortage::None);
  const unsigned long before = Shortages::count();
  const FewDescriptors none(0);
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_ERROR_CANNOT_CONNECT);
  EXPECT_EQ(report().shortage, Shortage::Descriptors);
  EXPECT_EQ(probe(server.port(), 1, "name.test"), HTTP_SESSION_ERROR_DNS_RESOLUTION);
  EXPECT_EQ(report().shortage, Shortage::Descriptors);
  EXPECT_EQ(Shortages::count(), before + 2);
}

TEST_F(HttpProbeTest, OneDescriptorIsEnoughWhereThereAreFew) {
  const ScriptedServer server([](Connection& connection) {
    connection.readHead();
    connection.send(kOk);
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  const FewDescriptors two(2);  // and the server's
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
}

/// A task that looks at its sockets.
class Sockets : public ProbeTask {
 public:
  explicit Sockets(std::function<bool(int, int)> look) : m_look(std::move(look)) {}
  bool socketOpened(int socket, int family) override { return m_look(socket, family); }

 private:
  const std::function<bool(int, int)> m_look;
};

TEST_F(HttpProbeTest, ATaskSeesEachSocketBeforeItConnects) {
  int seen = 0;
  const CTask::Scope own(std::make_shared<Sockets>([&seen](int socket, int family) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    const bool isConnected = getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) == 0;
    seen += family == AF_INET && !isConnected ? 1 : 100;
    return true;
  }));
  EXPECT_EQ(probeOf(answering(kOk)), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(seen, 1);
}

TEST_F(HttpProbeTest, ASocketThatTheTaskRefusesConnectsNowhere) {
  const ScriptedServer server(answering(kOk));
  for (const bool isThrown : {false, true}) {
    const CTask::Scope own(std::make_shared<Sockets>([isThrown](int, int) -> bool {
      return isThrown ? throw std::runtime_error("socket") : false;
    }));
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_ERROR_CANNOT_CONNECT);
  }
  EXPECT_EQ(server.accepted(), 0U);
}

}  // namespace
}  // namespace tests
