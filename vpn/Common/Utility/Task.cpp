// The task of each thread: a pointer to what a scope on the thread's own stack holds.

#include "vpn/Common/Utility/Task.h"

#include <utility>

namespace {

/// A plain pointer: it needs no memory to set up and none to take down.
thread_local const std::shared_ptr<CTask>* currentTask = nullptr;

}  // namespace

std::shared_ptr<CTask> CTask::current() noexcept {
  return currentTask != nullptr ? *currentTask : nullptr;
}

CTask::Scope::Scope(std::shared_ptr<CTask> task) noexcept
    : m_task(std::move(task)), m_former(currentTask) {
  currentTask = &m_task;
}

CTask::Scope::~Scope() { currentTask = m_former; }
