"""Reloads that are looked at while they run: how far one has come tells what the process that runs
it has read."""

import json
import pathlib
import socket
import time

import rpc_host
from module_host import host_server


class Reload:
    """A reload of a table by the JSON-RPC process, whose answer nobody waits for."""

    def __init__(self, server, table):
        self.pid = rpc_host.process_of(server, "JSONRPCS")
        request = {"jsonrpc": "2.0", "method": "tarn_memdb.reload_table", "params": [table]}
        self.counts = pathlib.Path(f"/proc/{self.pid}/io")
        self.before = self._all_bytes()
        self.began = time.monotonic()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as client:
            client.sendto(json.dumps(request).encode(), str(server.json_socket))

    def _all_bytes(self):
        return int(self.counts.read_text().split()[1])

    def bytes_read(self):
        return self._all_bytes() - self.before

    def wait_until_read(self, count, timeout=20.0):
        """Waits until so many bytes of the file are read; gives the seconds since the beginning."""
        end = time.monotonic() + timeout
        while self.bytes_read() < count:
            if time.monotonic() >= end:
                raise host_server.ServerTrouble(f"a reload doesn't read {count} bytes")
        return time.monotonic() - self.began
