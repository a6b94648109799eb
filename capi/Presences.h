#pragma once

#include <chrono>
#include <memory>

#include "vpn/include/Locks.h"

/// Counts what is under way, for who waits for its end. Any thread may call anything.
class Presences {
 public:
  Presences();
  ~Presences();
  Presences(const Presences&) = delete;
  Presences& operator=(const Presences&) = delete;

  /// One that is there as long as the object lives.
  class Token {
   public:
    explicit Token(std::shared_ptr<Presences> presences);
    ~Token();
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;

   private:
    const std::shared_ptr<Presences> m_presences;
  };

  /// Waits until nothing is there. @return false if the time has passed.
  bool waitForNone(std::chrono::milliseconds longest);

 private:
  CMonitor m_lock;  // notified when the last one has gone
  unsigned int m_count AHS_GUARDED_BY(m_lock) = 0;
};
