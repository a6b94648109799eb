#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace tests {

struct Outcome {
  int exitStatus = -1;  ///< -1: it was ended by a signal that it did not handle
  std::string out;
  std::string err;
};

/// One running `ahs`. What it shows on a terminal counts as its standard error. Used by one thread.
class Program {
 public:
  enum class Terminal {
    None,    ///< outputs on pipes, nothing to read
    Errors,  ///< a terminal of its own, and standard output on a pipe
    All,     ///< a terminal of its own for everything
    Job,     ///< the same, as the job of a shell that can stop and continue it
  };

  /// The size of a terminal; one of 0 is not told.
  struct Window {
    unsigned short columns = 0;
    unsigned short rows = 0;
  };

  /// @param standardOutput a descriptor to use as its standard output, -1 for a pipe.
  /// @param window of the terminal, where there is one.
  Program(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
          Terminal terminal = Terminal::None, int standardOutput = -1, Window window = {0, 0});
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// Of the `ahs`.
  pid_t pid() const { return m_job > 0 ? m_job : m_pid; }

  /// Gives the terminal another size.
  void resize(Window window) const;

  /// The terminal is closed, as by a window that goes away.
  void hangUp();

  /// Types at the terminal.
  void type(const std::string& text) const;

  /// Whether the terminal shows what is typed.
  bool showsWhatIsTyped() const;

  /// Reads until standard error has shown `text`, or the program has ended.
  bool waitForError(const std::string& text) { return waitFor(m_outcome.err, 0, text); }

  /// The same for its standard output.
  bool waitForOutput(const std::string& text) { return waitFor(m_outcome.out, 0, text); }

  /// The same for what standard error has shown since the last call.
  bool waitForNext(const std::string& text);

  /// What has been read so far.
  const Outcome& soFar() const { return m_outcome; }

  /// Waits until the job has stopped.
  bool waitForStop();

  /// Brings the job that has stopped back, as `fg` does.
  void bringBack() const;

  /// Reads until both outputs are closed, and waits for the end.
  Outcome finish();

 private:
  bool waitFor(const std::string& shown, std::size_t from, const std::string& text);
  bool readSome();

  pid_t m_pid = -1;
  pid_t m_job = -1;        // of the shell's job, where there is a shell
  int m_out = -1;          // -1 for none
  int m_err = -1;          // the person's side of the terminal, where there is one
  int m_events = -1;       // the shell tells of its job
  int m_orders = -1;       // the shell is told to go on
  std::size_t m_next = 0;  // where waitForNext looks on
  Outcome m_outcome;
  const std::chrono::steady_clock::time_point m_deadline;
};

/// Runs `ahs` to its end with a standard output whose reader has gone.
Outcome runForNobody(const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment);

}  // namespace tests
