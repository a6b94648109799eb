// One round: runs are constructed, run on threads of their own, and forgotten, as a client does.
// Afterwards nothing may be left of them but what their clients were told.

#include "tests/stress/round.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "tests/stress/journal_check.h"
#include "tests/stress/stage.h"
#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/ProxyIfc.h"
#include "vpn/Common/Utility/Thread.h"

namespace stress {
namespace {

/// A provider that tells the journal when it is deleted.
class Provider : public ProxyIfc {
 public:
  explicit Provider(Stage& stage) : m_stage(stage) {}
  ~Provider() override {
    m_stage.journal.add(EventKind::ProviderDeleted).role = self().role;
    m_stage.reach(DestructorEntered);
    m_stage.pass(Place::ProviderDeleted);
  }

  UnprotectedCredential getProxyUser() override { return UnprotectedCredential("user"); }
  UnprotectedCredential getProxyPswd() override { return UnprotectedCredential("secret"); }
  std::string getProxyHost() override { return "proxy"; }
  ProxyType getProxyType() override { return BasicProxy; }

 private:
  Stage& m_stage;
};

void tellArrival(void* flag, unsigned long) {
  enter(nullptr, Role::Timer, 0);
  static_cast<std::atomic<bool>*>(flag)->store(true, std::memory_order_release);
}

CHeadendSelection* construct(Stage& stage, std::string& problem) {
  const Scenario& run = stage.scenario;
  const std::string last = run.last >= 0 ? run.key(static_cast<unsigned int>(run.last)) : "";
  enter(&stage, Role::Main, 0);
  long status = -1;
  auto* const selection = new CHeadendSelection(&stage, last, run.reason, status);
  if (status != 0) {
    problem = "construction gave " + std::to_string(status);
  }
  if (run.hasProvider) {
    selection->SetProxy(new Provider(stage));
  }
  stage.watch(*selection);
  enter(nullptr, Role::Main, 0);
  return selection;
}

void runOn(Stage& stage, CHeadendSelection* selection) {
  enter(&stage, Role::Run, 0);
  selection->run();
  stage.journal.add(EventKind::RunReturned).role = Role::Run;
  stage.reach(RunReturned);
}

/// Waits until nothing of the round runs any more.
void settle(Host& host) {
  host.settleTimerThread();  // it may still be creating a thread
  while (census().threads.load(std::memory_order_acquire) != 0) {
    std::this_thread::yield();
  }
}

/// What is left of objects and acquisitions when no thread of a run is left.
std::string findLeft(unsigned int threadsBefore, long threadObjectsBefore) {
  const Census& all = census();
  const std::pair<const char*, long> left[] = {
      {"running threads", long{CThread::RunningCount()} - long{threadsBefore}},
      {"thread objects", all.threadObjects.left() - threadObjectsBefore},
      {"runs", all.runnables.left()},
      {"context acquisitions", all.contexts.left()},
      {"cache acquisitions", all.caches.left()},
      {"lines without a run", all.strayLines.load()},
  };
  for (const auto& [name, count] : left) {
    if (count != 0) {
      return std::to_string(count) + " " + name + " left\n";
    }
  }
  return {};
}

std::string findProblemIn(const Stage& stage) {
  const bool isLeft = stage.preferences.acquired != stage.preferences.released;
  return findProblem(stage) + (isLeft ? "an acquisition of the preferences is left\n" : "");
}

}  // namespace

Host::Host() : m_pContext(nullptr) {
  if (CExecutionContext::createInstance(API_INSTANCE) == EXECUTIONCONTEXT_SUCCESS) {
    m_pContext = CExecutionContext::acquireInstance(API_INSTANCE);
    census().contexts.go();  // this one is not a run's
  }
  if (m_pContext == nullptr) {
    throw std::runtime_error("no execution context");
  }
}

Host::~Host() {
  m_pContext->releaseInstance();
  m_pContext->releaseInstance();
}

void Host::settleTimerThread() {
  std::atomic<bool> isHere{false};
  STATUSCODE status = 0;
  CTimer timer(status, &m_pContext->GetTimerList(), tellArrival, &isHere, 0);
  timer.StartTimer(0);
  while (!isHere.load(std::memory_order_acquire)) {
    std::this_thread::yield();
  }
}

std::string playRound(Host& host, std::uint64_t seed, unsigned long round,
                      const std::function<void(const Stage&)>& note) {
  const unsigned int members = membersOf(seed, round);
  const unsigned int threadsBefore = CThread::RunningCount();
  const long threadObjectsBefore = census().threadObjects.left();
  std::string problem;
  std::vector<std::unique_ptr<Stage>> all;
  std::vector<CHeadendSelection*> selections;
  for (unsigned int member = 0; member < members; ++member) {
    all.push_back(std::make_unique<Stage>(Scenario::make(seed, round, member)));
    selections.push_back(construct(*all.back(), problem));
    stages().set(member, all.back().get());
  }
  std::vector<std::thread> runThreads;
  for (unsigned int member = 0; member < members; ++member) {
    runThreads.emplace_back(
        [&stage = *all[member], selection = selections[member]] { runOn(stage, selection); });
  }
  for (std::thread& thread : runThreads) {
    thread.join();
  }
  settle(host);

  for (unsigned int member = 0; member < members; ++member) {
    stages().set(member, nullptr);
    const Stage& stage = *all[member];
    note(stage);
    problem += findProblemIn(stage);
  }
  problem += findLeft(threadsBefore, threadObjectsBefore);
  if (!problem.empty()) {
    for (const std::unique_ptr<Stage>& stage : all) {
      problem += "\n" + stage->scenario.toString() + "\n" + stage->journal.toString();
    }
  }
  return problem;
}

}  // namespace stress
