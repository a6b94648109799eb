#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tests {

/// What became known of one lock: where it was built.
struct BuiltLock {
  const void* address = nullptr;
  /// Return address of the call of its constructor.
  const void* builtAt = nullptr;
  /// The lock that the same thread built just before, as an index of `builtLocks`; -1 for none.
  int previous = -1;
};

/// The recorder takes the place of the operations of CManualLock and CMonitor and passes them on to
/// the real ones. It sees every lock from the start of the process. Any thread may call these.
class LockRecorder {
 public:
  LockRecorder() = delete;

  /// All locks so far, in the order of their construction.
  static std::vector<BuiltLock> BuiltLocks();

  /// Pairs of indexes of `BuiltLocks`: the second was taken by a thread that held the first. A lock
  /// that is taken again by its own holder makes no pair.
  static std::set<std::pair<int, int>> Nestings();

  /// The locks that the calling thread holds, first taken first.
  static std::vector<int> HeldByThisThread();

  /// Locks that were waited on by a thread that held another one besides.
  static std::set<int> WaitedOnWithOthersHeld();
};

/// The source file that a piece of this program's code came from, told by the linker's map.
class LinkMap {
 public:
  /// @param path written by the linker's option -Map. @throws std::runtime_error.
  explicit LinkMap(const std::string& path);

  /// "AppLog.cpp"; empty for code that is not of this program.
  std::string SourceOf(const void* code) const;

 private:
  struct Section {
    std::size_t begin;
    std::size_t end;
    std::string source;
  };
  std::vector<Section> m_sections;  // in order of begin
};

}  // namespace tests
