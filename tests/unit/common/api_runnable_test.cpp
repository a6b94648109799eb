// The counted life of a task: who may still reach it, and when it goes.

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/unit/common/counted.h"
#include "tests/unit/common/gate.h"
#include "tests/unit/common/give_up.h"
#include "vpn/Common/Utility/ApiRunnable.h"

namespace {

class Task : public ApiRunnable {
 public:
  Task() = default;
  explicit Task(std::thread::id& destroyedOn) : m_pDestroyedOn(&destroyedOn) {}
  ~Task() override {
    if (m_pDestroyedOn != nullptr) {
      *m_pDestroyedOn = std::this_thread::get_id();
    }
  }
  void run() override { delete this; }

 private:
  Counted m_counted;
  std::thread::id* m_pDestroyedOn = nullptr;
};

TEST(ApiRunnable, DeletingATaskThatNobodyElseHoldsDestroysItOnTheSpot) {
  std::thread::id destroyedOn;
  auto* const task = new Task(destroyedOn);
  ASSERT_EQ(Counted::count(), 1);
  delete task;
  EXPECT_EQ(Counted::count(), 0);
  EXPECT_EQ(destroyedOn, std::this_thread::get_id());
}

TEST(ApiRunnable, ATaskMayDeleteItselfInRun) {
  (new Task)->run();
  EXPECT_EQ(Counted::count(), 0);
}

TEST(ApiRunnable, DeletingANullPointerDoesNothing) {
  giveUp(nullptr);
  EXPECT_EQ(Counted::count(), 0);
}

TEST(ApiRunnable, ADeletedTaskLivesUntilItsLastHolderLeaves) {
  auto* const task = new Task;
  task->enter();
  task->enter();
  giveUp(task);
  EXPECT_EQ(Counted::count(), 1);
  task->leave();
  EXPECT_EQ(Counted::count(), 1);
  task->leave();
  EXPECT_EQ(Counted::count(), 0);
}

TEST(ApiRunnable, AHeldTaskCanBeEnteredEvenAfterItWasDeleted) {
  auto* const task = new Task;
  task->enter();
  giveUp(task);
  ASSERT_TRUE(task->enterIfHeld());
  task->leave();
  EXPECT_EQ(Counted::count(), 1);
  task->leave();
  EXPECT_EQ(Counted::count(), 0);
}

class TaskThatIsAskedWhileItGoes : public ApiRunnable {
 public:
  explicit TaskThatIsAskedWhileItGoes(bool& couldBeEntered) : m_couldBeEntered(couldBeEntered) {}
  ~TaskThatIsAskedWhileItGoes() override { m_couldBeEntered = enterIfHeld(); }
  void run() override {}

 private:
  bool& m_couldBeEntered;
};

TEST(ApiRunnable, ATaskThatIsBeingDestroyedCannotBeEntered) {
  bool couldBeEntered = true;
  delete new TaskThatIsAskedWhileItGoes(couldBeEntered);
  EXPECT_FALSE(couldBeEntered);
}

TEST(ApiRunnable, LeavingWithoutWaitingDestroysTheTaskOnAThreadOfItsOwn) {
  std::thread::id destroyedOn;
  auto* const task = new Task(destroyedOn);
  task->enter();
  giveUp(task);
  task->leaveWithoutWaiting();
  ASSERT_TRUE(eventually([] { return Counted::count() == 0; }));
  EXPECT_NE(destroyedOn, std::thread::id());
  EXPECT_NE(destroyedOn, std::this_thread::get_id());
}

class TaskThatWaitsInItsDestructor : public ApiRunnable {
 public:
  explicit TaskThatWaitsInItsDestructor(std::shared_ptr<Gate> gate) : m_gate(std::move(gate)) {}
  ~TaskThatWaitsInItsDestructor() override { m_gate->pass(); }
  void run() override {}

 private:
  Counted m_counted;
  std::shared_ptr<Gate> m_gate;
};

TEST(ApiRunnable, LeavingWithoutWaitingIsNotHeldUpByADestructor) {
  const auto gate = std::make_shared<Gate>();
  auto* const task = new TaskThatWaitsInItsDestructor(gate);
  task->enter();
  giveUp(task);
  task->leaveWithoutWaiting();
  EXPECT_EQ(Counted::count(), 1);
  gate->open();
  EXPECT_TRUE(eventually([] { return Counted::count() == 0; }));
}

TEST(ApiRunnable, LeavingWithoutWaitingKeepsATaskThatOthersHold) {
  auto* const task = new Task;
  task->enter();
  task->leaveWithoutWaiting();
  EXPECT_EQ(Counted::count(), 1);
  giveUp(task);
  EXPECT_EQ(Counted::count(), 0);
}

class CopyableTask : public Task {
 public:
  CopyableTask() = default;
  CopyableTask(const CopyableTask&) = default;
};

TEST(ApiRunnable, ACopyIsHeldByItsOwnCreatorAlone) {
  auto* const original = new CopyableTask;
  original->enter();
  auto* const copy = new CopyableTask(*original);
  ASSERT_EQ(Counted::count(), 2);
  giveUp(copy);
  EXPECT_EQ(Counted::count(), 1);
  giveUp(original);
  EXPECT_EQ(Counted::count(), 1);
  original->leave();
  EXPECT_EQ(Counted::count(), 0);
}

// The compiler takes a pointer to a base inside an object for one that cannot be deleted.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wfree-nonheap-object"

// A base before ApiRunnable: the memory does not start where ApiRunnable does.
class OtherInterface {
 public:
  virtual ~OtherInterface() = default;
  std::array<char, 40> m_weight = {};
};
class TaskWithAnotherBase : public OtherInterface, public ApiRunnable {
 public:
  using ApiRunnable::operator new;
  using ApiRunnable::operator delete;
  void run() override {}

 private:
  Counted m_counted;
};

TEST(ApiRunnable, MemoryIsFreedWhereverInTheObjectTheTaskStands) {
  auto* const held = new TaskWithAnotherBase;
  ASSERT_NE(static_cast<void*>(held), static_cast<void*>(static_cast<ApiRunnable*>(held)));
  held->enter();
  giveUp(held);
  EXPECT_EQ(Counted::count(), 1);
  held->leave();
  EXPECT_EQ(Counted::count(), 0);
  giveUp(new TaskWithAnotherBase);
  EXPECT_EQ(Counted::count(), 0);
}

#pragma GCC diagnostic pop

class TaskThatCannotBeBuilt : public ApiRunnable {
 public:
  TaskThatCannotBeBuilt() { throw std::runtime_error("cannot be built"); }
  void run() override {}

 private:
  Counted m_counted;
};

TEST(ApiRunnable, AConstructorThatThrowsFreesTheMemoryAndPassesItsExceptionOn) {
  EXPECT_THROW(new TaskThatCannotBeBuilt, std::runtime_error);
  EXPECT_EQ(Counted::count(), 0);
}

TEST(ApiRunnable, OfManyHoldersExactlyOneDestroysTheTask) {
  for (int round = 0; round < 300; ++round) {
    auto* const task = new Task;
    constexpr int holders = 4;
    std::vector<std::thread> threads;
    for (int i = 0; i < holders; ++i) {
      task->enter();
      threads.emplace_back([task, i] {
        if (i % 2 == 0) {
          task->leave();
        } else {
          task->leaveWithoutWaiting();
        }
      });
    }
    giveUp(task);
    for (std::thread& thread : threads) {
      thread.join();
    }
    ASSERT_TRUE(eventually([] { return Counted::count() == 0; }));
  }
}

}  // namespace
