#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// What a fuzzed text is given to: libFuzzer calls it with texts of its making, the replay with
/// those of the corpus. Ends the process when a property does not hold.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace tests {

/// Ends the process, with `property` and its place on stderr, unless `holds`.
void requireAt(bool holds, const char* property, const char* file, int line);

/// The fuzzed bytes as a text.
inline std::string textOf(const std::uint8_t* data, std::size_t size) {
  return size == 0 ? std::string() : std::string(reinterpret_cast<const char*>(data), size);
}

/// Whether only printable ASCII is in `text`.
bool isPrintableAscii(const std::string& text);

/// Whether `text` is UTF-8 without a zero byte.
bool isUtf8(const std::string& text);

/// Whether `text` is UTF-8 without a control character.
bool isLegible(const std::string& text);

}  // namespace tests

/// A property that must hold. Not assert(3): it also holds in builds that leave assertions out.
#define REQUIRE(property) ::tests::requireAt((property), #property, __FILE__, __LINE__)
