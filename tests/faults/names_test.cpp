// The resolver fails in each of its ways. The headend that has a name may be lost; those that are
// known by their addresses are not.

#include <netdb.h>

#include "tests/faults/FaultTest.h"

namespace tests {

class SelectionWithoutNames : public FaultTest, public testing::WithParamInterface<int> {};

TEST_P(SelectionWithoutNames, AnyOneLookUpThatFailsCostsNoMoreThanItsHeadend) {
  Run({.fault = {.call = Call::LookUpName, .error = GetParam()}, .leastHeadends = 2});
}

TEST_P(SelectionWithoutNames, LookUpsThatFailFromAnyOneOnCostNoMoreThanTheirHeadend) {
  Run({.fault = {.call = Call::LookUpName, .lasting = true, .error = GetParam()},
       .leastHeadends = 2});
}

INSTANTIATE_TEST_SUITE_P(Ways, SelectionWithoutNames,
                         testing::Values(EAI_AGAIN, EAI_NONAME, EAI_MEMORY, EAI_SYSTEM, EAI_FAIL),
                         [](const testing::TestParamInfo<int>& way) -> std::string {
                           switch (way.param) {
                             case EAI_AGAIN:
                               return "TryAgain";
                             case EAI_NONAME:
                               return "NoSuchName";
                             case EAI_MEMORY:
                               return "NoMemory";
                             case EAI_SYSTEM:
                               return "NoDescriptor";
                             default:
                               return "ServerFailed";
                           }
                         });

}  // namespace tests
