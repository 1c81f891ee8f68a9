"""The network between the nodes of a cluster, on loopback addresses, with faults on demand.

Each node sees the cluster at addresses of its own: for node V, node N is 127.x.V.N, and itself
127.x.V.V. What V sends to N comes here, and N gets it from the address at which it sees V. The
addresses within a datagram are put into the other's view, which changes no length. So each node
finds its peers at the addresses that it knows, and only at those.
"""

import contextlib
import heapq
import random
import select
import socket
import threading
import time


class Link:  # pylint: disable=too-few-public-methods
    """The way from one node to another, its faults and what it has carried."""

    def __init__(self, way_in, way_out, target, views):
        self.way_in = way_in
        self.way_out = way_out
        self.target = target
        self.views = views
        self.cut = False
        self.lose = 0.0  # what part of the datagrams is lost
        self.repeat = False  # each comes twice
        self.shuffle = 0.0  # each waits up to so many seconds
        self.watch = None  # is called with what comes, in the source's view
        self.carried = 0
        self.bytes = 0


class Links:
    """All links between `count` nodes, on addresses that are theirs until `close`."""

    def __init__(self, count, seed=1):
        self.nodes = range(1, count + 1)
        self.random = random.Random(seed)
        self.links = {}
        self.sockets = {}
        self._bind()
        self.waiting = []
        self.serial = 0
        self.end = threading.Event()
        self.thread = threading.Thread(target=self._carry, daemon=True)
        self.thread.start()

    def _bind(self):
        for _ in range(200):
            self.network = f"127.{random.randrange(64, 250)}"
            self.port = random.randrange(20000, 32000)
            try:
                self._bind_all()
                return
            except OSError:
                for bound in self.sockets.values():
                    bound.close()
                self.sockets.clear()
        raise OSError("found no free addresses for the nodes")

    def _bind_all(self):
        for viewer in self.nodes:
            for node in self.nodes:
                bound = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
                self.sockets[viewer, node] = bound
                bound.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
                bound.bind((self._host(viewer, node), self.port))
        for node in self.nodes:
            self.sockets.pop((node, node)).close()
        for source in self.nodes:
            for target in self.nodes:
                if source != target:
                    self.links[source, target] = Link(
                        self.sockets[source, target],
                        self.sockets[target, source],
                        (self._host(target, target), self.port),
                        (self._view(source), self._view(target)),
                    )

    def _view(self, viewer):
        return f"{self.network}.{viewer}.".encode()

    def _host(self, viewer, node):
        return f"{self.network}.{viewer}.{node}"

    def address(self, viewer, node):
        """Where a node sees another one, or itself."""
        return f"{self._host(viewer, node)}:{self.port}"

    def close(self):
        self.end.set()
        self.thread.join()
        for bound in self.sockets.values():
            bound.close()

    # Faults

    def around(self, node):
        """All links from and to a node."""
        return [link for ends, link in self.links.items() if node in ends]

    def cut(self, node, is_cut=True):
        for link in self.around(node):
            link.cut = is_cut

    def fault(self, **faults):
        for link in self.links.values():
            for name, value in faults.items():
                setattr(link, name, value)

    def mend(self):
        self.fault(cut=False, lose=0.0, repeat=False, shuffle=0.0)

    def carried(self):
        """Datagrams and bytes that came to their ends so far."""
        links = self.links.values()
        return sum(link.carried for link in links), sum(link.bytes for link in links)

    def inject(self, source, target, data):
        """Has a node get a datagram that comes from another one's address."""
        self._give(self.links[source, target], data)

    # Carrying

    def _carry(self):
        poll = select.poll()
        links = {}
        for link in self.links.values():
            poll.register(link.way_in, select.POLLIN)
            links[link.way_in.fileno()] = link
        while not self.end.is_set():
            wait = 50
            if self.waiting:
                wait = max(0, min(wait, (self.waiting[0][0] - time.monotonic()) * 1000))
            for descriptor, _ in poll.poll(wait):
                self._take(links[descriptor])
            while self.waiting and self.waiting[0][0] <= time.monotonic():
                _, _, link, data = heapq.heappop(self.waiting)
                self._give(link, data)

    def _take(self, link):
        with contextlib.suppress(ConnectionRefusedError):
            data = link.way_in.recv(1 << 16)
            if link.watch is not None:
                link.watch(data)
            if link.cut or self.random.random() < link.lose:
                return
            for _ in range(2 if link.repeat else 1):
                if link.shuffle:
                    self.serial += 1
                    due = time.monotonic() + self.random.uniform(0, link.shuffle)
                    heapq.heappush(self.waiting, (due, self.serial, link, data))
                else:
                    self._give(link, data)

    @staticmethod
    def _give(link, data):
        link.carried += 1
        link.bytes += len(data)
        with contextlib.suppress(ConnectionRefusedError):
            link.way_out.sendto(data.replace(*link.views), link.target)
