#!/usr/bin/env bash
# Builds everything (tests and benchmarks) and runs the whole test suite.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
ctest --test-dir "$BUILD_DIR" -j"$(nproc)" --output-on-failure --timeout 300
