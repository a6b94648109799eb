#pragma once

#include <string>

namespace tests {

/// A file in memory that has a path, for readers that take no text. Used by one thread.
class MemoryFile {
 public:
  /// Ends the process when the system has no such file.
  MemoryFile();
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  /// Good in this process.
  const std::string& Path() const { return m_path; }

  /// Replaces the contents.
  void Write(const std::string& text) const;

 private:
  const int m_descriptor;
  const std::string m_path;
};

}  // namespace tests
