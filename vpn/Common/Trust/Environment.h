#pragma once

/// The environment of the process. Nothing else in the library reads a variable.
///
/// It is *shut*, as if it were empty, where the host asked for that, and in a process that got
/// rights from its file (setuid, setgid, capabilities: AT_SECURE, getauxval(3)): whoever started
/// that must not decide what it loads, reads, writes or trusts. Any thread may call anything but
/// `prepare`.
class Environment {
 public:
  Environment() = delete;

  /// To be called as the library starts, before its threads.
  /// @param ignored shuts it for the rest of the process.
  /// In a process with rights of its file, takes out of the environment what libraries would obey
  /// all the same; otherwise the environment is never changed.
  static void prepare(bool ignored);

  static bool isShut();
  static bool hasRightsOfFile();

  /// The value of a variable, which belongs to the environment; null if it is unset or empty, or
  /// the environment is shut.
  static const char* get(const char* name);
};
