// A file shared by the processes of one user. It is replaced by renaming a complete and flushed new
// file over it and is never written in place, so that no reader ever needs the lock. Only one
// process at a time builds a new file, because it holds the lock. Should somebody remove the lock
// file under its holder, two may do so: hence a text under way has a name of its own, and the
// holder looks whether the lock is still the one that counts, before and after it has replaced the
// file.
//
// Every name is looked up in a directory that is open and was found to be nobody else's, along with
// all that leads to it.

#include "vpn/Api/AHS/StateFile.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace {

using FileTrust::Descriptor;

/// Pause between two attempts to take the lock. It is held for a flush to disk, a few milliseconds.
constexpr std::chrono::milliseconds LockRetryPause{1};
/// The files are the user's alone: they tell which gateways and networks he uses.
constexpr mode_t FileMode = 0600;
constexpr mode_t DirectoryMode = 0700;
constexpr std::size_t ReadSize = std::size_t{64} * 1024;

constexpr const char* LockSuffix = ".lock";
constexpr const char* CorruptSuffix = ".corrupt";
/// Followed by digits of chance.
constexpr const char* NewSuffix = ".new";
/// A name that is taken is as rare as a guess of 64 bits, and a second one is none.
constexpr int NameAttempts = 3;

std::string failure(const std::string& what, const std::string& path, int error) {
  return "cannot " + what + " " + path + ": " + std::system_category().message(error);
}

std::string directoryOf(const std::string& path) {
  std::size_t end = path.rfind('/');
  if (end == std::string::npos) {
    return ".";
  }
  while (end > 0 && path[end - 1] == '/') {
    --end;
  }
  return path.substr(0, std::max<std::size_t>(end, 1));
}

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

/// Why there must be no files in a directory; empty if there may.
std::string findDistrustOfDirectory(const std::string& directory, const struct stat& status) {
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

/// What FileTrust says against a directory, without the option that waives it for profiles.
std::string asProblem(const std::string& directory, const FileTrust::Refusal& refusal) {
  return "the directory " + directory + " " +
         refusal.text.substr(0, refusal.text.rfind(", or read"));
}

/// Opens a directory that nobody else can write or exchange.
/// @param error the system's when it cannot be opened, 0 when it is not trusted.
bool openDirectory(const std::string& path, Descriptor& directory, int& error,
                   std::string& problem) {
  struct stat status {};
  // The directory itself first: what leads to it is trusted more easily.
  if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
    problem = findDistrustOfDirectory(path, status);
    if (!problem.empty()) {
      error = 0;
      return false;
    }
  }
  FileTrust::Refusal refusal;
  if (!FileTrust::openDirectory(path, FileTrust::Check::Strict, directory, refusal)) {
    error = refusal.error;
    problem = asProblem(path, refusal);
    return false;
  }
  if (fstat(directory.get(), &status) != 0) {
    error = errno;
    problem = failure("look at", path, error);
    return false;
  }
  error = 0;
  problem = findDistrustOfDirectory(path, status);
  return problem.empty();
}

/// Goes on to a directory inside `directory`, and makes it where it is missing.
bool enter(const std::string& path, Descriptor& directory, std::string& problem) {
  if (mkdirat(directory.get(), nameOf(path).c_str(), DirectoryMode) != 0 && errno != EEXIST) {
    problem = failure("create", path, errno);
    return false;
  }
  FileTrust::Refusal refusal;
  if (!FileTrust::openDirectory(path, FileTrust::Check::Strict, directory, refusal)) {
    problem = asProblem(path, refusal);
    return false;
  }
  return true;
}

