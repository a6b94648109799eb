#!/bin/bash
# The lines of C++ in the README are those of examples/embed/embed.cpp, which tests compile and run.
# Usage: readme_test.sh SOURCE-DIRECTORY
set -euo pipefail
cd "$1"
# The backquotes are Markdown.
# shellcheck disable=SC2016
shown=$(sed -n '/^```cpp$/,/^```$/p' README.md | sed '1d;$d')
compiled=$(sed -n '/^\/\/ \[README\]$/,/^\/\/ \[README\]$/p' examples/embed/embed.cpp | sed '1d;$d')
[ -n "$compiled" ] || { echo "examples/embed/embed.cpp has no [README] region"; exit 1; }
diff <(echo "$shown") <(echo "$compiled") && echo "README.md shows what is compiled"
