#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <type_traits>
#include <utility>

#include "tests/unit/common/counted.h"
#include "vpn/Common/Utility/ApiRunnable.h"
#include "vpn/Common/Utility/Thread.h"

/// A thread with a body of the test's.
class Worker : public CThread {
 public:
  /// @param body returns the exit code, or nothing for 0.
  template <class Body>
  explicit Worker(Body body, std::size_t stackSize = 0)
      : CThread(stackSize), m_body([body]() -> STATUSCODE {
          if constexpr (std::is_void_v<decltype(body())>) {
            body();
            return 0;
          } else {
            return body();
          }
        }) {}
  STATUSCODE Run() override { return m_body(); }
  using CThread::keepAlive;
  using CThread::useReserve;

  /// Waits for the end. @return the exit code.
  unsigned int finish() {
    unsigned int exitCode = 0;
    EXPECT_EQ(WaitForCompletion(exitCode, Infinite), THREAD_SUCCESS);
    return exitCode;
  }

 private:
  const std::function<STATUSCODE()> m_body;
  Counted m_counted;
};

template <class Body>
std::unique_ptr<Worker> started(Body body, std::size_t stackSize = 0) {
  auto worker = std::make_unique<Worker>(std::move(body), stackSize);
  EXPECT_EQ(worker->Start(), THREAD_SUCCESS);
  return worker;
}

inline bool everythingIsGone() {
  return tests::eventually([] { return CThread::RunningCount() == 0 && Counted::count() == 0; });
}

/// A task that tells where it was destroyed.
class Task : public ApiRunnable {
 public:
  using Place = std::atomic<std::thread::id>;

  Task() = default;
  explicit Task(Place& destroyedOn) : m_destroyedOn(&destroyedOn) {}
  Task(const Task&) = default;
  ~Task() override {
    if (m_destroyedOn != nullptr) {
      *m_destroyedOn = std::this_thread::get_id();
    }
  }
  void run() override { delete this; }

 private:
  Counted m_counted;
  Place* m_destroyedOn = nullptr;
};
