#pragma once

#include <array>
#include <cstddef>

/// One look-up of a name, on a thread that the transport starts. A probe that gives up leaves the
/// thread behind until getaddrinfo(3) returns, if ever; so they are counted and limited. An object
/// is used by one thread.
class NameLookup {
 public:
  NameLookup() = default;
  /// A look-up that is under way is left behind.
  ~NameLookup() { end(false); }
  NameLookup(const NameLookup&) = delete;
  NameLookup& operator=(const NameLookup&) = delete;

  /// Threads that may be left behind in the process; until some have ended, no name is looked up.
  /// As many as a selection among a thousand headends leaves where the name server is silent.
  static constexpr int MostLeft = 1024;

  /// To be called before the transport starts the thread, which inherits its name from the caller.
  /// @return whether it may be started.
  bool begin();
  /// Whether too many were left behind for this one.
  bool isRefused() const { return m_isRefused; }
  /// To be called when the thread has been started: gives the caller its own name back.
  void noteStart();
  /// To be called at the end. @param isOver whether the look-up has; else its thread is left
  /// behind. Without a beginning, nothing happens.
  void end(bool isOver);

 private:
  static constexpr std::size_t NameBytes = 16;  // of prctl(2)

  std::array<char, NameBytes> m_callersName{};
  bool m_isStarting = false;
  bool m_isUnderWay = false;
  bool m_isRefused = false;
};
