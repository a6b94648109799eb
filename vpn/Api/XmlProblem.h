#pragma once

#include <string>

extern "C" {
struct _xmlError;
}

/// What a text that is no XML has wrong, told for the person who wrote it: what stands there and
/// what has to. The names in it are the text's own, in one line and bounded. Any thread may call
/// it.
std::string xmlProblem(const _xmlError& error);
