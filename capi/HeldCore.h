#pragma once

#include <memory>
#include <string>

#include "ahs/ahs.h"
#include "capi/Core.h"

/// The core of the process, which is up as long as anyone has such a hold. Any thread may hold it
/// and let it go.
class HeldCore {
 public:
  /// Brings the core up, or shares the one that is.
  /// @param status receives how that went. @param error what is wrong, if it says more.
  /// @return null after a failure, and where another one is up.
  static std::shared_ptr<HeldCore> forPlan(const StartPlan& plan, ahs_status& status,
                                           std::string& error);

  ~HeldCore();
  HeldCore(const HeldCore&) = delete;
  HeldCore& operator=(const HeldCore&) = delete;

  const Core& get() const { return *m_core; }

 private:
  explicit HeldCore(const Core* core) : m_core(core) {}

  const Core* const m_core;
};
