# uci emulator core (see /sbin/uci). Config: /etc/config/<pkg>; pending
# changes: /tmp/.uci/<pkg>, one tab-separated line each:
#   s <sec> <opt> <value>   set option (empty opt: create section of type value)
#   d <sec> <opt>           delete option (empty opt: delete section)

function fail(msg) { if (!q) print "uci: " msg > "/dev/stderr"; exit 1 }

# Splits one config line into words, honouring '...', "..." and \x.
function words(s, W,    n, i, c, w, inw, qc) {
	n = 0; w = ""; inw = 0; qc = ""
	for (i = 1; i <= length(s); i++) {
		c = substr(s, i, 1)
		if (qc != "") { if (c == qc) qc = ""; else w = w c; continue }
		if (c == "'" || c == "\"") { qc = c; inw = 1; continue }
		if (c == " " || c == "\t") { if (inw) { W[++n] = w; w = ""; inw = 0 } continue }
		if (c == "#" && !inw) break
		if (c == "\\" && i < length(s)) c = substr(s, ++i, 1)
		w = w c; inw = 1
	}
	if (inw) W[++n] = w
	return n
}

function quote(v,    r, i) {
	r = ""
	while ((i = index(v, "'")) > 0) { r = r substr(v, 1, i - 1) "'\\''"; v = substr(v, i + 1) }
	return "'" r v "'"
}

function addsec(p, s, t) {
	if (!((p, s) in stype)) secs[p, ++nsec[p]] = s
	stype[p, s] = t; alive[p, s] = 1
}

function setopt(p, s, o, v, islist) {
	if (!((p, s, o) in has)) opts[p, s, ++nopt[p, s]] = o
	if (islist && has[p, s, o] && list[p, s, o]) { val[p, s, o] = val[p, s, o] " " v; lq[p, s, o] = lq[p, s, o] " " quote(v) }
	else { val[p, s, o] = v; lq[p, s, o] = quote(v) }
	has[p, s, o] = 1; list[p, s, o] = islist
}

function load(p,    f, line, n, W, s, anon, t, T) {
	if (p in loaded) return
	loaded[p] = 1
	f = "/etc/config/" p
	while ((getline line < f) > 0) {
		n = words(line, W)
		if (n == 0) continue
		if (W[1] == "config") {
			if (n >= 3) s = W[3]
			else { t = W[2]; s = "@" t "[" (0 + anon[t]) "]"; anon[t]++ }
			addsec(p, s, W[2])
		} else if ((W[1] == "option" || W[1] == "list") && s != "" && n >= 2)
			setopt(p, s, W[2], n >= 3 ? W[3] : "", W[1] == "list")
		pkg_ok[p] = 1
	}
	close(f)
	if (!(p in pkg_ok) && (getline line < f) >= 0) pkg_ok[p] = 1   # empty file
	close(f)
	f = "/tmp/.uci/" p
	while ((getline line < f) > 0) {
		split(line, T, "\t")
		if (T[1] == "s" && T[3] == "") addsec(p, T[2], T[4])
		else if (T[1] == "s") setopt(p, T[2], T[3], T[4], 0)
		else if (T[1] == "d" && T[3] == "") alive[p, T[2]] = 0
		else if (T[1] == "d") has[p, T[2], T[3]] = 0
	}
	close(f)
}

# Splits "pkg.sec.opt" into K[1..3]; returns the number of parts.
function key(k, K,    i, n) {
	delete K
	n = 0
	while (n < 2 && (i = index(k, ".")) > 0) { K[++n] = substr(k, 1, i - 1); k = substr(k, i + 1) }
	K[++n] = k
	return n
}

function show_sec(p, s, only,    i, o) {
	if (!alive[p, s]) return
	if (only == "") print p "." s "=" stype[p, s]
	for (i = 1; i <= nopt[p, s]; i++) {
		o = opts[p, s, i]
		if (has[p, s, o] && (only == "" || only == o)) print p "." s "." o "=" lq[p, s, o]
	}
}

function show(p,    i) { for (i = 1; i <= nsec[p]; i++) show_sec(p, secs[p, i], "") }

function commit(p,    f, i, j, s, o, t) {
	load(p)
	f = "/etc/config/" p
	printf "" > f
	for (i = 1; i <= nsec[p]; i++) {
		s = secs[p, i]
		if (!alive[p, s]) continue
		printf "\nconfig %s", stype[p, s] > f
		if (substr(s, 1, 1) != "@") printf " %s", quote(s) > f
		printf "\n" > f
		for (j = 1; j <= nopt[p, s]; j++) {
			o = opts[p, s, j]
			if (!has[p, s, o]) continue
			t = list[p, s, o] ? "list" : "option"
			printf "\t%s %s %s\n", t, o, lq[p, s, o] > f
		}
	}
	close(f)
	printf "" > ("/tmp/.uci/" p)
	close("/tmp/.uci/" p)
}

BEGIN {
	arg = ARGV[1]; ARGC = 1
	v = ""
	if (cmd == "set" && (i = index(arg, "=")) > 0) { v = substr(arg, i + 1); arg = substr(arg, 1, i - 1) }
	n = (arg == "") ? 0 : key(arg, K)
	if (n > 0) { load(K[1]); if (!(K[1] in pkg_ok)) fail("Entry not found") }
	if (cmd == "get") {
		if (n < 2 || !alive[K[1], K[2]]) fail("Entry not found")
		if (n == 2) { print stype[K[1], K[2]]; exit 0 }
		if (!has[K[1], K[2], K[3]]) fail("Entry not found")
		print val[K[1], K[2], K[3]]
	} else if (cmd == "set" || cmd == "delete") {
		if (n < 2 || (cmd == "set" && index(ARGV[1], "=") == 0)) fail("Invalid argument")
		if (n == 3 && !alive[K[1], K[2]]) fail("Invalid argument")
		f = "/tmp/.uci/" K[1]
		if (cmd == "set") print "s\t" K[2] "\t" (n == 3 ? K[3] : "") "\t" v >> f
		else print "d\t" K[2] "\t" (n == 3 ? K[3] : "") >> f
	} else if (cmd == "commit") {
		if (n > 0) commit(K[1])
		else { split(pkgs, P, " "); for (i in P) commit(P[i]) }
	} else if (cmd == "show" || cmd == "export") {
		if (n == 0) { split(pkgs, P, " "); for (i = 1; i in P; i++) { load(P[i]); show(P[i]) } }
		else if (n == 1) show(K[1])
		else {
			if (!alive[K[1], K[2]]) fail("Entry not found")
			show_sec(K[1], K[2], n == 3 ? K[3] : "")
		}
	} else fail("unknown command " cmd)
}
