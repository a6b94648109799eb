// Reads credentials. read(2) puts a secret into our own buffer; it is copied once, into a holder
// that wipes itself. No stream, growing string or message ever holds it.

#include "cli/login/Credentials.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "cli/Console.h"
#include "cli/Surroundings.h"
#include "vpn/Common/Trust/FileTrust.h"

namespace {

bool hasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
  });
}

// Reads to the end, or until the buffer is full. -1 and errno on failure.
ssize_t readToEnd(int descriptor, SecretBuffer& buffer) {
  std::size_t length = 0;
  while (length < SecretBuffer::Size) {
    const ssize_t count = read(descriptor, buffer.data() + length, SecretBuffer::Size - length);
    if (count < 0 && errno == EAGAIN) {
      // The process that handed the descriptor over made it non-blocking.
      pollfd ready{descriptor, POLLIN, 0};
      static_cast<void>(poll(&ready, 1, -1));
    } else if (count < 0 && errno != EINTR) {
      return -1;
    } else if (count == 0) {
      break;
    }
    length += count > 0 ? static_cast<std::size_t>(count) : 0;
  }
  return static_cast<ssize_t>(length);
}

// Reads a password. @return an empty string, or what is wrong, as a phrase.
std::string take(int descriptor, Secret& password) {
  SecretBuffer buffer;
  const ssize_t count = readToEnd(descriptor, buffer);
  if (count < 0) {
    return std::string("it cannot be read: ") + strerrordesc_np(errno) + ".";
  }
  auto length = static_cast<std::size_t>(count);
  if (length > 0 && buffer.text()[length - 1] == '\n') {
    --length;
    buffer.data()[length] = '\0';
  }
  if (length == 0) {
    return "it is empty. Write the password into it, in one line.";
  }
  if (length > MostCredentialBytes) {
    return "it is longer than " + std::to_string(MostCredentialBytes) +
           " bytes. It has to hold the password and nothing else.";
  }
  if (hasControlCharacter({buffer.text(), length})) {
    return "it holds a control character or a second line. It has to hold the password in one "
           "line, without the line end of Windows.";
  }
  password = buffer.text();
  return "";
}

// Who can read the file knows the password; who can write it chooses what is sent.
std::string findFileFault(const struct stat& facts) {
  constexpr mode_t AccessOfOthers = S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
  if (facts.st_uid != geteuid() && facts.st_uid != 0) {
    return "it belongs to another user. Write the password into a file of your own.";
  }
  if ((facts.st_mode & AccessOfOthers) != 0) {
    return "others may read or write it. Keep it to yourself: chmod 600 FILE. If it was readable "
           "for long, change the password.";
  }
  return "";
}

}  // namespace

SecretBuffer::~SecretBuffer() { explicit_bzero(m_bytes.data(), m_bytes.size()); }

void keepMemoryPrivate() {
  // A core limit of 0 would not do: the kernel ignores it where it pipes core files into a program.
  // This call cannot fail on Linux 2.4 or later.
  static_cast<void>(prctl(PR_SET_DUMPABLE, 0, 0, 0, 0));
}

std::string findUserError(const Secret& user) {
  const std::string_view text(user.c_str(), user.length());
  if (text.find(':') != std::string_view::npos) {
    return "a user name for a proxy cannot have a colon in it.";
  }
  if (hasControlCharacter(text)) {
    return "a user name for a proxy cannot have control characters in it.";
  }
  return "";
}

std::string findPasswordError(const Secret& password) {
  return hasControlCharacter({password.c_str(), password.length()})
             ? "a password for a proxy cannot have control characters in it."
             : "";
}

std::string readPasswordFile(const std::string& path, Secret& password) {
  const std::string name = "the password file " + Console::inQuotes(path) + " cannot be used: ";
  FileTrust::Descriptor file;
  FileTrust::Refusal refusal;
  // Who could change a directory or a link on the way could send any file of this user to the
  // proxy.
  if (!FileTrust::openFile(path, FileTrust::Check::Way, file, refusal)) {
    return name + "it " + refusal.text +
           ". Name a file that holds the password and that you alone may read, or hand the "
           "password over with --proxy-password-fd.";
  }
  struct stat facts {};
  if (fstat(file.get(), &facts) != 0) {
    return name + "it cannot be read: " + strerrordesc_np(errno) + ".";
  }
  std::string fault = findFileFault(facts);
  if (fault.empty()) {
    fault = take(file.get(), password);
  }
  return fault.empty() ? "" : name + fault;
}

std::string readPasswordDescriptor(int descriptor, Secret& password) {
  const std::string name =
      "the password descriptor " + std::to_string(descriptor) + " cannot be used: ";
  if (fcntl(descriptor, F_GETFD) < 0) {
    return name + "it is not open. Open it for the command, as in '--proxy-password-fd 3 3<FILE'.";
  }
  if (isatty(descriptor) == 1) {
    return name +
           "it is a terminal. Leave --proxy-password-fd out to be asked without the password being "
           "shown.";
  }
  std::string fault;
  {
    const FileTrust::Descriptor source(descriptor);
    fault = take(descriptor, password);
  }
  Surroundings::forget(descriptor);
  return fault.empty() ? "" : name + fault;
}
