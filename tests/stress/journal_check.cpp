// What a run may do. The lines of each thread follow from the scenario, but for the few places
// where it shows whether the timer came first; those are read from the journal, and then have to
// agree with each other and with the order over all threads.

#include "tests/stress/journal_check.h"

#include <algorithm>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/include/HttpSession.h"

namespace stress {
namespace {

constexpr std::size_t Nowhere = static_cast<std::size_t>(-1);

/// A finding; thrown, because one is enough.
struct Problem : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void require(bool holds, const std::string& otherwise) {
  if (!holds) {
    throw Problem(otherwise);
  }
}

bool isAnswer(STATUSCODE status) {
  return status == 0 || status == HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE ||
         status == HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE ||
         status == HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED;
}

bool isConnectFailure(STATUSCODE status) {
  return status == HTTP_SESSION_ERROR_CONNECT || status == HTTP_SESSION_ERROR_TIMEOUT ||
         status == HTTP_SESSION_ERROR_CANNOT_CONNECT;
}

std::string codeText(const std::string& call, STATUSCODE code) {
  std::ostringstream text;
  text << call << " 0x" << std::hex << std::uppercase << code;
  return text.str();
}

const char* reasonText(unsigned int reason) {
  constexpr const char* Texts[] = {"connection",           "reconnection",   "preferences change",
                                   "proxy authentication", "process launch", "disconnect"};
  return reason < std::size(Texts) ? Texts[reason] : "unknown";
}

/// The lines of one thread, to be taken one after another.
class Lines {
 public:
  void add(const Event& event, std::size_t place) {
    m_texts.push_back(event.toString());
    m_places.push_back(place);
  }

  /// Takes the next line if it is this one.
  bool take(const std::string& text) {
    if (m_next == m_texts.size() || m_texts[m_next] != text) {
      return false;
    }
    ++m_next;
    return true;
  }

  void expect(const std::string& text) {
    if (!take(text)) {
      throw Problem("expected the line \"" + text + "\", got " + next());
    }
  }

  /// Takes a line that begins so, and gives the rest.
  std::string takeRest(const std::string& begin) {
    if (m_next == m_texts.size() || m_texts[m_next].compare(0, begin.size(), begin) != 0) {
      throw Problem("expected a line \"" + begin + "...\", got " + next());
    }
    return m_texts[m_next++].substr(begin.size());
  }

  void expectEnd() const { require(m_next == m_texts.size(), "one line too many: " + next()); }
  bool empty() const { return m_texts.empty(); }

  /// Where in the journal the line stands that was taken last.
  std::size_t placeOfTaken() const { return m_places[m_next - 1]; }

 private:
  std::string next() const {
    return m_next == m_texts.size() ? "none" : '"' + m_texts[m_next] + '"';
  }

  std::vector<std::string> m_texts;
  std::vector<std::size_t> m_places;
  std::size_t m_next = 0;
};

/// What one worker did.
struct WorkerView {
  bool started = false;
  bool reported = false;
  unsigned int metric = 0;
  STATUSCODE exit = 0;
  std::size_t saidSamples = Nowhere;
  std::size_t ended = Nowhere;
};

using Row = std::pair<std::string, unsigned int>;

/// How the run was finished by the one who came first.
struct Finish {
  Role by = Role::Main;
  std::size_t begin = Nowhere;
  std::size_t end = Nowhere;
  STATUSCODE incoming = 0;
  std::optional<std::vector<Row>> ranked;
  std::string last;
};

class Check {
 public:
  explicit Check(const Stage& stage) : m_stage(stage), m_run(stage.scenario) {}

  void all() {
    sort();
    for (unsigned int i = 0; i < MostHeadends; ++i) {
      checkWorker(i);
    }
    checkTimerThread();
    checkRunThread();
    checkFinish();
    checkRanking();
    checkDelivery();
    checkStore();
    checkOrderOfEvents();
  }

