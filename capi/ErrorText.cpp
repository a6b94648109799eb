// The last error of each thread. It takes no memory, so that a want of memory can be told too.

#include "capi/ErrorText.h"

#include <algorithm>

namespace {

// A path in it may be cut.
constexpr std::size_t MostBytes = 512;

thread_local char lastText[MostBytes] = "";

}  // namespace

ahs_status failed(ahs_status status, std::string_view text) noexcept {
  std::size_t length = std::min(text.size(), MostBytes - 1);
  // Not in the middle of a character of UTF-8.
  while (length < text.size() && length > 0 && (text[length] & '\xC0') == '\x80') {
    --length;
  }
  *std::copy_n(text.begin(), length, &lastText[0]) = '\0';
  return status;
}

const char* errorText() noexcept { return &lastText[0]; }
