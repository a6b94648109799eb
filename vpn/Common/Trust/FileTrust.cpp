// Opens a path step by step from the root, as the kernel would, and checks each step first. It
// follows links itself, so that their directories are checked too. The file that is read is the
// very file that was checked; a file that is written stands in the very directory.

#include "vpn/Common/Trust/FileTrust.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "vpn/Common/Trust/FileSizeGuard.h"
#include "vpn/Common/Trust/LegibleText.h"

namespace {

namespace fs = std::filesystem;
using FileTrust::Check;
using FileTrust::Descriptor;
using FileTrust::Place;
using FileTrust::Refusal;

// As many as the kernel follows.
constexpr int MaxLinks = 40;

constexpr mode_t OthersMayWrite = S_IWGRP | S_IWOTH;

// Without O_NONBLOCK, opening a FIFO that has taken a file's place would wait for its writer.
constexpr int ForReading = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

bool fail(Refusal& refusal, int error) {
  // strerror(3) is not for threads.
  refusal = {error, "cannot be opened: " + std::generic_category().message(error)};
  return false;
}

bool refuse(Refusal& refusal, const std::string& text) {
  refusal = {0, text};
  return false;
}

std::string octal(mode_t mode) {
  std::string text = "0000";
  for (std::size_t i = text.size(); i-- > 0; mode >>= 3U) {
    text[i] = static_cast<char>('0' + (mode & 7U));
  }
  return text;
}

std::string distrust(const std::string& what, const std::string& remedy, Check check) {
  return "is refused because another user could have changed it: " + what + ". " + remedy +
         (check == Check::Strict ? ", or read it all the same with --trust-profiles" : "");
}

std::string remedyFor(const char* command, const std::string& path) {
  return "Run '" + std::string(command) + " " + forShell(path) + "'";
}

/// What speaks against a file, directory or link.
std::string findDistrust(const struct stat& status, const std::string& path, Check check) {
  const uid_t user = ::geteuid();
  if (status.st_uid != 0 && status.st_uid != user) {
    return distrust(legibleLine(path) + " belongs to user " + std::to_string(status.st_uid) +
                        ", neither to root nor to the user who reads it, " + std::to_string(user),
                    "Look at what it holds, and use a copy of your own", check);
  }
  const bool onlyOwnEntries = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
  if (S_ISLNK(status.st_mode) || onlyOwnEntries || (status.st_mode & OthersMayWrite) == 0) {
    return {};
  }
  const bool byGroup = (status.st_mode & S_IWGRP) != 0;
  const bool byAll = (status.st_mode & S_IWOTH) != 0;
  return distrust(legibleLine(path) + " may be written by " +
                      (byAll ? "every user" : "group " + std::to_string(status.st_gid)) +
                      " (mode " + octal(status.st_mode & 07777U) + ")",
                  remedyFor(byGroup && byAll ? "chmod go-w"
                            : byGroup        ? "chmod g-w"
                                             : "chmod o-w",
                            path),
                  check);
}

/// Goes to the end of one path. Used once.
class Walk {
 public:
  Walk(Check check, Refusal& refusal) : m_check(check), m_refusal(refusal) {}

  /// @param status of what stands there; never a link.
  bool goTo(const std::string& path, Place& place, struct stat& status);
  /// Why the walk ended: nothing has the last name, and `goTo` tells its place all the same.
  bool isLastMissing() const {
    return m_refusal.error == ENOENT && m_remaining.empty() && m_isOnWay;
  }

 private:
  bool look(const std::string& name, Descriptor& found, struct stat& status);
  bool follow(const Descriptor& link);
  void push(const fs::path& path);
  fs::path pathOf(const std::string& name) const;

