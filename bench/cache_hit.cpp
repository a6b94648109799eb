// How long a selection takes on a cache hit: from the run's construction to the client's callback,
// in one process. Prints medians and 99th percentiles in milliseconds as JSON. Fails if a run is no
// hit.

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/ClientLibrary.h"

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr int kHeadends = 1000;
/// Enough for a 99th percentile; two seconds at a millisecond each.
constexpr int kRuns = 1000;
/// Not counted: these runs touch pages and libraries for the first time.
constexpr int kWarmUps = 20;

/// A directory that the destructor removes.
class Scratch {
 public:
  Scratch() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ahs-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
    path = pattern;
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  std::filesystem::path path;
};

class Client : public ClientIfcBase {
 public:
  void AHSSelectedHost(unsigned int /*reason*/, const std::vector<std::string>& headends,
                       long status, const std::string& /*extraInfo*/) override {
    called = Clock::now();
    isHit = status == HEADENDSELECTION_SUCCESS && !headends.empty();
  }

  Clock::time_point called;
  bool isHit = false;
};

/// Names of equal length: their byte order is the order of the numbers.
std::string NameOf(int number) {
  const std::string digits = std::to_string(100'000 + number).substr(1);
  return "gateway-" + digits + ".vpn.example.com";
}

void WriteProfile(const std::filesystem::path& directory, int count) {
  std::filesystem::create_directory(directory);
  std::ofstream profile(directory / "bench.xml");
  profile << "<profile version=\"1\">\n  <preferences>\n"
             "    <preference name=\"EnableAutomaticServerSelection\" value=\"true\"/>\n"
             "  </preferences>\n  <hosts>\n";
  for (int i = 0; i < count; ++i) profile << "    <host name=\"" << NameOf(i) << "\"/>\n";
  profile << "  </hosts>\n</profile>\n";
}

/// Stores a selection like a run's.
void FillCache(CSelectionCache& cache, int count) {
  CCacheEntry entry;
  std::string key;
  for (int i = 0; i < count; ++i) {
    entry.AddHeadend(CHeadendRTT(NameOf(i), 20U + static_cast<unsigned int>(i * 7 % 180)));
    key += NameOf(count - 1 - i) + ";";
  }
  if (cache.AddEntry(entry, key) != 0) throw std::runtime_error("the cache takes no entry");
}

CSelectionCache& Hold() {
  CSelectionCache* cache = nullptr;
  if (CSelectionCache::createSingletonInstance(cache) != 0) throw std::runtime_error("no cache");
  return *cache;
}

Milliseconds RunOnce() {
  Client client;
  const auto start = Clock::now();
  long status = 0;
  auto* const run = new CHeadendSelection(&client, "", 0, status);
  if (status != 0) {
    delete run;
    throw std::runtime_error("the run cannot be constructed");
  }
  std::thread([run] { run->run(); }).join();
  if (!client.isHit) throw std::runtime_error("the cache did not answer");
  return client.called - start;
}

void PrintFigures(const char* name, int runs) {
  std::vector<double> times;
  for (int i = 0; i < runs + kWarmUps; ++i) {
    const Milliseconds time = RunOnce();
    if (i >= kWarmUps) times.push_back(time.count());
  }
  std::sort(times.begin(), times.end());
  std::printf("\"%sMs\": %.4f, \"%s99Ms\": %.4f", name, times[times.size() / 2], name,
              times[times.size() * 99 / 100]);
}

/// @param cacheDirectory where to read the cache; empty: from memory.
void Measure(const char* name, int count, int runs, const std::string& profileDirectory,
             const std::string& cacheDirectory) {
  CClientLibrary::Options options;
  options.sources.profileDirectory = profileDirectory;
  options.sources.cacheDirectory = cacheDirectory;
  options.log.off = true;
  STATUSCODE status = 0;
  const CClientLibrary library(options, status);
  if (status != 0) throw std::runtime_error("the library does not start");

  CSelectionCache& held = Hold();
  FillCache(held, count);
  Hold().releaseInstance();  // writes the file
  PrintFigures(name, runs);
  held.releaseInstance();
}

/// @return 0 if the text is no number.
int NumberOf(std::string_view text) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? NumberOf(argv[1]) : kHeadends;
  const int runs = argc > 2 ? NumberOf(argv[2]) : kRuns;
  if (count < 1 || count > 99'999 || runs < 1) {
    std::cerr << "usage: bench-cache-hit [HEADENDS [RUNS]]\n";
    return 2;
  }
  try {
    const Scratch scratch;
    const std::string profiles = scratch.path / "profiles";
    WriteProfile(profiles, count);
    std::printf("{\"headends\": %d, ", count);
    Measure("warm", count, runs, profiles, "");
    std::printf(", ");
    Measure("cold", count, runs, profiles, scratch.path / "cache");
    std::printf("}\n");
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "bench-cache-hit: " << error.what() << '\n';
    return 1;
  }
}
