// Files and sockets fail, each in the ways of its kind. Log and cache are conveniences: whatever
// becomes of their files, the selection is the same. Of the network, what fails once costs a probe
// at most, and a worker has a second one.

#include <cerrno>
#include <cstring>
#include <ostream>
#include <string>

#include "tests/faults/FaultTest.h"

namespace tests {
namespace {

struct Way {
  const char* name;
  Sweep sweep;
};

std::string textOf(const Way& way) {
  const int error = way.sweep.fault.error;
  return std::string(way.name) + "_" +
         (error == Fault::ShortWrite ? "Short" : strerrorname_np(error));
}

std::ostream& operator<<(std::ostream& out, const Way& way) { return out << textOf(way); }

std::string nameOf(const testing::TestParamInfo<Way>& way) { return textOf(way.param); }

Sweep file(Call call, int error) {
  return {.fault = {.call = call, .error = error}, .leastHeadends = Host::HeadendCount};
}

Sweep socketCall(Call call, int error, Probing probing = Probing::Plain) {
  Sweep sweep = file(call, error);
  sweep.probing = probing;
  // libcurl's resolver wakes who waits for it through a pair of sockets; without it the look-up has
  // failed, which costs the headend that has a name.
  sweep.leastHeadends -= call == Call::Socket ? 1U : 0U;
  return sweep;
}

Sweep newDirectory(int error) {
  Sweep sweep = file(Call::MakeDirectory, error);
  sweep.hasCacheDirectory = false;
  return sweep;
}

}  // namespace

class SelectionWithoutFiles : public FaultTest, public testing::WithParamInterface<Way> {};

TEST_P(SelectionWithoutFiles, AnyOneCallThatFailsChangesNothing) { Run(GetParam().sweep); }

TEST_P(SelectionWithoutFiles, CallsThatFailFromAnyOneOnChangeNothing) {
  Sweep sweep = GetParam().sweep;
  sweep.fault.lasting = true;
  Run(sweep);
}

INSTANTIATE_TEST_SUITE_P(
    Ways, SelectionWithoutFiles,
    testing::Values(
        Way{"Open", file(Call::Open, EMFILE)}, Way{"Open", file(Call::Open, EACCES)},
        Way{"Open", file(Call::Open, ENOSPC)}, Way{"Read", file(Call::Read, EIO)},
        Way{"Write", file(Call::Write, ENOSPC)}, Way{"Write", file(Call::Write, EIO)},
        Way{"Write", file(Call::Write, Fault::ShortWrite)}, Way{"Flush", file(Call::Flush, ENOSPC)},
        Way{"Close", file(Call::Close, EIO)}, Way{"Rename", file(Call::Rename, EACCES)},
        Way{"Rename", file(Call::Rename, ENOSPC)}, Way{"MakeDirectory", newDirectory(EACCES)},
        Way{"MakeDirectory", newDirectory(ENOSPC)}, Way{"LookAt", file(Call::LookAt, EACCES)},
        Way{"ReadResolver", file(Call::ReadResolver, EMFILE)}),
    nameOf);

class SelectionWithoutSockets : public FaultTest, public testing::WithParamInterface<Way> {};

TEST_P(SelectionWithoutSockets, AnyOneCallThatFailsCostsAProbeAtMost) { Run(GetParam().sweep); }

TEST_P(SelectionWithoutSockets, FromWhicheverCallOnAllFailTheClientIsCalledOnce) {
  Sweep sweep = GetParam().sweep;
  sweep.fault.lasting = true;
  sweep.leastHeadends = 0;
  Run(sweep);
}

INSTANTIATE_TEST_SUITE_P(
    Ways, SelectionWithoutSockets,
    testing::Values(Way{"Socket", socketCall(Call::Socket, EMFILE)},
                    Way{"Socket", socketCall(Call::Socket, ENOBUFS)},
                    Way{"Connect", socketCall(Call::Connect, ENETUNREACH)},
                    Way{"Connect", socketCall(Call::Connect, EADDRNOTAVAIL)},
                    Way{"Control", socketCall(Call::Control, ENOMEM)},
                    Way{"SocketOption", socketCall(Call::SocketOption, ENOBUFS)},
                    Way{"SocketName", socketCall(Call::SocketName, ENOBUFS)},
                    Way{"Poll", socketCall(Call::Poll, ENOMEM)},
                    Way{"Send", socketCall(Call::Send, ECONNRESET)},
                    Way{"Send", socketCall(Call::Send, ENOBUFS)},
                    Way{"Receive", socketCall(Call::Receive, ECONNRESET)},
                    Way{"SecureSend", socketCall(Call::Send, ECONNRESET, Probing::Secure)},
                    Way{"SecureReceive", socketCall(Call::Receive, ECONNRESET, Probing::Secure)},
                    Way{"SecurePoll", socketCall(Call::Poll, ENOMEM, Probing::Secure)}),
    nameOf);

}  // namespace tests
