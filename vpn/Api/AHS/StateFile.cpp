// A file shared by the processes of one user. It is replaced by renaming a complete and flushed new
// file over it and is never written in place, so that no reader ever needs the lock. Only one
// process at a time builds a new file, because it holds the lock: its name can be a fixed one, and
// a process that is killed leaves at most that one file behind.

#include "vpn/Api/AHS/StateFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <system_error>
#include <thread>
#include <utility>

namespace {

/// Pause between two attempts to take the lock. It is held for a flush to disk, a few milliseconds.
constexpr std::chrono::milliseconds LockRetryPause{1};
/// The files are the user's alone: they tell which gateways and networks he uses.
constexpr mode_t FileMode = 0600;
constexpr mode_t DirectoryMode = 0700;
constexpr std::size_t ReadSize = std::size_t{64} * 1024;

/// A file descriptor that is closed at the end of its scope.
class CDescriptor {
 public:
  explicit CDescriptor(int descriptor) : m_descriptor(descriptor) {}
  ~CDescriptor() {
    if (m_descriptor >= 0) {
      close(m_descriptor);
    }
  }
  CDescriptor(const CDescriptor&) = delete;
  CDescriptor& operator=(const CDescriptor&) = delete;

  int get() const { return m_descriptor; }
  bool isOpen() const { return m_descriptor >= 0; }

 private:
  const int m_descriptor;
};

std::string failure(const std::string& what, const std::string& path) {
  const int error = errno;
  return "cannot " + what + " " + path + ": " + std::system_category().message(error);
}

std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return path.substr(0, std::max<std::size_t>(slash, 1));
}

/// Creates the missing ones among a directory and its parents. What fails here shows when the
/// directory is used.
void createDirectories(const std::string& directory) {
  struct stat status {};
  if (stat(directory.c_str(), &status) == 0) {
    return;
  }
  for (std::size_t end = directory.find('/', 1); end != std::string::npos;
       end = directory.find('/', end + 1)) {
    mkdir(directory.substr(0, end).c_str(), DirectoryMode);
  }
  mkdir(directory.c_str(), DirectoryMode);
}

/// Why there must be no files in a directory; empty if there may, or if it cannot be told, which
/// shows when the directory is used.
std::string findDistrustOfDirectory(const std::string& directory) {
  struct stat status {};
  if (stat(directory.c_str(), &status) != 0) {
    return "";
  }
  if (status.st_uid != geteuid() && status.st_uid != 0) {
    return "the directory " + directory + " belongs to another user";
  }
  // Not even a sticky one: there others could make the files that are not there yet.
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return "the directory " + directory +
           " can be written by other users (mend it with chmod go-w)";
  }
  return "";
}

bool writeAll(int descriptor, const std::string& text) {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = write(descriptor, text.data() + written, text.size() - written);
    if (count >= 0) {
      written += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace

CStateFile::CStateFile(std::string path, std::size_t maxSize)
    : m_path(std::move(path)), m_maxSize(maxSize) {}

CStateFile::Version CStateFile::versionOf(const struct stat& status) {
  return Version{status.st_dev, status.st_ino, status.st_size, status.st_mtim, status.st_ctim};
}

bool CStateFile::same(const Version& a, const Version& b) {
  return a.device == b.device && a.inode == b.inode && a.size == b.size &&
         a.modified.tv_sec == b.modified.tv_sec && a.modified.tv_nsec == b.modified.tv_nsec &&
         a.changed.tv_sec == b.changed.tv_sec && a.changed.tv_nsec == b.changed.tv_nsec;
}

/// Why a file must not be read; empty if it may.
std::string CStateFile::findDistrust(const struct stat& status) const {
  if (!S_ISREG(status.st_mode)) {
    return m_path + " is not a regular file";
  }
  if (status.st_uid != geteuid()) {
    return m_path + " belongs to another user";
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return m_path + " can be written by other users (mend it with chmod go-w)";
  }
  if (static_cast<std::size_t>(status.st_size) > m_maxSize) {
    return m_path + " has more than " + std::to_string(m_maxSize) + " bytes";
  }
  return "";
}

bool CStateFile::readAll(int descriptor, std::string& text, std::string& problem) const {
  std::size_t used = 0;
  for (;;) {
    // One byte more than is allowed tells a file that grows while it is read.
    const std::size_t room = std::min(ReadSize, m_maxSize + 1 - used);
    text.resize(used + room);
    const ssize_t count = ::read(descriptor, text.data() + used, room);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      problem = failure("read", m_path);
      return false;
    }
    used += static_cast<std::size_t>(count);
    if (used > m_maxSize) {
      problem = m_path + " has more than " + std::to_string(m_maxSize) + " bytes";
      return false;
    }
    if (count == 0) {
      text.resize(used);
      return true;
    }
  }
}

CStateFile::Content CStateFile::read(std::string& text, std::string& problem) {
  struct stat status {};
  if (lstat(m_path.c_str(), &status) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      forget();
      return Content::Missing;
    }
    problem = failure("look at", m_path);
    return Content::Refused;
  }
  // Looked at before it is opened, because opening a device or a FIFO can have effects of its own;
  // looked at again once it is open, because it may have been exchanged in between.
  problem = findDistrustOfDirectory(directoryOf(m_path));
  if (problem.empty()) {
    problem = findDistrust(status);
  }
  if (!problem.empty()) {
    return Content::Refused;
  }
  if (same(versionOf(status), m_version)) {
    return Content::Unchanged;
  }
  const CDescriptor file(
      open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (!file.isOpen() || fstat(file.get(), &status) != 0) {
    problem = failure("open", m_path);
    return Content::Refused;
  }
  problem = findDistrust(status);
  if (!problem.empty() || !readAll(file.get(), text, problem)) {
    return Content::Refused;
  }
  m_version = versionOf(status);
  return Content::Read;
}

void CStateFile::forget() { m_version = Version(); }

/// Writes the text under way to its own name and flushes it. A failure leaves no file.
bool CStateFile::writeNew(const std::string& text, std::string& problem) {
  const std::string path = m_path + ".new";
  unlink(path.c_str());
  const CDescriptor file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, FileMode));
  if (!file.isOpen()) {
    problem = failure("create", path);
    return false;
  }
  if (!writeAll(file.get(), text) || fsync(file.get()) != 0) {
    problem = failure("write", path);
    unlink(path.c_str());
    return false;
  }
  return true;
}

