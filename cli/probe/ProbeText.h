#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "cli/probe/ProbeOptions.h"

/// What the text and the JSON of `ahs probe` have in common.

/// Host and port, the default port too: "gw.example.com:443".
std::string candidateWithPort(const ProbePlan& plan);

/// The lines of a request's or an answer's head, visible; long ones are cut, and so are many.
std::vector<std::string> headLines(const std::string& head);

/// The name of a probe's status: "HTTP_SESSION_SUCCESS".
std::string probeStatusName(STATUSCODE status);

/// Share of the probes without a sample, rounded to the nearest; 0 and 100 only for none and all.
unsigned int lossPercent(std::size_t sent, std::size_t samples);
