// Memory runs out below the C++ runtime, so that libcurl and OpenSSL meet it too.

#include <cerrno>

#include "tests/faults/FaultTest.h"

namespace tests {

class SelectionWithoutCMemory : public FaultTest {};

TEST_F(SelectionWithoutCMemory, AnyOneAllocationThatFailsEndsInOneCall) {
  Run({.fault = {.call = Call::AllocateInC, .error = ENOMEM}});
}

TEST_F(SelectionWithoutCMemory, AnyOneAllocationThatFailsInASecureSelectionEndsInOneCall) {
  Run({.fault = {.call = Call::AllocateInC, .error = ENOMEM}, .probing = Probing::Secure});
}

/// Named so that the test program runs it before it has selected itself.
class FirstSelectionDeathTest : public FaultTest {};

TEST_F(FirstSelectionDeathTest, AnyOneAllocationInCThatFailsEndsInOneCall) {
  RunFirst({.fault = {.call = Call::AllocateInC, .error = ENOMEM}});
}

TEST_F(FirstSelectionDeathTest, AnyOneAllocationInCThatFailsInASecureSelectionEndsInOneCall) {
  RunFirst({.fault = {.call = Call::AllocateInC, .error = ENOMEM}, .probing = Probing::Secure});
}

}  // namespace tests
