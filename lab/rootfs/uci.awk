# uci emulator core (see /sbin/uci). Config: /etc/config/<pkg>, named
# sections and options. Pending changes: /tmp/.uci/<pkg>, one tab-separated
# line each: "s sec opt value" sets an option (empty opt: creates a section
# of type value), "d sec opt" deletes an option (empty opt: the section).

function fail(msg) { if (!q) print "uci: " msg > "/dev/stderr"; exit 1 }

# Splits one config line into words, honouring '...', "..." and \x.
function words(s, W,    n, i, c, w, inw, qc) {
	n = 0; w = ""; inw = 0; qc = ""
	for (i = 1; i <= length(s); i++) {
		c = substr(s, i, 1)
		if (qc != "") { if (c == qc) qc = ""; else w = w c; continue }
		if (c == "'" || c == "\"") { qc = c; inw = 1; continue }
		if (c == " " || c == "\t") { if (inw) { W[++n] = w; w = ""; inw = 0 } continue }
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

function setopt(p, s, o, v) {
	if (!((p, s, o) in has)) opts[p, s, ++nopt[p, s]] = o
	val[p, s, o] = v; has[p, s, o] = 1
}

function load(p,    f, line, n, W, s, T) {
	if (p in loaded) return
	loaded[p] = 1
	f = "/etc/config/" p
	while ((getline line < f) > 0) {
		pkg_ok[p] = 1
		n = words(line, W)
		if (n >= 3 && W[1] == "config") addsec(p, s = W[3], W[2])
		else if (n >= 2 && W[1] == "option" && s != "") setopt(p, s, W[2], W[3])
	}
	close(f)
	if (!(p in pkg_ok) && (getline line < f) >= 0) pkg_ok[p] = 1   # empty file
	close(f)
	f = "/tmp/.uci/" p
	while ((getline line < f) > 0) {
		split(line, T, "\t")
		if (T[1] == "s") { if (T[3] == "") addsec(p, T[2], T[4]); else setopt(p, T[2], T[3], T[4]) }
		else if (T[3] == "") alive[p, T[2]] = 0
		else has[p, T[2], T[3]] = 0
	}
	close(f)
}

function show_sec(p, s, only,    i, o) {
	if (!alive[p, s]) return
	if (only == "") print p "." s "=" stype[p, s]
	for (i = 1; i <= nopt[p, s]; i++)
		if (has[p, s, o = opts[p, s, i]] && (only == "" || only == o)) print p "." s "." o "=" quote(val[p, s, o])
}

function show(p,    i) { load(p); for (i = 1; i <= nsec[p]; i++) show_sec(p, secs[p, i], "") }

function commit(p,    f, i, j, s, o) {
	load(p)
	f = "/etc/config/" p
	printf "" > f
	for (i = 1; i <= nsec[p]; i++) {
		if (!alive[p, s = secs[p, i]]) continue
		printf "\nconfig %s %s\n", stype[p, s], quote(s) > f
		for (j = 1; j <= nopt[p, s]; j++)
			if (has[p, s, o = opts[p, s, j]]) printf "\toption %s %s\n", o, quote(val[p, s, o]) > f
	}
	close(f)
	printf "" > ("/tmp/.uci/" p)
	close("/tmp/.uci/" p)
}

BEGIN {
	arg = ARGV[1]; ARGC = 1; v = ""
	if (cmd == "set" && (i = index(arg, "=")) > 0) { v = substr(arg, i + 1); arg = substr(arg, 1, i - 1) }
	n = arg == "" ? 0 : split(arg, K, ".")
	if (n > 3) { K[3] = substr(arg, length(K[1] K[2]) + 3); n = 3 }
	if (n > 0) { load(K[1]); if (!(K[1] in pkg_ok)) fail("Entry not found") }
	if (cmd == "get") {
		if (n < 2 || !alive[K[1], K[2]] || (n == 3 && !has[K[1], K[2], K[3]])) fail("Entry not found")
		print (n == 2 ? stype[K[1], K[2]] : val[K[1], K[2], K[3]])
	} else if (cmd == "set" || cmd == "delete") {
		if (n < 2 || (cmd == "set" && index(ARGV[1], "=") == 0) || (n == 3 && !alive[K[1], K[2]]))
			fail("Invalid argument")
		f = "/tmp/.uci/" K[1]
		if (cmd == "set") print "s\t" K[2] "\t" (n == 3 ? K[3] : "") "\t" v >> f
		else print "d\t" K[2] "\t" (n == 3 ? K[3] : "") >> f
	} else if (cmd == "commit" || cmd == "show") {
		if (n == 0) { split(pkgs, P, " "); for (i = 1; i in P; i++) if (cmd == "commit") commit(P[i]); else show(P[i]) }
		else if (cmd == "commit") commit(K[1])
		else if (n == 1) show(K[1])
		else { if (!alive[K[1], K[2]]) fail("Entry not found"); show_sec(K[1], K[2], n == 3 ? K[3] : "") }
	} else fail("unknown command " cmd)
}
