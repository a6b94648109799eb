#pragma once

#include "cli/probe/WorkerView.h"
#include "vpn/include/HttpSession.h"

/// A plan for so many probes, in a process whose selections send three.
inline ProbePlan somePlan(unsigned int count) {
  ProbePlan plan;
  plan.headend = "gw.example.com";
  plan.place = {"gw.example.com", 443};
  plan.count = count;
  plan.timeout = std::chrono::seconds(2);
  plan.selectionCount = 3;
  plan.selectionTimeout = plan.timeout;
  plan.selectionLimit = std::chrono::seconds(10);
  return plan;
}

/// A probe that was answered with HTTP status 400, its response a millisecond after its network.
inline EndedProbe answered(unsigned int rttMs) {
  EndedProbe probe;
  probe.report.status = HTTP_SESSION_SUCCESS;
  probe.report.rttMs = rttMs;
  probe.report.httpStatus = 400;
  probe.report.address = "192.0.2.7";
  probe.report.networkRttUs = 1000LL * rttMs;
  probe.report.responseRttUs = 1000LL * rttMs + 1000;
  probe.report.connectUs = 1000LL * rttMs + 100;
  return probe;
}

/// A probe without a round trip.
inline EndedProbe failed(STATUSCODE status) {
  EndedProbe probe;
  probe.report.status = status;
  probe.report.totalUs = 1500;
  return probe;
}
