// How long it takes to read one profile with many host entries, and the peak memory of the process.
// With a memory limit this is a test: it fails above the limit, or if it read something else than
// it wrote.
//
//     profile_load [ENTRIES [MOST_MIB]]

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "vpn/Api/PreferenceMgr.h"

namespace {

constexpr int Rounds = 21;
constexpr double KibPerMib = 1024.0;

void writeProfile(const std::string& directory, long entries) {
  std::ofstream file(directory + "/many.xml");
  file << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<profile version=\"1\">\n<preferences>\n"
          "<preference name=\"EnableAutomaticServerSelection\" value=\"true\"/>\n"
          "</preferences>\n<hosts>\n";
  for (long i = 0; i < entries; ++i) {
    file << "  <host name=\"Gateway " << i << "\" address=\"gw-" << i << ".example.com:8443\"/>\n";
  }
  file << "</hosts>\n</profile>\n";
  file.close();
  static_cast<void>(::chmod((directory + "/many.xml").c_str(), S_IRUSR | S_IWUSR));
}

/// Peak memory of the process in MiB; 0 if unknown.
double mostMemory() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("VmHWM:")) {
      return std::strtod(line.c_str() + std::string("VmHWM:").size(), nullptr) / KibPerMib;
    }
  }
  return 0;
}

/// Reads the profile once. @return the milliseconds, or -1 if the contents are wrong.
double load(const PreferenceMgr::Sources& sources, long entries) {
  const auto start = std::chrono::steady_clock::now();
  if (PreferenceMgr::createInstance(sources) != PREFERENCEMGR_SUCCESS) {
    return -1;
  }
  const auto end = std::chrono::steady_clock::now();
  PreferenceMgr* const manager = PreferenceMgr::acquireInstance();
  ProfileMgr* profiles = nullptr;
  manager->getProfileMgr(profiles);
  const auto& hosts = profiles->getHostProfileMap();
  const auto last = hosts.find("Gateway " + std::to_string(entries - 1));
  const bool isRight =
      hosts.size() == static_cast<std::size_t>(entries) && last != hosts.end() &&
      last->second->getHostAddress() == "gw-" + std::to_string(entries - 1) + ".example.com:8443" &&
      manager->getProblems().empty();
  manager->releaseInstance();
  manager->releaseInstance();
  return isRight ? std::chrono::duration<double, std::milli>(end - start).count() : -1;
}

int measure(const std::string& directory, long entries, double mostMib) {
  writeProfile(directory, entries);
  PreferenceMgr::Sources sources;
  sources.profileDirectory = directory;
  std::vector<double> times;
  for (int i = 0; i < Rounds; ++i) {
    times.push_back(load(sources, entries));
    if (times.back() < 0) {
      std::fprintf(stderr, "profile_load: what was read is not what was written\n");
      return 1;
    }
  }
  const double first = times.front();
  std::sort(times.begin(), times.end());
  const double memory = mostMemory();
  std::printf(
      "{\"entries\": %ld, \"firstMs\": %.1f, \"medianMs\": %.1f, \"mostMs\": %.1f, "
      "\"mostMib\": %.1f}\n",
      entries, first, times[times.size() / 2], times.back(), memory);
  return mostMib > 0 && memory > mostMib ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  constexpr long UsualEntries = 10000;
  const long entries = argc > 1 ? std::strtol(argv[1], nullptr, 10) : UsualEntries;
  const double mostMib = argc > 2 ? std::strtod(argv[2], nullptr) : 0;
  std::string directory = (std::filesystem::temp_directory_path() / "profile-load-XXXXXX").string();
  if (entries < 1 || ::mkdtemp(directory.data()) == nullptr) {
    std::fprintf(stderr, "usage: profile_load [ENTRIES [MOST_MIB]]\n");
    return 2;
  }
  const int status = measure(directory, entries, mostMib);
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
  return status;
}
