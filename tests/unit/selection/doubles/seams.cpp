// The wrappers that the linker puts in front of real operations. Each calls the real one unless a
// hook decides otherwise. Their names are the mangled names of the operations.

#include "tests/unit/selection/doubles/seams.h"

#include <new>
#include <utility>

#include "vpn/Api/AHS/CacheEntry.h"

namespace doubles {

void Seams::reset() {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_beforeStart = nullptr;
  m_afterStart = nullptr;
  m_beforeWait = nullptr;
  m_afterWait = nullptr;
  m_beforeDelete = nullptr;
  m_lockHook = nullptr;
  m_beforeReading = nullptr;
  m_headendListStatus = 0;
  m_fills = false;
  m_starts = 0;
  m_lockArguments.clear();
  m_threadArguments.clear();
}

void Seams::setBeforeStart(BeforeStart hook) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_beforeStart = std::move(hook);
}

void Seams::setAfterStart(AfterStart hook) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_afterStart = std::move(hook);
}

void Seams::setBeforeWait(BeforeWait hook) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_beforeWait = std::move(hook);
}

void Seams::setAfterWait(AfterWait hook) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_afterWait = std::move(hook);
}

void Seams::setBeforeDelete(BeforeDelete hook) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_beforeDelete = std::move(hook);
}

void Seams::setLockHook(AfterLock hook) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_lockHook = std::move(hook);
}

void Seams::setBeforeReading(BeforeReading hook) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_beforeReading = std::move(hook);
}

void Seams::failHeadendList(STATUSCODE status) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_headendListStatus = status;
  m_fills = false;
}

void Seams::failHeadendListAfterFilling(STATUSCODE status) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_headendListStatus = status;
  m_fills = true;
}

int Seams::starts() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_starts;
}

std::vector<unsigned long> Seams::lockArguments() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_lockArguments;
}

std::vector<unsigned long> Seams::threadArguments() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_threadArguments;
}

Seams::BeforeStart Seams::beforeStart() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_beforeStart;
}

Seams::AfterStart Seams::afterStart() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_afterStart;
}

Seams::BeforeWait Seams::beforeWait() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_beforeWait;
}

Seams::AfterWait Seams::afterWait() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_afterWait;
}

Seams::BeforeDelete Seams::beforeDelete() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_beforeDelete;
}

Seams::AfterLock Seams::lockHook() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_lockHook;
}

Seams::BeforeReading Seams::beforeReading() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_beforeReading;
}

STATUSCODE Seams::headendListStatus(bool& fills) const {
  const std::lock_guard<std::mutex> hold(m_lock);
  fills = m_fills;
  return m_headendListStatus;
}

void Seams::countStart() {
  const std::lock_guard<std::mutex> hold(m_lock);
  ++m_starts;
}

void Seams::addLockArgument(unsigned long argument) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_lockArguments.push_back(argument);
}

void Seams::addThreadArgument(unsigned long argument) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_threadArguments.push_back(argument);
}

Seams& seams() {
  static Seams& instance = *new Seams;  // late threads may still pass through it
  return instance;
}

}  // namespace doubles

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {

STATUSCODE __real__ZN7CThread5StartEv(CThread* thread);
STATUSCODE __real__ZN7CThread17WaitForCompletionERjj(CThread* thread, unsigned int* exitCode,
                                                     unsigned int timeoutMs);
void __real__ZN7CThreaddlEPS_St19destroying_delete_t(CThread* thread, std::destroying_delete_t tag);
STATUSCODE __real__ZNK11CCacheEntry14GetHeadendListERSt6vectorI11CHeadendRTTSaIS1_EE(
    const CCacheEntry* entry, std::vector<CHeadendRTT>* list);
void __real__ZN11CCacheEntryC1ERKS_(CCacheEntry* entry, const CCacheEntry* other);
void __real__ZN11CManualLock4LockEv(CManualLock* lock);
void __real__ZN11CManualLock6UnlockEv(CManualLock* lock);
void __real__ZN11CManualLockC1Em(CManualLock* lock, unsigned long argument);
void __real__ZN7CThreadC2Em(CThread* thread, unsigned long argument);

STATUSCODE __wrap__ZN7CThread5StartEv(CThread* thread) {
  doubles::seams().countStart();
  if (const auto hook = doubles::seams().beforeStart()) {
    if (const std::optional<STATUSCODE> status = hook(*thread)) {
      return *status;
    }
  }
  const STATUSCODE status = __real__ZN7CThread5StartEv(thread);
  if (const auto hook = doubles::seams().afterStart()) {
    hook(*thread);
  }
  return status;
}

STATUSCODE __wrap__ZN7CThread17WaitForCompletionERjj(CThread* thread, unsigned int* exitCode,
                                                     unsigned int timeoutMs) {
  if (const auto hook = doubles::seams().beforeWait()) {
    hook(*thread, timeoutMs);
  }
  const STATUSCODE status = __real__ZN7CThread17WaitForCompletionERjj(thread, exitCode, timeoutMs);
  if (const auto hook = doubles::seams().afterWait()) {
    return hook(*thread, status, *exitCode, timeoutMs);
  }
  return status;
}

void __wrap__ZN7CThreaddlEPS_St19destroying_delete_t(CThread* thread,
                                                     std::destroying_delete_t tag) {
  if (const auto hook = doubles::seams().beforeDelete(); hook && thread != nullptr) {
    hook(*thread);
  }
  __real__ZN7CThreaddlEPS_St19destroying_delete_t(thread, tag);
}

STATUSCODE __wrap__ZNK11CCacheEntry14GetHeadendListERSt6vectorI11CHeadendRTTSaIS1_EE(
    const CCacheEntry* entry, std::vector<CHeadendRTT>* list) {
  if (const auto hook = doubles::seams().beforeReading()) {
    hook(*entry, doubles::Seams::Reading::List);
  }
  bool fills = false;
  const STATUSCODE failure = doubles::seams().headendListStatus(fills);
  if (failure != 0 && !fills) {
    return failure;
  }
  const STATUSCODE status =
      __real__ZNK11CCacheEntry14GetHeadendListERSt6vectorI11CHeadendRTTSaIS1_EE(entry, list);
  return failure != 0 ? failure : status;
}

void __wrap__ZN11CCacheEntryC1ERKS_(CCacheEntry* entry, const CCacheEntry* other) {
  if (const auto hook = doubles::seams().beforeReading()) {
    hook(*other, doubles::Seams::Reading::Copy);
  }
  __real__ZN11CCacheEntryC1ERKS_(entry, other);
}

void __wrap__ZN11CManualLock4LockEv(CManualLock* lock) {
  __real__ZN11CManualLock4LockEv(lock);
  if (const auto hook = doubles::seams().lockHook()) {
    hook(lock, true);
  }
}

void __wrap__ZN11CManualLock6UnlockEv(CManualLock* lock) {
  if (const auto hook = doubles::seams().lockHook()) {
    hook(lock, false);
  }
  __real__ZN11CManualLock6UnlockEv(lock);
}

void __wrap__ZN11CManualLockC1Em(CManualLock* lock, unsigned long argument) {
  doubles::seams().addLockArgument(argument);
  __real__ZN11CManualLockC1Em(lock, argument);
}

void __wrap__ZN7CThreadC2Em(CThread* thread, unsigned long argument) {
  doubles::seams().addThreadArgument(argument);
  __real__ZN7CThreadC2Em(thread, argument);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
