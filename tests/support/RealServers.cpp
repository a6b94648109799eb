// Real servers as headends. Each runs unprivileged, in the foreground, from its own directory with
// the test's configuration, so the machine's set-up does not matter.

#include "tests/support/RealServers.h"

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace tests {

namespace {

/// How long a server may take to start on a busy machine.
constexpr std::chrono::milliseconds StartLimit{15000};

constexpr std::chrono::milliseconds PollInterval{5};

/// nginx's directories for bodies: the built-in ones belong to root.
constexpr const char* NginxTemporaryPaths =
    "  client_body_temp_path body;\n"
    "  proxy_temp_path proxy;\n"
    "  fastcgi_temp_path fastcgi;\n"
    "  uwsgi_temp_path uwsgi;\n"
    "  scgi_temp_path scgi;\n";

constexpr const char* HaproxyDefaults =
    "global\n"
    "  maxconn 100\n"
    "defaults\n"
    "  mode http\n"
    "  timeout connect 10s\n"
    "  timeout client 10s\n"
    "  timeout server 10s\n"
    "  timeout http-request 10s\n";

constexpr const char* HaproxyAnswer =
    "  http-request return status 200 content-type text/plain string answer\n";

/// Stores nothing, and asks no name server.
constexpr const char* SquidDefaults =
    "visible_hostname proxy.test\n"
    "pid_filename none\n"
    "cache_log /dev/null\n"
    "access_log none\n"
    "cache deny all\n"
    "cache_mem 1 MB\n"
    "memory_cache_shared off\n"
    "collapsed_forwarding off\n"
    "netdb_filename none\n"
    "pinger_enable off\n"
    "coredump_dir none\n"
    "dns_nameservers 127.0.0.1\n"
    "shutdown_lifetime 0 seconds\n";

/// Debian's directory of squid's authentication programs.
const std::string SquidPrograms = "/usr/lib/squid/";

/// The password as `openssl passwd -apr1` writes it.
constexpr const char* SquidPasswordHash = "$apr1$abcdefgh$nEyPIMQo/TGjICQdR0Zit/";

std::string squidLogIns(const SquidProxy::Settings& settings, const TemporaryDirectory& directory) {
  std::string logIns;
  if (settings.ntlm) {
    logIns +=
        "auth_param ntlm program " + SquidPrograms + "ntlm_fake_auth\nauth_param ntlm children 1\n";
  }
  if (!settings.realm.empty()) {
    const std::string lines = SquidProxy::User + std::string(":") + SquidPasswordHash + "\n";
    const std::string users = directory.Write("users", lines);
    logIns += "auth_param basic program " + SquidPrograms + "basic_ncsa_auth " + users +
              "\nauth_param basic children 1\nauth_param basic casesensitive on\nauth_param basic "
              "realm " +
              settings.realm + "\n";
  }
  return logIns;
}

std::string squidRules(const SquidProxy::Settings& settings) {
  std::string rules = "acl tunnels port " + std::to_string(settings.tunnelPort) +
                      "\nhttp_access deny CONNECT !tunnels\n";
  rules += settings.ntlm || !settings.realm.empty()
               ? "acl known proxy_auth REQUIRED\nhttp_access allow known\nhttp_access deny all\n"
               : "http_access allow all\n";
  if (settings.parent != 0) {
    rules += "cache_peer 127.0.0.1 parent " + std::to_string(settings.parent) +
             " 0 no-query no-digest no-netdb-exchange\ncache_peer_access 127.0.0.1 allow CONNECT\n"
             "never_direct allow CONNECT\n";
  }
  return rules;
}

}  // namespace

RealServer::RealServer(const std::string& address) : m_where(freeEndpoint(address)) {}

RealServer::~RealServer() = default;

void RealServer::Start(const std::vector<std::string>& command) {
  m_process =
      std::make_unique<ChildProcess>(command, m_directory.File("output"), m_directory.Path());
  const auto deadline = std::chrono::steady_clock::now() + StartLimit;
  while (!isListening(m_where)) {
    if (!m_process->IsRunning() || std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error(command.front() + " does not listen at " + Address() +
                               "; it wrote: " + Output());
    }
    std::this_thread::sleep_for(PollInterval);
  }
}

void RealServer::Stop() { m_process.reset(); }

std::string RealServer::Output() const { return readFile(m_directory.File("output")); }

NginxServer::NginxServer(const TestCertificates& certificates, const std::string& address)
    : RealServer(address) {
  const std::string server = "    listen " + Address() + " ssl;\n    ssl_certificate " +
                             certificates.Certificate() + ";\n    ssl_certificate_key " +
                             certificates.Key() + ";\n    location / { return 200 answer; }\n";
  Directory().Write("nginx.conf",
                    "daemon off;\nmaster_process off;\npid nginx.pid;\nerror_log stderr info;\n"
                    "events { worker_connections 100; }\nhttp {\n  access_log access.log;\n" +
                        std::string(NginxTemporaryPaths) + "  server {\n" + server + "  }\n}\n");
  Start({findProgram("nginx", "nginx"), "-e", "stderr", "-p", Directory().Path(), "-c",
         "nginx.conf"});
}

std::vector<std::string> NginxServer::Requests() const {
  std::istringstream log(readFile(Directory().File("access.log")));
  std::vector<std::string> requests;
  std::string line;
  while (std::getline(log, line)) {
    requests.push_back(line);
  }
  return requests;
}

HaproxyServer::HaproxyServer(const TestCertificates& certificates) : RealServer("127.0.0.1") {
  Directory().Write("haproxy.cfg", HaproxyDefaults + std::string("frontend headend\n  bind ") +
                                       Address() + " ssl crt " + certificates.CertificateAndKey() +
                                       "\n" + HaproxyAnswer);
  Start({findProgram("haproxy", "haproxy"), "-db", "-f", "haproxy.cfg"});
}

OpensslServer::OpensslServer(const TestCertificates& certificates) : RealServer("127.0.0.1") {
  Start({findProgram("openssl", "openssl"), "s_server", "-accept", Address(), "-cert",
         certificates.Certificate(), "-key", certificates.Key(), "-www"});
}

SquidProxy::SquidProxy(const Settings& settings) : RealServer(settings.address) {
  namespace fs = std::filesystem;
  const bool isRoot = ::geteuid() == 0;
  if (isRoot) {
    // Another user must read its files.
    fs::permissions(Directory().Path(), fs::perms::others_read | fs::perms::others_exec,
                    fs::perm_options::add);
  }
  Directory().Write("squid.conf", SquidDefaults + ("http_port " + Address() + "\n") +
                                      squidLogIns(settings, Directory()) + squidRules(settings));
  std::vector<std::string> command;
  if (isRoot) {
    // squid could change its user itself, but would then outlive a killed test.
    command = {findProgram("setpriv", "util-linux"),
               "--reuid=proxy",
               "--regid=proxy",
               "--clear-groups",
               "--pdeathsig",
               "KILL"};
  }
  // The name separates the shared memory of several instances.
  command.insert(command.end(),
                 {findProgram("squid", "squid"), "-N", "-d", "1", "-n",
                  "test" + std::to_string(::getpid()) + "x" + std::to_string(Where().port), "-f",
                  "squid.conf"});
  Start(command);
}

}  // namespace tests
