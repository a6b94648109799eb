// A host process that ends while workers probe, the timer is armed or fires, a file of the cache is
// read or the client's callback runs. Its exit status is its own, it does not crash and it does not
// hang.

#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>

#include "tests/host/HostScene.h"

namespace tests {
namespace {

constexpr int LeftAsTold = 7;

/// How a process ends, and in the middle of what.
struct Departure {
  const char* name;
  const char* how;
  const char* plan;

  friend void PrintTo(const Departure& departure, std::ostream* out) { *out << departure.name; }
};

class LeavingHost : public testing::TestWithParam<Departure> {
 protected:
  LeavingHost() {
    // What a process that ends like this leaves behind in the file system goes with the test.
    ::setenv("TMPDIR", m_directory.Path().c_str(), 1);
  }
  ~LeavingHost() override { ::unsetenv("TMPDIR"); }

  /// @return what is wrong with how it ended; empty if nothing is.
  std::string Leave(std::chrono::microseconds moment) const {
    std::vector<std::string> command = {AHS_LEAVING_HOST, GetParam().how,
                                        std::to_string(moment.count()), GetParam().plan,
                                        m_gateways.Authority()};
    for (const std::string& address : m_gateways.Addresses()) {
      command.push_back(address);
    }
    const TemporaryDirectory output;
    ChildProcess process(command, output.File("output"), output.Path());
    if (!process.WaitForEnd(Limit)) {
      return "it hangs";
    }
    const std::string written = readFile(output.File("output"));
    return process.ExitStatus() == LeftAsTold && written.empty()
               ? ""
               : "status " + std::to_string(process.ExitStatus()) + " " + written;
  }

 private:
  const TemporaryDirectory m_directory;
  // The timer comes after 100 ms, between the answers of the last two.
  const GatewayProcess m_gateways{{"", "delay=15", "delay=60", "delay=130"}};
};

TEST_P(LeavingHost, InTheMiddleOfARunEndsWithItsOwnExitStatus) {
  // From the start of a run until everything has been answered.
  constexpr std::chrono::microseconds Longest{160'000};
  constexpr int Moments = 12;
  for (int i = 0; i < Moments; ++i) {
    const std::chrono::microseconds moment = Longest * i / Moments;
    ASSERT_EQ(Leave(moment), "") << "when it left " << moment.count() << " us after its start";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Host, LeavingHost,
    testing::Values(Departure{"ByReturningFromMain", "return", "plain"},
                    Departure{"ByExit", "exit", "plain"},
                    Departure{"ByQuickExit", "quick_exit", "plain"},
                    Departure{"By_Exit", "_exit", "plain"}, Departure{"ByExec", "exec", "plain"},
                    Departure{"ByReturningFromMainWithTls", "return", "secure"},
                    Departure{"ByExitWithTls", "exit", "secure"},
                    Departure{"ByQuickExitWithTls", "quick_exit", "secure"},
                    Departure{"ByExitWithTlsHandshakesUnderWay", "exit", "busy"},
                    Departure{"ByExitWhileTheCacheIsRead", "exit", "cached"},
                    Departure{"ByExitWithACallbackThatNeverReturns", "exit", "endless"},
                    Departure{"ByReturningWithACallbackThatNeverReturns", "return", "endless"}),
    [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace tests
