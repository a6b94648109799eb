// Probes of a task: what a cancel does to them, and how they leave the machine.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <stdexcept>
#include <thread>

#include "tests/support/LoopbackSockets.h"
#include "tests/support/ScriptedServer.h"
#include "tests/unit/common/http_probe_fixture.h"
#include "vpn/Common/IP/ConnectionTrial.h"

using std::chrono::milliseconds;

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

/// A listener whose queue is full: it answers no attempt to connect until `accept`.
class FullListener {
 public:
  FullListener() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(m_listener, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length);
    listen(m_listener, 0);
    connect(m_filler, reinterpret_cast<sockaddr*>(&address), length);
    port = ntohs(address.sin_port);
  }
  ~FullListener() {
    ::close(m_filler);
    ::close(m_listener);
  }
  FullListener(const FullListener&) = delete;
  FullListener& operator=(const FullListener&) = delete;
  void accept() const { ::close(::accept(m_listener, nullptr, nullptr)); }

  unsigned short port = 0;

 private:
  const int m_listener = socket(AF_INET, SOCK_STREAM, 0);
  const int m_filler = socket(AF_INET, SOCK_STREAM, 0);
};

/// A task of little patience.
class Impatient : public RecordingWatcher {
 public:
  Impatient(ConnectPatience patience, std::function<void(unsigned int)> opened)
      : m_patience(patience), m_opened(std::move(opened)) {}
  ConnectPatience unanswered(const ProbeReport&, std::chrono::milliseconds) override {
    return m_patience;
  }
  bool socketOpened(int, int) override {
    m_opened(++sockets);
    return true;
  }
  void connected(const ProbeReport&, long long) override { ++connections; }

  unsigned int sockets = 0;
  unsigned int connections = 0;

 private:
  const ConnectPatience m_patience;
  const std::function<void(unsigned int)> m_opened;
};

TEST_F(HttpProbeTest, AHostThatIsSilentForLongerThanTheTasksPatienceIsLeft) {
  const FullListener listener;
  const milliseconds now(0);
  for (const ConnectPatience& patience :
       {ConnectPatience{.stand = now}, ConnectPatience{.giveUp = now},
        ConnectPatience{.again = now, .giveUp = now}}) {
    const auto task = std::make_shared<Impatient>(patience, [](unsigned int) {});
    const CTask::Scope own(task);
    const HttpProbe::KeptConnection kept;
    EXPECT_EQ(probe(listener.port), HTTP_SESSION_ERROR_TIMEOUT);
    EXPECT_TRUE(task->ended.back().silent);
    EXPECT_EQ(task->ended.back().address, "");
    EXPECT_EQ(task->connections, 0U);
  }
}

TEST_F(HttpProbeTest, ASecondAttemptToConnectFindsAHostThatHasMissedTheFirst) {
  const FullListener listener;
  std::thread server;
  const auto task = std::make_shared<Impatient>(
      ConnectPatience{.again = milliseconds(0)}, [&](unsigned int number) {
        if (number == 2) {
          listener.accept();
          server = std::thread([&listener] { listener.accept(); });
        }
      });
  const CTask::Scope own(task);
  const HttpProbe::KeptConnection kept;
  EXPECT_EQ(probe(listener.port), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  server.join();
  EXPECT_EQ(task->sockets, 2U);
  EXPECT_EQ(task->connections, 1U);
}

TEST_F(HttpProbeTest, ATrialOpensAConnectionInTheTasksWayAndSendsNothing) {
  constexpr std::chrono::milliseconds Long = std::chrono::seconds(kPatience);
  std::promise<bool> closed;
  const ScriptedServer server(
      [&](Connection& connection) { closed.set_value(connection.readHead().empty()); });
  const RefusingPort refusing("127.0.0.1");
  const SilentPort silent;
#ifndef __SANITIZE_ADDRESS__  // the sanitizer opens a pipe to look at an object
  {
    const FewDescriptors none(0);
    EXPECT_EQ(tryConnection("127.0.0.1", server.port(), Long), ConnectionTrial::Untried);
  }
#endif
  EXPECT_EQ(tryConnection("127.0.0.1", refusing.Where().port, Long), ConnectionTrial::Dead);
  EXPECT_EQ(tryConnection("name.invalid", server.port(), Long), ConnectionTrial::Dead);
  EXPECT_EQ(tryConnection("127.0.0.1", silent.port(), std::chrono::milliseconds(50)),
            ConnectionTrial::Dead);
  int seen = 0;
  const CTask::Scope way(std::make_shared<Sockets>([&seen](int, int) { return ++seen > 0; }));
  EXPECT_EQ(tryConnection("127.0.0.1", server.port(), Long), ConnectionTrial::Stands);
  EXPECT_TRUE(closed.get_future().get());
  EXPECT_EQ(seen, 1);
  const CTask::Scope own(watcher);
  watcher->cancel();
  EXPECT_EQ(tryConnection("127.0.0.1", server.port(), Long), ConnectionTrial::Untried);
  EXPECT_TRUE(watcher->started.empty());
}

}  // namespace
}  // namespace tests
