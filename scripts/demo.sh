#!/usr/bin/env bash
# The main job on the bundled default: builds the tree, then drives the archivedepot client as an
# administrator and a mail client would: registers the test store provider's service in
# MAPISVC.INF, creates the default profile with it, logs on to its store and lists the profiles.
# State goes to a fresh folder under the build folder unless ARCHIVEDEPOT_HOME is set.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
bin="$BUILD_DIR/bin"
if [ ! -f "$bin/msgprovider_module.so" ]; then
  echo "demo: $bin/msgprovider_module.so is missing (the test provider is built with AD_BUILD_TESTS=ON)" >&2
  exit 1
fi
if [ -z "${ARCHIVEDEPOT_HOME:-}" ]; then
  export ARCHIVEDEPOT_HOME="$BUILD_DIR/demo-home"
  rm -rf "$ARCHIVEDEPOT_HOME"
fi
echo "State directory: $ARCHIVEDEPOT_HOME"
echo

run() {
  echo "\$ archivedepot$(printf ' %q' "$@")"
  "$bin/archivedepot" "$@"
  echo
}

run service install ADTESTSVC --dll msgprovider_module.so --display "ArchiveDepot test store"
if "$bin/archivedepot" profile list | grep -q '^\* ArchiveDepot '; then
  echo "(the default profile ArchiveDepot exists already in this state directory)"
  echo
else
  run profile create --user demo --display "Demo User" --smtp demo@example.com
fi
run logon
run profile list
