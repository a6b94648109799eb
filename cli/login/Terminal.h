#pragma once

#include <termios.h>

#include <memory>
#include <string>

#include "cli/login/Credentials.h"
#include "vpn/Common/Trust/FileTrust.h"
#include "vpn/include/Locks.h"

/// The terminal at which a person is asked. It does not show a secret while it is typed. However a
/// question ends (an answer, a signal, a stop), the terminal's state is restored.
///
/// One thread says and asks. The signal thread calls the other three operations.
class Terminal {
 public:
  enum class Echo { On, Off };
  enum class Answer {
    Given,
    TooLong,  ///< more than MostCredentialBytes; the whole line was read
    None,     ///< the person has ended the input, or the terminal is gone
  };

  /// The controlling terminal, which redirections do not touch. Null if there is none, or if
  /// standard input is no terminal: a person who redirected it does not expect a question.
  static std::shared_ptr<Terminal> find();

  /// @param terminal a descriptor; the object takes ownership.
  explicit Terminal(int terminal) : m_terminal(terminal) {}
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  void say(const std::string& line);

  /// Asks and waits for a line without a time limit. For a secret, drops what was typed before the
  /// question: the terminal showed it.
  Answer ask(const std::string& prompt, Echo echo, Secret& answer);

  /// The process is about to end: restores the terminal for good.
  void leave();
  /// The process is about to stop: restores the terminal.
  void stepAside();
  /// The process was continued: repeats an open question.
  void comeBack();

 private:
  bool begin(const std::string& prompt, Echo echo);
  void end();
  bool hide() AHS_REQUIRES(m_lock);
  void restore() AHS_REQUIRES(m_lock);
  bool isOurs() const;
  Answer readLine(Secret& answer) const;

  const FileTrust::Descriptor m_terminal;
  CManualLock m_lock;
  // The open question; empty if there is none.
  std::string m_prompt AHS_GUARDED_BY(m_lock);
  Echo m_echo AHS_GUARDED_BY(m_lock) = Echo::On;
  // We have turned the terminal's echo off.
  bool m_isHidden AHS_GUARDED_BY(m_lock) = false;
  bool m_isLeft AHS_GUARDED_BY(m_lock) = false;
  // The terminal's state before m_isHidden became true.
  termios m_found AHS_GUARDED_BY(m_lock){};
};
