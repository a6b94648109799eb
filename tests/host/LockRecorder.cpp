// Linker wrappers around the operations of both kinds of locks. They record each thread's held
// locks, and which locks were ever taken while others were held. Their own data uses no lock of the
// product and is never freed.

#include "tests/host/LockRecorder.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>

namespace tests {

namespace {

/// More locks than any thread here ever holds at once.
constexpr std::size_t MostHeld = 16;

struct Held {
  const void* lock = nullptr;
  int index = -1;
  unsigned int times = 0;
};

/// Has no destructor: a thread may take locks until its very end.
struct ThreadState {
  std::array<Held, MostHeld> held;
  std::size_t count = 0;
  int lastBuilt = -1;

  Held* Find(const void* lock) {
    const auto end = held.begin() + static_cast<std::ptrdiff_t>(count);
    const auto found =
        std::find_if(held.begin(), end, [lock](const Held& h) { return h.lock == lock; });
    return found == end ? nullptr : &*found;
  }
};

thread_local ThreadState t_state;

struct Recorded {
  std::mutex mutex;
  std::vector<BuiltLock> built;
  std::map<const void*, int> indexOf;
  std::set<std::pair<int, int>> nestings;
  std::set<int> waitedOnWithOthersHeld;
};

Recorded& recorded() {
  static Recorded& instance = *new Recorded;
  return instance;
}

void noteBuilt(const void* lock, const void* builtAt) {
  Recorded& all = recorded();
  const std::lock_guard<std::mutex> guard(all.mutex);
  const int index = static_cast<int>(all.built.size());
  all.built.push_back({lock, builtAt, t_state.lastBuilt});
  all.indexOf[lock] = index;
  t_state.lastBuilt = index;
}

/// To be called before taking the lock, so that even an endless wait is recorded.
void noteTaking(const void* lock) {
  ThreadState& mine = t_state;
  if (Held* const held = mine.Find(lock); held != nullptr) {
    ++held->times;
    return;
  }
  if (mine.count == MostHeld) {
    std::abort();
  }
  Recorded& all = recorded();
  const std::lock_guard<std::mutex> guard(all.mutex);
  const auto found = all.indexOf.find(lock);
  const int index = found == all.indexOf.end() ? -1 : found->second;
  for (std::size_t i = 0; i < mine.count; ++i) {
    all.nestings.emplace(mine.held[i].index, index);
  }
  mine.held[mine.count++] = {lock, index, 1};
}

void noteGivenBack(const void* lock) {
  ThreadState& mine = t_state;
  Held* const held = mine.Find(lock);
  if (held == nullptr) {
    std::abort();
  }
  if (--held->times == 0) {
    std::copy(held + 1, mine.held.data() + mine.count, held);
    --mine.count;
  }
}

void noteWaiting(const void* lock) {
  ThreadState& mine = t_state;
  if (mine.count > 1) {
    Recorded& all = recorded();
    const std::lock_guard<std::mutex> guard(all.mutex);
    all.waitedOnWithOthersHeld.insert(mine.Find(lock)->index);
  }
}

}  // namespace

std::vector<BuiltLock> LockRecorder::BuiltLocks() {
  const std::lock_guard<std::mutex> guard(recorded().mutex);
  return recorded().built;
}

std::set<std::pair<int, int>> LockRecorder::Nestings() {
  const std::lock_guard<std::mutex> guard(recorded().mutex);
  return recorded().nestings;
}

std::vector<int> LockRecorder::HeldByThisThread() {
  std::vector<int> indexes;
  for (std::size_t i = 0; i < t_state.count; ++i) {
    indexes.push_back(t_state.held[i].index);
  }
  return indexes;
}

std::set<int> LockRecorder::WaitedOnWithOthersHeld() {
  const std::lock_guard<std::mutex> guard(recorded().mutex);
  return recorded().waitedOnWithOthersHeld;
}

LinkMap::LinkMap(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::string name;
  while (std::getline(file, line)) {
    // " NAME 0xADDRESS 0xSIZE FILE"; a long name stands on a line of its own.
    std::istringstream words(line);
    if (line.starts_with(" .")) {
      words >> name;
    }
    std::size_t begin = 0;
    std::size_t size = 0;
    std::string object;
    const bool isSection = static_cast<bool>(words >> std::hex >> begin >> size >> object);
    const std::size_t end = object.rfind(".cpp.o");
    // The map also lists what the linker has dropped, at the address 0.
    if (isSection && name.starts_with(".text") && begin != 0 && end != std::string::npos) {
      const std::size_t source = object.find_last_of("/(", end) + 1;
      m_sections.push_back({begin, begin + size, object.substr(source, end + 4 - source)});
    }
  }
  if (m_sections.empty()) {
    throw std::runtime_error("no linker's map in " + path);
  }
  std::ranges::sort(m_sections, {}, &Section::begin);
}

std::string LinkMap::SourceOf(const void* code) const {
  Dl_info program{};
  dladdr(reinterpret_cast<void*>(&noteBuilt), &program);
  const std::size_t address =
      reinterpret_cast<std::size_t>(code) - reinterpret_cast<std::size_t>(program.dli_fbase);
  const auto after = std::ranges::upper_bound(m_sections, address, {}, &Section::begin);
  return after != m_sections.begin() && address < std::prev(after)->end ? std::prev(after)->source
                                                                        : "";
}

}  // namespace tests

// The linker's names for constructor, Lock and Unlock of CManualLock, and the same and Wait of
// CMonitor.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {
void __real__ZN11CManualLockC1Em(void* lock, unsigned long spinCount);
void __real__ZN11CManualLock4LockEv(void* lock);
void __real__ZN11CManualLock6UnlockEv(void* lock);
void __real__ZN8CMonitorC1Ev(void* lock);
void __real__ZN8CMonitor4LockEv(void* lock);
void __real__ZN8CMonitor6UnlockEv(void* lock);
void __real__ZN8CMonitor4waitEv(void* lock);

void __wrap__ZN11CManualLockC1Em(void* lock, unsigned long spinCount) {
  tests::noteBuilt(lock, __builtin_return_address(0));
  __real__ZN11CManualLockC1Em(lock, spinCount);
}
void __wrap__ZN11CManualLock4LockEv(void* lock) {
  tests::noteTaking(lock);
  __real__ZN11CManualLock4LockEv(lock);
}
void __wrap__ZN11CManualLock6UnlockEv(void* lock) {
  tests::noteGivenBack(lock);
  __real__ZN11CManualLock6UnlockEv(lock);
}
void __wrap__ZN8CMonitorC1Ev(void* lock) {
  tests::noteBuilt(lock, __builtin_return_address(0));
  __real__ZN8CMonitorC1Ev(lock);
}
void __wrap__ZN8CMonitor4LockEv(void* lock) {
  tests::noteTaking(lock);
  __real__ZN8CMonitor4LockEv(lock);
}
void __wrap__ZN8CMonitor6UnlockEv(void* lock) {
  tests::noteGivenBack(lock);
  __real__ZN8CMonitor6UnlockEv(lock);
}
void __wrap__ZN8CMonitor4waitEv(void* lock) {
  tests::noteWaiting(lock);
  __real__ZN8CMonitor4waitEv(lock);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
