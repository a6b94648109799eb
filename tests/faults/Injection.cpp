// The plan of what fails. It is asked from within malloc and from every thread there is, so it is
// made of atomics and allocates nothing. It is changed only while nothing under test runs.

#include "tests/faults/Injection.h"

#include <atomic>
#include <cerrno>

namespace tests {
namespace {

constinit std::atomic<Call> armedCall{Call::None};
constinit std::atomic<unsigned long> firstFailing{0};
constinit std::atomic<bool> isLasting{false};
constinit std::atomic<int> armedError{0};
constinit std::atomic<unsigned long> callCount{0};
constinit std::atomic<unsigned long> failureCount{0};

constinit thread_local bool isExempt = false;

}  // namespace

void arm(const Fault& fault) noexcept {
  firstFailing = fault.first;
  isLasting = fault.lasting;
  armedError = fault.error;
  callCount = 0;
  failureCount = 0;
  armedCall = fault.call;
}

Seen disarm() noexcept {
  armedCall = Call::None;
  return {callCount, failureCount};
}

bool strikes(Call call) noexcept {
  if (isExempt || armedCall.load(std::memory_order_relaxed) != call) {
    return false;
  }
  const unsigned long number = callCount.fetch_add(1, std::memory_order_relaxed) + 1;
  const unsigned long first = firstFailing.load(std::memory_order_relaxed);
  const bool fails = first != 0 && (number == first || (number > first && isLasting));
  if (fails) {
    failureCount.fetch_add(1, std::memory_order_relaxed);
    errno = strikingError();
  }
  return fails;
}

int strikingError() noexcept { return armedError.load(std::memory_order_relaxed); }

Exemption::Exemption(bool exempt) noexcept : m_before(isExempt) { isExempt = exempt; }

Exemption::~Exemption() { isExempt = m_before; }

}  // namespace tests
