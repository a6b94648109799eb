// What a run may come to, however its threads have met: one of the two that can end it does, what
// was reported in time is ranked, what was ranked is delivered and stored, and everything happens
// in an order in which nobody uses what is gone. What a run logs besides is the unit tests' matter.

#include "tests/stress/journal_check.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "vpn/Api/AHS/HeadendSelectionErrors.h"

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

using Row = std::pair<std::string, unsigned int>;

/// What one worker did.
struct WorkerView {
  bool isReported = false;
  Row report;
  std::size_t reported = Nowhere;
  std::size_t ended = Nowhere;
};

class Check {
 public:
  explicit Check(const Stage& stage)
      : m_stage(stage), m_run(stage.scenario), m_journal(stage.journal) {}

  void all() {
    require(!m_journal.hasLost(), "more events than the journal has room for");
    for (unsigned int i = 0; i < MostHeadends; ++i) {
      viewWorker(i);
    }
    viewFinish();
    checkWhoFinished();
    checkRanking();
    checkDelivery();
    checkStore();
    checkOrderOfEvents();
  }

 private:
  /// Where the lines of a role begin so, in order.
  std::vector<std::size_t> placesOf(const std::string& begin, Role role,
                                    unsigned int worker = 0) const {
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < m_journal.size(); ++i) {
      const Event& event = m_journal[i];
      const bool isLine = event.kind == EventKind::Message || event.kind == EventKind::ReturnCode;
      if (isLine && event.role == role && (role != Role::Worker || event.worker == worker) &&
          event.toString().starts_with(begin)) {
        require(!event.isCut, "a line longer than the journal has room for");
        places.push_back(i);
      }
    }
    return places;
  }

  /// Where the one line stands that begins so; Nowhere if there is none.
  std::size_t placeOf(const std::string& begin, Role role, unsigned int worker = 0) const {
    const std::vector<std::size_t> places = placesOf(begin, role, worker);
    require(places.size() <= 1, "more than once: " + begin);
    return places.empty() ? Nowhere : places.front();
  }

  void viewWorker(unsigned int i) {
    WorkerView& worker = m_workers[i];
    worker.ended = placeOf("Run I QIB terminating thread for " + m_run.key(i), Role::Worker, i);
    require((worker.ended != Nowhere) == m_stage.isStarted[i], "a worker that did not end");
    require(m_stage.probesSent[i] <= (m_stage.isStarted[i] ? m_run.pings : 0),
            "more probes than there should be");
    const std::string samples = "logThreadPingResults I QIB ping results for " + m_run.key(i);
    worker.reported = placeOf(samples, Role::Worker, i);
    worker.isReported = worker.reported != Nowhere;
    if (worker.isReported) {
      const std::string text = m_journal[worker.reported].toString();
      worker.report = {m_run.key(i), metricOf(text.substr(text.find('(') + 1))};
    }
  }

  unsigned int metricOf(const std::string& text) const {
    std::istringstream samples(text);
    unsigned int metric = 9999;
    unsigned int zeros = 0;
    for (unsigned int sample = 0; samples >> sample;) {
      zeros += sample == 0 ? 1 : 0;
      metric = sample == 0 ? metric : std::min(metric, sample);
    }
    return zeros == m_run.pings ? 0 : metric;
  }

  void viewFinish() {
    for (const Role role : {Role::Run, Role::Timer}) {
      const std::size_t first = placeOf("finishAHS I QIB in finishAHS() for first time", role);
      const std::size_t second = placeOf("finishAHS I QIB in finishAHS() a second time", role);
      if (first != Nowhere) {
        require(m_begin == Nowhere, "two threads were first in finishAHS");
        m_by = role;
        m_begin = first;
      }
      if (second != Nowhere) {
        require(m_second == Nowhere, "two threads were second in finishAHS");
        m_second = second;
      }
    }
    require(m_begin != Nowhere, "nobody was first in finishAHS");
    m_expired = placeOf("OnTimerExpired W QIB timer expired", Role::Timer);
    const std::size_t said = placeOf("finishAHS I Finished QIB thread, ", m_by);
    m_isProxy = said == Nowhere;
    m_end = m_isProxy ? m_begin : said;
    const std::size_t report = placeOf("logPingResults I ", m_by);
    if (report != Nowhere) {
      readReport(m_journal[report].toString());
    }
  }

  void readReport(const std::string& report) {
    const std::string head = "Server Address     RTT (ms)\n";
    const std::size_t start = report.find(head);
    if (start != std::string::npos) {
      std::istringstream table(report.substr(start + head.size()));
      for (std::string line; std::getline(table, line) && !line.empty();) {
        std::istringstream fields(line);
        fields >> m_ranked.emplace_back().first >> m_ranked.back().second;
      }
    }
  }

  void checkWhoFinished() const {
    require((m_second != Nowhere) == (m_expired != Nowhere),
            "one expiry makes a second in finishAHS, and nothing else does");
    require(m_second == Nowhere || m_second > m_end,
            "the second came into finishAHS before the first had left it");
    require(m_by != Role::Timer || m_begin > m_expired, "the timer finished before it expired");
    require(m_run.cached.empty() || m_expired == Nowhere, "a timer for a cached selection");
    for (const std::size_t noticed :
         placesOf("startPingThreads W QIB timer expired before ", Role::Run)) {
      require(m_by == Role::Timer && m_begin < noticed,
              "the run noticed an expiry that had not finished it");
    }
    for (const WorkerView& worker : m_workers) {
      require(m_by == Role::Timer || worker.ended == Nowhere || worker.ended < m_begin,
              "the run thread finished before a worker had ended");
    }
  }

  bool isReport(const Row& row) const {
    return std::ranges::any_of(m_workers, [&](const WorkerView& worker) {
      return worker.isReported && worker.report == row;
    });
  }

  void checkRanking() const {
    require(std::ranges::is_sorted(m_ranked, {}, &Row::second), "the ranking is not in order");
    std::vector<Row> rows = m_ranked;
    std::ranges::sort(rows);
    require(std::ranges::adjacent_find(rows) == rows.end(), "a headend is ranked twice");
    if (!m_run.cached.empty()) {
      std::vector<Row> cached;
      for (const auto& [headend, metric] : m_run.cached) {
        cached.emplace_back(m_run.key(headend), metric);
      }
      std::ranges::sort(cached);
      require(rows == cached, "not what is in the cache was ranked");
      return;
    }
    for (const Row& row : rows) {
      require(isReport(row), "a rank without its report: " + row.first);
    }
    for (const WorkerView& worker : m_workers) {
      const bool isRanked = std::ranges::find(rows, worker.report) != rows.end();
      require(!worker.isReported || isRanked || worker.ended > m_begin, "a report was not ranked");
      require(!worker.isReported || !isRanked || worker.reported < m_end,
              "a report was ranked before it was made");
    }
  }

  void checkDelivery() const {
    const Stage::Outcome& outcome = m_stage.outcome;
    require(m_stage.callbacks == 1, std::to_string(m_stage.callbacks) + " callbacks");
    require(outcome.role == Role::Results, "the callback came on another thread");
    require(outcome.reason == m_run.reason, "the callback brought another reason");
    require(outcome.extraInfo == (m_isProxy ? "head office" : ""),
            "the callback brought \"" + outcome.extraInfo + "\"");
    long status = HEADENDSELECTION_ERROR_SELECTION_FAILURE;
    if (m_isProxy) {
      status = HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED;
      require(outcome.headends.empty(), "an authenticating proxy brought headends");
    } else if (!m_ranked.empty()) {
      status = m_run.cached.empty() ? long{HEADENDSELECTION_ERROR_ADDED_TO_CACHE} : 0;
      require(std::ranges::is_permutation(outcome.headends, m_ranked, {}, {}, &Row::first),
              "the callback brought another list");
    } else {
      checkLast(outcome.headends);
    }
    require(outcome.status == status, "the callback brought " + std::to_string(outcome.status));
  }

  /// Without a ranking the client gets the last headend, which the test probe may have named.
  void checkLast(const std::vector<std::string>& list) const {
    const bool isKnown = m_run.last >= 0;
    const unsigned int last = isKnown ? static_cast<unsigned int>(m_run.last) : 0;
    const bool mayBeNone = !isKnown && (m_by == Role::Timer || !m_run.sendsTestProbe());
    const bool mayBeOne = isKnown || m_run.sendsTestProbe();
    require(list.empty() ? mayBeNone : mayBeOne && list == std::vector{m_run.key(last)},
            "the callback brought another last headend");
  }

  void checkStore() const {
    const bool stores = !m_ranked.empty() && m_run.cached.empty();
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
    std::size_t ranked = 0;
    while (stored >> word) {
      const std::size_t equals = word.find('=');
      const Row row{word.substr(0, equals),
                    static_cast<unsigned int>(std::stoul(word.substr(equals + 1)))};
      require(isReport(row), "stored what was not reported: " + word);
      ranked += static_cast<std::size_t>(std::ranges::count(m_ranked, row));
    }
    require(ranked == m_ranked.size(), "ranked more than was stored");
  }

  std::size_t only(EventKind kind, const char* name) const {
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < m_journal.size(); ++i) {
      if (m_journal[i].kind == kind) {
        places.push_back(i);
      }
    }
    require(places.size() == 1, name + std::string(": times: ") + std::to_string(places.size()));
    return places.front();
  }

  void checkOrderOfEvents() const {
    const std::size_t ends = only(EventKind::CallbackEnds, "callback ends");
    const std::size_t released = only(EventKind::CacheReleased, "cache released");
    require(only(EventKind::CallbackBegins, "callback begins") > m_end,
            "the client was called before there was an outcome");
    require(only(EventKind::RunReturned, "run returned") > ends,
            "run returned before the client's callback had");
    require(released > ends, "the run was destroyed before the client's callback had returned");
    require(m_journal[released].role != Role::Timer,
            "the run was destroyed on the timer thread, which others wait for");
    if (m_run.hasProvider) {
      const std::size_t deleted = only(EventKind::ProviderDeleted, "provider deleted");
      require(deleted > ends && deleted < released, "the provider was deleted out of order");
    }
    require(m_second == Nowhere || released > m_second,
            "the run was destroyed while somebody had still to finish it");
    for (const WorkerView& worker : m_workers) {
      require(worker.ended == Nowhere || worker.ended < released,
              "the run was destroyed before a worker had ended");
    }
    require(m_stage.testProbesSent == (m_run.sendsTestProbe() ? 1U : 0U), "test probes");
  }

  const Stage& m_stage;
  const Scenario& m_run;
  const Journal& m_journal;
  std::array<WorkerView, MostHeadends> m_workers;
  Role m_by = Role::Main;  ///< who was first in finishAHS, from where to where
  std::size_t m_begin = Nowhere;
  std::size_t m_end = Nowhere;
  std::size_t m_second = Nowhere;
  std::size_t m_expired = Nowhere;
  bool m_isProxy = false;
  std::vector<Row> m_ranked;
};

}  // namespace

std::string findProblem(const Stage& stage) {
  try {
    Check(stage).all();
  } catch (const Problem& problem) {
    return std::string(problem.what()) + "\n";
  }
  return {};
}

}  // namespace stress
