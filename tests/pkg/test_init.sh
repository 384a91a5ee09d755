#!/bin/sh
# Runs openwrt/plaitd/files/plaitd.init and the udhcpc hook under busybox ash, the rc.common,
# uci, procd, netifd and ubus calls answered by recording stand-ins; checks what each case asks
# procd for and what the hook writes and signals.
# The stand-ins and the variables are used by the sourced scripts; busybox's "." takes arguments.
# shellcheck disable=SC2317,SC2154,SC2034,SC1090,SC1091,SC2240
[ -n "$IN_ASH" ] || IN_ASH=1 exec busybox ash "$0" "$@"
top=$(cd "$(dirname "$0")/../.." && pwd)
files=$top/openwrt/plaitd/files
tmp=$(mktemp -d) && trap 'rm -rf "$tmp"' EXIT
fails=0

config_load() {  # reads "option <name> '<value>'" lines of $conf
	eval "$(sed -n "s/^[[:space:]]*option \([a-z_]*\) \(.*\)/cfg_\1=\2/p" "$conf")"
}
config_get() {  # var section option [default]; an empty value takes the default
	eval "$1=\${cfg_$3:-\$4}"
}
rec() { printf '%s' "$*" >> "$tmp/rec"; }
procd_open_instance() { rec open; }
procd_set_param() { rec "|$*"; }
procd_close_instance() { rec '|close'; }
procd_add_reload_trigger() { rec "|reload on $*"; }
procd_add_interface_trigger() { rec "|on $*"; }
procd_running() { [ -n "$running" ]; }
start() { start_service; }
network_get_device() { netifd "$1" "$2" 2; }
network_get_physdev() { netifd "$1" "$2" 3; }
netifd() {  # var network field: $nets lists netifd's networks as name:l3_device:device
	eval "$1=$(echo "$nets" | tr ' ' '\n' | awk -F: -v n="$2" -v f="$3" '$1 == n { print $f }')"
	eval "[ -n \"\$$1\" ]"
}
uci() { echo "$cfg_interface"; }
ubus() { [ -n "$procd" ] && rec "|ubus $*"; }
kill() { if [ "$1" = -l ]; then echo 10; else rec "|kill $*"; fi; }
extra_command() { :; }
_procd_status() { echo "not running"; }
init() { . "$files/plaitd.init"; "$@"; }
at() {  # uptime [end of the open pairing window]
	echo "$1.61 9.03" > "$IPKG_INSTROOT/proc/uptime"
	[ -z "$2" ] || echo "$2" > "$IPKG_INSTROOT/var/run/plaitd.window"
}
gone() { [ -e "$IPKG_INSTROOT/var/run/plaitd.window" ] || rec "|gone"; }
hook() {  # event [comm of the PID in the pidfile]; a lease of wan on eth4
	interface=${interface-eth4} INTERFACE=${INTERFACE-wan} ip=192.168.77.120 router="192.168.77.1 10.0.0.9"
	echo "${2:-plaitd}" > "$IPKG_INSTROOT/proc/4242/comm"
	config_load && . "$files/plaitd.udhcpc" "$1"
	tr '\n' ' ' < "$IPKG_INSTROOT/tmp/cab_plaitd_gw_ip" 2> /dev/null | rec "|gw $(cat)"
}

# name | uci options, \n between (empty: the packaged config) | commands | status | record
check() {
	: > "$tmp/rec"
	rm -rf "$tmp/root" && mkdir -p "$tmp/root/tmp" "$tmp/root/var/run" "$tmp/root/proc/4242" "$tmp/root/lib/functions"
	echo 4242 > "$tmp/root/var/run/plaitd.pid" && : > "$tmp/root/lib/functions/network.sh"
	conf=$files/plaitd.config
	if [ -n "$2" ]; then conf=$tmp/conf; printf '%b\n' "$2" > "$conf"; fi
	(
		unset cfg_role cfg_interface cfg_log_level
		IPKG_INSTROOT=$tmp/root
		eval "$3" 2> /dev/null
	)
	st=$? got=$(cat "$tmp/rec")
	if [ "$st" != "$4" ] || [ "$got" != "$5" ]; then
		printf 'FAIL %s: status %s (want %s)\n%s\nwant:\n%s\n' "$1" "$st" "$4" "$got" "$5"
		fails=$((fails + 1))
	fi
}
. "$files/plaitd.init"  # $PLAITD_TIMER: the text of the pairing window's timer
run="/usr/sbin/plaitd" end="stderr 1|pidfile /var/run/plaitd.pid|close"
cap="option role 'cap'\noption interface 'lan'\noption log_level '7'" re="option interface 'wan'"
lease="|gw 192.168.77.1 192.168.77.120 "
win="$cap\noption pair_window '120'" lan="nets=lan:br-lan:br-lan" json=/var/run/plaitd.json
capw="open|command $run -S -i br-lan -l 7|respawn 3600 5 5|$end" timer="open|command /bin/sh -c $PLAITD_TIMER /etc/init.d/plaitd"

