#pragma once

#include <map>
#include <string>

namespace tests {

/// A directory of the test's own, made on construction and removed with all that is in it. Used by
/// one thread.
class TemporaryDirectory {
 public:
  /// @throws std::system_error when it cannot be made.
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& Path() const { return m_path; }

  /// The path of `name` inside; nothing is made.
  std::string File(const std::string& name) const { return m_path + "/" + name; }

  /// Makes a directory inside. @return its path. @throws std::filesystem::filesystem_error.
  std::string MakeDirectory(const std::string& name) const;

  /// Writes a file inside, in place of an older one. @return its path. @throws std::runtime_error.
  std::string Write(const std::string& name, const std::string& contents) const;

 private:
  std::string m_path;
};

/// The contents of a file; empty if it cannot be read.
std::string readFile(const std::string& path);

/// What a file of preferences with these values holds.
std::string preferencesText(const std::map<std::string, std::string>& values);

}  // namespace tests