 private:
  void sort() {
    require(!m_stage.journal.hasLost(), "more events than the journal has room for");
    for (std::size_t i = 0; i < m_stage.journal.size(); ++i) {
      const Event& event = m_stage.journal[i];
      if (event.kind != EventKind::Message && event.kind != EventKind::ReturnCode) {
        m_events[event.kind].push_back(i);
        continue;
      }
      require(!event.isCut, "a line longer than the journal has room for");
      if (event.role == Role::Worker) {
        require(event.worker < MostHeadends, "a worker too many");
        m_workerLines[event.worker].add(event, i);
      } else {
        m_lines[event.role].add(event, i);
      }
    }
  }

  /// Takes the lines of one worker's probes; returns whether it gave the headend up.
  bool takeProbes(unsigned int i, Lines& lines, std::vector<unsigned int>& samples,
                  STATUSCODE& exit) const {
    const std::string host = m_run.host(i);
    unsigned int failures = 0;
    const unsigned int sent = m_stage.probesSent[i];
    for (unsigned int probe = 0; probe < sent; ++probe) {
      const ProbeOutcome& outcome = m_run.probes[i][probe];
      exit = outcome.status;
      if (isConnectFailure(exit)) {
        lines.expect("Run W QIB ping timeout or couldn't connect: " + host);
        if (++failures == 2) {
          require(probe + 1 == sent, "probes after the second failure to connect");
          return true;
        }
      } else if (exit == HTTP_SESSION_ERROR_DNS_RESOLUTION) {
        lines.expect("Run W QIB: DNS error for " + host + ", time: " + std::to_string(outcome.rtt));
        require(probe + 1 == sent, "probes after a DNS error");
        return true;
      } else {
        samples.push_back(outcome.rtt);
        if (!isAnswer(exit)) {
          lines.expect("Run W QIB ping error for " + host + ": " +
                       std::to_string(outcome.lastError));
        }
      }
    }
    return false;
  }

  unsigned int metricOf(const std::vector<unsigned int>& samples) const {
    unsigned int metric = 9999;
    bool allZero = samples.size() == m_run.pings;
    for (const unsigned int sample : samples) {
      allZero = allZero && sample == 0;
      metric = sample == 0 ? metric : std::min(metric, sample);
    }
    return allZero ? 0 : metric;
  }

  void checkWorker(unsigned int i) {
    WorkerView& worker = m_workers[i];
    Lines& lines = m_workerLines[i];
    worker.started = m_stage.isStarted[i];
    const unsigned int sent = m_stage.probesSent[i];
    require(sent <= m_run.pings, "a worker sent more probes than it was told to");
    if (!worker.started) {
      require(lines.empty() && sent == 0, "a worker that was not started did something");
      return;
    }
    lines.expect("Run I QIB starting thread named " + m_run.host(i));
    std::vector<unsigned int> samples;
    if (!takeProbes(i, lines, samples, worker.exit)) {
      if (sent < m_run.pings) {
        require(m_stage.hasTimePassed(), "a worker stopped early for no reason");
        worker.exit = HEADENDSELECTION_ERROR_TIMEOUT;
      }
      if (!samples.empty()) {
        expectReport(i, lines, samples);
      }
    }
    lines.expect("Run I QIB terminating thread for " + m_run.key(i));
    worker.ended = lines.placeOfTaken();
    lines.expectEnd();
  }

  void expectReport(unsigned int i, Lines& lines, const std::vector<unsigned int>& samples) {
    std::string text = "(";
    for (const unsigned int sample : samples) {
      text += std::to_string(sample) + " ";
    }
    lines.expect("logThreadPingResults I QIB ping results for " + m_run.key(i) + ": " + text + ")");
    m_workers[i].saidSamples = lines.placeOfTaken();
    m_workers[i].reported = true;
    m_workers[i].metric = metricOf(samples);
  }

  void checkTimerThread() {
    Lines& lines = m_lines[Role::Timer];
    if (lines.empty()) {
      return;
    }
    lines.expect("OnTimerExpired W QIB timer expired");
    m_expired = lines.placeOfTaken();
    takeFinish(lines, Role::Timer, HEADENDSELECTION_ERROR_TIMEOUT);
    lines.expectEnd();
  }

