#pragma once

#include <cstddef>

/// The memory of a transport library that handles credentials and does not wipe them. Its blocks
/// are malloc's, with one difference: nothing is given back or outgrown before it has been set to
/// zero. May be called from any thread.
class TransportMemory {
 public:
  TransportMemory() = delete;

  /// As free(3) and realloc(3), for blocks of malloc(3).
  static void free(void* block);
  static void* resize(void* block, std::size_t size);

  /// Sets to zero what the functions that the caller has called have left on the thread's stack, 24
  /// KiB deep, and in the registers that text is copied with. Takes that much of the stack itself.
  static void wipeStack();
};