bool CStateFile::replace(const std::string& text, std::string& problem) {
  const std::string path = m_path + ".new";
  if (!writeNew(text, problem)) {
    return false;
  }
  if (rename(path.c_str(), m_path.c_str()) != 0) {
    problem = failure("replace", m_path);
    unlink(path.c_str());
    return false;
  }
  struct stat status {};
  if (lstat(m_path.c_str(), &status) == 0) {
    m_version = versionOf(status);
  } else {
    forget();
  }
  return true;
}

bool CStateFile::syncDirectory(std::string& problem) {
  const std::string directory = directoryOf(m_path);
  const CDescriptor descriptor(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // EINVAL: a file system that has nothing to flush for a directory.
  if (descriptor.isOpen() && (fsync(descriptor.get()) == 0 || errno == EINVAL)) {
    return true;
  }
  problem = failure("flush", directory);
  return false;
}

void CStateFile::keepAside() {
  // link(2) never replaces an existing name, so what is kept is the first corrupt file. Where it
  // fails for another reason there is no file to diagnose, which is no reason not to store.
  static_cast<void>(!link(m_path.c_str(), (m_path + ".corrupt").c_str()));
}

namespace {

/// What there may be besides the lock.
constexpr const char* Suffixes[] = {"", ".new", ".corrupt"};

}  // namespace

bool CStateFile::remove(std::string& problem) {
  bool isGone = true;
  for (const char* const suffix : Suffixes) {
    const std::string path = m_path + suffix;
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      problem = failure("remove", path);
      isGone = false;
    }
  }
  forget();
  return isGone;
}

bool CStateFile::isThere() const {
  return std::any_of(std::begin(Suffixes), std::end(Suffixes), [this](const char* suffix) {
    struct stat status {};
    return lstat((m_path + suffix).c_str(), &status) == 0;
  });
}

CStateFile::Lock::Lock(const CStateFile& file, std::chrono::milliseconds patience)
    : m_descriptor(-1), m_state(Locking::Failed) {
  const std::string directory = directoryOf(file.path());
  createDirectories(directory);
  m_problem = findDistrustOfDirectory(directory);
  if (!m_problem.empty()) {
    return;
  }
  const std::string path = file.path() + ".lock";
  m_descriptor =
      open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, FileMode);
  if (m_descriptor < 0) {
    m_problem = failure("open", path);
    return;
  }
  const auto end = std::chrono::steady_clock::now() + patience;
  while (flock(m_descriptor, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      m_problem = failure("lock", path);
      return;
    }
    if (std::chrono::steady_clock::now() >= end) {
      m_state = Locking::Busy;
      m_problem = path + " is held by another process";
      return;
    }
    std::this_thread::sleep_for(LockRetryPause);
  }
  m_state = Locking::Held;
}

CStateFile::Lock::~Lock() { release(); }

void CStateFile::Lock::release() {
  if (m_descriptor < 0) {
    return;
  }
  if (m_state == Locking::Held) {
    // Closing alone is not enough: a child that the host forked meanwhile shares the lock.
    flock(m_descriptor, LOCK_UN);
  }
  close(m_descriptor);
  m_descriptor = -1;
}
