#pragma once

#include <map>
#include <set>
#include <string>

#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/AHS/SelectionRecord.h"

/// Why what a selection met may not be its headends.
struct SelectionDoubt {
  enum class Kind {
    None,
    NoNetwork,   ///< this machine has no way to anywhere
    Portal,      ///< one page answers for all
    Reset,       ///< something ends all connections alike
    OneAddress,  ///< the name server leads names to one address, or to this machine
    Inspector,   ///< one authority, which is not trusted, vouches for all
  };
  Kind kind = Kind::None;
  /// The host of the page, the address, or the authority; empty if unknown. A stranger's text.
  std::string leadsTo;
  std::set<Place> places;  ///< that are doubted

  bool isThere() const { return kind != Kind::None; }
};

/// The doubt about a selection, from its probes. At least two places must agree, a bait being one;
/// where no bait has answered, they must also be equally far, as one box is.
SelectionDoubt doubtOf(const std::map<Place, SelectionRecord::Track>& tracks,
                       const SelectionRecord::Baits& baits);
