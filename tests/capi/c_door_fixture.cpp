// What the tests of the C interface have in common: gateways on loopback addresses, and a client
// that copies all it is told.

#include "tests/capi/c_door_fixture.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <utility>

#include "tests/support/private_access.h"

AHS_EXPOSE(SocketOfConnection, &tests::Connection::m_socket);

namespace tests {

namespace {

constexpr std::chrono::milliseconds PollInterval{1};
constexpr std::uint32_t LimitMs = std::chrono::milliseconds(Limit).count();

std::pair<std::string, unsigned int> endOf(int socket, decltype(&::getpeername) which) {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  if (which(socket, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
    return {};
  }
  std::string text(INET6_ADDRSTRLEN, '\0');
  const auto* v4 = reinterpret_cast<const sockaddr_in*>(&storage);
  const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&storage);
  const bool isV4 = storage.ss_family == AF_INET;
  inet_ntop(
      storage.ss_family,
      isV4 ? static_cast<const void*>(&v4->sin_addr) : static_cast<const void*>(&v6->sin6_addr),
      text.data(), INET6_ADDRSTRLEN);
  return {text.c_str(), ntohs(isV4 ? v4->sin_port : v6->sin6_port)};
}

bool isClosed(int socket) {
  char byte = 0;
  const ssize_t got = recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return got == 0 || (got < 0 && errno != EAGAIN);
}

}  // namespace

Gateway::Gateway() : Gateway(Settings()) {}

Gateway::Gateway(Settings settings)
    : m_settings(std::move(settings)),
      m_answers(m_settings.answers),
      m_server([this](Connection& connection) { Serve(connection); }, m_settings.where) {}

Gateway::Settings Gateway::silent() {
  Settings settings;
  settings.answers = 0;
  return settings;
}

Gateway::~Gateway() { Answer(UINT_MAX); }

std::string Gateway::Address() const {
  const bool isV6 = m_settings.where.find(':') != std::string::npos;
  return (isV6 ? "[" + m_settings.where + "]:" : m_settings.where + ":") + Port();
}

bool Gateway::WaitUntilAsked(unsigned int requests) {
  return eventually([&] { return m_asked >= requests; });
}

// Not as long as a probe takes to end by itself.
bool Gateway::WaitUntilLeft(unsigned int clients) {
  const auto start = std::chrono::steady_clock::now();
  return eventually([&] {
           return m_left >= clients || std::chrono::steady_clock::now() - start > Limit / 2;
         }) &&
         m_left >= clients;
}

// The kernel hands connections over in the order in which they were made: once one of our own is
// here, all before it are.
std::size_t Gateway::CountConnections() {
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_port = htons(m_server.port());
  where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int counter = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(counter, reinterpret_cast<sockaddr*>(&where), sizeof where) != 0) {
    throw std::runtime_error("the gateway does not listen at an IPv4 address");
  }
  const unsigned int port = endOf(counter, &::getsockname).second;
  std::size_t count = 0;
  const bool isHere = eventually([&] {
    const std::lock_guard<std::mutex> guard(m_mutex);
    const auto own =
        std::ranges::find(m_peers, port, &std::pair<std::string, unsigned int>::second);
    if (own == m_peers.end() || m_peers.size() + m_counters.size() < m_server.accepted()) {
      return false;
    }
    m_peers.erase(own);
    m_counters.push_back(port);
    count = m_peers.size();
    return true;
  });
  close(counter);
  EXPECT_TRUE(isHere);
  return count;
}

std::vector<std::string> Gateway::Peers() const {
  const std::lock_guard<std::mutex> guard(m_mutex);
  std::vector<std::string> addresses;
  std::ranges::transform(m_peers, std::back_inserter(addresses),
                         &std::pair<std::string, unsigned int>::first);
  return addresses;
}

void Gateway::Serve(Connection& connection) {
  const int socket = member<SocketOfConnection>(connection);
  {
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_peers.push_back(endOf(socket, &::getpeername));
  }
  if (connection.readHead().empty()) {
    return;
  }
  const unsigned int number = ++m_asked;
  while (number > m_answers) {
    if (isClosed(socket)) {
      ++m_left;
      return;
    }
    connection.wait(PollInterval);
  }
  if (number <= m_settings.delays.size()) {
    connection.wait(m_settings.delays[number - 1]);
  }
  connection.send(m_settings.answer);
  connection.waitForPeer();
}

namespace {

Result copyOf(const ahs_result& result) {
  EXPECT_EQ(result.size, sizeof result);
  Result copy;
  copy.status = result.status;
  copy.reason = result.reason;
  copy.headends.assign(result.headends, result.headends + result.headend_count);
  copy.realm = result.proxy_realm;
  for (std::size_t i = 0; i < result.candidate_count; ++i) {
    const ahs_candidate& candidate = *result.candidates[i];
    EXPECT_EQ(candidate.size, sizeof candidate);
    copy.candidates.push_back(
        {candidate.name,
         candidate.headend,
         candidate.address,
         candidate.metric_ms,
         candidate.outcome,
         {candidate.samples_ms, candidate.samples_ms + candidate.sample_count}});
  }
  copy.fromCache = result.from_cache != 0;
  copy.cacheAge = result.cache_age_s;
  return copy;
}

}  // namespace

