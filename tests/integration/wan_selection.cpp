// Runs the command in a network that ahs-wan makes, with what it writes in files. All of it is gone
// when it returns.

#include "tests/integration/wan_selection.h"

#include <stdexcept>

#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace tests {

namespace {

/// What automake and ctest take as "skipped".
constexpr int NotPermitted = 77;

/// As a shell takes it: every byte stands for itself.
std::string quoted(const std::string& word) {
  std::string result = "'";
  for (const char c : word) {
    result += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return result + "'";
}

std::string preferences(unsigned int pingTimeoutMs) {
  const std::string end = "\"/>\n";
  return "<preferences version=\"1\">\n"
         "<preference name=\"SelectionConnectTimeout\" value=\"60000" +
         end + "<preference name=\"SelectionPingTimeout\" value=\"" +
         std::to_string(pingTimeoutMs) + end +
         "<preference name=\"SelectionTestPingTimeout\" value=\"1" + end + "</preferences>\n";
}

}  // namespace

WanSelection::Outcome WanSelection::Run() const {
  const TemporaryDirectory directory;
  std::string lines;
  for (const std::string& line : scene) {
    lines += line + "\n";
  }
  const std::string sceneFile = directory.Write("scene", lines);
  // Nothing of this machine's settings has a say.
  std::string command = "exec env -i HOME=" + quoted(directory.Path()) +
                        " RES_OPTIONS=" + quoted(resolverOptions) + " " + quoted(AHS_PROGRAM) +
                        " select --json --no-cache --log-level info --log-file " +
                        quoted(directory.File("log")) + " --preferences " +
                        quoted(directory.Write("preferences.xml", preferences(pingTimeoutMs)));
  for (const std::string& host : hosts) {
    command += " " + quoted(host);
  }
  command +=
      " </dev/null >" + quoted(directory.File("out")) + " 2>" + quoted(directory.File("err"));

  ChildProcess wan({AHS_WAN, "--config", sceneFile, "--servers",
                    quoted(AHS_GATEWAYS) + " --config " + quoted(sceneFile), "--", "/bin/sh",
                    directory.Write("command", command)},
                   directory.File("wan"), directory.Path());
  if (!wan.WaitForEnd(Limit)) {
    throw std::runtime_error("the selection does not come to an end: " +
                             readFile(directory.File("wan")));
  }
  return {wan.ExitStatus(), readFile(directory.File("out")),
          readFile(directory.File("err")) + readFile(directory.File("wan")),
          readFile(directory.File("log"))};
}

std::string whyThereIsNoWan() {
  const TemporaryDirectory directory;
  ChildProcess wan({AHS_WAN, "--", findProgram("true", "coreutils")}, directory.File("wan"),
                   directory.Path());
  wan.WaitForEnd(Limit);
  return wan.ExitStatus() == NotPermitted ? readFile(directory.File("wan")) : "";
}

}  // namespace tests
