#pragma once

#include <string>
#include <utility>
#include <vector>

/// A host and the port that is probed there: what tells a probe's headend. An IPv6 address stands
/// without brackets.
using Place = std::pair<std::string, unsigned short>;

/// One headend that a run measures.
struct Candidate {
  std::string name;     ///< of its host entry
  std::string headend;  ///< host, or host ":" port, as it is reported and delivered
  Place place;
};

/// The place that a probe with this host and port goes to.
Place placeOf(const std::string& host, unsigned short port);

/// The headends that take part in automatic selection, in the order in which a run takes them: the
/// host entries, in ascending order of their names, of those profiles in which the switch is on or
/// left to the user. Reads the process's preference manager; empty when there is none.
std::vector<Candidate> findCandidates();
