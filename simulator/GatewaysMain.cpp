// The command `ahs-gateways`: gateways with real TLS, in the foreground, until a signal or its
// parent's end. Prints "ready" on standard output once all listen.

#include <sys/resource.h>
#include <sys/signalfd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <iostream>
#include <optional>

#include "simulator/GatewayServer.h"
#include "simulator/NameServer.h"
#include "simulator/Processes.h"

namespace {

using namespace simulator;

constexpr int Failed = 1;
constexpr int Usage = 2;

std::string footer() {
  std::string text =
      "A gateway is written ADDRESS:PORT[,delay=MS][,behaviour=NAME]; port 0 takes a free "
      "one.\nBehaviours:";
  for (const Behaviour& behaviour : allBehaviours()) {
    text += "\n  " + std::string(behaviour.name) + ": " + std::string(behaviour.summary);
  }
  return text;
}

/// A descriptor that reads the signals that end the program.
FileDescriptor blockEndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return FileDescriptor(signalfd(-1, &signals, SFD_CLOEXEC));
}

/// Each connection of thousands of gateways needs a descriptor.
void allowManyFiles() {
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) != 0) return;
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
}

void announce(const GatewayServer& server) {
  for (const Gateway& gateway : server.gateways()) {
    const bool v4 = gateway.address.isV4();
    std::cout << "gateway " << (v4 ? "" : "[") << gateway.address.text() << (v4 ? "" : "]") << ':'
              << gateway.port << ' ' << gateway.behaviour << '\n';
  }
  std::cout << "ready" << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
  std::string config;
  std::string authorityFile;
  std::vector<std::string> gateways;
  CLI::App app("Plays VPN gateways that speak TLS.", "ahs-gateways");
  app.add_option("--config", config, "File that describes the scene (see simulator/README.md)");
  app.add_option("--gateway", gateways, "A gateway; may be given several times")
      ->allow_extra_args(false);
  app.add_option("--write-ca", authorityFile, "Write the certificate to trust to this file (PEM)");
  app.footer(footer());
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : Usage;
  }

  const FileDescriptor stop = blockEndSignals();
  if (!endWithParent()) return Failed;
  try {
    Scene scene;
    if (!config.empty()) scene.addFile(config);
    for (const std::string& gateway : gateways) scene.addLine("gateway " + gateway);
    allowManyFiles();
    const CertificateAuthority authority;
    if (!authorityFile.empty()) authority.write(authorityFile);
    GatewayServer server(scene, authority);
    std::optional<NameServer> names;
    if (scene.resolver && !scene.answers.empty()) {
      names.emplace(scene);
      server.serveToo(names->fd(), [&names] { names->answer(); });
    }
    announce(server);
    server.Run(stop.get());
    return 0;
  } catch (const SceneError& error) {
    std::cerr << "ahs-gateways: " << error.what() << '\n';
    return Usage;
  } catch (const std::exception& error) {
    std::cerr << "ahs-gateways: " << error.what() << '\n';
    return Failed;
  }
}
