// A file that costs a few microseconds a text: it is made once, without a name on any disk, and
// opened again by way of /proc, which gives each reader a position of its own.

#include "tests/fuzz/MemoryFile.h"

#include <sys/mman.h>
#include <unistd.h>

#include "tests/fuzz/require.h"

namespace tests {

MemoryFile::MemoryFile()
    : m_descriptor(memfd_create("text", MFD_CLOEXEC)),
      m_path("/proc/self/fd/" + std::to_string(m_descriptor)) {
  REQUIRE(m_descriptor >= 0);
}

MemoryFile::~MemoryFile() { close(m_descriptor); }

void MemoryFile::Write(const std::string& text) const {
  REQUIRE(ftruncate(m_descriptor, 0) == 0);
  REQUIRE(pwrite(m_descriptor, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
}

}  // namespace tests
