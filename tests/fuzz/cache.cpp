// A file of the selection cache. Whatever it contains, the accepted part is bounded and survives
// writing and reading, it answers only its own key, and a selection can be stored in its place.

#include <chrono>
#include <filesystem>
#include <string>

#include "tests/fuzz/require.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/private_access.h"
#include "tests/unit/ahs/network_double.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/PreferenceMgr.h"

AHS_EXPOSE(DocumentOf, &CSelectionCache::documentOf);

namespace {

using SelectionFiles::Selection;

constexpr const char* Place = "nameserver 192.0.2.1 search home.test";
constexpr const char* Candidates = "gw-new;";
/// Start time of every process, in seconds since 1970, so that the same text has the same result.
constexpr std::chrono::seconds Start{1700000000};

/// Uses the cache like a run, through a separate acquisition.
template <class Use>
auto withCache(Use use) {
  CSelectionCache* cache = nullptr;
  REQUIRE(CSelectionCache::createSingletonInstance(cache) == 0);
  const auto result = use(*cache);
  cache->releaseInstance();
  return result;
}

bool find(CCacheEntry& entry) {
  std::string candidates = Candidates;
  return withCache([&](CSelectionCache& cache) { return cache.IsInCache(candidates, entry); });
}

void requireStore() {
  CCacheEntry stored({CHeadendRTT("gw-new", 7)});
  stored.SetKnownHeadends(Candidates);
  REQUIRE(withCache([&](CSelectionCache& cache) { return cache.AddEntry(stored); }) == 0);
  CCacheEntry found;
  REQUIRE(find(found) && found.toString() == stored.toString());
}

/// Lives as long as the process: preferences that set the cache's directory, and in it the file of
/// the selection to look up.
class Surroundings {
 public:
  Surroundings() {
    tests::setNetworkPlace({"search home.test", "nameserver 192.0.2.1"});
    PreferenceMgr::Sources sources;
    sources.cacheDirectory = Directory();
    REQUIRE(PreferenceMgr::createInstance(sources) == PREFERENCEMGR_SUCCESS);
    requireStore();
    m_name = std::filesystem::directory_iterator(Directory())->path().filename();
  }

  const std::string& Directory() const { return m_directory.Path(); }
  void Write(const std::string& text) const { m_directory.Write(m_name, text); }

 private:
  const tests::TemporaryDirectory m_directory;
  std::string m_name;
};

const Surroundings& surroundings() {
  static const Surroundings instance;  // its directory goes when the process ends
  return instance;
}

void requireWithinBounds(const Selection& selection, const std::string& text) {
  constexpr unsigned long endOfYear9999 = 253402300799UL;
  const CCacheEntry& entry = selection.entry;
  const std::string candidates = entry.GetKnownHeadends();
  REQUIRE(candidates.empty() || candidates.ends_with(';'));
  REQUIRE(entry.GetTimestamp() >= 1 && entry.GetTimestamp() <= endOfYear9999);
  std::vector<CHeadendRTT> headends;
  entry.GetHeadendList(headends);
  REQUIRE(!headends.empty());
  for (const CHeadendRTT& headend : headends) {
    const std::string name = headend.GetHeadend();
    REQUIRE(!name.empty());
    // The bytes are the text's, unless references or converted line ends replace some.
    REQUIRE(text.find(name) != std::string::npos || text.find('&') != std::string::npos ||
            name.find(' ') != std::string::npos);
  }
}

/// What was read can be written, and reads the same again.
void requireRoundTrip(const Selection& selection, std::size_t size) {
  const std::string candidates = ';' + selection.entry.GetKnownHeadends();
  const std::string document = exposed(tests::DocumentOf{})(selection);
  const std::string& directory = surroundings().Directory();
  std::string problem;
  CCacheEntry again;
  if (SelectionFiles::write(directory, selection, document, problem)) {
    REQUIRE(SelectionFiles::read(directory, SelectionFiles::keyOf(selection), again, problem));
    REQUIRE(again.toString() == selection.entry.toString());
  } else {
    // No candidate lacks a name, and references may make a tag too long.
    REQUIRE(candidates.find(";;") != std::string::npos || size > 2000);
  }
}

}  // namespace

// Replaces std::chrono::system_clock::now(). It advances, because libFuzzer uses it too.
std::chrono::system_clock::time_point realNow() __asm__(
    "__real__ZNSt6chrono3_V212system_clock3nowEv");
std::chrono::system_clock::time_point shiftedNow() __asm__(
    "__wrap__ZNSt6chrono3_V212system_clock3nowEv");
std::chrono::system_clock::time_point shiftedNow() {
  const std::chrono::system_clock::time_point time = realNow();
  static const std::chrono::seconds shift =
      std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()) - Start;
  return time - shift;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = tests::textOf(data, size);
  surroundings().Write(text);
  Selection selection;
  std::string problem;
  const bool isRight = SelectionFiles::parse(text, selection, problem);
  REQUIRE(tests::isPrintableAscii(problem));
  REQUIRE(problem.size() < 200);
  REQUIRE(problem.empty() == isRight);
  CCacheEntry found;
  if (find(found)) {
    REQUIRE(isRight && selection.place == Place && found.GetKnownHeadends() == Candidates);
    REQUIRE(found.toString() == selection.entry.toString());
    REQUIRE(!SelectionTimes::isExpired(found, 14));
  } else {
    REQUIRE(!isRight || selection.place != Place ||
            selection.entry.GetKnownHeadends() != Candidates ||
            SelectionTimes::isExpired(selection.entry, 14));
  }
  if (isRight) {
    requireWithinBounds(selection, text);
    requireRoundTrip(selection, size);
  }
  requireStore();
  SelectionFiles::clear(surroundings().Directory(), problem);
  return 0;
}
