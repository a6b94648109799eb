#pragma once

#include <spdlog/common.h>

#include <cstddef>
#include <string>

/// Opens a log file that is rotated, appending to what it holds. It is created readable and
/// writable for its owner alone and closed in child processes. After an exception of its own the
/// file must not be used again: the next write would go through a null stream.
/// @throws std::exception whose text says what is wrong with the path and what to do about it.
spdlog::sink_ptr openLogFile(const std::string& path, std::size_t fileSize, std::size_t fileCount);
