// Probes of gateways that speak UDP alone. A lost packet is repeated, sooner than TCP would: there
// is no connection whose state could tell how long to wait.

#include "vpn/Common/IP/DatagramTransfer.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <linux/errqueue.h>
#include <linux/net_tstamp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "vpn/Common/IP/AddressLookup.h"
#include "vpn/Common/IP/KernelTrips.h"
#include "vpn/Common/IP/ProbeSettings.h"
#include "vpn/Common/IP/ProbeTask.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

// The next address is asked too after this time (RFC 8305).
constexpr milliseconds NextAddress(200);
// When a packet counts as lost; twice as long after each one.
constexpr milliseconds FirstRepetition(500);
// The largest answer of the three protocols to the first packet is far smaller.
constexpr std::size_t MostAnswerBytes = 2048;

/// The time stamp of a message; -1 without one.
long long stampOf(msghdr& message) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
       part = CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_TIMESTAMPING) {
      scm_timestamping stamps{};
      std::memcpy(&stamps, CMSG_DATA(part), sizeof stamps);
      return stamps.ts[0].tv_sec * 1'000'000LL + stamps.ts[0].tv_nsec / 1000;
    }
  }
  return -1;
}

/// Which packet of its socket a message of the error queue is about, from 0; nothing if it is no
/// time stamp.
std::optional<std::size_t> packetOf(msghdr& message) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
       part = CMSG_NXTHDR(&message, part)) {
    const bool isError = (part->cmsg_level == IPPROTO_IP && part->cmsg_type == IP_RECVERR) ||
                         (part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_RECVERR);
    sock_extended_err error{};
    if (isError) {
      std::memcpy(&error, CMSG_DATA(part), sizeof error);
    }
    if (error.ee_origin == SO_EE_ORIGIN_TIMESTAMPING) {
      return error.ee_data;
    }
  }
  return std::nullopt;
}

/// A message with room for its bytes and what the kernel adds.
struct Received {
  Received() {
    part = {bytes.data(), bytes.size()};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
  }
  Received(const Received&) = delete;
  Received& operator=(const Received&) = delete;

  std::array<std::uint8_t, MostAnswerBytes> bytes;  // NOLINT: filled before it is read
  alignas(cmsghdr) std::array<char, 256> control;   // NOLINT: the same
  iovec part{};
  msghdr message{};
};

}  // namespace

DatagramTransfer::~DatagramTransfer() {
  std::ranges::for_each(m_ways, [this](Way& way) { close(way); });
}

bool DatagramTransfer::isCancelled() const {
  return m_request.task != nullptr && m_request.task->isCancelled();
}

long long DatagramTransfer::sinceStart(Clock::time_point when) const {
  return std::chrono::duration_cast<microseconds>(when - m_request.start).count();
}

ProbeOutcome DatagramTransfer::send() {
  SocketLoop::prepare();
  m_startedAt = m_openedAt = m_nextLook = Clock::now();
  checkTime();
  if (!m_hasEnded) {
    findAddresses();
  }
  m_openedAt = Clock::now();
  m_nextLook = m_openedAt + m_patience.nextLook(milliseconds(0));
  m_outcome.openedUs = sinceStart(m_openedAt);
  for (std::size_t i = 0; i < m_count; ++i) {
    m_ways[i].nextAt = m_openedAt + i * NextAddress;
  }
  for (work(); !m_hasEnded; work()) {
    m_hasEvents = false;
    forget();
    for (Way& way : m_ways) {
      if (way.socket != NoSocket) {
        add(way.socket, way.isKnown);
      }
    }
    if (const int error = SocketLoop::wait(*this, m_wakesAt); error != 0) {
      m_outcome.shortage = Shortages::fromErrno(error);
      end(CURLE_OUT_OF_MEMORY);
    }
  }
  return std::move(m_outcome);
}

void DatagramTransfer::noteEvents(int /*socket*/, std::uint32_t /*events*/) noexcept {
  m_hasEvents = true;  // the kernel has noted the time: the thread itself may come later
}

