#pragma once

#include <memory>
#include <utility>

#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Common/Utility/Thread.h"

/// A thread that owns a run and runs it. If it is never started, it deletes the run.
class SelectionThread : public CThread {
 public:
  /// @param selection constructed with success.
  explicit SelectionThread(std::unique_ptr<CHeadendSelection> selection)
      : m_selection(std::move(selection)) {}

  STATUSCODE Run() override {
    m_selection.release()->run();  // deletes the selection
    return 0;
  }

 private:
  std::unique_ptr<CHeadendSelection> m_selection;
};
