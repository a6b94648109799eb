// Connections that serve several probes. A server may close or forget a kept connection at any
// time, so a failure on it says nothing about the server. A fresh connection then decides, with
// enough of the time-out left.

#include "vpn/Common/IP/KeptTransfer.h"

#include <curl/curl.h>

#include <utility>

namespace {

// Parts of a probe's time-out: how long a kept connection may be silent alone, and how soon a
// server has to answer for its connection to be kept. A fresh connection then has as much time as
// the last one took.
constexpr int SilentPart = 4;
constexpr int PromptPart = 4;
constexpr int OpenedPart = 2;

bool isPrompt(const ProbeOutcome& outcome, const ProbeRequest& request) {
  const auto tookToAnswer = std::chrono::microseconds(outcome.firstByteUs - outcome.requestUs);
  const auto tookInAll = std::chrono::microseconds(outcome.firstByteUs - outcome.openedUs);
  return tookToAnswer <= request.timeout / PromptPart &&
         (outcome.reused || tookInAll <= request.timeout / OpenedPart);
}

}  // namespace

/// The kept connection, if it can serve the request.
KeptTransfer::Transfer KeptTransfer::takeIdle(const ProbeRequest& request) {
  if (request != m_target) {
    m_idle.reset();
    m_addresses = {};
    m_target = request;
    m_keeps = true;
  }
  Transfer idle = std::move(m_idle);
  if (idle && !idle->isReadyFor(request)) {
    m_keeps = false;
    idle.reset();
  }
  return idle;
}

ProbeOutcome KeptTransfer::send(const ProbeRequest& request) {
  Transfer transfer = takeIdle(request);
  if (!transfer ||
      !transfer->send(request, DirectTransfer::Clock::now() + request.timeout / SilentPart)) {
    m_keeps = m_keeps && !transfer;
    const auto make = [&] {
      return std::make_unique<DirectTransfer>(request, m_keeps, m_addresses);
    };
    Transfer fresh = make();
    const auto endless = DirectTransfer::Clock::time_point::max();
    if (!fresh->send(request, endless, transfer.get(), !transfer) && fresh->isUnanswered()) {
      transfer = std::move(fresh);
      fresh = make();
      fresh->send(request, endless, transfer.get());
      if (!fresh->wasHeard()) {
        fresh.swap(transfer);
      }
    }
    if (!transfer || !transfer->hasAnswer()) {
      transfer = std::move(fresh);
    }
  }
  ProbeOutcome outcome = transfer->takeOutcome();
  m_keeps = m_keeps && outcome.code == CURLE_OK && isPrompt(outcome, request);
  if (m_keeps && !outcome.openedAgain) {  // the next one tells how far the headend is
    m_idle = std::move(transfer);
  }
  return outcome;
}
