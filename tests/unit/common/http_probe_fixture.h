#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/ScriptedServer.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/IP/ProbeTask.h"

/// Remembers what it is told.
class RecordingWatcher : public ProbeTask {
 public:
  void probeStarted(const HttpProbe::Report& report) override {
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_started.push_back(report);
  }
  void probeEnded(const HttpProbe::Report& report) override {
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_ended.push_back(report);
  }
  std::vector<HttpProbe::Report> started() const {
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_started;
  }
  std::vector<HttpProbe::Report> ended() const {
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_ended;
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<HttpProbe::Report> m_started;
  std::vector<HttpProbe::Report> m_ended;
};

/// Sends probes and keeps what came back of the last one. Leaves the process's settings as they are
/// by default.
class HttpProbeTest : public testing::Test {
 protected:
  static constexpr unsigned int kAll = 31;
  // Long enough that only what never answers reaches it.
  static constexpr unsigned int kPatience = 20;

  void TearDown() override {
    HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Network);
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

  HttpProbe::Report report() const { return watcher->ended().back(); }

  const std::shared_ptr<RecordingWatcher> watcher = std::make_shared<RecordingWatcher>();
  const CTask::Scope scope{watcher};
  PROXY_DATA proxy;
  std::string userAgent;
  HttpProbe::HTTP_PROBE_RESULTS results;

 private:
  STATUSCODE send(const std::string& host, bool secure, unsigned short port,
                  unsigned int timeoutSeconds) {
    results = HttpProbe::HTTP_PROBE_RESULTS();
    return HttpProbe::SendHttpProbe(host, secure, false, port, userAgent, timeoutSeconds, proxy,
                                    kAll, results);
  }
};
