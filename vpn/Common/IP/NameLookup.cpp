// Counts the threads of look-ups. Nobody can ask such a thread whether it has ended, so the kernel
// is asked for threads of that name, but only once too many may be left.

#include "vpn/Common/IP/NameLookup.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "vpn/Common/Trust/FileTrust.h"

namespace {

using std::chrono::steady_clock;

constexpr std::string_view ThreadName = "ahs-name-lookup";
constexpr std::chrono::seconds CountInterval{1};

constinit std::atomic<int> underWay{0};
// About as many as there are.
constinit std::atomic<int> left{0};
constinit std::atomic<steady_clock::rep> nextCount{0};

bool isLookup(const std::string& thread) {
  std::array<char, ThreadName.size() + 2> name{};
  const FileTrust::Descriptor file(
      open(("/proc/self/task/" + thread + "/comm").c_str(), O_RDONLY | O_CLOEXEC));
  const ssize_t count = file.get() < 0 ? 0 : read(file.get(), name.data(), name.size());
  return std::string_view(name.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)))
      .starts_with(ThreadName);
}

void countAgain() {
  steady_clock::rep due = nextCount;
  const steady_clock::time_point now = steady_clock::now();
  if (now.time_since_epoch().count() < due ||
      !nextCount.compare_exchange_strong(due, (now + CountInterval).time_since_epoch().count())) {
    return;
  }
  int threads = 0;
  FileTrust::Descriptor all(open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const int error = FileTrust::visitNames(std::move(all), [&threads](const std::string& thread) {
    threads += isLookup(thread) ? 1 : 0;
    return true;
  });
  if (error == 0) {
    left = std::max(threads - underWay, 0);
  }
}

}  // namespace

bool NameLookup::begin() {
  if (left >= MostLeft) {
    countAgain();
  }
  m_isRefused = left >= MostLeft;
  if (m_isRefused) {
    return false;
  }
  end(true);
  ++underWay;
  m_isUnderWay = true;
  m_isStarting =
      prctl(PR_GET_NAME, m_callersName.data()) == 0 && prctl(PR_SET_NAME, ThreadName.data()) == 0;
  return true;
}

void NameLookup::noteStart() {
  if (std::exchange(m_isStarting, false)) {
    prctl(PR_SET_NAME, m_callersName.data());
  }
}

void NameLookup::end(bool isOver) {
  if (std::exchange(m_isUnderWay, false)) {
    --underWay;
    left += isOver ? 0 : 1;
  }
}
