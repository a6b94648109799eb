// Baits. Nobody can be at the one address (RFC 5737), nobody can have the other's name (RFC 2606):
// "invalid" would do as well, but some resolvers know that themselves and do not ask the network.

#include "cli/select/BaitedRecord.h"

#include <utility>

#include "vpn/Common/Utility/Descriptors.h"

namespace {

constexpr const char* NobodysAddress = "198.51.100.251";
constexpr const char* NobodysName = "nobody.ahs.example";

// A kernel without a route says so at once.
constexpr unsigned int FailingMs = 100;

}  // namespace

/// The probe of one bait, on a thread of its own: no worker's, so that no headend waits for it.
class BaitedRecord::Bait : public ProbeTask {
 public:
  using Which = std::optional<HttpProbe::Report> Baits::*;

  Bait(std::weak_ptr<BaitedRecord> record, Which which)
      : m_record(std::move(record)), m_which(which) {}
  ~Bait() override { delete m_thread; }

  void start(const std::string& host, const HttpProbe::Report& like,
             const std::shared_ptr<Bait>& self) {
    const CTask::Scope scope(self);
    m_thread = new Probing(host, like.secure, like.port);
    static_cast<void>(m_thread->Start());
  }
  void wait(unsigned int longestMs) {
    unsigned int exitCode = 0;
    m_thread->WaitForCompletion(exitCode, longestMs);
  }

  bool socketOpened(int socket, int family) override {
    const std::shared_ptr<BaitedRecord> record = m_record.lock();
    return record != nullptr && record->socketOpened(socket, family);
  }
  bool translated(const in_addr& from, in6_addr& to) override {
    const std::shared_ptr<BaitedRecord> record = m_record.lock();
    return record != nullptr && record->translated(from, to);
  }
  void probeEnded(const HttpProbe::Report& report) override {
    if (const std::shared_ptr<BaitedRecord> record = m_record.lock(); record != nullptr) {
      record->noteBait(report, m_which);
    }
  }

 private:
  class Probing : public CThread {
   public:
    Probing(std::string host, bool secure, unsigned short port)
        : m_host(std::move(host)), m_secure(secure), m_port(port) {}

    STATUSCODE Run() override {
      HttpProbe::HTTP_PROBE_RESULTS results{};
      return HttpProbe::SendHttpProbe(m_host, m_secure, false, m_port, "", LimitSeconds,
                                      PROXY_DATA(), 0, results);
    }

   private:
    const std::string m_host;
    const bool m_secure;
    const unsigned short m_port;
  };

  const std::weak_ptr<BaitedRecord> m_record;
  const Which m_which;
  Probing* m_thread = nullptr;
};

BaitedRecord::BaitedRecord() = default;
BaitedRecord::~BaitedRecord() = default;

void BaitedRecord::probeStarted(const HttpProbe::Report& report) {
  SelectionRecord::probeStarted(report);
  // Where descriptors are few, all are the headends'.
  if (!isTestProbe(report) && !m_isLaid.test() && !Descriptors::areFew() &&
      !m_isLaid.test_and_set()) {
    lay(report);
  }
}

void BaitedRecord::lay(const HttpProbe::Report& like) {
  Laid laid;
  for (const auto& [host, which] :
       {std::pair(NobodysAddress, &Baits::address), std::pair(NobodysName, &Baits::name)}) {
    laid.push_back(std::make_shared<Bait>(weak_from_this(), which));
    laid.back()->start(host, like, laid.back());
  }
  const CAutoLockT<CManualLock> guard(m_baitLock);
  m_laid.swap(laid);
}

BaitedRecord::Laid BaitedRecord::laid() const {
  const CAutoLockT<CManualLock> guard(m_baitLock);
  return m_laid;
}

void BaitedRecord::awaitFailingBaits() const {
  for (const auto& bait : laid()) {
    bait->wait(FailingMs);
  }
}

void BaitedRecord::endBaits() const {
  for (const auto& bait : laid()) {
    bait->cancel();
    bait->wait(CThread::Infinite);
  }
}
