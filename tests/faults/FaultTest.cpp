// The promise, checked once for every fault. Each disturbed selection has a client library of its
// own, so that it finds the log file open and leaves nothing to hide behind.

#include "tests/faults/FaultTest.h"

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/Common/Utility/TimerList.h"

extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace tests {
namespace {

/// Threads race, so that runs differ a little in how often they call what fails.
constexpr int CountingRuns = 3;
constexpr unsigned long CallsBeyond = 3;

/// Calls that fail in turn when not all are asked for: in one process, and each in a child's.
constexpr unsigned long ManyRuns = 500;
constexpr unsigned long ManyFirstRuns = 100;

/// A sweep goes on after a failure, to show which faults are alike, but not for ever.
constexpr int MostFailures = 5;

/// Statuses with which a selection may end that something disturbed.
constexpr STATUSCODE Endings[] = {
    HEADENDSELECTION_ERROR_ADDED_TO_CACHE,
    HEADENDSELECTION_ERROR_SELECTION_FAILURE,
    HEADENDSELECTION_ERROR_MEMALLOC_FAILED,
};

std::string askedFor() {
  const char* const text = std::getenv("AHS_FAULTS");
  return text != nullptr ? text : "";
}

bool areSanitized() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#else
  return false;
#endif
}

/// The numbers of the calls that fail in turn.
std::vector<unsigned long> numbers(unsigned long calls, unsigned long most) {
  const std::string asked = askedFor();
  if (!asked.empty() && asked != "all") {
    return {std::stoul(asked)};
  }
  const unsigned long step = asked == "all" ? 1 : std::max(1UL, (calls + most - 1) / most);
  std::vector<unsigned long> result;
  for (unsigned long number = 1; number <= calls + CallsBeyond; number += step) {
    result.push_back(number);
  }
  return result;
}

int failureCount() {
  return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

}  // namespace

std::unique_ptr<DisturbedHost> AFault::sm_host;

void AFault::SetUpTestSuite() {
  startFirstThread();
  sm_host = std::make_unique<DisturbedHost>();
}

void AFault::Run() {
  const Exemption own;
  CountCalls();
  unsigned long calls = 0;
  for (int run = 0; run < CountingRuns; ++run) {
    calls = std::max(calls, CountCalls());
  }
  DisturbAll(calls, ManyRuns, [this](const Fault& fault) { return Disturb(fault); });
}

void AFault::RunFirst() {
  const Exemption own;
  const Seen seen = InChild([this] { return Seen{CountCalls(), 0}; });
  DisturbAll(seen.calls, ManyFirstRuns,
             [this](const Fault& fault) { return InChild([&] { return Examine(fault); }); });
}

void AFault::DisturbAll(unsigned long calls, unsigned long most,
                        const std::function<Seen(const Fault&)>& disturb) {
  ASSERT_GT(calls, 0U) << "a selection makes no such call";
  const std::vector<unsigned long> faults = numbers(calls, areSanitized() ? most / 3 : most);
  unsigned long strikes = 0;
  int failures = 0;
  for (const unsigned long number : faults) {
    Fault fault = GetParam().fault;
    fault.first = number;
    SCOPED_TRACE("at call " + std::to_string(number) + " of " + std::to_string(calls) +
                 (fault.lasting ? " and from there on" : ""));
    const int failuresBefore = failureCount();
    strikes += disturb(fault).failed != 0 ? 1 : 0;
    failures += failureCount() != failuresBefore ? 1 : 0;
    if (failures == MostFailures) {
      return;
    }
  }
  std::cout << calls << " calls; " << faults.size() << " selections, " << strikes
            << " of them disturbed" << std::endl;
  EXPECT_GT(strikes, 0U);
}

void AFault::Prepare() {
  sm_host->Start();
  sm_host->ResetCache();
  if (!GetParam().hasCacheDirectory) {
    sm_host->RemoveCacheDirectory();
  }
}

unsigned long AFault::CountCalls() {
  Prepare();
  Fault none;
  none.call = GetParam().fault.call;
  const unsigned long calls = sm_host->Select(none, GetParam().probing).seen.calls;
  sm_host->Stop();
  return calls;
}

Seen AFault::Disturb(const Fault& fault) {
  const long blocks = liveBlocks();
  const unsigned int descriptors = openDescriptors();
  const Seen seen = Examine(fault);
  if (fault.call == Call::AllocateInC) {
    mendStandardInput();
  }
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_EQ(liveBlocks(), blocks);
  return seen;
}

/// Lets a child select. Its failures become this process's.
Seen AFault::InChild(const std::function<Seen()>& selection) {
  constexpr int Failed = 1;
  auto* const seen = static_cast<Seen*>(
      mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const int failuresBefore = failureCount();
  const pid_t child = fork();
  if (child == 0) {
    startFirstThread();
    wakeResolver();
    *seen = selection();
    if (__lsan_do_recoverable_leak_check != nullptr) {
      EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
    }
    std::cout.flush();
    std::fflush(nullptr);
    _exit(failureCount() != failuresBefore ? Failed
                                           : 0);  // the gateways and the files are the parent's
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << (WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "see above");
  const Seen result = *seen;
  munmap(seen, sizeof(Seen));
  return result;
}

Seen AFault::Examine(const Fault& fault) {
  const int failuresBefore = failureCount();
  Prepare();
  const unsigned int descriptors = openDescriptors();
  const unsigned int threads = CThread::RunningCount();
  const unsigned int tasks = threadCount();
  const Outcome outcome = sm_host->Select(fault, GetParam().probing);
  CheckDisturbed(outcome);
  EXPECT_LE(CThread::RunningCount(), threads);
  EXPECT_LE(threadCount(), tasks);
  EXPECT_LE(openDescriptors(), descriptors);
  if (GetParam().hasCacheDirectory) {
    EXPECT_EQ(sm_host->FindCacheFlaw(), "");
  }
  CheckUndisturbed();
  sm_host->Stop();
  if (failureCount() != failuresBefore) {
    std::cout << sm_host->Log() << std::flush;
  }
  return outcome.seen;
}

void AFault::CheckDisturbed(const Outcome& outcome) {
  if (!outcome.isConstructed) {
    const Call call = GetParam().fault.call;
    EXPECT_TRUE(call == Call::Allocate || call == Call::AllocateInC);
    EXPECT_TRUE(outcome.threw || outcome.construction == HEADENDSELECTION_ERROR_MEMALLOC_FAILED)
        << std::hex << outcome.construction;
    EXPECT_EQ(outcome.calls, 0U);
    return;
  }
  EXPECT_EQ(outcome.calls, 1U);
  EXPECT_TRUE(outcome.areKnown);
  EXPECT_GE(outcome.headends, std::max(1U, GetParam().leastHeadends));
  EXPECT_THAT(Endings, testing::Contains(outcome.status)) << std::hex << outcome.status;
  if (GetParam().leastHeadends > 1) {
    EXPECT_EQ(outcome.status, HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  }
  if (outcome.status != HEADENDSELECTION_ERROR_ADDED_TO_CACHE) {
    EXPECT_EQ(outcome.headends, 1U);
    EXPECT_TRUE(outcome.isLastFirst);
  }
}

void AFault::CheckUndisturbed() {
  SCOPED_TRACE("the selection after it");
  sm_host->ResetCache();
  const Outcome outcome = sm_host->Select(Fault(), GetParam().probing);
  EXPECT_TRUE(outcome.isConstructed);
  EXPECT_EQ(outcome.calls, 1U);
  if (GetParam().probing == Probing::Secure && !isTlsUsable()) {
    EXPECT_EQ(outcome.status, HEADENDSELECTION_ERROR_SELECTION_FAILURE);
    return;
  }
  EXPECT_EQ(outcome.status, HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_EQ(outcome.headends, DisturbedHost::HeadendCount);
  EXPECT_TRUE(outcome.areKnown);
  EXPECT_TRUE(sm_host->IsStored());
  EXPECT_EQ(sm_host->FindCacheFlaw(), "");
}

TEST_P(AFault, EndsInOneCall) { Run(); }
TEST_P(FirstSelectionDeathTest, EndsInOneCall) { RunFirst(); }

}  // namespace tests