/// Opens a directory like openDirectory; makes it and those that lead to it where they are missing.
bool makeDirectory(const std::string& path, Descriptor& directory, std::string& problem) {
  std::vector<std::string> missing;
  std::string place = path;
  FileTrust::Refusal refusal;
  // From the end on: on the way there may be directories that may be passed but not read.
  while (!FileTrust::openDirectory(place, FileTrust::Check::Strict, directory, refusal) &&
         refusal.error == ENOENT && place != "/" && place != ".") {
    missing.push_back(place);
    place = directoryOf(place);
  }
  for (; directory.get() >= 0 && !missing.empty(); missing.pop_back()) {
    if (!enter(missing.back(), directory, problem)) {
      return false;
    }
  }
  int error = 0;
  return openDirectory(path, directory, error, problem);
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

bool isSameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

/// A name for a text under way that no other process has.
std::string chooseName(const std::string& name) {
  constexpr const char* Digits = "0123456789abcdef";
  std::uint64_t chance = 0;
  // Without chance, which a kernel that is up never lacks, the name is merely taken more often.
  static_cast<void>(getrandom(&chance, sizeof chance, GRND_NONBLOCK) == sizeof chance);
  std::string chosen = name + NewSuffix + "-";
  for (unsigned int shift = 0; shift < 64; shift += 4) {
    chosen += Digits[(chance >> shift) & 0xfU];
  }
  return chosen;
}

/// The text under way, in a file that is locked while its process lives: so whoever finds one that
/// is not knows that nobody will come back for it.
class CNewFile {
 public:
  CNewFile(int directory, const std::string& name) : m_directory(directory) {
    for (int i = 0; i < NameAttempts && m_file.get() < 0; ++i) {
      m_name = chooseName(name);
      m_file = Descriptor(openat(directory, m_name.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, FileMode));
    }
    m_isThere = m_file.get() >= 0;
    if (m_isThere) {
      // Where there are no locks, the file is taken for a leftover at worst, and missed by
      // `rename`.
      static_cast<void>(flock(m_file.get(), LOCK_EX | LOCK_NB));
    }
  }
  ~CNewFile() {
    if (m_isThere) {
      unlinkat(m_directory, m_name.c_str(), 0);
    }
    if (m_file.get() >= 0) {
      // Closing alone is not enough: a child that the host forked meanwhile shares the lock.
      flock(m_file.get(), LOCK_UN);
    }
  }
  CNewFile(const CNewFile&) = delete;
  CNewFile& operator=(const CNewFile&) = delete;

  bool isOpen() const { return m_file.get() >= 0; }
  const std::string& name() const { return m_name; }
  bool write(const std::string& text) const {
    return writeAll(m_file.get(), text) && fsync(m_file.get()) == 0;
  }
  bool renameTo(const std::string& name) {
    m_isThere = renameat(m_directory, m_name.c_str(), m_directory, name.c_str()) != 0;
    return !m_isThere;
  }

 private:
  const int m_directory;
  std::string m_name;
  Descriptor m_file;
  bool m_isThere = false;
};

/// The names of the texts under way, dead or alive.
std::vector<std::string> listNew(int directory, const std::string& name) {
  std::vector<std::string> names;
  // A descriptor of its own: reading moves its place.
  Descriptor own(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const auto closeDirectory = [](DIR* opened) { closedir(opened); };
  const std::unique_ptr<DIR, decltype(closeDirectory)> listed(fdopendir(own.get()));
  if (listed == nullptr) {
    return names;
  }
  static_cast<void>(own.release());
  const std::string prefix = name + NewSuffix;
  while (const dirent* const item = readdir(listed.get())) {  // NOLINT(concurrency-mt-unsafe)
    const std::string found = item->d_name;
    if (found == prefix || found.starts_with(prefix + "-")) {
      names.push_back(found);
    }
  }
  return names;
}

/// Removes what killed processes have left behind.
void removeLeftovers(int directory, const std::string& name) {
  for (const std::string& found : listNew(directory, name)) {
    struct stat status {};
    if (fstatat(directory, found.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    if (S_ISREG(status.st_mode)) {
      const Descriptor file(openat(directory, found.c_str(),
                                   O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
      if (file.get() >= 0 && flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        continue;  // its process lives
      }
    }
    unlinkat(directory, found.c_str(), 0);
  }
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

std::string CStateFile::name() const { return nameOf(m_path); }

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
      problem = failure("read", m_path, errno);
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
  Descriptor directory;
  int error = 0;
  if (openDirectory(directoryOf(m_path), directory, error, problem)) {
    return readIn(directory.get(), text, problem);
  }
  if (error == ENOENT || error == ENOTDIR) {
    problem.clear();
    forget();
    return Content::Missing;
  }
  return Content::Refused;
}

CStateFile::Content CStateFile::read(const Lock& lock, std::string& text, std::string& problem) {
  return readIn(lock.m_directory.get(), text, problem);
}

CStateFile::Content CStateFile::readIn(int directory, std::string& text, std::string& problem) {
  struct stat status {};
  if (fstatat(directory, name().c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) {
      forget();
      return Content::Missing;
    }
    problem = failure("look at", m_path, errno);
    return Content::Refused;
  }
  // Looked at before it is opened, because opening a device or a FIFO can have effects of its own;
  // looked at again once it is open, because it may have been exchanged in between.
  problem = findDistrust(status);
  if (!problem.empty()) {
    return Content::Refused;
  }
  if (same(versionOf(status), m_version)) {
    return Content::Unchanged;
  }
  const Descriptor file(
      openat(directory, name().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (file.get() < 0 || fstat(file.get(), &status) != 0) {
    problem = failure("open", m_path, errno);
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

CStateFile::Replacing CStateFile::replace(const Lock& lock, const std::string& text,
                                          std::string& problem) {
  const int directory = lock.m_directory.get();
  const std::string prefix = directoryOf(m_path) + "/";
  removeLeftovers(directory, name());
  CNewFile file(directory, name());
  if (!file.isOpen()) {
    problem = failure("create", prefix + file.name(), errno);
    return Replacing::Failed;
  }
  if (!file.write(text)) {
    problem = failure("write", prefix + file.name(), errno);
    return Replacing::Failed;
  }
  if (!lock.isInPlace()) {
    return Replacing::LockLost;
  }
  if (!file.renameTo(name())) {
    problem = failure("replace", m_path, errno);
    // Only somebody who does not know of this process removes what it is about to rename.
    return lock.isInPlace() ? Replacing::Failed : Replacing::LockLost;
  }
  struct stat status {};
  if (fstatat(directory, name().c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    m_version = versionOf(status);
  } else {
    forget();
  }
  // Another process may have begun with the old file and finish with it: then once more.
  return lock.isInPlace() ? Replacing::Done : Replacing::LockLost;
}

bool CStateFile::syncDirectory(const Lock& lock, std::string& problem) {
  // EINVAL: a file system that has nothing to flush for a directory.
  if (fsync(lock.m_directory.get()) == 0 || errno == EINVAL) {
    return true;
  }
  problem = failure("flush", directoryOf(m_path), errno);
  return false;
}

void CStateFile::keepAside(const Lock& lock) {
  const int directory = lock.m_directory.get();
  // link(2) never replaces an existing name, so what is kept is the first corrupt file. Where it
  // fails for another reason there is no file to diagnose, which is no reason not to store.
  static_cast<void>(
      !linkat(directory, name().c_str(), directory, (name() + CorruptSuffix).c_str(), 0));
}

bool CStateFile::remove(const Lock& lock, std::string& problem) {
  const int directory = lock.m_directory.get();
  std::vector<std::string> names = listNew(directory, name());
  names.push_back(name());
  names.push_back(name() + CorruptSuffix);
  bool isGone = true;
  for (const std::string& item : names) {
    if (unlinkat(directory, item.c_str(), 0) != 0 && errno != ENOENT) {
      problem = failure("remove", directoryOf(m_path) + "/" + item, errno);
      isGone = false;
    }
  }
  forget();
  return isGone;
}

bool CStateFile::isThere() const {
  const auto exists = [this](const char* suffix) {
    struct stat status {};
    return lstat((m_path + suffix).c_str(), &status) == 0;
  };
  if (exists("") || exists(CorruptSuffix)) {
    return true;
  }
  const Descriptor directory(open(directoryOf(m_path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return directory.get() >= 0 && !listNew(directory.get(), name()).empty();
}

bool CStateFile::isRemovable() const {
  Descriptor directory;
  int error = 0;
  std::string problem;
  struct stat status {};
  return openDirectory(directoryOf(m_path), directory, error, problem) &&
         faccessat(directory.get(), ".", W_OK | X_OK, AT_EACCESS) == 0 &&
         fstatat(directory.get(), name().c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         !S_ISDIR(status.st_mode);
}

CStateFile::Lock::Lock(const CStateFile& file, std::chrono::milliseconds patience)
    : m_path(file.path() + LockSuffix), m_state(Locking::Failed) {
  if (!makeDirectory(directoryOf(m_path), m_directory, m_problem)) {
    return;
  }
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!tryToLock()) {
    if (std::chrono::steady_clock::now() >= end) {
      m_state = Locking::Busy;
      m_problem = m_path + " is held by another process";
      return;
    }
    std::this_thread::sleep_for(LockRetryPause);
  }
}

/// @return whether it came to an end, good or bad; else another process holds the lock.
bool CStateFile::Lock::tryToLock() {
  if (m_descriptor.get() < 0) {
    m_descriptor =
        Descriptor(openat(m_directory.get(), nameOf(m_path).c_str(),
                          O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, FileMode));
    if (m_descriptor.get() < 0) {
      m_problem = failure("open", m_path, errno);
      return true;
    }
  }
  const bool isLocked = flock(m_descriptor.get(), LOCK_EX | LOCK_NB) == 0;
  if (!isLocked && errno != EWOULDBLOCK && errno != EINTR) {
    m_problem = failure("lock", m_path, errno);
    return true;
  }
  if (!isInPlace()) {
    m_descriptor = Descriptor();  // a lock that nobody else will ask for keeps nobody away
    return false;
  }
  m_state = isLocked ? Locking::Held : m_state;
  return isLocked;
}

CStateFile::Lock::~Lock() { release(); }

bool CStateFile::Lock::isInPlace() const {
  struct stat held {};
  struct stat found {};
  return m_descriptor.get() >= 0 && fstat(m_descriptor.get(), &held) == 0 &&
         fstatat(m_directory.get(), nameOf(m_path).c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
         isSameFile(held, found);
}

void CStateFile::Lock::release() {
  if (m_state == Locking::Held && m_descriptor.get() >= 0) {
    // Closing alone is not enough: a child that the host forked meanwhile shares the lock.
    flock(m_descriptor.get(), LOCK_UN);
  }
  m_descriptor = Descriptor();
}
