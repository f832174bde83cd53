#!/usr/bin/env bash
# The main job on the bundled default: for now the platform smoke program, which shows the
# stand-ins and the file logger at work in a private state directory.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
"$BUILD_DIR/bin/archivedepot-smoke" "$@"
