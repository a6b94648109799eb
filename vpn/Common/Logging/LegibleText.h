#pragma once

#include <cstddef>
#include <string>

/// `text` fit for a log that people read on a terminal. What a terminal or a reader could take for
/// something else becomes \xNN, byte for byte: control characters except line feeds and tabs,
/// characters that turn the direction of writing, separate lines or are not seen, and what is not
/// UTF-8. A joiner stays where writing needs it, behind a letter that is not European. After
/// `maxLength` bytes it is cut and marked " [cut]". Any thread may call it.
std::string legible(std::string text, std::size_t maxLength);

/// `message` as its target writes it: without line feeds at its end, and with every line but the
/// first indented, so that no text in a message can pass for a line of the log.
std::string indentContinuation(const std::string& message);
