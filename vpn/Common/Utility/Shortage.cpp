// Shortages are counted for the whole process, because what lacks for one lacks for all.

#include "vpn/Common/Utility/Shortage.h"

#include <atomic>
#include <cerrno>

#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/Task.h"

namespace {

constinit std::atomic<unsigned long> shortages{0};

}  // namespace

Shortage Shortages::fromErrno(int error) noexcept {
  switch (error) {
    case EMFILE:
    case ENFILE:
      return Shortage::Descriptors;
    case ENOBUFS:
    case ENOMEM:
      return Shortage::Memory;
    default:
      return Shortage::None;
  }
}

const char* Shortages::inWords(Shortage what) noexcept {
  return what == Shortage::Descriptors ? "this machine ran out of descriptors"
         : what == Shortage::Threads   ? "this machine ran out of threads"
         : what == Shortage::Memory    ? "this machine ran out of memory"
                                       : "";
}

void Shortages::note(Shortage what) noexcept {
  if (what == Shortage::None) {
    return;
  }
  shortages.fetch_add(1);
  if (const auto task = CTask::current(); task != nullptr) {
    task->noteShortage(what);
  }
  CAppLog::LogDebugMessage("note", "vpn/Common/Utility/Shortage", __LINE__, Logging::DBG_Warning,
                           "%s", inWords(what));
}

unsigned long Shortages::count() noexcept { return shortages.load(); }
