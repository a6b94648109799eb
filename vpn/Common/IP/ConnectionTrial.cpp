// One connection, made like a probe's and given up as it stands: nothing is sent.

#include "vpn/Common/IP/ConnectionTrial.h"

#include <curl/curl.h>

#include "vpn/Common/IP/DatagramTransfer.h"
#include "vpn/Common/IP/DirectTransfer.h"
#include "vpn/Common/IP/ProbeSettings.h"
#include "vpn/Common/IP/ProbeTask.h"

namespace {

bool isOurFault(const ProbeOutcome& outcome) {
  return outcome.code == CURLE_OUT_OF_MEMORY || outcome.code == CURLE_FAILED_INIT ||
         outcome.code == CURLE_ABORTED_BY_CALLBACK || outcome.shortage != Shortage::None ||
         Shortages::fromErrno(static_cast<int>(outcome.osError)) != Shortage::None;
}

}  // namespace

ConnectionTrial tryConnection(const std::string& host, unsigned short port,
                              std::chrono::milliseconds longest) noexcept {
  const PROXY_DATA noProxy;
  ProbeOutcome outcome;
  try {
    ProbeRequest request;
    request.task = ProbeTask::current().get();
    request.how = ProbeSettings::howTo(host, port);
    request.port = request.how.portAt(port);
    request.connectsOnly = true;
    outcome.code = request.prepare(host, noProxy);
    request.timeout = longest;
    request.deadline = request.start + longest;
    if (outcome.code == CURLE_OK && request.isDatagram()) {
      outcome = DatagramTransfer(request).send();
    } else if (outcome.code == CURLE_OK) {
      DirectTransfer::Addresses addresses;
      DirectTransfer transfer(request, false, addresses);
      transfer.send(request);
      outcome = transfer.takeOutcome();
    }
  } catch (...) {
    outcome.code = CURLE_OUT_OF_MEMORY;
  }
  return outcome.code == CURLE_OK ? ConnectionTrial::Stands
         : isOurFault(outcome)    ? ConnectionTrial::Untried
                                  : ConnectionTrial::Dead;
}