  void takeFinish(Lines& lines, Role role, STATUSCODE incoming) {
    if (lines.take("finishAHS I QIB in finishAHS() a second time")) {
      require(m_second == Nowhere, "two threads were second in finishAHS");
      m_second = lines.placeOfTaken();
      return;
    }
    lines.expect("finishAHS I QIB in finishAHS() for first time");
    require(m_finish.begin == Nowhere, "two threads were first in finishAHS");
    m_finish.by = role;
    m_finish.begin = lines.placeOfTaken();
    m_finish.incoming = incoming;
    m_finish.last = m_run.last >= 0 ? m_run.key(static_cast<unsigned int>(m_run.last)) : "";
    if (incoming != HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED) {
      takeRanking(lines, incoming);
    }
    m_finish.end = lines.placeOfTaken();
    takeRefusal(lines, m_run.refusesResults, 'W');
  }

  void takeRanking(Lines& lines, STATUSCODE incoming) {
    if (incoming == 0 || incoming == HEADENDSELECTION_ERROR_TIMEOUT) {
      const bool isEmpty = lines.take(
          "getBestHeadendsList I didn't get any QIB results from CCacheEntry::GetHeadendList()");
      takeReport(lines.takeRest("logPingResults I "), isEmpty);
    }
    m_finishedLine = lines.takeRest("finishAHS I Finished QIB thread, ");
  }

  static void takeRefusal(Lines& lines, bool isRefused, char severity) {
    if (isRefused) {
      lines.expect(std::string("Start ") + severity + " " +
                   codeText("pthread_create", THREAD_ERROR_CREATE_FAILED));
    }
  }

  /// Reads the rows of the report, and then requires that nothing else stands there.
  void takeReport(const std::string& report, bool isEmpty) {
    const std::string lastMark = "Last server: '";
    const std::size_t last = report.find(lastMark) + lastMark.size();
    m_finish.last = report.substr(last, report.find('\'', last) - last);
    std::string expected = "*** QIB Selection Results ***\nQIB performed for " +
                           std::string(reasonText(m_run.reason)) + " attempt. " + lastMark +
                           m_finish.last + "'\n\n";
    if (isEmpty) {
      expected += "Unable to generate search results. Retaining the last server.\n";
    } else {
      m_finish.ranked = rowsOf(report);
      expected += rankedText();
    }
    require(report == expected, "the report is not what follows from its rows");
  }

  static std::vector<Row> rowsOf(const std::string& report) {
    const std::string head = "Server Address     RTT (ms)\n";
    require(report.find(head) != std::string::npos, "a report without a table");
    std::istringstream table(report.substr(report.find(head) + head.size()));
    std::vector<Row> rows;
    for (std::string line; std::getline(table, line) && !line.empty();) {
      std::istringstream fields(line);
      Row row;
      fields >> row.first >> row.second;
      rows.push_back(row);
    }
    require(!rows.empty(), "a report without rows");
    return rows;
  }

  std::string rankedText() {
    std::string text;
    if (!m_run.cached.empty()) {
      text += "Results obtained from QIB cache. No ping tests were performed.\n\n";
    }
    text += "Server Address     RTT (ms)\n";
    for (const auto& [key, metric] : *m_finish.ranked) {
      text += key + "     " + std::to_string(metric) + "\n";
    }
    const bool retained = rank();
    return text + "\n" +
           (retained
                ? "Retained the last server to maximize the user experience.\n"
                : "Selected '" + m_finish.ranked->front().first + "' as the optimal server.\n");
  }

  /// The list for the client; returns whether the last headend was retained.
  bool rank() {
    bool retained = false;
    const unsigned int best = m_finish.ranked->front().second;
    for (const auto& [key, metric] : *m_finish.ranked) {
      const float ratio = static_cast<float>(metric) / static_cast<float>(best);
      if (m_run.reason == 1 && key == m_finish.last &&
          static_cast<float>(m_run.improvement) / 100.0F + 1.0F > ratio) {
        m_list.insert(m_list.begin(), key);
        retained = true;
      } else {
        m_list.push_back(key);
      }
    }
    return retained;
  }

