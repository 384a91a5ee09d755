#!/bin/sh
# Runs shellcheck on every shell script of the package, scripts/ and tests/.
top=$(cd "$(dirname "$0")/../.." && pwd)
set --
for f in "$top"/openwrt/plaitd/files/* "$top"/scripts/* "$top"/tests/pkg/*.sh \
         "$top"/tests/support/*.sh "$top"/.ci/run; do
	head -n 1 "$f" | grep -q '^#!.*/sh\b' && set -- "$@" "$f"
done
exec shellcheck "$@"
