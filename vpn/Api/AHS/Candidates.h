#pragma once

#include <string>
#include <utility>
#include <vector>

#include "vpn/Common/Utility/URL.h"

class ProfileMgr;

/// A host and the port that is probed there; identifies a probe's headend. An IPv6 address has no
/// brackets.
using Place = std::pair<std::string, unsigned short>;

/// One headend that a run measures.
struct Candidate {
  std::string name;     ///< of its host entry
  std::string headend;  ///< host, or host ":" port, as it is reported and delivered
  Place place;
};

/// One host entry of the profiles.
struct HostEntry {
  std::string name;
  std::string profile;
  std::string file;        ///< empty for one of the command line
  unsigned int line = 0;   ///< in the file
  std::string address;     ///< where it is reached: its address, else its name
  bool takesPart = false;  ///< in automatic selection
  std::string reason;      ///< why it does, or does not
};

/// The place that a probe with this host and port goes to.
Place placeOf(const std::string& host, unsigned short port);

/// Host and port as a URL has them, the default port too: "gw.example.com:443".
std::string hostAndPort(const Place& place);

/// The headend at an address.
Candidate candidateOf(const std::string& name, const URL& url);

/// The name of a host entry, to show beside its headend's address; empty if the name is only
/// another spelling of the address.
std::string nameBeside(const std::string& headend, const std::string& name);

/// All host entries, in ascending order of their names, and what becomes of each: those of a
/// profile in which the switch is on or left to the user take part. An entry with a mistake or a
/// name already taken follows the entry of that name. Reads the process's preference manager; empty
/// without one.
std::vector<HostEntry> findHostEntries();

/// The candidate of a host entry's name, in any letter case; null if there is none.
const Candidate* findNamed(const std::string& name, const std::vector<Candidate>& candidates);

/// The headends that take part in automatic selection, in the order in which a run takes them; of
/// some profiles, or of the process's.
/// @{
std::vector<Candidate> findCandidates(const ProfileMgr& profiles);
std::vector<Candidate> findCandidates();
/// @}
