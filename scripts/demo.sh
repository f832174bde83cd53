#!/usr/bin/env bash
# The main job on the bundled default: builds the tree, then drives the archivedepot client as an
# administrator and a mail client would: creates the default profile on our store provider (which
# installs the service and registers the scriptable archive on the bundled sample mailbox), prints
# the store's folder tree, and the properties of one folder.
# State goes to a fresh folder under the build folder unless ARCHIVEDEPOT_HOME is set; the store
# file goes to its tmp folder then too, else to $TMPDIR.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
bin="$BUILD_DIR/bin"
for f in ZT4MSProvider.so ZT4ScriptArchive.so sample/mailbox.fixture; do
  if [ ! -f "$bin/$f" ]; then
    echo "demo: $bin/$f is missing; the build did not make it" >&2
    exit 1
  fi
done
if [ -z "${ARCHIVEDEPOT_HOME:-}" ]; then
  export ARCHIVEDEPOT_HOME="$BUILD_DIR/demo-home"
  rm -rf "$ARCHIVEDEPOT_HOME"
  export TMPDIR="$ARCHIVEDEPOT_HOME/tmp"
  mkdir -p "$TMPDIR"
fi
echo "State directory: $ARCHIVEDEPOT_HOME"
echo

run() {
  echo "\$ archivedepot$(printf ' %q' "$@")"
  "$bin/archivedepot" "$@"
  echo
}

if "$bin/archivedepot" profile list | grep -q '^\* ArchiveDepot '; then
  echo "(the default profile ArchiveDepot exists already in this state directory)"
  echo
else
  run profile create
fi
run tree
run props Inbox/Projects
run profile list
