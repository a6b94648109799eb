#!/bin/bash
# All benchmarks, side by side with their peers; docs/benchmarks.md explains the figures.
# Usage: run.sh BUILD-DIRECTORY
set -euo pipefail
exec python3 "$(dirname "$0")/distance.py" "$1/bin"
