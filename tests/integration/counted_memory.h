#pragma once

#include <cstddef>
#include <functional>
#include <optional>

namespace tests {

/// Runs a function on a thread of its own.
/// @return the most that its allocations took up at one moment, in bytes, whatever library made
///         them; none where the allocator is a sanitizer's, which cannot be replaced.
std::optional<std::size_t> mostMemoryOf(const std::function<void()>& function);

}  // namespace tests
