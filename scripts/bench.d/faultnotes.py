"""The text around the fault table (scripts/bench --faults, faults.py): how the runs are made, what
the columns mean and what was found, scenario by scenario."""

SETUP = [
    "Each run is a fresh two-router lab whose cable is the fault relay (`lab/wire.py`, `Lab(wire=True)`): "
    "the CAP's eth0 and the RE's eth4 are veth pairs into a namespace of the cable's own, where a relay copies "
    "each frame across and does to it, in each direction on its own, what `tc qdisc ... netem` would (loss, "
    "delay with uniform jitter, reordering, duplication, one flipped bit). The host's kernel has no sch_netem "
    "(CONFIG_NET_SCH_NETEM is not set and it loads no modules), hence the relay. Segmentation and checksum "
    "offload are off at every end, so each frame is a wire frame and a corrupted one fails its checksum. "
    "Pulling the cable is `ip link set down` of both ends in the cable's namespace: both routers lose carrier.",
    "",
    "The CAP (`plaitd -S -o -i br-lan`) is started and awaited until it listens, the fault is set, then the RE "
    "(`plaitd -C -o -i eth4`, static uplink, the factory address on its br-lan). t = 0 is the RE's start stamp, "
    "the end its `re_init` call (the last one, when an RE was restarted). An event fires when its phase's mark "
    "appears: discovery, the RE's first log line (its first probe follows some 30 ms later, after its start-up commands); "
    "the TLS handshake, the CAP's \"SSL_accept()....\"; authentication, the CAP's receipt of the RE's request "
    "(message type 4); the configuration exchange, the CAP's \"ST_AUTH_SENT -> ST_RUNNING\" (it then collects "
    "its Wi-Fi configuration, half a second of `mesh_tool initbuf`, and sends it); `cap_init`, the stand-in's "
    "record of that call. Two phases are too short to hit on a bare cable and were widened: the handshake and "
    "authentication runs have a 50 ms one-way delay on the cable for the whole run, and in the `cap_init` runs "
    "the stand-in sleeps 3 s in `cap_init`. A daemon is killed with SIGKILL (a crash: no clean-up) and started "
    "again 1 s later with the same command as at first.",
]

COLUMNS = [
    "*left behind*: after the run (paired or bounded), what any run left: the mesh lock file of the CAP or the "
    "RE, status files (`/tmp/<mac>-status`) on the CAP, CAP descriptors or threads that did not come back to "
    "their count before the RE started (within 5 s), and whether the CAP still takes a new peer (a TCP "
    "connection that it refuses with the overload warning means a serving share was never given back). "
    "*timers seen*: the fixed timers the runs' logs show, with how often: an unanswered probe (probe rhythm: "
    "1 s receive time-out + 4 s sleep), attempts after the first (3 s retry), the RE's 60 s watchdog, the "
    "CAP's 30 s handshake deadline, its 120 s sweep, and a mesh lock refusing (RE: \"other process locked "
    "MeshLock\"; CAP: probes left unanswered in a run that took longer than 200 s).",
]

FINDINGS = []
