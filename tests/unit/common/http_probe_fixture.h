#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ScriptedServer.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/IP/ProbeTask.h"

namespace tests {

inline constexpr char kOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";

inline void closeAfterRequest(Connection& connection) { connection.readHead(); }
inline void staySilent(Connection& connection) { connection.waitForPeer(); }

/// Answers the first request once some time has passed.
inline ScriptedServer::Script answeringAfter(std::chrono::milliseconds time,
                                             const std::string& answer = kOk) {
  return [=](Connection& connection) {
    connection.readHead();
    connection.wait(time);
    connection.send(answer);
  };
}

/// Sets an environment variable for a scope.
class Variable {
 public:
  Variable(const char* name, const std::string& value) : m_name(name) {
    setenv(name, value.c_str(), 1);
  }
  ~Variable() { unsetenv(m_name); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* const m_name;
};

/// Records its calls; one thread at a time.
class RecordingWatcher : public ProbeTask {
 public:
  void probeStarted(const HttpProbe::Report& report) override { started.push_back(report); }
  void probeEnded(const HttpProbe::Report& report) override { ended.push_back(report); }

  std::vector<HttpProbe::Report> started;
  std::vector<HttpProbe::Report> ended;
};

/// Sends probes and keeps the last one's results. By default leaves the process's settings
/// unchanged.
class HttpProbeTest : public testing::Test {
 protected:
  static constexpr unsigned int kAll = 31;
  // So long that only an endless wait reaches it.
  static constexpr unsigned int kPatience = 20;

  void TearDown() override {
    HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Network);
    HttpProbe::setNeedsService(false);
    HttpProbe::setTrustFile("");
  }

  STATUSCODE probe(unsigned short port, unsigned int timeoutSeconds = kPatience,
                   const std::string& host = "127.0.0.1") {
    return send(host, false, port, timeoutSeconds);
  }
  STATUSCODE probeSecurely(unsigned short port, unsigned int timeoutSeconds = kPatience,
                           const std::string& host = "127.0.0.1") {
    return send(host, true, port, timeoutSeconds);
  }
  /// Probes a server made for this probe alone.
  STATUSCODE probeOf(ScriptedServer::Script script, bool secure = false,
                     unsigned int timeoutSeconds = kPatience) {
    const ScriptedServer server(std::move(script));
    return send("127.0.0.1", secure, server.port(), timeoutSeconds);
  }

  const HttpProbe::Report& report() const { return watcher->ended.back(); }
  void expectRoundTripTimes() const {
    EXPECT_EQ(report().connectUs < 0, report().reused);
    EXPECT_GE(report().networkRttUs, 0);
    EXPECT_GE(report().responseRttUs, 0);
    EXPECT_LE(report().responseRttUs, report().totalUs);
  }

  const std::shared_ptr<RecordingWatcher> watcher = std::make_shared<RecordingWatcher>();
  const CTask::Scope scope{watcher};
  PROXY_DATA proxy;
  std::string userAgent;
  unsigned int wanted = kAll;
  /// The results before each probe.
  HttpProbe::HTTP_PROBE_RESULTS untouched;
  HttpProbe::HTTP_PROBE_RESULTS results;
  RequestLog log;

 private:
  STATUSCODE send(const std::string& host, bool secure, unsigned short port,
                  unsigned int timeoutSeconds) {
    results = untouched;
    return HttpProbe::SendHttpProbe(host, secure, false, port, userAgent, timeoutSeconds, proxy,
                                    wanted, results);
  }
};

}  // namespace tests
