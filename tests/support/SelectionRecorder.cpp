// One run as the world sees it: the client's call, the log, the probes. It is over when the client
// has been called and no thread that the run started is left.

#include "tests/support/SelectionRecorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <sstream>
#include <thread>

#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Common/Logging/AppLog.h"

namespace tests {

namespace {

/// Longer than any run of a test, even on a machine that does a hundred other things.
constexpr std::chrono::seconds Limit{90};
constexpr std::chrono::milliseconds PollInterval{2};

/// What stands between headend and metric in the report.
const std::string ResultGap = "     ";

unsigned int threadNumber() {
  static std::atomic<unsigned int> last{0};
  thread_local const unsigned int number = ++last;
  return number;
}

constexpr const char* Digits = "0123456789";

/// `text` with an "N" for every number that follows `before` at once.
std::string withoutNumbers(std::string text, const std::string& before) {
  for (std::size_t at = text.find(before); at != std::string::npos; at = text.find(before, at)) {
    at += before.size();
    const std::size_t end = std::min(text.find_first_not_of(Digits, at), text.size());
    if (end != at) {
      text.replace(at, end - at, "N");
    }
  }
  return text;
}

/// What the machine decides becomes "N", so that lines can be compared whole.
std::string masked(const std::string& function, const std::string& message) {
  if (function == "run" && message.find("thread ID '") != std::string::npos) {
    return message.substr(0, message.find('\'')) + "'N'";  // may be negative
  }
  if (function == "startPingThreads") {
    return withoutNumbers(message, "QIB test ping took ");
  }
  if (function == "logPingResults") {
    return withoutNumbers(message, ResultGap);
  }
  const std::size_t samples = message.rfind('(');
  if (function == "logThreadPingResults" && samples != std::string::npos) {
    return message.substr(0, samples) +
           withoutNumbers(withoutNumbers(message.substr(samples), "("), " ");
  }
  return message;
}

/// Everything that a run tells. It outlives the run's last thread because the callbacks share it.
class Recorder : public ClientIfcBase, public ProbeTask {
 public:
  void AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends, long status,
                       const std::string& extraInfo) override {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_seen.calls == 0) {
      m_seen.reason = reason;
      m_seen.headends = headends;
      m_seen.status = status;
      m_seen.extraInfo = extraInfo;
    }
    ++m_seen.calls;
    m_called.notify_all();
  }

  void probeEnded(const HttpProbe::Report& report) override {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_seen.probes.push_back(report);
  }

  void Hear(const CAppLog::Record& record) {
    const std::string file = record.file;
    if (file != "vpn/Api/AHS/HeadendSelection" && file != "HeadendSelection") {
      return;
    }
    const std::string function = record.function;
    const std::string text =
        std::string(1, record.severity) + " " + function + ": " + masked(function, record.message);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_seen.log.push_back({threadNumber(), text});
    if (function == "logPingResults") {
      m_seen.report = record.message;
    }
  }

  bool WaitForCall() {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_called.wait_for(lock, Limit, [this] { return m_seen.calls != 0; });
  }

  Selection Seen() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_seen;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_called;
  Selection m_seen;
};

bool waitForThreads(unsigned int count) {
  const auto deadline = std::chrono::steady_clock::now() + Limit;
  while (CThread::RunningCount() > count) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(PollInterval);
  }
  return true;
}

}  // namespace

std::vector<std::pair<std::string, unsigned int>> Selection::Results() const {
  std::vector<std::pair<std::string, unsigned int>> results;
  std::istringstream lines(report);
  std::string line;
  while (std::getline(lines, line)) {
    const std::size_t gap = line.find(ResultGap);
    const std::string metric = gap == std::string::npos ? "" : line.substr(gap + ResultGap.size());
    if (!metric.empty() && metric.find_first_not_of(Digits) == std::string::npos) {
      results.emplace_back(line.substr(0, gap), static_cast<unsigned int>(std::stoul(metric)));
    }
  }
  return results;
}

std::vector<std::string> Selection::LinesOf(unsigned int thread) const {
  std::vector<std::string> lines;
  for (const LogLine& line : log) {
    if (line.thread == thread) {
      lines.push_back(line.text);
    }
  }
  return lines;
}

std::vector<std::string> Selection::RunLog() const {
  for (const LogLine& line : log) {
    if (line.text.rfind("I run: ", 0) == 0) {
      return LinesOf(line.thread);
    }
  }
  return {};
}

std::vector<std::string> Selection::TimerLog() const {
  for (const LogLine& line : log) {
    if (line.text.rfind("W OnTimerExpired: ", 0) == 0) {
      return LinesOf(line.thread);
    }
  }
  return {};
}

std::vector<HttpProbe::Report> Selection::ProbesOf(unsigned short port) const {
  std::vector<HttpProbe::Report> found;
  for (const HttpProbe::Report& probe : probes) {
    // The test probe is the one that asks for the headers.
    if (probe.port == port && (probe.options & HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS) == 0) {
      found.push_back(probe);
    }
  }
  return found;
}

Selection runSelection(const std::string& lastHeadend, unsigned int reason, ProxyIfc* proxy,
                       unsigned int threadsThatStay) {
  const unsigned int threadsAfter = CThread::RunningCount() + threadsThatStay;
  const auto recorder = std::make_shared<Recorder>();
  CAppLog::setListener([recorder](const CAppLog::Record& record) { recorder->Hear(record); });

  long status = -1;
  auto* const selection = new CHeadendSelection(recorder.get(), lastHeadend, reason, status);
  selection->SetProxy(proxy);
  if (status == 0) {
    std::thread([selection, recorder] {
      const CTask::Scope scope(recorder);
      selection->run();
    }).join();
    EXPECT_TRUE(recorder->WaitForCall()) << "the client was not called";
  } else {
    ADD_FAILURE() << "the run could not be constructed: " << status;
    delete selection;
  }
  EXPECT_TRUE(waitForThreads(threadsAfter)) << "the run left threads behind";

  CAppLog::setListener({});
  return recorder->Seen();
}

}  // namespace tests
