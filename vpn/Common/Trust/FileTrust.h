#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

/// Opening files that another user could not have written, and writing where no other user decides
/// what is written. A file is trusted if it, and every
/// directory and link on its path from the root, belongs to root or to the effective user and
/// nobody else may write it. A directory with the sticky bit, such as /tmp, is trusted although
/// everybody may write: only owners change its entries, and each entry's owner is checked. A group
/// always counts as others, because its members may change. Each step is checked on an open
/// descriptor and continues from it, so nobody can exchange what was checked. Any thread may call
/// these.
namespace FileTrust {

/// Who may have written a file.
enum class Check {
  Strict,   ///< root and the effective user alone
  Private,  ///< the same, not for configuration; nobody else may even add files to the directory
  Way,      ///< directories and links; the caller looks at the file itself
  Waived,   ///< whoever could have written the file
};

/// An open file or directory, closed with the object.
class Descriptor {
 public:
  /// @param descriptor the object's from now on; negative for none.
  explicit Descriptor(int descriptor = -1) : m_descriptor(descriptor) {}
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  /// Takes over the other object's descriptor; assignment exchanges the two.
  /// @{
  Descriptor(Descriptor&& other) noexcept;
  Descriptor& operator=(Descriptor&& other) noexcept;
  /// @}

  /// The descriptor, still the object's; negative for none.
  int get() const { return m_descriptor; }
  /// Gives the descriptor to the caller.
  int release();

 private:
  int m_descriptor;
};

/// Why nothing can be read, or written.
struct Refusal {
  int error = 0;     ///< of the system (ENOENT, ...); 0: the file is there and refused
  std::string text;  ///< for a person, with a remedy where it is not trusted
};

/// Opens a regular file for reading, also through links. Never waits, whatever the path names.
/// @return whether `file` is open; else `refusal` says why not.
bool openFile(const std::string& path, Check check, Descriptor& file, Refusal& refusal);

/// Opens a directory for reading in the same way.
bool openDirectory(const std::string& path, Check check, Descriptor& directory, Refusal& refusal);

/// Makes a directory for the user alone (mode 0700), and its missing parents, inside a trusted
/// directory only.
/// @return whether it is there; else `refusal` says why not.
bool makeDirectory(const std::string& path, Refusal& refusal);

/// Where a file is to be written: an open directory, and the name of the file, or of none, in it.
struct Place {
  Descriptor directory;
  std::string name;
  std::string path;  ///< the whole, without links
};

/// Finds the place of a file to be written, also through links, on the way of `Check::Way`. What is
/// there must be a regular file; the kernel's own files (/proc, /sys) are refused to root too.
/// @return whether the place is found and can be written; else `refusal` says why not.
bool findPlace(const std::string& path, Place& place, Refusal& refusal);

/// Opens the file of a place for appending, and makes it, for the user alone, if it is missing. It
/// must be the user's or root's, without access for writing by others, and have no other name.
/// @return whether `file` is open; else `refusal` says why not.
bool openToAppend(const Place& place, Descriptor& file, Refusal& refusal);

/// Makes or replaces the file of a place. It is complete before it has its name, so that after a
/// failure the old one is there.
/// @param mode of a new file, less the umask; a file that is replaced hands its own on.
/// @return an errno value, 0 on success.
int replaceFile(const Place& place, std::string_view text, mode_t mode);

/// Writes all of `text`. @return an errno value, 0 on success.
int writeAll(const Descriptor& file, std::string_view text);

/// Whether reading a file, which others open by its name, ends: whether it is a regular one of at
/// most 1 MiB, or missing.
bool isBounded(const char* path);

/// Calls `take` with each name in an open directory until it returns false.
/// @return an errno value, 0 on success.
int visitNames(Descriptor directory, const std::function<bool(const std::string& name)>& take);

}  // namespace FileTrust
