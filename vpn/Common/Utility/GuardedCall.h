#pragma once

#include <exception>

/// Calls `body`, which is somebody else's code, and lets no exception of it through.
///
/// @param report is told, as text, what exception left the body.
///
/// A thread that is being ended by pthread_exit(3) or cancellation unwinds its stack as an
/// exception does, but must not be stopped: that passes through.
template <class Body, class Report>
void guardedCall(Body body, Report report) {
  try {
    body();
  } catch (const std::exception& exception) {
    report(exception.what());
  } catch (...) {
    if (std::current_exception() == nullptr) {
      throw;  // the end of the thread; swallowing it would abort the process
    }
    report("of unknown type");
  }
}
