// What may fail in a selection, and what that may cost it. Log and cache are conveniences: whatever
// becomes of their files, the selection is the same. Of the network, what fails once costs a probe
// at most, and a worker has a second one; a name that is not found costs its headend.

#include <netdb.h>

#include <cerrno>
#include <cstring>

#include "tests/faults/FaultTest.h"

namespace tests {
namespace {

constexpr unsigned int All = DisturbedHost::HeadendCount;
constexpr unsigned int AllButOne = DisturbedHost::HeadendCount - 1;

Sweep once(const std::string& name, Call call, int error = 0, unsigned int least = 0,
           Probing probing = Probing::Plain) {
  return {.name = name + "_Once",
          .fault = {.call = call, .error = error},
          .leastHeadends = least,
          .probing = probing};
}

Sweep lasting(const std::string& name, Call call, int error = 0, unsigned int least = 0,
              Probing probing = Probing::Plain) {
  Sweep sweep = once(name, call, error, least, probing);
  sweep.name = name + "_FromThereOn";
  sweep.fault.lasting = true;
  return sweep;
}

/// Each of these errors, for once and lastingly.
struct Kind {
  std::string name;
  Call call = Call::None;
  std::vector<int> errors;
  unsigned int least = All;
  Probing probing = Probing::Plain;
  bool hasCacheDirectory = true;
};

std::string nameOf(Call call, int error) {
  if (call == Call::LookUpName) {
    return "Failure" + std::to_string(-error);
  }
  return error == Fault::ShortWrite ? "Short" : strerrorname_np(error);
}

std::vector<Sweep> sweepsOf(const std::vector<Kind>& kinds, bool doLastingOnesCostHeadends) {
  std::vector<Sweep> sweeps;
  for (const Kind& kind : kinds) {
    for (const int error : kind.errors) {
      const std::string name = kind.name + "_" + nameOf(kind.call, error);
      sweeps.push_back(once(name, kind.call, error, kind.least, kind.probing));
      sweeps.push_back(lasting(name, kind.call, error, doLastingOnesCostHeadends ? 0 : kind.least,
                               kind.probing));
      for (std::size_t i = sweeps.size() - 2; i < sweeps.size(); ++i) {
        sweeps[i].hasCacheDirectory = kind.hasCacheDirectory;
      }
    }
  }
  return sweeps;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    SelectionWithoutThreads, AFault,
    testing::Values(once("CostsAHeadend", Call::CreateThread, EAGAIN, AllButOne),
                    once("Secure", Call::CreateThread, EAGAIN, AllButOne, Probing::Secure),
                    lasting("CostsWhatItMust", Call::CreateThread, EAGAIN)),
    nameOfSweep);

INSTANTIATE_TEST_SUITE_P(SelectionWithoutMemory, AFault,
                         testing::Values(once("Plain", Call::Allocate),
                                         lasting("Plain", Call::Allocate)),
                         nameOfSweep);

INSTANTIATE_TEST_SUITE_P(SelectionWithoutMemory, FirstSelectionDeathTest,
                         testing::Values(once("Plain", Call::Allocate),
                                         lasting("Plain", Call::Allocate),
                                         once("Secure", Call::Allocate, 0, 0, Probing::Secure),
                                         lasting("Secure", Call::Allocate, 0, 0, Probing::Secure)),
                         nameOfSweep);

INSTANTIATE_TEST_SUITE_P(
    SelectionWithoutNames, AFault,
    testing::ValuesIn(sweepsOf({{"LookUp",
                                 Call::LookUpName,
                                 {EAI_AGAIN, EAI_NONAME, EAI_MEMORY, EAI_SYSTEM, EAI_FAIL},
                                 AllButOne}},
                               false)),
    nameOfSweep);

INSTANTIATE_TEST_SUITE_P(
    SelectionWithoutFiles, AFault,
    testing::ValuesIn(sweepsOf({{"Open", Call::Open, {EMFILE, EACCES, ENOSPC}},
                                {"Read", Call::Read, {EIO}},
                                {"Write", Call::Write, {ENOSPC, EIO, Fault::ShortWrite}},
                                {"Flush", Call::Flush, {ENOSPC}},
                                {"Close", Call::Close, {EIO}},
                                {"Rename", Call::Rename, {EACCES, ENOSPC}},
                                {.name = "MakeDirectory",
                                 .call = Call::MakeDirectory,
                                 .errors = {EACCES, ENOSPC},
                                 .hasCacheDirectory = false},
                                {"LookAt", Call::LookAt, {EACCES}},
                                {"ReadResolver", Call::ReadResolver, {EMFILE}}},
                               false)),
    nameOfSweep);

// libcurl's resolver wakes who waits for it through a pair of sockets; without it the look-up has
// failed, which costs the headend that has a name.
INSTANTIATE_TEST_SUITE_P(SelectionWithoutSockets, AFault,
                         testing::ValuesIn(sweepsOf(
                             {{"Socket", Call::Socket, {EMFILE, ENOBUFS}, AllButOne},
                              {"Connect", Call::Connect, {ENETUNREACH, EADDRNOTAVAIL}},
                              {"Control", Call::Control, {ENOMEM}},
                              {"SocketOption", Call::SocketOption, {ENOBUFS}},
                              {"SocketName", Call::SocketName, {ENOBUFS}},
                              {"Poll", Call::Poll, {ENOMEM}},
                              {"Send", Call::Send, {ECONNRESET, ENOBUFS}},
                              {"Receive", Call::Receive, {ECONNRESET}},
                              {"SecureSend", Call::Send, {ECONNRESET}, All, Probing::Secure},
                              {"SecureReceive", Call::Receive, {ECONNRESET}, All, Probing::Secure},
                              {"SecurePoll", Call::Poll, {ENOMEM}, All, Probing::Secure}},
                             true)),
                         nameOfSweep);

// A sanitizer is an allocator too.
#ifdef AHS_C_MEMORY
INSTANTIATE_TEST_SUITE_P(SelectionWithoutCMemory, AFault,
                         testing::Values(once("Plain", Call::AllocateInC, ENOMEM),
                                         once("Secure", Call::AllocateInC, ENOMEM, 0,
                                              Probing::Secure)),
                         nameOfSweep);

INSTANTIATE_TEST_SUITE_P(SelectionWithoutCMemory, FirstSelectionDeathTest,
                         testing::Values(once("Plain", Call::AllocateInC, ENOMEM),
                                         once("Secure", Call::AllocateInC, ENOMEM, 0,
                                              Probing::Secure)),
                         nameOfSweep);
#endif

}  // namespace tests