  void checkRunThread() {
    Lines& lines = m_lines[Role::Run];
    lines.takeRest("run I CHeadendSelection thread ID '");
    const std::string last =
        m_run.last >= 0 ? m_run.host(static_cast<unsigned int>(m_run.last)) : "";
    lines.expect("selectHeadend I Starting QIB processing during " +
                 std::string(reasonText(m_run.reason)) + " attempt. Last headend: " + last);
    const STATUSCODE status = m_run.cached.empty() ? takeMeasurement(lines) : 0;
    if (status != 0) {
      lines.expect("run W " + codeText("CHeadendSelection::selectHeadend", status));
    }
    takeFinish(lines, Role::Run, status);
    lines.expectEnd();
  }

  STATUSCODE takeMeasurement(Lines& lines) {
    if (m_run.sendsTestProbe()) {
      const STATUSCODE status = takeTestPing(lines);
      if (status != 0) {
        return status;
      }
    }
    for (unsigned int i = 0; i < m_run.headends; ++i) {
      if (lines.take("startPingThreads W QIB timer expired before starting thread " +
                     std::to_string(i))) {
        noticeTimer(lines);
        require(m_stage.startsAsked == i, "workers were started after the timer was noticed");
        return HEADENDSELECTION_ERROR_TIMEOUT;
      }
      takeRefusal(lines, m_run.refusesWorker(i), 'E');
      require(m_workers[i].started != m_run.refusesWorker(i), "a worker was not started");
    }
    takeWorkerEnds(lines);
    return 0;
  }

  STATUSCODE takeTestPing(Lines& lines) {
    const auto target = static_cast<unsigned int>(std::max(m_run.last, 0));
    const bool withUser = m_run.hasProvider && m_run.providerHasUser;
    const unsigned int port = m_run.withPorts && !withUser ? 8440 + target : 443;
    lines.expect("startPingThreads I QIB Sending test ping to " + m_run.host(target) + ":" +
                 std::to_string(port));
    m_saidTarget = lines.placeOfTaken();
    if (!isAnswer(m_run.testProbe.status)) {
      lines.expect("startPingThreads E " + codeText("HttpProbe::SendHttpProbe QIB test ping failed",
                                                    m_run.testProbe.lastError));
    }
    if (m_run.authProxy) {
      lines.expect("startPingThreads I QIB: Encountered an auth proxy");
      return HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED;
    }
    lines.expect("startPingThreads I QIB test ping took " + std::to_string(m_run.testProbe.rtt));
    if (lines.take("startPingThreads W QIB timer expired before any servers could be pinged.")) {
      noticeTimer(lines);
      return HEADENDSELECTION_ERROR_TIMEOUT;
    }
    return 0;
  }

  void noticeTimer(const Lines& lines) { m_noticed = lines.placeOfTaken(); }

  void takeWorkerEnds(Lines& lines) {
    for (unsigned int i = 0; i < m_run.headends; ++i) {
      if (m_run.refusesWorker(i)) {
        lines.expect("startPingThreads W " +
                     codeText("CSelectionThread::WaitForCompletion", THREAD_ERROR_INVALID_STATE));
      } else if (m_workers[i].exit != 0) {
        lines.expect("startPingThreads W " + codeText("CSelectionThread::Run", m_workers[i].exit));
        require(lines.placeOfTaken() > m_workers[i].ended, "a worker was not waited for");
      }
    }
    m_allAwaited = true;
  }

  void checkFinish() const {
    require(m_finish.begin != Nowhere, "nobody was first in finishAHS");
    require((m_second != Nowhere) == (m_expired != Nowhere),
            "one expiry makes a second in finishAHS, and nothing else does");
    require(m_second == Nowhere || m_second > m_finish.end,
            "the second came into finishAHS before the first had left it");
    require(m_finish.by != Role::Timer || m_finish.begin > m_expired,
            "the timer finished the run before it expired");
    require(m_noticed == Nowhere || (m_finish.by == Role::Timer && m_finish.begin < m_noticed),
            "the run noticed an expiry that had not finished it");
    require(m_finish.by == Role::Timer || m_finish.incoming != HEADENDSELECTION_ERROR_TIMEOUT,
            "the run thread finished with a time-out of its own");
    if (m_finish.by == Role::Run && m_allAwaited) {
      for (const WorkerView& worker : m_workers) {
        require(!worker.started || worker.ended < m_finish.begin,
                "the run thread finished before a worker had ended");
      }
    }
    require(m_run.cached.empty() || m_expired == Nowhere, "a timer for a cached selection");
  }

