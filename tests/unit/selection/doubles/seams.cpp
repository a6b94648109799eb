// The wrappers that the linker puts in front of real operations. Each calls the real one unless a
// hook decides otherwise. Their names are the mangled names of the operations.

#include "tests/unit/selection/doubles/doubles.h"

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
  ++doubles::seams().starts;
  if (const auto hook = doubles::seams().beforeStart.get()) {
    if (const std::optional<STATUSCODE> status = hook(*thread)) {
      return *status;
    }
  }
  const STATUSCODE status = __real__ZN7CThread5StartEv(thread);
  if (const auto hook = doubles::seams().afterStart.get()) {
    hook(*thread);
  }
  return status;
}

STATUSCODE __wrap__ZN7CThread17WaitForCompletionERjj(CThread* thread, unsigned int* exitCode,
                                                     unsigned int timeoutMs) {
  if (const auto hook = doubles::seams().beforeWait.get()) {
    hook(*thread, timeoutMs);
  }
  const STATUSCODE status = __real__ZN7CThread17WaitForCompletionERjj(thread, exitCode, timeoutMs);
  if (const auto hook = doubles::seams().afterWait.get()) {
    return hook(*thread, status, *exitCode, timeoutMs);
  }
  return status;
}

void __wrap__ZN7CThreaddlEPS_St19destroying_delete_t(CThread* thread,
                                                     std::destroying_delete_t tag) {
  if (const auto hook = doubles::seams().beforeDelete.get(); hook && thread != nullptr) {
    hook(*thread);
  }
  __real__ZN7CThreaddlEPS_St19destroying_delete_t(thread, tag);
}

STATUSCODE __wrap__ZNK11CCacheEntry14GetHeadendListERSt6vectorI11CHeadendRTTSaIS1_EE(
    const CCacheEntry* entry, std::vector<CHeadendRTT>* list) {
  if (const auto hook = doubles::seams().beforeReading.get()) {
    hook(*entry, doubles::Seams::Reading::List);
  }
  const STATUSCODE failure = doubles::seams().listStatus;
  if (failure != 0 && !doubles::seams().fillsList) {
    return failure;
  }
  const STATUSCODE status =
      __real__ZNK11CCacheEntry14GetHeadendListERSt6vectorI11CHeadendRTTSaIS1_EE(entry, list);
  return failure != 0 ? failure : status;
}

void __wrap__ZN11CCacheEntryC1ERKS_(CCacheEntry* entry, const CCacheEntry* other) {
  if (const auto hook = doubles::seams().beforeReading.get()) {
    hook(*other, doubles::Seams::Reading::Copy);
  }
  __real__ZN11CCacheEntryC1ERKS_(entry, other);
}

void __wrap__ZN11CManualLock4LockEv(CManualLock* lock) {
  __real__ZN11CManualLock4LockEv(lock);
  if (const auto hook = doubles::seams().onLock.get()) {
    hook(lock, true);
  }
}

void __wrap__ZN11CManualLock6UnlockEv(CManualLock* lock) {
  if (const auto hook = doubles::seams().onLock.get()) {
    hook(lock, false);
  }
  __real__ZN11CManualLock6UnlockEv(lock);
}

void __wrap__ZN11CManualLockC1Em(CManualLock* lock, unsigned long argument) {
  doubles::seams().lockArguments.add(argument);
  __real__ZN11CManualLockC1Em(lock, argument);
}

void __wrap__ZN7CThreadC2Em(CThread* thread, unsigned long argument) {
  doubles::seams().threadArguments.add(argument);
  __real__ZN7CThreadC2Em(thread, argument);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
