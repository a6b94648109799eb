// A probe as programs read it. Null tells an event that did not happen.

#include "cli/show/ReportJson.h"

#include "cli/show/StatusWords.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/AHS/SelectionRules.h"

Json millisecondsAsJson(long long microseconds) {
  constexpr double MicrosecondsPerMillisecond = 1000.0;
  return microseconds < 0 ? Json(nullptr)
                          : Json(static_cast<double>(microseconds) / MicrosecondsPerMillisecond);
}

Json probeAsJson(const HttpProbe::Report& probe) {
  return {{"status", statusAsHex(probe.status)},
          {"rttMs", SelectionRules::isSample(probe.status) ? Json(probe.rttMs) : Json(nullptr)},
          {"httpStatus", probe.httpStatus == 0 ? Json(nullptr) : Json(probe.httpStatus)},
          {"address", orNull(probe.address)},
          {"reused", probe.reused},
          {"connectMs", millisecondsAsJson(probe.connectUs)},
          {"tlsMs", millisecondsAsJson(probe.tlsUs)},
          {"totalMs", millisecondsAsJson(probe.totalUs)},
          {"networkRttMs", millisecondsAsJson(probe.networkRttUs)},
          {"responseRttMs", millisecondsAsJson(probe.responseRttUs)}};
}