  const Check m_check;
  Refusal& m_refusal;
  Descriptor m_directory;                // where the walk is
  fs::path m_place;                      // its path
  std::vector<std::string> m_remaining;  // names to go, the next one last; "/" is the root
  int m_links = 0;
  bool m_isOnWay = false;
};

bool Walk::goTo(const std::string& path, Place& place, struct stat& status) {
  std::error_code error = std::make_error_code(std::errc::no_such_file_or_directory);
  const fs::path whole = path.empty() ? fs::path() : fs::absolute(path, error);
  if (error) {
    return fail(m_refusal, error.value());
  }
  push(whole);
  m_isOnWay = true;
  bool isThere = true;
  while (isThere && !m_remaining.empty()) {
    place.name = std::move(m_remaining.back());
    m_remaining.pop_back();
    Descriptor found;
    isThere = look(place.name, found, status);
    if (!isThere) {
      continue;
    }
    if (S_ISLNK(status.st_mode)) {
      if (!follow(found)) {
        return false;
      }
    } else if (S_ISDIR(status.st_mode)) {
      m_place = pathOf(place.name);
      m_directory = std::move(found);
      place.name = ".";
    } else if (!m_remaining.empty()) {
      return fail(m_refusal, ENOTDIR);
    }
  }
  place.path = pathOf(place.name).string();
  place.directory = std::move(m_directory);
  return isThere;
}

bool Walk::look(const std::string& name, Descriptor& found, struct stat& status) {
  found = Descriptor(::openat(m_directory.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (found.get() < 0 || ::fstat(found.get(), &status) != 0) {
    return fail(m_refusal, errno);
  }
  if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode)) {
    return true;  // the caller refuses it, whoever owns it
  }
  if (m_check == Check::Way && m_remaining.empty() && S_ISREG(status.st_mode)) {
    return true;
  }
  const std::string distrust = findDistrust(status, pathOf(name).string(), m_check);
  return distrust.empty() || refuse(m_refusal, distrust);
}

bool Walk::follow(const Descriptor& link) {
  std::array<char, PATH_MAX> text{};
  const ssize_t length = ::readlinkat(link.get(), "", text.data(), text.size());
  if (length < 0 || ++m_links > MaxLinks) {
    return fail(m_refusal, length < 0 ? errno : ELOOP);
  }
  push(fs::path(text.data(), text.data() + length));
  return true;
}

/// Puts the names of a path before those that remain.
void Walk::push(const fs::path& path) {
  const std::vector<fs::path> names(path.begin(), path.end());
  std::copy_if(names.rbegin(), names.rend(), std::back_inserter(m_remaining),
               [](const fs::path& name) { return !name.empty() && name != "."; });
}

fs::path Walk::pathOf(const std::string& name) const {
  return name == "." ? m_place : name == ".." ? m_place.parent_path() : m_place / name;
}

bool locate(const std::string& path, Check check, Place& place, struct stat& status,
            Refusal& refusal) {
  if (check != Check::Waived) {
    return Walk(check, refusal).goTo(path, place, status);
  }
  place.name = path;
  return ::stat(path.c_str(), &status) == 0 || fail(refusal, errno);
}

/// Opens for reading the file that was checked, or nothing.
bool open(const Place& place, Check check, int flags, const struct stat& expected,
          Descriptor& opened, Refusal& refusal) {
  const bool isChecked = check != Check::Waived;
  opened = Descriptor(::openat(isChecked ? place.directory.get() : AT_FDCWD, place.name.c_str(),
                               ForReading | flags | (isChecked ? O_NOFOLLOW : 0)));
  struct stat status = {};
  if (opened.get() < 0 || ::fstat(opened.get(), &status) != 0) {
    return fail(refusal, errno);
  }
  if (status.st_dev != expected.st_dev || status.st_ino != expected.st_ino) {
    return refuse(refusal, "was replaced while it was opened");
  }
  // The inode number alone does not identify the file: the checked one is closed, and a new file
  // may have its number.
  const std::string distrust =
      isChecked && check != Check::Way ? findDistrust(status, place.path, check) : std::string();
  return distrust.empty() || refuse(refusal, distrust);
}

/// Whether what is written there would change the kernel instead of a file.
bool isOfKernel(const Descriptor& file) {
  constexpr decltype(statfs::f_type) Magics[] = {
      PROC_SUPER_MAGIC, SYSFS_MAGIC,    DEBUGFS_MAGIC,      TRACEFS_MAGIC,
      SECURITYFS_MAGIC, SELINUX_MAGIC,  CGROUP_SUPER_MAGIC, CGROUP2_SUPER_MAGIC,
      BPF_FS_MAGIC,     EFIVARFS_MAGIC, PSTOREFS_MAGIC,     BINFMTFS_MAGIC};
  struct statfs facts = {};
  return ::fstatfs(file.get(), &facts) == 0 &&
         std::find(std::begin(Magics), std::end(Magics), facts.f_type) != std::end(Magics);
}

bool refuseKernels(Refusal& refusal) {
  return refuse(refusal, "is no file on a disk, but one of the kernel's");
}

/// A name that nobody guesses, for the time until the file is complete.
std::string temporaryName(const std::string& name) {
  constexpr std::size_t MostBytes = 200;  // a name has at most 255
  std::uint64_t number = 0;
  [[maybe_unused]] const ssize_t taken = ::getrandom(&number, sizeof number, 0);
  return name.substr(0, MostBytes) + ".new-" + std::to_string(number);
}

}  // namespace

Descriptor::~Descriptor() {
  if (m_descriptor >= 0) {
    ::close(m_descriptor);
  }
}

Descriptor::Descriptor(Descriptor&& other) noexcept : m_descriptor(other.release()) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(m_descriptor, other.m_descriptor);
  return *this;
}

int Descriptor::release() { return std::exchange(m_descriptor, -1); }

bool FileTrust::openFile(const std::string& path, Check check, Descriptor& file, Refusal& refusal) {
  Place place;
  struct stat status = {};
  if (!locate(path, check, place, status, refusal)) {
    return false;
  }
  return S_ISREG(status.st_mode) ? open(place, check, 0, status, file, refusal)
                                 : refuse(refusal, "is not a regular file");
}

