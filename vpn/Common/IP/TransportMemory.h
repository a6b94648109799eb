#pragma once

#include <cstddef>

/// The memory of a transport library that handles credentials and does not wipe them. Its blocks
/// come from malloc and are set to zero before they are freed or outgrown. May be called from any
/// thread.
class TransportMemory {
 public:
  TransportMemory() = delete;

  /// As free(3) and realloc(3), for blocks of malloc(3).
  static void free(void* block);
  static void* resize(void* block, std::size_t size);

  /// Zeroes what the caller's earlier calls have left on the thread's stack, 24 KiB deep, and in
  /// the registers that copy text. Takes 24 KiB of stack itself.
  static void wipeStack();
};
