#pragma once

/// What this machine can lack, whatever its peers do.
enum class Shortage : unsigned char { None, Descriptors, Threads, Memory };

/// The process's account of shortages. Any thread may call anything; nothing throws.
namespace Shortages {

/// The shortage that an errno value tells of; `None` for any other.
Shortage fromErrno(int error) noexcept;

/// In words: "this machine ran out of descriptors".
const char* inWords(Shortage what) noexcept;

/// Counts a shortage, logs it, and tells the thread's task; `None` does nothing.
void note(Shortage what) noexcept;

/// How many there were. Who finds the number unchanged lacked nothing meanwhile.
unsigned long count() noexcept;

}  // namespace Shortages