bool DatagramTransfer::isOver(Clock::time_point now, Clock::time_point& next) noexcept {
  next = m_wakesAt;
  return m_hasEvents || now >= m_wakesAt || isCancelled();
}

void DatagramTransfer::findAddresses() {
  AddressLookup::Late late;
  const auto stand = m_startedAt + m_patience.stand;
  const AddressLookup found =
      AddressLookup::of(m_request, std::min<Clock::time_point>(m_request.deadline, stand), late);
  if (found.addresses.empty()) {
    m_outcome.shortage = found.shortage;
    m_outcome.unresolved = true;
    m_outcome.silent = found.code == CURLE_OPERATION_TIMEDOUT && stand < m_request.deadline;
    end(found.code);
    return;
  }
  m_count = std::min(found.addresses.size(), MostAddresses);
  for (std::size_t i = 0; i < m_count; ++i) {
    m_ways[i].address = found.addresses[i];
  }
}

/// Does what can be done without waiting.
void DatagramTransfer::work() {
  for (std::size_t i = 0; i < m_count && !m_hasEnded; ++i) {
    if (m_ways[i].socket != NoSocket) {
      read(m_ways[i]);
    }
  }
  if (!m_hasEnded) {
    checkTime();
  }
  m_wakesAt = std::min(m_request.deadline, m_nextLook);
  bool isAlive = false;
  for (std::size_t i = 0; i < m_count && !m_hasEnded; ++i) {
    Way& way = m_ways[i];
    // Where all before have refused, nothing is to be waited for.
    if (Clock::now() >= way.nextAt || (!isAlive && way.attempts.empty())) {
      sendOn(way);
    }
    isAlive = isAlive || way.nextAt != Clock::time_point::max();
    m_wakesAt = std::min(m_wakesAt, way.nextAt);
  }
  if (!m_hasEnded && !isAlive) {
    end(CURLE_COULDNT_CONNECT);
  }
}

void DatagramTransfer::checkTime() {
  const auto now = Clock::now();
  if (isCancelled() || now >= m_request.deadline) {
    end(CURLE_OPERATION_TIMEDOUT);
  } else if (m_request.task == nullptr || m_request.report == nullptr ||
             !ProbeSettings::leavesSilent()) {
    m_nextLook = m_request.deadline;
  } else if (now >= m_nextLook) {
    askPatience(now);
  }
}

void DatagramTransfer::askPatience(Clock::time_point now) {
  const auto waited = std::chrono::floor<milliseconds>(now - m_openedAt);
  try {
    m_patience = m_request.task->unanswered(*m_request.report, waited);
  } catch (...) {
    m_patience = {};  // what a task throws does not concern the probe
  }
  m_nextLook = m_openedAt + m_patience.nextLook(waited);
  if (waited >= m_patience.giveUp || now >= m_startedAt + m_patience.stand) {
    m_outcome.silent = true;
    end(CURLE_OPERATION_TIMEDOUT);
  }
}

