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

/// Records log messages during its lifetime as "file: function: severity: message".
class LogCapture {
 public:
  LogCapture() {
    CAppLog::setListener([this](const CAppLog::Record& record) {
      m_lines.push_back(std::string(record.file) + ": " + record.function + ": " +
                        std::to_string(record.severity) + ": " + record.message);
    });
  }
  ~LogCapture() { CAppLog::setListener({}); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<std::string>& Lines() const { return m_lines; }

 private:
  std::vector<std::string> m_lines;
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

  std::string Value(PreferenceId id) const {
    std::string value = "untouched";
    EXPECT_EQ(m_pInstance->getPreferenceValue(id, value), PREFERENCEMGR_SUCCESS);
    return value;
  }

 private:
  STATUSCODE m_status;
  PreferenceMgr* m_pInstance = nullptr;
};

/// A profile with these contents inside <profile version="1">.
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

/// A preferences file with these contents from line 3 on.
inline std::string preferencesText(const std::string& inside) {
  return "<?xml version=\"1.0\"?>\n<preferences version=\"1\">\n" + inside + "\n</preferences>\n";
}

inline std::string preferenceElement(const std::string& name, const std::string& value) {
  return "<preference name=\"" + name + "\" value=\"" + value + "\"/>";
}

/// An element of the switch for automatic selection with these further attributes.
inline std::string switchElement(const std::string& attributes) {
  return "<preference name=\"EnableAutomaticServerSelection\" " + attributes + "/>";
}

/// A text repeated `count` times.
inline std::string times(const std::string& text, std::size_t count) {
  std::string all;
  for (std::size_t i = 0; i < count; ++i) {
    all += text;
  }
  return all;
}

/// The result of reading a file.
struct Reading {
  bool usable = false;
  ProfileFile profile;
  std::vector<FileProblem> problems;

  /// The entries, each as "name" or "name @ address".
  std::vector<std::string> Hosts() const {
    std::vector<std::string> hosts;
    for (const ProfileFile::Host& host : profile.hosts) {
      hosts.push_back(host.name + (host.address.empty() ? "" : " @ " + host.address));
    }
    return hosts;
  }

  /// The value of a preference, with " uc" if users control it; "unset" if the file does not set
  /// it.
  std::string Value(PreferenceId id) const {
    Preference* preference = nullptr;
    return !profile.preferences.getPreference(id, preference)
               ? "unset"
               : preference->getPreferenceValue() + (preference->isUserControllable() ? " uc" : "");
  }
};

inline Reading readAs(ConfigurationKind kind, const std::string& path) {
  Reading reading;
  reading.usable = readConfigurationFile(path, kind, reading.profile, reading.problems);
  return reading;
}

inline Reading readProfile(const std::string& path) {
  return readAs(ConfigurationKind::Profile, path);
}

/// A message about a file: the line, and parts of its text. A part after "!" must be absent.
struct Told {
  unsigned int line;
  std::vector<std::string> pieces;
};

MATCHER_P(IsTold, told, "") {
  for (const std::string& piece : told.pieces) {
    const bool isUnwanted = piece.starts_with('!');
    if ((arg.text.find(piece.substr(isUnwanted ? 1 : 0)) != std::string::npos) == isUnwanted) {
      *result_listener << "as to " << piece;
      return false;
    }
  }
  return arg.line == told.line;
}

/// Exactly these problems, in this order.
inline testing::Matcher<std::vector<FileProblem>> Tell(const std::vector<Told>& told) {
  std::vector<testing::Matcher<FileProblem>> each;
  for (const Told& one : told) {
    each.emplace_back(IsTold(one));
  }
  return testing::ElementsAreArray(each);
}

/// Reads files that the test writes into its own directory.
class FileTest : public testing::Test {
 protected:
  Reading read(const std::string& contents) const {
    return readProfile(m_directory.Write("profile.xml", contents));
  }

  const TemporaryDirectory m_directory;
};

}  // namespace tests

inline void PrintTo(const FileProblem& problem, std::ostream* out) { *out << problem.toString(); }
