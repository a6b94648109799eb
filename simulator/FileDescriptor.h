#pragma once

#include <unistd.h>

#include <utility>

namespace simulator {

/// Owns a descriptor and closes it. -1 stands for none.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : m_fd(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { close(); }

  int get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }

  void close() {
    if (m_fd >= 0) ::close(std::exchange(m_fd, -1));
  }

 private:
  int m_fd = -1;
};

}  // namespace simulator