void DatagramTransfer::open(Way& way) {
  ProbeTask* const task = m_request.task;
  in6_addr replacement{};
  const auto& v4 = reinterpret_cast<const sockaddr_in&>(way.address);
  const bool isReplaced = task != nullptr && way.address.sin6_family == AF_INET &&
                          task->translated(v4.sin_addr, replacement);
  if (isReplaced) {
    sockaddr_in6 other{};
    other.sin6_family = AF_INET6;
    other.sin6_port = way.address.sin6_port;  // at the same place in both families
    other.sin6_addr = replacement;
    way.address = other;
  }
  const auto& generic = reinterpret_cast<const sockaddr&>(way.address);
  const socklen_t length =
      generic.sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  const int stamps = SOF_TIMESTAMPING_SOFTWARE | SOF_TIMESTAMPING_RX_SOFTWARE |
                     SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_OPT_ID |
                     SOF_TIMESTAMPING_OPT_TSONLY;
  m_outcome.toThisMachine = m_outcome.toThisMachine || KernelTrips::leadsToThisMachine(generic);
  way.socket = socket(generic.sa_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (way.socket == NoSocket) {
    m_outcome.shortage = Shortages::fromErrno(errno);
  } else if ((task != nullptr && !task->socketOpened(way.socket, generic.sa_family)) ||
             connect(way.socket, &generic, length) != 0) {
    m_outcome.osError = errno;
    close(way);
  } else {
    // Without them the times are those of this thread.
    setsockopt(way.socket, SOL_SOCKET, SO_TIMESTAMPING, &stamps, sizeof stamps);
  }
}

void DatagramTransfer::sendOn(Way& way) {
  if (way.socket == NoSocket) {
    open(way);
  }
  way.nextAt = Clock::time_point::max();
  std::optional<ProbePacket> packet =
      ProbePacket::make(m_request.how.kind, ntohs(way.address.sin6_port));
  if (way.socket == NoSocket || !packet) {
    return;
  }
  const auto now = Clock::now();
  way.attempts.push_back({std::move(*packet), now});
  const ProbePacket::Bytes bytes = way.attempts.back().packet.bytes();
  if (::send(way.socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0 && errno != EAGAIN) {
    m_outcome.osError = errno;
    close(way);
    return;
  }
  m_outcome.requestUs = m_outcome.requestUs == 0 ? sinceStart(now) : m_outcome.requestUs;
  const milliseconds first = std::min(FirstRepetition, m_patience.again);
  way.nextAt =
      now + (way.attempts.size() == 1 ? first : FirstRepetition * (1 << way.attempts.size()) / 2);
}

void DatagramTransfer::read(Way& way) {
  while (!m_hasEnded) {
    Received received;
    const ssize_t count = recvmsg(way.socket, &received.message, MSG_DONTWAIT);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      if (errno != EAGAIN) {  // its host has refused the packet
        m_outcome.osError = errno;
        way.nextAt = Clock::time_point::max();
        close(way);
      }
      return;
    }
    const ProbePacket::Bytes bytes(received.bytes.data(), static_cast<std::size_t>(count));
    const auto answered = std::ranges::find_if(way.attempts, [bytes](const Attempt& attempt) {
      return attempt.packet.isAnsweredBy(bytes);
    });
    if (answered != way.attempts.end()) {
      readSendTimes(way);
      take(way, *answered, stampOf(received.message));
    }
  }
}

void DatagramTransfer::readSendTimes(Way& way) {
  for (;;) {
    Received received;
    if (recvmsg(way.socket, &received.message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) {
      return;
    }
    const std::optional<std::size_t> packet = packetOf(received.message);
    if (packet && *packet < way.attempts.size()) {
      way.attempts[*packet].kernelSentUs = stampOf(received.message);
    }
  }
}

/// Takes an answer. The kernel's clock may be set meanwhile: what it says counts only if it fits.
void DatagramTransfer::take(const Way& way, const Attempt& attempt, long long kernelUs) {
  const auto now = Clock::now();
  const long long tookUs = std::chrono::duration_cast<microseconds>(now - attempt.sentAt).count();
  const long long stampedUs = kernelUs - attempt.kernelSentUs;
  const bool isStamped = kernelUs >= 0 && attempt.kernelSentUs >= 0 && stampedUs >= 0;
  m_outcome.networkRttUs = isStamped && stampedUs <= tookUs ? stampedUs : tookUs;
  m_outcome.requestUs = sinceStart(attempt.sentAt);
  m_outcome.firstByteUs = sinceStart(now);
  m_outcome.isServed = true;
  m_outcome.address = textOf(way.address);
  m_outcome.addressPort = ntohs(way.address.sin6_port);
  end(CURLE_OK);
}

void DatagramTransfer::close(Way& way) {
  if (way.socket != NoSocket) {
    ::close(std::exchange(way.socket, NoSocket));
  }
}

void DatagramTransfer::end(unsigned int code) {
  m_outcome.code = code;
  m_outcome.endedUs = sinceStart(Clock::now());
  m_hasEnded = true;
}
