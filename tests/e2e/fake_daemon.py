#!/usr/bin/python3
"""A stand-in for the daemon, for the simulated device's own tests. It serves the daemon's socket:
`get` of "data/configStatus" answers true (so `devhost up` sees a ready daemon), and `run` of
"command/shell" runs the value through /bin/sh -c, as the daemon's system() does, answering
{"status": exit status, "stdout": output}."""

import json
import os
import socket
import subprocess
import sys
import threading

SOCKET = "/tmp/device_handlers/sysrepo/dh.sock"


def answer(request):
    method, params = request.get("method"), request.get("params") or {}
    if method == "get" and params.get("path") == "data/configStatus":
        return {"result": True}
    if method == "run" and params.get("path") == "command/shell":
        r = subprocess.run(["/bin/sh", "-c", params.get("value") or ""], capture_output=True, text=True)
        return {"result": {"status": r.returncode, "stdout": r.stdout}}
    return {"error": {"code": -32001, "message": "No such node: %s" % params.get("path")}}


def serve(conn):
    with conn, conn.makefile("rwb") as f:
        for line in f:
            request = json.loads(line)
            f.write((json.dumps(dict(answer(request), id=request.get("id"), jsonrpc="2.0")) + "\n").encode())
            f.flush()


def main():
    os.makedirs(os.path.dirname(SOCKET), exist_ok=True)
    if os.path.exists(SOCKET):
        os.unlink(SOCKET)
    server = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    server.bind(SOCKET)
    server.listen(16)
    while True:
        threading.Thread(target=serve, args=(server.accept()[0],), daemon=True).start()


if __name__ == "__main__":
    sys.exit(main())
