// The file of the selection cache. Whatever stands in it, what is taken over is within its bounds
// and survives being written and read again, a selection can be stored on top of it, and a file
// that was not understood is kept.

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "tests/fuzz/require.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/private_access.h"
#include "tests/unit/ahs/resolver_double.h"
#include "vpn/Api/AHS/CacheDocument.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/PreferenceMgr.h"

AHS_EXPOSE(WriteDocument, &CSelectionCache::writeDocument);

namespace {

using CacheDocument::Contents;
using CacheDocument::Entries;
using CacheDocument::Form;
using tests::textOf;

constexpr const char* Place = "nameserver 192.0.2.1 search home.test";
/// When every process starts, in seconds since 1970, so that the same text has the same fate.
constexpr std::chrono::seconds Start{1700000000};
constexpr const char* NewCandidates = "gw-new;";

/// What lives as long as the process: a directory and preferences that keep the cache there.
class Surroundings {
 public:
  Surroundings() : m_file(m_directory.File("selections.xml")) {
    tests::setResolverPlace({"search home.test", "nameserver 192.0.2.1"});
    PreferenceMgr::Sources sources;
    sources.cacheFile = m_file;
    REQUIRE(PreferenceMgr::createInstance(sources) == PREFERENCEMGR_SUCCESS);
  }

  const std::string& File() const { return m_file; }
  std::string CorruptFile() const { return m_file + ".corrupt"; }

  /// A directory in which there is nothing but a cache file of this text.
  void Write(const std::string& text) const {
    unlink(CorruptFile().c_str());
    unlink(m_file.c_str());
    m_directory.Write("selections.xml", text);
    REQUIRE(chmod(m_file.c_str(), 0600) == 0);
  }

 private:
  tests::TemporaryDirectory m_directory;
  const std::string m_file;
};

const Surroundings& surroundings() {
  static const Surroundings instance;  // its directory goes when the process ends
  return instance;
}

/// One acquisition of the cache, as a run holds it.
class CacheHold {
 public:
  CacheHold() : m_cache(nullptr) {
    REQUIRE(CSelectionCache::createSingletonInstance(m_cache) == 0);
  }
  ~CacheHold() { m_cache->releaseInstance(); }
  CacheHold(const CacheHold&) = delete;
  CacheHold& operator=(const CacheHold&) = delete;

  CSelectionCache* operator->() const { return m_cache; }
  CSelectionCache& operator*() const { return *m_cache; }

 private:
  CSelectionCache* m_cache;
};

std::vector<CHeadendRTT> headendsOf(const CCacheEntry& entry) {
  std::vector<CHeadendRTT> headends;
  entry.GetHeadendList(headends);
  return headends;
}

bool sameEntry(const CCacheEntry& a, const CCacheEntry& b) {
  const std::vector<CHeadendRTT> first = headendsOf(a);
  const std::vector<CHeadendRTT> second = headendsOf(b);
  bool same = first.size() == second.size() && a.GetTimestamp() == b.GetTimestamp() &&
              a.GetKnownHeadends() == b.GetKnownHeadends();
  for (std::size_t i = 0; same && i < first.size(); ++i) {
    same =
        first[i].GetHeadend() == second[i].GetHeadend() && first[i].GetRTT() == second[i].GetRTT();
  }
  return same;
}

void requireRightEntry(const std::string& key, const CCacheEntry& entry) {
  constexpr unsigned long endOfYear9999 = 253402300799UL;
  const std::size_t separator = key.find('\n');
  REQUIRE(separator != std::string::npos);
  REQUIRE(key.substr(separator + 1) == entry.GetKnownHeadends());
  REQUIRE(tests::isPrintableAscii(key.substr(0, separator)));
  REQUIRE(entry.GetTimestamp() >= 1 && entry.GetTimestamp() <= endOfYear9999);
  REQUIRE(entry.GetListSize() >= 1 && entry.GetListSize() <= CacheDocument::MaxRecords);
  for (const CHeadendRTT& headend : headendsOf(entry)) {
    REQUIRE(!headend.GetHeadend().empty());
    REQUIRE(headend.GetHeadend().size() <= CacheDocument::MaxHeadendLength);
  }
}

void requireSame(const Entries& a, const Entries& b) {
  REQUIRE(a.size() == b.size());
  for (const auto& [key, entry] : a) {
    REQUIRE(b.contains(key));
    REQUIRE(sameEntry(entry, b.at(key)));
  }
}

/// What was read can be written, and what was written reads the same.
void requireRoundTrip(const Contents& contents) {
  std::string document;
  std::string problem;
  Contents again;
  REQUIRE(exposed(tests::WriteDocument{})(contents, "", document));
  REQUIRE(document.size() <= CSelectionCache::MaxFileSize);
  REQUIRE(CacheDocument::parse(document, again, problem) == Form::Right);
  requireSame(contents.entries, again.entries);
  REQUIRE(contents.uses == again.uses);
}

unsigned long now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<unsigned long>(
      std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count());
}

