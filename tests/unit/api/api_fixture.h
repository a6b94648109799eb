#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/TemporaryDirectory.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Api/ProfileFile.h"
#include "vpn/Common/Logging/AppLog.h"

namespace tests {

/// One message of the log, as far as the tests look at it.
struct LogLine {
  std::string function;
  std::string file;
  Logging::DebugImportance severity;
  std::string message;
};

/// Keeps what is logged while it lives.
class LogCapture {
 public:
  LogCapture() {
    CAppLog::setListener([this](const CAppLog::Record& record) {
      m_lines.push_back({record.function, record.file, record.severity, record.message});
    });
  }
  ~LogCapture() { CAppLog::setListener({}); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogLine>& Lines() const { return m_lines; }

 private:
  std::vector<LogLine> m_lines;
};

/// The process's preference manager for the length of a scope.
class ScopedPreferenceMgr {
 public:
  explicit ScopedPreferenceMgr(const PreferenceMgr::Sources& sources) {
    m_status = PreferenceMgr::createInstance(sources);
    if (m_status == PREFERENCEMGR_SUCCESS) {
      m_pInstance = PreferenceMgr::acquireInstance();
      m_pInstance->releaseInstance();
    }
  }
  ~ScopedPreferenceMgr() {
    if (m_pInstance != nullptr) {
      m_pInstance->releaseInstance();
    }
  }
  ScopedPreferenceMgr(const ScopedPreferenceMgr&) = delete;
  ScopedPreferenceMgr& operator=(const ScopedPreferenceMgr&) = delete;

  STATUSCODE Status() const { return m_status; }
  PreferenceMgr* operator->() const { return m_pInstance; }

 private:
  STATUSCODE m_status;
  PreferenceMgr* m_pInstance = nullptr;
};

/// A profile that has this inside <profile version="1">.
inline std::string profileText(const std::string& inside) {
  return "<?xml version=\"1.0\"?>\n<profile version=\"1\">\n" + inside + "\n</profile>\n";
}

/// A profile with automatic selection on and these <host/> elements; they begin in line 4.
inline std::string profileWithHosts(const std::string& hosts) {
  return profileText(
      "<preferences><preference name=\"EnableAutomaticServerSelection\" value=\"true\"/>"
      "</preferences><hosts>\n" +
      hosts + "\n</hosts>");
}

/// A preferences file that has this inside, from line 3 on.
inline std::string preferencesText(const std::string& inside) {
  return "<?xml version=\"1.0\"?>\n<preferences version=\"1\">\n" + inside + "\n</preferences>\n";
}

inline std::string preferenceElement(const std::string& name, const std::string& value) {
  return "<preference name=\"" + name + "\" value=\"" + value + "\"/>";
}

/// What reading a file gave.
struct ProfileReading {
  bool usable = false;
  ProfileFile profile;
  std::vector<FileProblem> problems;
};

inline ProfileReading readProfile(const std::string& path) {
  ProfileReading reading;
  reading.usable =
      readConfigurationFile(path, ConfigurationKind::Profile, reading.profile, reading.problems);
  return reading;
}

struct PreferencesReading {
  bool usable = false;
  PreferenceInfo preferences;
  std::vector<FileProblem> problems;

  /// The value of a preference, "unset" if the file does not set it.
  std::string Value(PreferenceId id) const {
    Preference* preference = nullptr;
    return preferences.getPreference(id, preference) ? preference->getPreferenceValue() : "unset";
  }
};

inline PreferencesReading readPreferences(const std::string& path) {
  PreferencesReading reading;
  ProfileFile file;
  reading.usable =
      readConfigurationFile(path, ConfigurationKind::Preferences, file, reading.problems);
  reading.preferences = file.preferences;
  return reading;
}

inline std::vector<std::string> hostNames(const ProfileFile& profile) {
  std::vector<std::string> names;
  for (const ProfileFile::Host& host : profile.hosts) {
    names.push_back(host.name);
  }
  return names;
}

/// A problem in a line whose text has all of the pieces.
MATCHER_P2(ProblemAt, line, pieces, "") {
  for (const std::string& piece : std::vector<std::string>(pieces)) {
    if (arg.text.find(piece) == std::string::npos) {
      *result_listener << "the text is: " << arg.text;
      return false;
    }
  }
  *result_listener << "the line is " << arg.line << ", the text " << arg.text;
  return arg.line == static_cast<unsigned int>(line);
}

}  // namespace tests
