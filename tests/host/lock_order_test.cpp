// The actual order of locks against the documented one. A recorder notes which locks are taken
// while others are held, during selections of every kind. The place of construction decides a
// lock's class. The table in docs/architecture.md must allow each observation.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "ahs/ahs.hpp"
#include "tests/host/HostScene.h"
#include "tests/host/LockRecorder.h"
#include "tests/support/RefusedThreads.h"
#include "tests/support/private_access.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/TimerList.h"

AHS_EXPOSE(CacheInstanceLock, &CSelectionCache::sm_instanceLock);

namespace {

/// Runs once, after the calling thread has started its first thread.
thread_local std::function<void()> t_afterStart;

/// Notes that this thread may wait for the disk because of a cache file.
void noteDisk();

}  // namespace

extern "C" {
long __real__ZN7CThread5StartEv(void* thread);  // NOLINT: the linker's name for CThread::Start
long __wrap__ZN7CThread5StartEv(void* thread);  // NOLINT

long __wrap__ZN7CThread5StartEv(void* thread) {  // NOLINT
  const long status = __real__ZN7CThread5StartEv(thread);
  if (t_afterStart) {
    std::exchange(t_afterStart, nullptr)();
  }
  return status;
}

int __real_lstat(const char* path, struct stat* status);  // NOLINT
int __wrap_lstat(const char* path, struct stat* status);  // NOLINT

int __wrap_lstat(const char* path, struct stat* status) {  // NOLINT
  noteDisk();
  return __real_lstat(path, status);
}

int __real_renameat(int in, const char* from, int out, const char* to);  // NOLINT
int __wrap_renameat(int in, const char* from, int out, const char* to);  // NOLINT

int __wrap_renameat(int in, const char* from, int out, const char* to) {  // NOLINT
  noteDisk();
  return __real_renameat(in, from, out, to);
}
}

namespace tests {
namespace {

using Names = std::vector<std::string>;

/// The classes of locks by the source that constructs them, in the order of its members.
const std::map<std::string, Names>& classesOfSources() {
  static const auto& classes = *new std::map<std::string, Names>{
      {"HeadendSelection.cpp", {"m_headendCacheLock", "m_headendThreadLock"}},
      {"HeadendSelectionProbing.cpp", {"m_headendPingThreadLock"}},
      {"SelectionCache.cpp", {"the cache's writer lock", "the cache's lock"}},
      {"PreferenceMgr.cpp", {"the preference manager's lock"}},
      {"ExecutionContext.cpp", {"the execution context's lock"}},
      {"ApiRunnable.cpp", {"the lock of a run's end"}},
      {"Thread.cpp", {"a thread's state lock"}},
      {"TimerList.cpp", {"a timer list's lock"}},
      {"ReserveThread.cpp", {"the reserve's lock"}},
      {"WorkerQueue.cpp", {"the lock of the queue of workers"}},
      {"ProbeTask.cpp", {"the lock of a task's evidence"}},
      {"SocketLoop.cpp", {"the lock of the loop of sockets"}},
      {"TlsConnection.cpp", {"the lock of the TLS context"}},
      {"ProbeSettings.cpp", {"the lock of the probe's settings"}},
      {"AppLog.cpp", {"the log's listener lock", "the log's targets' lock"}},
      {"SelectionRecord.cpp", {"the lock of a selection's record"}},
      {"Core.cpp", {"the door's lock of the turn"}},
      {"Library.cpp", {"the door's lock of a library"}},
      {"Selection.cpp", {"the door's lock of a selection"}},
      {"LogListener.cpp", {"the door's log lock"}},
      {"ahs.cpp", {"the door's lock of handles"}},
      {"SocketWay.cpp", {"the door's lock of a selection's sockets"}},
      {"Teller.cpp", {"the teller's lock"}},
  };
  return classes;
}

/// Assigns locks to classes.
class Classes {
 public:
  Classes() : m_map(AHS_LINK_MAP), m_locks(LockRecorder::BuiltLocks()) {}

