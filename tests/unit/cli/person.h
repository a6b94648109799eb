#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// A terminal of the test's own and somebody who types at it: reads what is shown, and types an
/// answer when the text that it waits for has come.
class Person {
 public:
  struct Line {
    std::string awaited;  ///< shown since the last answer
    std::string typed;
  };
  using Lines = std::vector<Line>;

  explicit Person(Lines lines);
  ~Person();
  Person(const Person&) = delete;
  Person& operator=(const Person&) = delete;

  /// The program's side of the terminal.
  int terminal() const { return m_terminal; }

  /// Types at once.
  void type(const std::string& text) const;

  /// Waits until `text` has been shown.
  bool waitFor(const std::string& text) const;

  /// All that has been shown so far.
  std::string shown() const;

  bool seesWhatIsTyped() const;

  /// Pulls the plug.
  void hangUp();

 private:
  void live();

  const Lines m_lines;
  int m_terminal = -1;
  int m_desk = -1;
  mutable std::mutex m_lock;
  std::string m_shown;  // guarded by m_lock
  std::atomic<bool> m_leaves{false};
  std::thread m_life;
};
