"""Overload client of scripts/bench, run in the RE's network namespace: holds
the CAP's serving slot with a connection that never starts TLS, then
connects in a loop and counts the connections the CAP closes at once.
usage: refuse.py HOST PORT SECONDS (lines on stdin: go, end)"""
import json, socket, struct, sys, time
host, port, dur = sys.argv[1], int(sys.argv[2]), float(sys.argv[3])
hold = socket.create_connection((host, port), timeout=5)   # never starts TLS
print("HELD", flush=True)
sys.stdin.readline()
refused = served = errors = 0
t0 = time.monotonic()
end = t0 + dur
while time.monotonic() < end:
    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    s.settimeout(2.0)
    try:
        s.connect((host, port))
        if s.recv(1) == b"":
            refused += 1
        else:
            served += 1
    except ConnectionResetError:
        refused += 1
    except socket.timeout:
        served += 1
    except OSError:
        errors += 1
    finally:
        s.close()
el = time.monotonic() - t0
print(json.dumps({"refused": refused, "served": served, "errors": errors, "seconds": el}), flush=True)
sys.stdin.readline()
hold.close()