  void checkLast() const {
    const std::string known =
        m_run.last >= 0 ? m_run.key(static_cast<unsigned int>(m_run.last)) : "";
    if (m_finish.last == known && (m_run.last >= 0 || m_saidTarget > m_finish.begin)) {
      return;
    }
    require(m_run.sendsTestProbe() && m_run.last < 0 && m_finish.last == m_run.key(0),
            "the last headend became '" + m_finish.last + "'");
  }

  void checkRanking() const {
    if (m_finish.ranked) {
      const auto& rows = *m_finish.ranked;
      require(std::is_sorted(rows.begin(), rows.end(),
                             [](const Row& a, const Row& b) { return a.second < b.second; }),
              "the ranking is not in order");
    }
    if (m_finish.incoming == 0 || m_finish.incoming == HEADENDSELECTION_ERROR_TIMEOUT) {
      checkLast();
    } else {
      return;
    }
    for (unsigned int i = 0; i < m_run.headends; ++i) {
      const std::optional<unsigned int> metric = rankedMetric(m_run.key(i));
      if (m_run.cached.empty()) {
        checkReported(m_workers[i], metric);
      } else {
        checkCached(i, metric);
      }
    }
    require(!m_finish.ranked || m_finish.ranked->size() == m_found, "a row of no known headend");
  }

  std::optional<unsigned int> rankedMetric(const std::string& key) const {
    std::optional<unsigned int> metric;
    if (m_finish.ranked) {
      for (const Row& row : *m_finish.ranked) {
        if (row.first == key) {
          require(!metric, "a headend is ranked twice");
          metric = row.second;
          ++m_found;
        }
      }
    }
    return metric;
  }

  void checkReported(const WorkerView& worker, std::optional<unsigned int> metric) const {
    if (metric) {
      require(worker.reported && *metric == worker.metric, "a rank without its report");
      require(worker.saidSamples < m_finish.end, "a report was ranked before it was made");
    } else {
      require(!worker.reported || worker.ended > m_finish.begin, "a report was not ranked");
    }
  }

  void checkCached(unsigned int headend, std::optional<unsigned int> metric) const {
    for (const auto& [cached, cachedMetric] : m_run.cached) {
      if (cached == headend) {
        require(metric && *metric == cachedMetric, "a cached headend was not ranked");
        return;
      }
    }
    require(!metric, "a headend was ranked that is not in the cache");
  }

  void checkDelivery() const {
    require(m_stage.callbacks == 1, std::to_string(m_stage.callbacks) + " callbacks");
    const Stage::Outcome& outcome = m_stage.outcome;
    require(outcome.role == Role::Results, "the callback came on another thread");
    require(outcome.reason == m_run.reason, "the callback brought another reason");
    std::vector<std::string> list = m_list;
    long status = HEADENDSELECTION_ERROR_SELECTION_FAILURE;
    if (m_finish.incoming == HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED) {
      status = HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED;
      list.clear();
    } else if (m_finish.ranked) {
      status = m_run.cached.empty() ? long{HEADENDSELECTION_ERROR_ADDED_TO_CACHE} : 0;
    } else if (!m_finish.last.empty()) {
      list = {m_finish.last};
    }
    require(outcome.status == status, codeText("the callback brought the status", outcome.status));
    require(outcome.headends == list, "the callback brought another list");
    require(outcome.extraInfo ==
                (status == HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED ? "head office" : ""),
            "the callback brought \"" + outcome.extraInfo + "\"");
    if (m_finish.incoming != HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED) {
      require(
          m_finishedLine == (list.empty() ? "unable to select a host" : "selected " + list.front()),
          "the log names another selection: " + m_finishedLine);
    }
  }

