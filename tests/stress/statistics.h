#pragma once

#include <array>
#include <string>

#include "tests/stress/stage.h"

namespace stress {

/// How often each moment was aimed at, reached and hit.
class Statistics {
 public:
  void add(const Stage& stage);

  unsigned long runs() const { return m_runs; }
  std::string toString() const;
  /// The moments that were never hit and the places that nobody passed; empty if there are none.
  std::string missed() const;

 private:
  struct Aimed {
    unsigned long runs = 0;
    unsigned long fired = 0;
    unsigned long hit = 0;
  };

  unsigned long m_runs = 0;
  unsigned long m_expired = 0;
  unsigned long m_decided = 0;
  std::array<Aimed, static_cast<std::size_t>(AimKind::Count)> m_aimed;
};

}  // namespace stress
