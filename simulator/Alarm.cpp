// A timerfd with absolute times: a late look at it never lengthens the wait.

#include "simulator/Alarm.h"

#include <sys/timerfd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace simulator {

Alarm::Alarm() : m_timer(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
  if (!m_timer) throw std::system_error(errno, std::generic_category(), "timerfd_create");
}

void Alarm::set(std::optional<Clock::time_point> moment) {
  if (moment == m_moment) return;
  m_moment = moment;
  itimerspec timer{};
  if (moment) {
    const auto sinceStart = moment->time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceStart);
    timer.it_value.tv_sec = seconds.count();
    timer.it_value.tv_nsec =
        std::chrono::duration_cast<std::chrono::nanoseconds>(sinceStart - seconds).count();
  }
  timerfd_settime(m_timer.get(), TFD_TIMER_ABSTIME, &timer, nullptr);
}

void Alarm::acknowledge() {
  std::uint64_t expirations = 0;
  if (::read(m_timer.get(), &expirations, sizeof expirations) > 0) m_moment.reset();
}

}  // namespace simulator
