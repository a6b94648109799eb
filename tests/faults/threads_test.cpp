// The system gives no thread: neither for a worker nor for the delivery, nor to libcurl's resolver.

#include <cerrno>

#include "tests/faults/FaultTest.h"

namespace tests {

class SelectionWithoutThreads : public FaultTest {};

TEST_F(SelectionWithoutThreads, AnyOneThreadThatCannotStartCostsNoMoreThanItsHeadend) {
  Run({.fault = {.call = Call::CreateThread, .error = EAGAIN}, .leastHeadends = 2});
}

TEST_F(SelectionWithoutThreads, AnyOneThreadThatCannotStartCostsASecureSelectionNoMoreThanThat) {
  Run({.fault = {.call = Call::CreateThread, .error = EAGAIN},
       .probing = Probing::Secure,
       .leastHeadends = 2});
}

TEST_F(SelectionWithoutThreads, FromWhicheverThreadOnThereAreNoneTheClientIsCalledOnce) {
  Run({.fault = {.call = Call::CreateThread, .lasting = true, .error = EAGAIN}});
}

}  // namespace tests
