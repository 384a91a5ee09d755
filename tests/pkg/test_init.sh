#!/bin/sh
# Runs openwrt/plaitd/files/plaitd.init under busybox ash, its rc.common, uci and procd
# calls answered by recording stand-ins; checks the instance for each configuration.
# shellcheck disable=SC2317 # the stand-ins are called by the sourced script
[ -n "$IN_ASH" ] || IN_ASH=1 exec busybox ash "$0" "$@"
top=$(cd "$(dirname "$0")/../.." && pwd)
tmp=$(mktemp -d) && trap 'rm -rf "$tmp"' EXIT
fails=0

config_load() {  # reads "option <name> '<value>'" lines of $conf
	eval "$(sed -n "s/^[[:space:]]*option \([a-z_]*\) \(.*\)/cfg_\1=\2/p" "$conf")"
}
config_get() {  # var section option [default]; an empty value takes the default
	eval "$1=\${cfg_$3:-\$4}"
}
procd_open_instance() { printf open >> "$tmp/rec"; }
procd_set_param() { printf '|%s' "$*" >> "$tmp/rec"; }
procd_close_instance() { printf '|close' >> "$tmp/rec"; }

# name | uci options, \n between (empty: the packaged config) | start_service status | record, | between
check() {
	: > "$tmp/rec"
	conf=$top/openwrt/plaitd/files/plaitd.config
	if [ -n "$2" ]; then conf=$tmp/conf; printf '%b\n' "$2" > "$conf"; fi
	(
		unset cfg_role cfg_interface cfg_log_level
		# shellcheck source=/dev/null
		. "$top/openwrt/plaitd/files/plaitd.init"
		start_service 2> /dev/null
	)
	st=$? got=$(cat "$tmp/rec")
	if [ "$st" != "$3" ] || [ "$got" != "$4" ]; then
		printf 'FAIL %s: status %s (want %s)\n%s\nwant:\n%s\n' "$1" "$st" "$3" "$got" "$4"
		fails=$((fails + 1))
	fi
}
end="stderr 1|pidfile /var/run/plaitd.pid|close"

check packaged "" 0 "open|command /usr/sbin/plaitd -C -l 2|$end"
check cap "option role 'cap'\noption interface 'br-lan'\noption log_level '7'" 0 \
	"open|command /usr/sbin/plaitd -S -i br-lan -l 7|respawn 3600 5 0|$end"
check re-bad-level "option role 're'\noption interface 'eth4'\noption log_level '9'" 0 \
	"open|command /usr/sbin/plaitd -C -i eth4 -l 2|$end"
check cap-no-interface "option role 'cap'" 0 "open|command /usr/sbin/plaitd -S -l 2|respawn 3600 5 0|$end"
check bad-role "option role 'master'\noption interface 'br-lan'" 1 ""

[ "$fails" -eq 0 ] && echo "init script: all cases passed"
exit "$fails"
