#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

/// Opening files that another user could not have written. One is trusted when it, and every
/// directory and link on the way to it from the root on, belongs to root or to the effective user,
/// and nobody else may write it. A directory in which everybody may write but only own entries
/// change (the sticky bit, as /tmp has it) is trusted: what stands in it belongs to somebody who is
/// trusted himself, or is refused for its owner. A group counts as others whoever is in it, for who
/// that is may change at any time. Each step is checked on an open descriptor and taken from there,
/// so nobody can exchange what was checked. Any thread may call these.
namespace FileTrust {

/// Who may have written a file.
enum class Check {
  Strict,   ///< root and the effective user alone
  Private,  ///< the same for what is no configuration; in a directory, nobody else even adds files
  Waived,   ///< whoever could have written it
};

/// An open file or directory, closed with the object.
class Descriptor {
 public:
  /// @param descriptor the object's from now on; negative for none.
  explicit Descriptor(int descriptor = -1) : m_descriptor(descriptor) {}
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  /// Takes the other's over; assignment exchanges the two.
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

/// Why there is nothing to read.
struct Refusal {
  int error = 0;     ///< of the system (ENOENT, ...); 0: the file is there and refused
  std::string text;  ///< for a person, with a remedy where it is not trusted
};

/// Opens a regular file for reading, or one that links lead to. Never waits, whatever stands there.
/// @return whether `file` is open; else `refusal` says why not.
bool openFile(const std::string& path, Check check, Descriptor& file, Refusal& refusal);

/// Opens a directory for reading in the same way.
bool openDirectory(const std::string& path, Check check, Descriptor& directory, Refusal& refusal);

/// Makes a directory for the user alone (mode 0700), and what leads to it, where they are missing:
/// only in one that is trusted.
/// @return whether it is there; else `refusal` says why not.
bool makeDirectory(const std::string& path, Refusal& refusal);

/// Calls `take` with each name in an open directory until it returns false.
/// @return an errno value, 0 on success.
int visitNames(Descriptor directory, const std::function<bool(const std::string& name)>& take);

}  // namespace FileTrust