bool isCurrentAt(const CCacheEntry& entry, unsigned long time) {
  constexpr unsigned long fourteenDays = 14UL * 24 * 60 * 60;
  return entry.GetTimestamp() <= time && time - entry.GetTimestamp() <= fourteenDays;
}

/// A hit is a current entry of the file for the place, and every such entry is one.
void requireRightHits(const Entries& entries) {
  const unsigned long before = now();
  const CacheHold cache;
  for (const auto& [key, entry] : entries) {
    std::string candidates = entry.GetKnownHeadends();
    const auto atPlace = entries.find(CacheDocument::selectionKey(Place, candidates));
    CCacheEntry found;
    if (cache->IsInCache(candidates, found)) {
      REQUIRE(atPlace != entries.end());
      REQUIRE(sameEntry(found, atPlace->second));
      REQUIRE(isCurrentAt(found, before) || isCurrentAt(found, now()));
    } else {
      REQUIRE(atPlace == entries.end() || !isCurrentAt(atPlace->second, before) ||
              !isCurrentAt(atPlace->second, now()));
    }
  }
}

/// However long the disk takes, the entry is there when the cache has been released.
void store() {
  const CacheHold cache;
  CCacheEntry entry({CHeadendRTT("gw-new", 7)});
  entry.SetKnownHeadends(NewCandidates);
  const STATUSCODE status = cache->AddEntry(entry);
  REQUIRE(status == 0 || status == HEADENDSELECTION_ERROR_CACHE_FAILURE);
}

/// After a store the file holds it and, of what it held before, at least what is current and fits.
void requireStored(const Entries& before) {
  Contents contents;
  std::string problem;
  REQUIRE(CacheDocument::parse(tests::readFile(surroundings().File()), contents, problem) ==
          Form::Right);
  const Entries& after = contents.entries;
  const std::string stored = CacheDocument::selectionKey(Place, NewCandidates);
  REQUIRE(after.size() <= CacheDocument::MaxEntries);
  REQUIRE(after.contains(stored));
  for (const auto& [key, entry] : after) {
    REQUIRE(key == stored || (before.contains(key) && sameEntry(entry, before.at(key))));
  }
  for (const auto& [key, entry] : before) {
    REQUIRE(after.contains(key) || !isCurrentAt(entry, now()) ||
            after.size() == CacheDocument::MaxEntries);
  }
  const CacheHold cache;
  std::string candidates = NewCandidates;
  CCacheEntry found;
  REQUIRE(cache->IsInCache(candidates, found));
  REQUIRE(found.GetListSize() == 1);
}

}  // namespace

// In the place of std::chrono::system_clock::now(). It moves on, for libFuzzer uses it as well.
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

namespace {

/// What a later version has written stays as it is.
void requireLeftAlone(const std::string& text) {
  store();
  REQUIRE(tests::readFile(surroundings().File()) == text);
  REQUIRE(tests::readFile(surroundings().CorruptFile()).empty());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = textOf(data, size);
  surroundings().Write(text);
  Contents contents;
  std::string problem;
  const Form form = CacheDocument::parse(text, contents, problem);
  REQUIRE(tests::isPrintableAscii(problem));
  REQUIRE(problem.size() < 200);
  REQUIRE(problem.empty() == (form == Form::Right));
  REQUIRE(problem.empty() || (contents.entries.empty() && contents.uses.empty()));
  REQUIRE(contents.entries.size() <= CacheDocument::MaxEntries);
  for (const auto& [key, entry] : contents.entries) {
    requireRightEntry(key, entry);
  }
  for (const auto& [key, use] : contents.uses) {
    REQUIRE(contents.entries.contains(key) && use >= 1);
  }
  if (form == Form::Newer) {
    requireLeftAlone(text);
    return 0;
  }
  requireRoundTrip(contents);
  requireRightHits(contents.entries);
  store();
  requireStored(contents.entries);
  REQUIRE(tests::readFile(surroundings().CorruptFile()) == (problem.empty() ? "" : text));
  return 0;
}