Candidate Result::Of(const std::string& name) const {
  const auto found = std::ranges::find(candidates, name, &Candidate::name);
  return found == candidates.end() ? Candidate() : *found;
}

void Client::OnResult(const ahs_result* result, void* context) {
  Client& client = *static_cast<Client*>(context);
  {
    const std::lock_guard<std::mutex> guard(client.m_mutex);
    client.m_results.push_back(copyOf(*result));
  }
  if (client.atResult) {
    client.atResult(client.selection);
  }
}

void Client::OnProgress(const ahs_probe* probe, void* context) {
  Client& client = *static_cast<Client*>(context);
  EXPECT_EQ(probe->size, sizeof *probe);
  {
    const std::lock_guard<std::mutex> guard(client.m_mutex);
    Probe copy;
    copy.name = probe->name;
    copy.headend = probe->headend;
    copy.ended = probe->ended != 0;
    copy.probesStarted = probe->probes_started;
    copy.probesEnded = probe->probes_ended;
    copy.headendsAnswered = probe->headends_answered;
    copy.headendCount = probe->headend_count;
    copy.afterResult = !client.m_results.empty();
    if (copy.ended) {
      copy.outcome = probe->outcome;
      copy.rttMs = probe->rtt_ms;
      copy.address = probe->address;
    }
    client.m_probes.push_back(copy);
  }
  if (client.atProbe) {
    client.atProbe(*probe, client.selection);
  }
}

int Client::OnSocket(int socket, void* context) {
  const Client& client = *static_cast<const Client*>(context);
  return client.atSocket ? client.atSocket(socket, client.selection) : 0;
}

bool Client::WaitUntilTold() {
  return eventually([this] { return !Results().empty(); });
}

std::vector<Result> Client::Results() const {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_results;
}

std::vector<Probe> Client::Probes() const {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_probes;
}

ahs_status Client::Status() const {
  const std::vector<Result> results = Results();
  if (results.size() != 1) {
    return results.empty() ? 1 : 2;
  }
  return results.front().status;
}

Library::Library(const std::vector<std::string>& addresses, const Preferences& preferences,
                 const Change& change) {
  Preferences all = preferences;
  all.merge(Preferences{{"SelectionConnectTimeout", "600000"},
                        {"SelectionReconnectTimeout", "600000"},
                        {"SelectionPingTimeout", "60000"},
                        {"SelectionTestPingTimeout", "60"},
                        {"SelectionPingsPerHeadend", "1"}});
  std::vector<ahs_headend> headends;
  for (const std::string& address : addresses) {
    headends.push_back({nullptr, address.c_str()});
  }
  std::vector<ahs_preference> settings;
  for (const auto& [name, value] : all) {
    settings.push_back({name.c_str(), value.c_str()});
  }
  ahs_options options = AHS_OPTIONS_INIT;
  options.headends = headends.data();
  options.headend_count = headends.size();
  options.preferences = settings.data();
  options.preference_count = settings.size();
  options.proxy = "";
  if (change) {
    change(options);
  }
  m_status = ahs_start(&options, &m_library);
  EXPECT_EQ(m_status == AHS_SUCCESS, m_library != nullptr);
}

Library::~Library() { Stop(); }

void Library::Stop() { EXPECT_EQ(ahs_stop(std::exchange(m_library, nullptr)), AHS_SUCCESS); }

Selection::Selection(const Library& library, Client& client, const Change& change) {
  ahs_request request = AHS_REQUEST_INIT;
  request.reason = AHS_REASON_RECONNECTION;
  request.on_progress = Client::OnProgress;
  request.progress_context = &client;
  request.on_socket = client.atSocket ? Client::OnSocket : nullptr;
  request.socket_context = &client;
  if (change) {
    change(request);
  }
  if (ahs_select(library.Get(), &request, Client::OnResult, &client, &client.selection) !=
      AHS_SUCCESS) {
    throw std::runtime_error(std::string("no selection: ") + ahs_error_text());
  }
  m_selection = client.selection;
}

Selection::~Selection() { ahs_free(m_selection); }

Result Selection::Wait() const {
  const ahs_result* const result = ahs_wait(m_selection, LimitMs);
  EXPECT_NE(result, nullptr);
  return result == nullptr ? Result() : copyOf(*result);
}

ahs_status Selection::Free() { return ahs_free(std::exchange(m_selection, nullptr)); }

Result selectOnce(const Library& library, const Selection::Change& change) {
  Client client;
  const Selection selection(library, client, change);
  return selection.Wait();
}

void Log::OnLog(const ahs_log_message* message, void* context) {
  EXPECT_EQ(message->size, sizeof *message);
  Log& log = *static_cast<Log*>(context);
  const std::lock_guard<std::mutex> guard(log.m_mutex);
  log.m_messages.push_back({message->level, message->text, message->function, message->lost});
}

void Log::Hear(ahs_options& options) {
  options.on_log = OnLog;
  options.log_context = this;
}

std::vector<Log::Message> Log::All() const {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_messages;
}

void Signal::Give() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_given = true;
  m_changed.notify_all();
}

bool Signal::Wait() {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, Limit, [this] { return m_given; });
}

}  // namespace tests