check packaged "" "init start_service" 0 "open|command $run -C -l 2|$end"
check cap-lan-up "$cap" "nets=lan:br-lan:br-lan; init start_service" 0 "open|command $run -S -i br-lan -l 7|respawn 3600 5 5|$end"
check re-wan-down "$re" "nets=wan::eth4; init start_service" 0 "open|command $run -C -i eth4 -l 2|$end"
check re-device "option interface 'eth4'\noption log_level '9'" "nets=wan:eth4:eth4; init start_service" 0 "open|command $run -C -i eth4 -l 2|$end"
check cap-no-interface "option role 'cap'" "init start_service" 0 "open|command $run -S -l 2|respawn 3600 5 5|$end"
check bad-role "option role 'master'\noption interface 'br-lan'" "init start_service" 1 ""
check triggers-cap "$cap" "init service_triggers" 0 "|reload on plaitd|on interface.*.up lan /etc/init.d/plaitd reload"
check triggers-packaged "" "init service_triggers" 0 "|reload on plaitd"
check reload-re-ended "$re" "init reload_service" 0 ""
check reload-re-running "$re" "running=1 nets=wan:eth4:eth4; init reload_service" 0 "open|command $run -C -i eth4 -l 2|$end"
check reload-cap-given-up "$cap" "nets=lan:br-lan:br-lan; init reload_service" 0 "open|command $run -S -i br-lan -l 7|respawn 3600 5 5|$end"
# pair_window: the CAP only in a window that "pair" opens; its timer's "expire" drops CAP and timer.
check window-closed "$win" "at 1120 1120; init start_service; gone" 0 "|gone"
check window-pair "$win" "$lan; at 1000; init pair" 0 "$capw$timer 1120|close"
check window-second-press "$win" "$lan; at 1100 1120; init pair" 0 "$capw$timer 1220|close"
check window-reload-open "$win" "$lan; at 1100 1120; init reload_service" 0 "$capw$timer 1120|close"
check window-expire "$win" "at 1120 1120; init expire 1120; gone" 0 "|gone"
check window-expire-old-timer "$win" "$lan; at 1130 1220; init expire 1120" 0 "$capw$timer 1220|close"
check window-bad-value "$cap\noption pair_window '2m'" "$lan; at 1000; init pair" 0 "$capw$timer 1120|close"
check window-zero "$cap\noption pair_window '0'" "$lan; init pair; rec \"|\$?\"; init start_service" 0 "|1$capw"
check window-re "option pair_window '9'" "at 1000; init pair; rec \"|\$?\"; init start_service" 0 "|1open|command $run -C -l 2|$end"
check status-open "$win" "at 1100 1120; echo '{}' > \$IPKG_INSTROOT$json; rec \"\$(init status_service | tr '\n' '|')\"" 0 "not running|pairing window open, 20 s left|{}|"
# The timer itself, on a window of 1 s: it runs the script's "expire" with the window's end.
printf '#!/bin/sh\necho "$*" > "%s/expired"\n' "$tmp" > "$tmp/plaitd" && chmod +x "$tmp/plaitd"
read -r up rest < /proc/uptime
busybox sh -c "$PLAITD_TIMER" "$tmp/plaitd" $((${up%%.*} + 1))
[ "$(cat "$tmp/expired")" = "expire $((${up%%.*} + 1))" ] || { echo "FAIL timer: $(cat "$tmp/expired")"; fails=$((fails + 1)); }
check hook-plaitd "" "hook bound" 0 "|kill -USR1 4242$lease"
check hook-stranger "" "hook renew sleep" 0 "$lease"
check hook-procd "" "procd=1; hook renew" 0 "|ubus call service signal {\"name\":\"plaitd\",\"signal\":10}$lease"
check hook-other-network "" "INTERFACE=wwan interface=wwan0; hook bound" 0 "|gw "
check hook-device "option interface 'eth4'" "INTERFACE=; hook bound" 0 "|kill -USR1 4242$lease"
check hook-deconfig "" "hook deconfig" 0 "|gw "

[ "$fails" -eq 0 ] && echo "init script and DHCP hook: all cases passed"
exit "$fails"
