#!/bin/bash
# Runs all benchmarks beside their peers; docs/benchmarks.md explains the figures.
# Usage: run.sh BUILD-DIRECTORY [--write] [ROW...]; `run.sh --help` names the rows.
set -euo pipefail
exec python3 -B "$(dirname "$0")/bench.py" "$@"
