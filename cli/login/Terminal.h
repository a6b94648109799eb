#pragma once

#include <termios.h>

#include <memory>
#include <string>

#include "cli/login/Credentials.h"
#include "vpn/Api/FileTrust.h"
#include "vpn/include/Locks.h"

/// The terminal at which a person is asked. While a secret is typed the terminal does not show it,
/// and however the question ends (an answer, a signal, a stop), the terminal is left as it was
/// found.
///
/// One thread says and asks. The other three operations are for the thread that is told of signals.
class Terminal {
 public:
  enum class Echo { On, Off };
  enum class Answer {
    Given,
    TooLong,  ///< more than MostCredentialBytes; all of the line has been read
    None,     ///< the person has ended the input, or the terminal is gone
  };

  /// The terminal of the person who started the command: the controlling one, which redirections
  /// do not touch. Null when there is none, or when standard input is no terminal: whoever
  /// redirected it does not expect to be asked.
  static std::shared_ptr<Terminal> find();

  /// @param terminal its descriptor, the object's from now on.
  explicit Terminal(int terminal) : m_terminal(terminal) {}
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  void say(const std::string& line);

  /// Asks and waits for a line, however long the person takes. What was typed before a question
  /// whose answer is not shown is dropped: it was shown.
  Answer ask(const std::string& prompt, Echo echo, Secret& answer);

  /// The process is about to end: gives the terminal back for good.
  void leave();
  /// The process is about to stop: gives the terminal back.
  void stepAside();
  /// The process goes on: a question that is still open is put again.
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
  // Of the open question; empty when there is none.
  std::string m_prompt AHS_GUARDED_BY(m_lock);
  Echo m_echo AHS_GUARDED_BY(m_lock) = Echo::On;
  // What is typed is not shown, by our doing.
  bool m_isHidden AHS_GUARDED_BY(m_lock) = false;
  bool m_isLeft AHS_GUARDED_BY(m_lock) = false;
  // The terminal's state to go back to while m_isHidden.
  termios m_found AHS_GUARDED_BY(m_lock){};
};
