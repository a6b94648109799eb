#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Common/Utility/Thread.h"

/// The record of a selection that lays baits beside it: as soon as the first headend is probed, an
/// address and a name that nobody has are probed in the same way. No selection waits for them.
class BaitedRecord : public SelectionRecord, public std::enable_shared_from_this<BaitedRecord> {
 public:
  /// How long a bait may take to be answered.
  static constexpr unsigned int LimitSeconds = 1;

  BaitedRecord();
  ~BaitedRecord() override;

  void probeStarted(const HttpProbe::Report& report) override;

  /// Ends the baits' probes and waits until they have ended. To be called at the end, by the owner.
  void endBaits() const;
  /// Waits a moment for baits that fail at once, as all does where there is no network.
  void awaitFailingBaits() const;

 private:
  class Bait;
  using Laid = std::vector<std::shared_ptr<Bait>>;

  void lay(const HttpProbe::Report& like);
  Laid laid() const;

  std::atomic_flag m_isLaid;
  mutable CManualLock m_baitLock;
  Laid m_laid AHS_GUARDED_BY(m_baitLock);
};