bool FileTrust::openDirectory(const std::string& path, Check check, Descriptor& directory,
                              Refusal& refusal) {
  Place place;
  struct stat status = {};
  if (!locate(path, check, place, status, refusal)) {
    return false;
  }
  // Where entries are safe from others, others may still add their own.
  if (check == Check::Private && (status.st_mode & OthersMayWrite) != 0) {
    return refuse(refusal, distrust(legibleLine(path) + " may be written by other users",
                                    remedyFor("chmod go-w", path), check));
  }
  return S_ISDIR(status.st_mode) ? open(place, check, O_DIRECTORY, status, directory, refusal)
                                 : fail(refusal, ENOTDIR);
}

bool FileTrust::makeDirectory(const std::string& path, Refusal& refusal) {
  Descriptor directory;
  if (openDirectory(path, Check::Strict, directory, refusal)) {
    return true;
  }
  // From the end of the path backwards: some directories may be passed but not read.
  const fs::path whole(path);
  const fs::path parent = whole.has_parent_path() ? whole.parent_path() : ".";
  if (refusal.error != ENOENT || parent == whole || !makeDirectory(parent, refusal)) {
    return false;
  }
  if (::mkdir(path.c_str(), S_IRWXU) == 0) {
    return true;
  }
  // Somebody else has made it meanwhile.
  return errno == EEXIST ? openDirectory(path, Check::Strict, directory, refusal)
                         : fail(refusal, errno);
}

bool FileTrust::findPlace(const std::string& path, Place& place, Refusal& refusal) {
  Walk walk(Check::Way, refusal);
  struct stat status = {};
  const bool isThere = walk.goTo(path, place, status);
  if (!isThere && !walk.isLastMissing()) {
    return false;
  }
  if (isThere && !S_ISREG(status.st_mode)) {
    return S_ISDIR(status.st_mode) ? fail(refusal, EISDIR)
                                   : refuse(refusal, "is not a regular file");
  }
  return !isOfKernel(place.directory) || refuseKernels(refusal);
}

bool FileTrust::openToAppend(const Place& place, Descriptor& file, Refusal& refusal) {
  file = Descriptor(
      ::openat(place.directory.get(), place.name.c_str(),
               O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY,
               S_IRUSR | S_IWUSR));
  struct stat status = {};
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
    return fail(refusal, errno);
  }
  if (!S_ISREG(status.st_mode)) {
    return refuse(refusal, "is not a regular file");
  }
  if (isOfKernel(file)) {
    return refuseKernels(refusal);
  }
  if (status.st_nlink > 1) {
    return refuse(refusal, "has a second name, by which it is another file too");
  }
  const std::string distrust = findDistrust(status, place.path, Check::Private);
  return distrust.empty() || refuse(refusal, distrust);
}

int FileTrust::replaceFile(const Place& place, std::string_view text, mode_t mode) {
  const int directory = place.directory.get();
  const std::string temporary = temporaryName(place.name);
  struct stat former = {};
  const bool hasFormer =
      ::fstatat(directory, place.name.c_str(), &former, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISREG(former.st_mode) && former.st_uid == ::geteuid();
  Descriptor file(::openat(directory, temporary.c_str(),
                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                           hasFormer ? S_IRUSR | S_IWUSR : mode));
  if (file.get() < 0) {
    return errno;
  }
  int error = hasFormer && ::fchmod(file.get(), former.st_mode & ACCESSPERMS) != 0 ? errno : 0;
  error = error != 0 ? error : writeAll(file, text);
  // A file system may report a full disk as late as at the closing.
  if (::close(file.release()) != 0 && error == 0) {
    error = errno;
  }
  if (error == 0 && ::renameat(directory, temporary.c_str(), directory, place.name.c_str()) != 0) {
    error = errno;
  }
  if (error != 0) {
    ::unlinkat(directory, temporary.c_str(), 0);
  }
  return error;
}

int FileTrust::writeAll(const Descriptor& file, std::string_view text) {
  const CFileSizeGuard noSignal;
  while (!text.empty()) {
    const ssize_t count = ::write(file.get(), text.data(), text.size());
    if (count < 0 && errno != EINTR) {
      return errno;
    }
    text.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
  }
  return 0;
}

bool FileTrust::isBounded(const char* path) {
  constexpr off_t MostBytes = off_t{1024} * 1024;
  struct stat status = {};
  return ::stat(path, &status) == 0 ? S_ISREG(status.st_mode) && status.st_size <= MostBytes
                                    : errno == ENOENT;
}

int FileTrust::visitNames(Descriptor directory,
                          const std::function<bool(const std::string& name)>& take) {
  // Not std::filesystem: where memory is short, its directory iterator ends the process.
  const std::unique_ptr<DIR, int (*)(DIR*)> opened(::fdopendir(directory.get()), &::closedir);
  if (opened == nullptr) {
    return errno;
  }
  directory.release();  // it goes with the stream
  errno = 0;
  while (const dirent* const entry = ::readdir(opened.get())) {
    if (!take(entry->d_name)) {
      return 0;
    }
    errno = 0;
  }
  return errno;
}
