#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <string>

#include "tests/stress/scenario.h"
#include "vpn/include/StatusCode.h"

namespace stress {

enum class EventKind : unsigned char {
  Message,     ///< a log line
  ReturnCode,  ///< a log line of a failed call; the text names the call
  CacheStored,
  CallbackBegins,
  CallbackEnds,
  ProviderDeleted,
  CacheReleased,
  RunReturned,
};

struct Event {
  static constexpr std::size_t MostText = 768;

  EventKind kind = EventKind::Message;
  Role role = Role::Main;
  unsigned char worker = 0;  ///< which, if it is a worker's
  char severity = 0;
  bool isCut = false;
  const char* function = "";
  STATUSCODE code = 0;
  std::array<char, MostText> text;  // its end is written with it

  /// "function S text", with " 0xCODE" behind it if it is a return code; for other events the text.
  std::string toString() const;
};

/// What happened in one run, in one order over all of its threads.
///
/// Adding an event takes no lock and orders no memory: to a race detector the threads stay as
/// unrelated as the program makes them. To be read when none of them is left.
class Journal {
 public:
  static constexpr std::size_t MostEvents = 192;

  /// The place of one more event, to be filled by the caller; never null. Events beyond the room
  /// are counted and lost.
  Event& add(EventKind kind);

  std::size_t size() const;
  const Event& operator[](std::size_t index) const { return m_events[index]; }
  bool hasLost() const;
  std::string toString() const;

 private:
  std::atomic<std::size_t> m_next{0};
  std::array<Event, MostEvents> m_events;
};

}  // namespace stress