  std::string NameOf(int index) const {
    if (index < 0) {
      return "a lock whose construction was not seen";
    }
    const BuiltLock& lock = m_locks.at(static_cast<std::size_t>(index));
    if (lock.address == exposed(CacheInstanceLock{})) {
      return "the cache's singleton lock";
    }
    const std::string source = SourceOf(lock);
    const auto found = classesOfSources().find(source);
    if (found == classesOfSources().end()) {
      return "an unknown lock, built by " + source;
    }
    return found->second.at(std::min(PositionOf(lock), found->second.size() - 1));
  }

  /// Pairs of classes: the second lock was taken while the first was held.
  std::set<std::pair<std::string, std::string>> Nestings() const {
    std::set<std::pair<std::string, std::string>> pairs;
    for (const auto& [outer, inner] : LockRecorder::Nestings()) {
      pairs.emplace(NameOf(outer), NameOf(inner));
    }
    return pairs;
  }

 private:
  std::string SourceOf(const BuiltLock& lock) const {
    // The call instruction, just before the constructor's return address.
    return m_map.SourceOf(static_cast<const char*>(lock.builtAt) - 1);
  }

  /// The lock's position in its object: an object's members are constructed one after the other and
  /// lie closer together than any two objects.
  std::size_t PositionOf(const BuiltLock& lock) const {
    constexpr std::ptrdiff_t Closest = 128;
    if (lock.previous < 0) {
      return 0;
    }
    const BuiltLock& before = m_locks.at(static_cast<std::size_t>(lock.previous));
    const std::ptrdiff_t distance =
        static_cast<const char*>(lock.address) - static_cast<const char*>(before.address);
    const bool isNeighbour =
        distance > 0 && distance < Closest && SourceOf(before) == SourceOf(lock);
    return isNeighbour ? PositionOf(before) + 1 : 0;
  }

  const LinkMap m_map;
  const std::vector<BuiltLock> m_locks;
};

/// A place that calls foreign code, and how often a lock was held there.
struct Moment {
  const char* name;
  std::atomic<int> seen{0};
  std::atomic<int> withLocks{0};

  void Note(std::size_t allowed = 0) {
    ++seen;
    withLocks += LockRecorder::HeldByThisThread().size() > allowed ? 1 : 0;
  }
};

struct Moments {
  Moment callback{"the client's callback"};
  Moment probe{"a probe"};
  Moment timer{"a timer's callback"};
  Moment runsTimer{"the callback of a run's timer"};
  Moment doorsCallback{"a callback of the door"};
  std::mutex diskLock;
  std::multiset<std::vector<int>> disk;  // the held locks, each time
};

/// Any thread may use it until the process ends.
Moments& moments() {
  static Moments& instance = *new Moments;
  return instance;
}

}  // namespace
}  // namespace tests

namespace {

void noteDisk() {
  const std::lock_guard<std::mutex> lock(tests::moments().diskLock);
  tests::moments().disk.insert(tests::LockRecorder::HeldByThisThread());
}

}  // namespace

namespace tests {
namespace {

class ProbeWatcher : public SelectionRecord {
 public:
  void probeStarted(const HttpProbe::Report& report) override {
    moments().probe.Note();
    SelectionRecord::probeStarted(report);
  }
  void probeEnded(const HttpProbe::Report& report) override {
    moments().probe.Note();
    SelectionRecord::probeEnded(report);
  }
};

/// Selections of every kind, made once in the process.
class Selections {
 public:
  Selections() {
    const CTask::Scope scope(std::make_shared<ProbeWatcher>());
    CAppLog::setListener([](const CAppLog::Record& record) {
      if (record.message == "QIB timer expired") {
        moments().runsTimer.Note(1);  // the listener's own lock
      }
    });
    Rounds([] { moments().callback.Note(); }).MakeOne();
    ATimerOfOthers();
    TimerBetweenTwoStarts();
    WithoutTheLibrary();
    WithoutThreads();
    WithACacheDirectoryThatIsRefused();
    EXPECT_TRUE(nothingIsLeft());
    CAppLog::setListener({});
    ThroughTheDoor();
    EXPECT_TRUE(nothingIsLeft());
  }

 private:
  static void Select(long status, const std::function<void()>& afterFirstStart = {}) {
    Client client([] { moments().callback.Note(); });
    CHeadendSelection* const run = makeRun(client, AtReconnection);
    std::thread([&, task = CTask::current()] {
      const CTask::Scope scope(task);
      t_afterStart = afterFirstStart;
      run->run();
    }).join();
    EXPECT_EQ(client.Status(), status);
  }