  void checkStore() const {
    const bool stores = m_finish.ranked && m_run.cached.empty();
    require(m_stage.stored.size() == (stores ? 1 : 0), "stored more or less than once");
    if (!stores) {
      return;
    }
    std::string key;
    for (unsigned int i = m_run.headends; i-- > 0;) {
      key += m_run.key(i) + ";";
    }
    std::istringstream stored(m_stage.stored.front());
    std::string word;
    stored >> word;
    require(word == key + ":", "stored under another key: " + word);
    std::size_t rankedToo = 0;
    while (stored >> word) {
      bool isReport = false;
      for (unsigned int i = 0; i < m_run.headends; ++i) {
        isReport = isReport || (m_workers[i].reported &&
                                word == m_run.key(i) + "=" + std::to_string(m_workers[i].metric));
      }
      require(isReport, "stored what was not reported: " + word);
      for (const auto& [host, metric] : *m_finish.ranked) {
        rankedToo += word == host + "=" + std::to_string(metric) ? 1 : 0;
      }
    }
    require(rankedToo == m_finish.ranked->size(), "ranked more than was stored");
  }

  std::size_t only(EventKind kind, const char* name) {
    require(m_events[kind].size() == 1,
            std::string(name) + ": " + std::to_string(m_events[kind].size()) + " times");
    return m_events[kind].front();
  }

  void checkOrderOfEvents() {
    const std::size_t begins = only(EventKind::CallbackBegins, "callback begins");
    const std::size_t ends = only(EventKind::CallbackEnds, "callback ends");
    const std::size_t returned = only(EventKind::RunReturned, "run returned");
    const std::size_t released = only(EventKind::CacheReleased, "cache released");
    require(begins > m_finish.end, "the client was called before there was an outcome");
    require(returned > ends, "run returned before the client's callback had");
    require(released > ends, "the run was destroyed before the client's callback had returned");
    require(m_stage.journal[released].role != Role::Timer,
            "the run was destroyed on the timer thread, which others wait for");
    require(m_events[EventKind::ProviderDeleted].size() == (m_run.hasProvider ? 1 : 0),
            "the provider was not deleted once");
    if (m_run.hasProvider) {
      const std::size_t deleted = m_events[EventKind::ProviderDeleted].front();
      require(deleted > ends && deleted < released, "the provider was deleted out of order");
    }
    require(m_second == Nowhere || released > m_second,
            "the run was destroyed while somebody had still to finish it");
    for (const WorkerView& worker : m_workers) {
      require(!worker.started || worker.ended < released,
              "the run was destroyed before a worker had ended");
    }
    Lines& results = m_lines[Role::Results];
    if (m_run.callbackThrows) {
      results.expect("Run E thread ended by an exception: the client's own trouble");
    }
    results.expectEnd();
    m_lines[Role::Reaper].expectEnd();
    m_lines[Role::Main].expectEnd();
    require(m_stage.testProbesSent == (m_run.sendsTestProbe() ? 1U : 0U), "test probes");
  }

  const Stage& m_stage;
  const Scenario& m_run;
  std::map<Role, Lines> m_lines;
  std::array<Lines, MostHeadends> m_workerLines;
  std::map<EventKind, std::vector<std::size_t>> m_events;
  std::array<WorkerView, MostHeadends> m_workers;
  Finish m_finish;
  std::string m_finishedLine;
  std::vector<std::string> m_list;
  mutable std::size_t m_found = 0;
  std::size_t m_expired = Nowhere;
  std::size_t m_second = Nowhere;
  std::size_t m_noticed = Nowhere;
  std::size_t m_saidTarget = Nowhere;
  bool m_allAwaited = false;
};

}  // namespace

std::string findProblem(const Stage& stage) {
  try {
    Check(stage).all();
  } catch (const Problem& problem) {
    return problem.what();
  }
  return {};
}

}  // namespace stress
