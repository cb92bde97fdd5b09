#!/usr/bin/env python3
"""Runs `TAVO serve ARGS...` as systemd would with Type=notify and WatchdogSec:
NOTIFY_SOCKET names a datagram socket of this script, WATCHDOG_USEC asks for
pings for the process started (WATCHDOG_PID). Checks that READY=1 comes after the server listens, that WATCHDOG=1
pings follow, and that SIGTERM brings STOPPING=1 and a clean exit.
usage: notify_check.py TAVO SERVE-ARGS..."""
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time


def main():
    tmp = tempfile.mkdtemp(prefix="tavo-notify-")
    path = os.path.join(tmp, "notify")
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    sock.bind(path)
    sock.settimeout(10)
    # A split server notifies from a child running as another user.
    os.chmod(tmp, 0o755)
    os.chmod(path, 0o777)
    env = dict(os.environ, NOTIFY_SOCKET=path, WATCHDOG_USEC="400000")
    # As systemd does, name the process that is watched (the one started).
    server = subprocess.Popen(["sh", "-c", 'WATCHDOG_PID=$$ exec "$0" serve "$@"', sys.argv[1]] + sys.argv[2:],
                              env=env, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    try:
        ready = sock.recv(4096).decode()
        assert ready.startswith("READY=1\n") and "STATUS=serving http://" in ready, ready
        # By then the server has printed its listening line.
        listening = server.stdout.readline()
        assert listening.startswith("tavo: listening on http://"), listening
        pings = 0
        deadline = time.monotonic() + 5
        while pings < 3 and time.monotonic() < deadline:
            if sock.recv(4096).decode() == "WATCHDOG=1":
                pings += 1
        assert pings == 3, "no watchdog pings"
        server.send_signal(signal.SIGTERM)
        messages = []
        while "STOPPING=1" not in messages:
            messages.append(sock.recv(4096).decode())
        assert server.wait(timeout=10) == 0, "serve did not exit cleanly"
    finally:
        if server.poll() is None:
            server.kill()
        sock.close()
        os.unlink(path)
        os.rmdir(tmp)
    print("ready, 3 watchdog pings, stopping")


if __name__ == "__main__":
    main()
