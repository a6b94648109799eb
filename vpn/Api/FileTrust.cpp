// Opens a path step by step from the root, as the kernel would, and checks each step first. It
// follows links itself, so that their directories are checked too. The file that is read is the
// very file that was checked.

#include "vpn/Api/FileTrust.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <iterator>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "vpn/Api/ConfigurationText.h"

namespace {

namespace fs = std::filesystem;
using ConfigurationText::oneLine;
using FileTrust::Check;
using FileTrust::Descriptor;
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
  return "is refused because another user could have changed it: " + what + ". Run '" + remedy +
         (check == Check::Private ? "'" : "', or read it all the same with --trust-profiles");
}

/// What speaks against a file, directory or link.
std::string findDistrust(const struct stat& status, const std::string& path, Check check) {
  const uid_t user = ::geteuid();
  if (status.st_uid != 0 && status.st_uid != user) {
    return distrust(oneLine(path) + " belongs to user " + std::to_string(status.st_uid) +
                        ", neither to root nor to the user who reads it, " + std::to_string(user),
                    "chown " + std::to_string(user) + " " + oneLine(path), check);
  }
  const bool onlyOwnEntries = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
  if (S_ISLNK(status.st_mode) || onlyOwnEntries || (status.st_mode & OthersMayWrite) == 0) {
    return {};
  }
  const bool byGroup = (status.st_mode & S_IWGRP) != 0;
  const bool byAll = (status.st_mode & S_IWOTH) != 0;
  return distrust(
      oneLine(path) + " may be written by " +
          (byAll ? "every user" : "group " + std::to_string(status.st_gid)) + " (mode " +
          octal(status.st_mode & 07777U) + ")",
      std::string("chmod ") + (byGroup ? "g" : "") + (byAll ? "o" : "") + "-w " + oneLine(path),
      check);
}

/// A place on the way: what to open, relative to which directory.
struct Place {
  Descriptor directory;  // none: the name is a whole path
  std::string name;
  std::string path;  // the whole, for messages
};

/// Goes to the end of one path. Used once.
class Walk {
 public:
  Walk(Check check, Refusal& refusal) : m_check(check), m_refusal(refusal) {}

  /// @param status of what stands there; never a link.
  bool goTo(const std::string& path, Place& place, struct stat& status);

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
};

bool Walk::goTo(const std::string& path, Place& place, struct stat& status) {
  std::error_code error = std::make_error_code(std::errc::no_such_file_or_directory);
  const fs::path whole = path.empty() ? fs::path() : fs::absolute(path, error);
  if (error) {
    return fail(m_refusal, error.value());
  }
  push(whole);
  while (!m_remaining.empty()) {
    place.name = std::move(m_remaining.back());
    m_remaining.pop_back();
    Descriptor found;
    if (!look(place.name, found, status)) {
      return false;
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
  return true;
}

bool Walk::look(const std::string& name, Descriptor& found, struct stat& status) {
  found = Descriptor(::openat(m_directory.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (found.get() < 0 || ::fstat(found.get(), &status) != 0) {
    return fail(m_refusal, errno);
  }
  if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode)) {
    return true;  // the caller refuses it, whoever owns it
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
  const std::string distrust = isChecked ? findDistrust(status, place.path, check) : std::string();
  return distrust.empty() || refuse(refusal, distrust);
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
    return refuse(refusal, distrust(oneLine(path) + " may be written by other users",
                                    "chmod go-w " + oneLine(path), check));
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
  return ::mkdir(path.c_str(), S_IRWXU) == 0 || errno == EEXIST || fail(refusal, errno);
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
