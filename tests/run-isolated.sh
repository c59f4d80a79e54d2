#!/bin/sh
# Runs a command in a private System V IPC namespace, so that the fixed pool keys
# of one test program never meet those of another, of a running device stack or
# of a parallel run. Where namespaces are not permitted it runs the command as is.
if unshare -i true 2>/dev/null; then
    exec unshare -i "$@"
fi
if unshare -r -i true 2>/dev/null; then
    exec unshare -r -i "$@"
fi
echo "run-isolated: no private IPC namespace here; running in the shared one" >&2
exec "$@"
