#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

/// A directory of a test's own, removed with everything in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ahs-cli-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("no temporary directory");
    }
    m_path = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return m_path; }
  std::string path(const std::string& name) const { return m_path + "/" + name; }

  /// Writes a file, and the directories above it.
  std::string write(const std::string& name, const std::string& text) const {
    const std::filesystem::path file = path(name);
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << text;
    return file.string();
  }

 private:
  std::string m_path;
};
