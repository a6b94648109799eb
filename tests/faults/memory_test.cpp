// Memory runs out at every allocation in turn, for once or for the rest of the selection. A host
// that constructs a run is told by the status, or by the exception of its own `new`.

#include "tests/faults/FaultTest.h"

namespace tests {

class SelectionWithoutMemory : public FaultTest {};

TEST_F(SelectionWithoutMemory, AnyOneAllocationThatFailsEndsInOneCall) {
  Run({.fault = {.call = Call::Allocate}});
}

TEST_F(SelectionWithoutMemory, FromWhicheverAllocationOnAllFailTheClientIsCalledOnce) {
  Run({.fault = {.call = Call::Allocate, .lasting = true}});
}

/// Named so that the test program runs it before it has selected itself.
class FirstSelectionDeathTest : public FaultTest {};

TEST_F(FirstSelectionDeathTest, AnyOneAllocationThatFailsEndsInOneCall) {
  RunFirst({.fault = {.call = Call::Allocate}});
}

TEST_F(FirstSelectionDeathTest, FromWhicheverAllocationOnAllFailTheClientIsCalledOnce) {
  RunFirst({.fault = {.call = Call::Allocate, .lasting = true}});
}

TEST_F(FirstSelectionDeathTest, AnyOneAllocationThatFailsInASecureSelectionEndsInOneCall) {
  RunFirst({.fault = {.call = Call::Allocate}, .probing = Probing::Secure});
}

TEST_F(FirstSelectionDeathTest, FromWhicheverAllocationOnAllFailASecureSelectionCallsOnce) {
  RunFirst({.fault = {.call = Call::Allocate, .lasting = true}, .probing = Probing::Secure});
}

}  // namespace tests
