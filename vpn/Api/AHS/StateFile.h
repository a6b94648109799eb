#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>

#include "vpn/Api/FileTrust.h"

/// A small file in which the processes of one user keep what they know between them.
///
/// Nothing is trusted: only a regular file of bounded size that belongs to the user and that nobody
/// else can write is read, and only in a directory that nobody else can write, nor exchange by what
/// leads to it, are there any files. Replacing it is atomic: whoever reads, and whatever moment the
/// power fails, sees the old text or the new one. Beside the file at PATH stand PATH.lock, which
/// processes lock while they read, change and replace it, PATH.new-..., the text under way, and
/// PATH.corrupt, a text that could not be understood.
///
/// Used by one thread at a time. What went wrong is told as a sentence for the log.
class CStateFile {
 public:
  /// What a reading found.
  enum class Content {
    Unchanged,  ///< the same as at the last successful read or replacement
    Missing,    ///< there is no such file
    Read,       ///< read
    Refused,    ///< not to be trusted, or unreadable; must not be replaced either
  };
  /// What became of an attempt to lock.
  enum class Locking {
    Held,    ///< the lock is this process's
    Busy,    ///< another process held the lock for the whole time
    Failed,  ///< the lock cannot be used: no directory, no permission, no such service
  };
  /// What became of a replacement.
  enum class Replacing {
    Done,      ///< the new text is in place
    LockLost,  ///< the lock file has been removed, so another process may have replaced the file
               ///< meanwhile: to be begun again, from the lock on
    Failed,    ///< the old file is still in place
  };

  /// @param path empty for no file at all. @param maxSize largest text that is read, in bytes.
  CStateFile(std::string path, std::size_t maxSize);

  /// Whether there is a file at all.
  bool isSet() const { return !m_path.empty(); }
  /// The path as it was given.
  const std::string& path() const { return m_path; }

  /// Holds the lock between processes for the length of a scope, and the directory that the file
  /// is in: whatever becomes of the names that lead there, it stays the same one.
  class Lock {
   public:
    /// Creates the file's directory when it is missing (mode 0700) and waits for the lock. Where
    /// other users could write there, it fails and leaves nothing behind.
    /// @param file the file to be locked.
    /// @param patience longest wait.
    Lock(const CStateFile& file, std::chrono::milliseconds patience);
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    /// Whether the lock is held, and if not, why.
    Locking state() const { return m_state; }
    /// What went wrong, as a sentence for the log; empty while the lock is held.
    const std::string& problem() const { return m_problem; }
    /// Whether the lock file is still the one that others would lock: whoever removes it, or puts
    /// another in its place, lets them in.
    bool isInPlace() const;
    /// Gives the lock back before the scope ends.
    void release();

   private:
    friend class CStateFile;
    bool tryToLock();

    const std::string m_path;  // of the lock file
    FileTrust::Descriptor m_directory;
    FileTrust::Descriptor m_descriptor;
    Locking m_state;
    std::string m_problem;
  };

  /// Reads the file unless it is unchanged.
  /// @param text receives the text when it was read. @param problem says why it was refused.
  Content read(std::string& text, std::string& problem);
  /// The same in the directory that is locked.
  Content read(const Lock& lock, std::string& text, std::string& problem);

  /// Makes the next `read` read, whether the file has changed or not.
  void forget();

  /// Replaces the file.
  Replacing replace(const Lock& lock, const std::string& text, std::string& problem);

  /// Makes the last replacement survive a power failure; the lock may have been given back.
  bool syncDirectory(const Lock& lock, std::string& problem);

  /// Gives the present file the further name PATH.corrupt, unless that name is taken.
  void keepAside(const Lock& lock);

  /// Removes the file, whatever it is, and what stands beside it but for the lock.
  /// @return false and the problem when something is left.
  bool remove(const Lock& lock, std::string& problem);

  /// Whether there is anything to remove.
  bool isThere() const;

  /// Whether `remove` can be expected to succeed.
  bool isRemovable() const;

 private:
  /// What tells one content of the file from another without reading it.
  struct Version {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;  // never that of a file
    timespec modified{};
    timespec changed{};
  };
  static Version versionOf(const struct stat& status);
  static bool same(const Version& a, const Version& b);

  std::string name() const;
  std::string findDistrust(const struct stat& status) const;
  Content readIn(int directory, std::string& text, std::string& problem);
  bool readAll(int descriptor, std::string& text, std::string& problem) const;

  const std::string m_path;
  const std::size_t m_maxSize;
  Version m_version;
};
