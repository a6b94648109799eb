#pragma once

#include <spdlog/common.h>

#include <cstddef>
#include <string>

/// Opens a log file that is rotated, appending to what it holds. Each message is written at once.
/// The file is created readable and writable for its owner alone and closed in child processes; no
/// other user can choose where it is (`FileTrust`). It throws for each message that it cannot
/// write.
/// @throws std::exception whose text says what is wrong with the path and what to do about it.
spdlog::sink_ptr openLogFile(const std::string& path, std::size_t fileSize, std::size_t fileCount);
