// Questions on a terminal. One lock guards the terminal's state. No call under it waits for the
// terminal's output, so the signal thread can always restore the state.

#include "cli/login/Terminal.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "cli/Console.h"

std::shared_ptr<Terminal> Terminal::find() {
  const int terminal =
      isatty(STDIN_FILENO) == 1 ? open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY) : -1;
  return terminal < 0 ? nullptr : std::make_shared<Terminal>(terminal);
}

void Terminal::say(const std::string& line) {
  // A failed write needs no answer: the next question fails too.
  static_cast<void>(Console::write(m_terminal.get(), line + "\n"));
}

Terminal::Answer Terminal::ask(const std::string& prompt, Echo echo, Secret& answer) {
  if (!begin(prompt, echo)) {
    return Answer::None;
  }
  static_cast<void>(Console::write(m_terminal.get(), prompt));
  const Answer result = readLine(answer);
  end();
  // A hidden answer hides its line feed, too; an ended input has none.
  if (echo == Echo::Off || result == Answer::None) {
    say("");
  }
  return result;
}

void Terminal::leave() {
  const CAutoLockT<CManualLock> guard(m_lock);
  const bool wasAsking = !m_prompt.empty();
  if (!m_isLeft && isOurs()) {
    restore();
    if (wasAsking) {
      static_cast<void>(::write(m_terminal.get(), "\n", 1) == 1);
    }
  }
  m_isLeft = true;
}

void Terminal::stepAside() {
  const CAutoLockT<CManualLock> guard(m_lock);
  if (isOurs()) {
    restore();
  }
}

void Terminal::comeBack() {
  std::string prompt;
  {
    const CAutoLockT<CManualLock> guard(m_lock);
    // In the background, the question waits until the person continues the command.
    if (m_prompt.empty() || m_isLeft || !isOurs() || (m_echo == Echo::Off && !hide())) {
      return;
    }
    prompt = "\r" + m_prompt;
  }
  static_cast<void>(Console::write(m_terminal.get(), prompt));
}

bool Terminal::begin(const std::string& prompt, Echo echo) {
  const CAutoLockT<CManualLock> guard(m_lock);
  if (m_isLeft || (echo == Echo::Off && !hide())) {
    return false;
  }
  m_prompt = prompt;
  m_echo = echo;
  return true;
}

void Terminal::end() {
  const CAutoLockT<CManualLock> guard(m_lock);
  m_prompt.clear();
  if (m_isHidden) {
    restore();
  }
}

// Hides again, too: a shell may have changed the terminal while the command was stopped.
bool Terminal::hide() {
  if (!m_isHidden && tcgetattr(m_terminal.get(), &m_found) != 0) {
    return false;
  }
  termios hidden = m_found;
  hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
  if (tcsetattr(m_terminal.get(), TCSANOW, &hidden) != 0) {
    return false;
  }
  m_isHidden = true;
  static_cast<void>(tcflush(m_terminal.get(), TCIFLUSH));
  return true;
}

// Drops typed input that was not read: it may be part of a secret.
void Terminal::restore() {
  if (m_isHidden) {
    static_cast<void>(tcflush(m_terminal.get(), TCIFLUSH));
    static_cast<void>(tcsetattr(m_terminal.get(), TCSANOW, &m_found));
    m_isHidden = false;
  }
}

// The kernel stops a background process that changes its terminal, and the state would belong to
// the foreground job. Without job control the terminal is always ours.
bool Terminal::isOurs() const {
  const pid_t foreground = tcgetpgrp(m_terminal.get());
  return foreground < 0 || foreground == getpgrp();
}

Terminal::Answer Terminal::readLine(Secret& answer) const {
  SecretBuffer line;
  std::size_t length = 0;
  bool isTooLong = false;
  while (true) {
    // Reads a too long line to its end, always into the same place.
    isTooLong = isTooLong || length == SecretBuffer::Size;
    length = isTooLong ? 0 : length;
    const ssize_t count = read(m_terminal.get(), line.data() + length, SecretBuffer::Size - length);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return Answer::None;
    }
    length += static_cast<std::size_t>(count);
    if (line.text()[length - 1] == '\n') {
      break;
    }
  }
  line.data()[length - 1] = '\0';
  if (isTooLong || length - 1 > MostCredentialBytes) {
    return Answer::TooLong;
  }
  answer = line.text();
  return Answer::Given;
}
