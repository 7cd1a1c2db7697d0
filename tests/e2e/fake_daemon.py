#!/usr/bin/python3
"""A stand-in for the daemon, for the simulated device's own tests: it serves the daemon's
socket and answers the JSON-RPC `get` of "data/configStatus" with true, so `devhost up` sees a
ready daemon without the real one.

It also answers `run` of "command/shell" by running the value as a command text through
/bin/sh -c (as the daemon's system() and popen() calls do) and returning
{"status": exit status, "stdout": output}, so tests can act exactly from the daemon's seat.

Its first line on standard output is a JSON object with its arguments and environment.
FAKE_DAEMON_MODE=exit makes it exit with status 3 at once (a daemon that dies at start).
"""

import json
import os
import socket
import subprocess
import sys
import threading

SOCKET = "/tmp/device_handlers/sysrepo/dh.sock"


def answer(request):
    method, params = request.get("method"), request.get("params") or {}
    path = params.get("path")
    if method == "get" and path == "data/configStatus":
        return {"result": True}
    if method == "run" and path == "command/shell":
        r = subprocess.run(["/bin/sh", "-c", params.get("value") or ""], capture_output=True, text=True)
        return {"result": {"status": r.returncode, "stdout": r.stdout}}
    return {"error": {"code": -32001, "message": "No such node: %s" % path}}


def serve(conn):
    with conn, conn.makefile("rwb") as f:
        for line in f:
            try:
                request = json.loads(line)
            except ValueError:
                reply = {"id": None, "error": {"code": -32700, "message": "Parse error"}}
            else:
                reply = dict(answer(request), id=request.get("id"))
            f.write((json.dumps(dict(reply, jsonrpc="2.0")) + "\n").encode())
            f.flush()


def main():
    print(json.dumps({"argv": sys.argv, "env": dict(os.environ)}), flush=True)
    if os.environ.get("FAKE_DAEMON_MODE") == "exit":
        print("fake daemon: exiting at start as asked", flush=True)
        return 3
    os.makedirs(os.path.dirname(SOCKET), exist_ok=True)
    if os.path.exists(SOCKET):
        os.unlink(SOCKET)
    server = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    server.bind(SOCKET)
    server.listen(16)
    print("fake daemon: listening on %s" % SOCKET, flush=True)
    while True:
        conn, _ = server.accept()
        threading.Thread(target=serve, args=(conn,), daemon=True).start()


if __name__ == "__main__":
    sys.exit(main())
