// The counted life of a task: who may still reach it, and when it is destroyed.

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/Gate.h"
#include "tests/unit/common/give_up.h"
#include "tests/unit/common/worker.h"
#include "vpn/Common/Utility/ApiRunnable.h"

using tests::Gate;

namespace {

using tests::eventually;

TEST(ApiRunnable, ATaskThatNobodyElseHoldsIsDestroyedOnTheSpotAlsoByItself) {
  Task::Place destroyedOn;
  delete new Task(destroyedOn);
  EXPECT_EQ(destroyedOn.load(), std::this_thread::get_id());
  (new Task)->run();
  giveUp(nullptr);
  EXPECT_EQ(Counted::count(), 0);
}

TEST(ApiRunnable, ADeletedTaskLivesAndCanBeEnteredUntilItsLastHolderLeaves) {
  auto* const task = new Task;
  task->enter();
  task->enter();
  giveUp(task);
  task->leave();
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

class TaskThatWaitsInItsDestructor : public Task {
 public:
  TaskThatWaitsInItsDestructor(std::shared_ptr<Gate> gate, Place& destroyedOn)
      : Task(destroyedOn), m_gate(std::move(gate)) {}
  ~TaskThatWaitsInItsDestructor() override { m_gate->pass(); }

 private:
  const std::shared_ptr<Gate> m_gate;
};

TEST(ApiRunnable, LeavingWithoutWaitingDestroysTheTaskOnAThreadOfItsOwn) {
  const auto gate = std::make_shared<Gate>();
  Task::Place destroyedOn;
  auto* const task = new TaskThatWaitsInItsDestructor(gate, destroyedOn);
  task->enter();
  giveUp(task);
  task->leaveWithoutWaiting();
  EXPECT_EQ(Counted::count(), 1);
  gate->open();
  EXPECT_TRUE(eventually([] { return Counted::count() == 0; }));
  EXPECT_NE(destroyedOn.load(), std::thread::id());
  EXPECT_NE(destroyedOn.load(), std::this_thread::get_id());
}

TEST(ApiRunnable, DeleteAndWaitReturnsWhenTheLastHolderHasDestroyedTheTask) {
  (new Task)->deleteAndWait();
  EXPECT_EQ(Counted::count(), 0);

  const auto gate = std::make_shared<Gate>();
  Task::Place destroyedOn;
  auto* const task = new TaskThatWaitsInItsDestructor(gate, destroyedOn);
  task->enter();
  std::jthread owner([task] {
    task->deleteAndWait();
    EXPECT_EQ(Counted::count(), 0);
  });
  task->leaveWithoutWaiting();
  gate->open();
}

TEST(ApiRunnable, LeavingWithoutWaitingKeepsATaskThatOthersHold) {
  auto* const task = new Task;
  task->enter();
  task->leaveWithoutWaiting();
  EXPECT_EQ(Counted::count(), 1);
  giveUp(task);
  EXPECT_EQ(Counted::count(), 0);
}

TEST(ApiRunnable, ACopyIsHeldByItsOwnCreatorAlone) {
  auto* const original = new Task;
  original->enter();
  auto* const copy = new Task(*original);
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
class TaskWithAnotherBase : public OtherInterface, public Task {
 public:
  using ApiRunnable::operator new;
  using ApiRunnable::operator delete;
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

class TaskThatCannotBeBuilt : public Task {
 public:
  TaskThatCannotBeBuilt() { throw std::runtime_error("cannot be built"); }
};

TEST(ApiRunnable, AConstructorThatThrowsFreesTheMemoryAndPassesItsExceptionOn) {
  EXPECT_THROW(new TaskThatCannotBeBuilt, std::runtime_error);
  EXPECT_EQ(Counted::count(), 0);
}

TEST(ApiRunnable, OfManyHoldersExactlyOneDestroysTheTask) {
  for (int round = 0; round < 300; ++round) {
    auto* const task = new Task;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
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
    threads.clear();  // waits for them
    ASSERT_TRUE(eventually([] { return Counted::count() == 0; }));
  }
}

}  // namespace