  void ATimerOfOthers() {
    m_host.BringUp({});
    CExecutionContext* const context = CExecutionContext::acquireInstance(API_INSTANCE);
    STATUSCODE status = -1;
    CTimer timer(
        status, &context->GetTimerList(), [](void*, unsigned long) { moments().timer.Note(); },
        nullptr, 0);
    EXPECT_EQ(timer.StartTimer(1), 0);
    EXPECT_TRUE(eventually([] { return moments().timer.seen != 0; }));
    context->releaseInstance();
    m_host.TakeDown();
  }

  /// The second worker never starts; the first outlives the run.
  void TimerBetweenTwoStarts() {
    HeldGateway gateway;
    m_host.SetPreferences(Host::hasty("100"), {});
    m_host.BringUp({gateway.Address(), "127.0.0.1:9"});
    const int before = moments().callback.seen;
    Select(HEADENDSELECTION_ERROR_SELECTION_FAILURE, [before] {
      EXPECT_TRUE(eventually([before] { return moments().callback.seen > before; }));
    });
    gateway.Release();
    m_host.TakeDown();
  }

  void WithoutTheLibrary() {
    m_host.BringUp({"127.0.0.1:9"});
    Client client([] { moments().callback.Note(); });
    CHeadendSelection* const run = makeRun(client);
    m_host.TakeDown();
    executeRun(run);
    EXPECT_EQ(client.Status(), EXECUTIONCONTEXT_ERROR_NO_INSTANCE);
  }

  /// The reserve thread calls the client.
  void WithoutThreads() {
    m_host.BringUp({"127.0.0.1:9"});
    tests::refusesThreads = true;
    Select(HEADENDSELECTION_ERROR_SELECTION_FAILURE);
    tests::refusesThreads = false;
    m_host.TakeDown();
  }

