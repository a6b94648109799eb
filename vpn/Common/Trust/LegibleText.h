#pragma once

#include <cstddef>
#include <string>

/// `text` fit for people: a log, a terminal, a page. What a terminal or a reader could take for
/// something else becomes \xNN, byte for byte: by Unicode's tables control characters except line
/// feeds and tabs, separators of lines, characters that turn the direction of writing, are ignored,
/// stand between lines or are none; and what is not UTF-8. A joiner stays where writing needs it,
/// behind a letter that is not European. After `maxLength` bytes it is cut and marked " [cut]". Any
/// thread may call these.
std::string legible(std::string text, std::size_t maxLength = std::string::npos);

/// The same in one line: line feeds and tabs become \xNN too.
std::string legibleLine(const std::string& text, std::size_t maxLength = std::string::npos);

/// `text` as one word of a shell, to be pasted: as it is, in apostrophes, or, where a reader could
/// not see it, in the form $'...' with its escapes.
std::string forShell(const std::string& text);

/// `message` as its target writes it: without line feeds at its end, and with every line but the
/// first indented, so that no text in a message can pass for a line of the log.
std::string indentContinuation(const std::string& message);