  /// The cache logs a warning.
  void WithACacheDirectoryThatIsRefused() {
    const HeldGateway gateway(1000);
    std::filesystem::create_directory(m_host.CacheDirectory());
    std::filesystem::permissions(m_host.CacheDirectory(), std::filesystem::perms::all);
    m_host.BringUp({gateway.Address()});
    Select(HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
    m_host.TakeDown();
  }

  /// One selection that ends, one that is cancelled, and one that a stop interrupts.
  static void ThroughTheDoor() {
    HeldGateway silent;
    const auto note = [](const auto&) {
      moments().doorsCallback.Note();
      return true;
    };
    ahs::Library library({.headends = {silent.Address()},
                          .preferences = {{"ProxySettings", "none"}},
                          .onLog = note});
    const ahs::Request request{
        .reason = ahs::Reason::Reconnection, .onSocket = note, .onProgress = note};
    const ahs::Selection cancelled = library.select(request, note);
    const ahs::Selection ended = library.select(request, note);
    const ahs::Selection stopped = library.select(request, note);
    cancelled.cancel();
    silent.Release();
    EXPECT_TRUE(ended.wait());
    const ahs::Library last(std::move(library));
  }

  Host m_host;
};

/// The rows of the table, each with its locks in their order.
std::vector<Names> documentedOrder() {
  std::ifstream document(AHS_SOURCE_DIRECTORY "/docs/architecture.md");
  std::vector<Names> rows;
  std::string line;
  bool inTable = false;
  while (std::getline(document, line)) {
    inTable =
        line.starts_with("Order, first taken first:") || (inTable && !line.starts_with("A lock"));
    const std::size_t text = line.find(". ");
    if (!inTable || text == std::string::npos || line.find_first_not_of("0123456789") != text) {
      continue;
    }
    std::erase(line, '`');
    rows.emplace_back();
    std::istringstream parts(line.substr(line.find(". ") + 2));
    std::string part;
    // "a; b" for locks that are never nested, "a, then b" for locks that may be.
    while (std::getline(parts, part,
                        part.empty() && line.find(", then ") != std::string::npos ? ',' : ';')) {
      const std::size_t start = part.starts_with(" then ") ? 6 : part.find_first_not_of(' ');
      rows.back().push_back(part.substr(start));
    }
  }
  return rows;
}

/// Whether `inner` may be taken with `outer` held.
bool isAllowed(const std::vector<Names>& rows, const std::string& outer, const std::string& inner) {
  // In these rows no two locks may be held at once.
  constexpr std::ptrdiff_t RowsWithoutNesting = 4;
  const auto rowOf = [&rows](const std::string& name) {
    return std::ranges::find_if(
        rows, [&](const Names& row) { return std::ranges::count(row, name) != 0; });
  };
  const auto row = rowOf(outer);
  if (row == rows.end()) {
    return false;  // a leaf
  }
  if (row != rowOf(inner)) {
    return row < rowOf(inner);
  }
  return row - rows.begin() >= RowsWithoutNesting &&
         std::ranges::find(*row, outer) < std::ranges::find(*row, inner);
}

class LockOrder : public testing::Test {
 protected:
  static void SetUpTestSuite() { static const Selections selections; }
  const Classes m_classes;
};

TEST_F(LockOrder, EveryLockBelongsToAKnownClass) {
  std::set<std::string> seen;
  for (std::size_t i = 0; i < LockRecorder::BuiltLocks().size(); ++i) {
    seen.insert(m_classes.NameOf(static_cast<int>(i)));
  }
  for (const std::string& name : seen) {
    EXPECT_EQ(name.find("an unknown lock"), std::string::npos) << name;
  }
  for (const Names& row : documentedOrder()) {
    for (const std::string& name : row) {
      EXPECT_EQ(seen.count(name), 1U) << name << " was never built";
    }
  }
}

/// This excludes cycles and nesting within a class, because the table is an order.
TEST_F(LockOrder, EveryNestingIsAllowedByTheTableInTheDocumentation) {
  const std::vector<Names> rows = documentedOrder();
  ASSERT_GE(rows.size(), 4U);
  for (const auto& [outer, inner] : m_classes.Nestings()) {
    std::cout << outer << " > " << inner << '\n';
    EXPECT_TRUE(isAllowed(rows, outer, inner))
        << inner << " is taken while " << outer << " is held";
  }
}

TEST_F(LockOrder, TheNestingsThatTheCodeIsKnownToHaveWereSeen) {
  std::set<std::string> seen;
  for (const auto& [outer, inner] : m_classes.Nestings()) {
    seen.insert(inner);
  }
  for (const char* inner :
       {"m_headendCacheLock", "the cache's lock", "a thread's state lock", "a timer list's lock",
        "the preference manager's lock", "the reserve's lock", "the log's targets' lock"}) {
    EXPECT_TRUE(seen.contains(inner)) << inner << " was never taken with another lock held";
  }
}

TEST_F(LockOrder, NobodySleepsOnALockWithAnotherOneHeld) {
  for (const int index : LockRecorder::WaitedOnWithOthersHeld()) {
    ADD_FAILURE() << "a thread waited on " << m_classes.NameOf(index) << " with another lock held";
  }
}

TEST_F(LockOrder, WhoeverWaitsForTheDiskHoldsTheCachesWriterLockOrNone) {
  EXPECT_GT(moments().disk.count({}), 2U) << "no look-up was seen";
  EXPECT_GT(moments().disk.size() - moments().disk.count({}), 2U) << "no writing was seen";
  for (const std::vector<int>& held : moments().disk) {
    EXPECT_LE(held.size(), 1U);
    for (const int index : held) {
      EXPECT_EQ(m_classes.NameOf(index), "the cache's writer lock");
    }
  }
}

TEST_F(LockOrder, NoLockIsHeldWhileForeignCodeRuns) {
  const std::pair<const Moment&, int> rows[] = {{moments().callback, 5},
                                                {moments().doorsCallback, 10},
                                                {moments().probe, 10},
                                                {moments().timer, 0},
                                                {moments().runsTimer, 1}};
  for (const auto& [moment, fewest] : rows) {
    SCOPED_TRACE(moment.name);
    EXPECT_GT(moment.seen, fewest);
    EXPECT_EQ(moment.withLocks, 0);
  }
}

}  // namespace
}  // namespace tests
