"""Clients that ask too much of the daemon's socket, and two that do not.

load_client.py ROLE SOCKET USER SECONDS: plays the role as USER for so long, at least one round of it, and
prints what came of it as JSON. Started with a signed copy of the interpreter it is a client of the daemon,
with any other a stranger. Nothing here waits for longer than two minutes for one answer."""

import collections
import json
import os
import signal
import socket
import sys
import threading
import time

HANG_SECONDS = 120
CALLS_AT_ONCE = 1000
CONNECTIONS_AT_ONCE = 1000
LAST_SITE = "the-last-one.example"


def call(method, number, params=None):
    request = {"jsonrpc": "2.0", "id": number, "method": method}
    if params is not None:
        request["params"] = params
    return json.dumps(request, separators=(",", ":")).encode() + b"\n"


def fault(code, message, number=None):
    return {"jsonrpc": "2.0", "id": number, "error": {"code": code, "message": message}}


class Client:
    """A connection to the daemon."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(HANG_SECONDS)
        end = time.monotonic() + HANG_SECONDS
        while True:
            try:
                self.socket.connect(path)
                break
            except BlockingIOError:  # so many wait to be accepted that this one cannot
                if time.monotonic() > end:
                    raise
                time.sleep(0.01)
        self._buffer = b""

    def send(self, data):
        """False: the daemon closed the connection."""
        try:
            self.socket.sendall(data)
            return True
        except (BrokenPipeError, ConnectionResetError):
            return False

    def receive(self):
        """Some bytes; none at the end."""
        try:
            return self.socket.recv(1 << 18)
        except ConnectionResetError:
            return b""

    def line(self):
        """The next line; none at the end."""
        while b"\n" not in self._buffer:
            chunk = self.receive()
            if not chunk:
                return None
            self._buffer += chunk
        line, self._buffer = self._buffer.split(b"\n", 1)
        return line

    def finish_sending(self):
        self.socket.shutdown(socket.SHUT_WR)

    def close(self):
        self.socket.close()


class Load:
    def __init__(self, path, seconds):
        self.path = path
        self.end = time.monotonic() + seconds
        self.counts = collections.Counter()
        self._lock = threading.Lock()

    def goes_on(self):
        return time.monotonic() < self.end

    def count(self, what, number=1):
        with self._lock:
            self.counts[what] += number

    def in_threads(self, *bodies):
        failures = []

        def run(body):
            try:
                while True:
                    body()
                    if not self.goes_on():
                        return
            except BaseException as failure:  # told below, by the thread that can
                failures.append(failure)

        threads = [threading.Thread(target=run, args=(body,)) for body in bodies]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if failures:
            raise failures[0]

    def expect(self, condition, what):
        if not condition:
            raise AssertionError(what)

    # ---- those that ask for little

    def witness(self):
        """Asks as any client does: over one connection that stays, and over a new one each time."""
        lasting = Client(self.path)
        number = 0
        while self.goes_on() or number < 20:
            for kind, client in (("lasting", lasting), ("new", Client(self.path))):
                number += 1
                began = time.monotonic()
                self.expect(client.send(call("status", number)), "the connection is lost")
                answer = json.loads(client.line() or b"{}")
                self.expect(answer.get("id") == number and "active" in answer["result"]["commitment"],
                            f"a client that asks for little is answered {answer}")
                milliseconds = round((time.monotonic() - began) * 1000)
                self.counts[f"{kind}, slowest ms"] = max(self.counts[f"{kind}, slowest ms"],
                                                         milliseconds)
                self.count("answers")
                self.count(f"{kind}, ms", milliseconds)
                if client is not lasting:
                    client.close()
            time.sleep(0.02)

    def follower(self):
        """Follows the statuses until the last site is among them."""
        client = Client(self.path)
        client.send(call("subscribeToStatusChanges", 1))
        while True:
            line = client.line()
            self.expect(line is not None, "the connection is lost")
            self.count("statuses")
            if LAST_SITE.encode() in line:
                return

    # ---- strangers

    def strangers(self):
        """Sends what the daemon would answer or keep, and waits to be thrown out."""
        def hammer(data):
            def connect():
                clients = [Client(self.path) for _ in range(10)]
                for client in clients:
                    client.send(data)
                    self.count("connections")
                for client in clients:
                    while chunk := client.receive():
                        self.count("bytes", len(chunk))
                    client.close()
            return connect
        self.in_threads(hammer(call("status", 1) * 20), hammer(b"\xff\xfe nonsense\n" * 20),
                        hammer(call("subscribeToStatusChanges", 1)), hammer(b"[" * 100_000),
                        hammer(call("announceUserInterface", 1)), hammer(b"x" * (1 << 20)))

    # ---- clients of ours that ask for too much

    def connections(self):
        """Opens a thousand connections at a time."""
        def open_and_close():
            clients = [Client(self.path) for _ in range(CONNECTIONS_AT_ONCE)]
            self.count("connections", len(clients))
            served = sum(1 for client in clients if client.send(call("status", 1)) and client.line())
            self.counts["served"] = max(self.counts["served"], served)
            for client in clients:
                client.close()
        open_and_close()
        self.in_threads(open_and_close)

    def calls(self):
        """Keeps thousands of calls in flight and reads every answer."""
        def pipeline():
            client = Client(self.path)
            sending = threading.Thread(target=client.send, args=(
                b"".join(call("status", number) for number in range(CALLS_AT_ONCE)),))
            sending.start()
            answered = {json.loads(client.line())["id"] for _ in range(CALLS_AT_ONCE)}
            sending.join()
            client.close()
            self.expect(answered == set(range(CALLS_AT_ONCE)), "a call was not answered")
            self.count("answers", CALLS_AT_ONCE)
        self.in_threads(pipeline, pipeline, pipeline)

    def deaf(self):
        """Calls a thousand times on each connection and reads nothing; half of them send no more."""
        def call_on_each():
            clients = [Client(self.path) for _ in range(20)]
            for number, client in enumerate(clients):
                if client.send(b"".join(call("status", n) for n in range(CALLS_AT_ONCE))):
                    self.count("calls", CALLS_AT_ONCE)
                    if number % 2:
                        client.finish_sending()
            time.sleep(1)
            for client in clients:
                client.close()
        self.in_threads(call_on_each)

    def subscribers(self):
        """Subscribes a hundred times and reads nothing more."""
        clients = [Client(self.path) for _ in range(100)]
        for client in clients:
            self.expect(client.send(call("subscribeToStatusChanges", 1)), "the connection is lost")
            self.count("subscriptions")
        while self.goes_on():
            time.sleep(0.1)

    def requests(self):
        """Sends requests that grow as they are decoded, as fast as they are taken."""
        names = [f"{number:x}.b" for number in range(4000)]
        # Wrong at its very end: decoded whole, and refused.
        small = call("strengthen", 1, {"websites": {"_0": names[:2000] + [1]}})
        large = call("strengthen", 1, {"websites": {"_0": names * 100 + [1]}})
        self.expect(len(small) < 32_768 < len(large), "a request is not of the size it is meant to be")

        def send(line, at_once):
            def send_to_a_new_connection():
                client = Client(self.path)
                if client.send(line * at_once) and (answer := client.line()):
                    self.expect(b'"malformedRequest"' in answer, answer)
                    self.count("answered")
                self.count("lines", at_once)
                client.close()
            return send_to_a_new_connection
        self.in_threads(*[send(small, 30)] * 4, *[send(large, 1)] * 4)

    def lines(self):
        """Sends lines without an end, until the connection is lost for it."""
        def endless():
            client = Client(self.path)
            while client.send(b"[1,1,1,1,1,1,1" * 100_000):
                self.count("bytes", 1_400_000)
            self.count("lines")
            client.close()
        self.in_threads(*[endless] * 6)

    def garbage(self):
        """Sends what is no call, and gets the answer to each line."""
        parse_error = fault(-32700, "Parse error")
        deep = b"[" * 50_000
        rows = [
            (b"\xff\xfe\xfd\n", [parse_error]),
            (b'{"jsonrpc":"2.0","id":1,"method":"status\xc3\x28"}\n', [parse_error]),
            (deep + b"\n", [parse_error]),
            (b"[" * 1000 + b"]" * 1000 + b"\n", [parse_error]),
            (b'{"jsonrpc":"2.0","id":2,"method":"strengthen","params":' + b'{"a":' * 100_000 + b"\n",
             [parse_error]),
            (call("noSuchMethod", 3), [fault(-32601, "Method not found", 3)]),
            (b'{"jsonrpc":"2.0","id":{},"method":"status"}\n', [fault(-32600, "Invalid Request")]),
            (b"[]\n", [fault(-32600, "Invalid Request")]),
        ]

        def send():
            client = Client(self.path)
            for line, answers in rows:
                self.expect(client.send(line), "the connection is lost")
                for answer in answers:
                    given = json.loads(client.line() or b"null")
                    self.expect(given == answer, f"{line[:80]}: {given}")
                self.count("faults")
            # An id that is used again is the caller's affair: each call is answered.
            client.send(call("status", 7) * 50)
            ids = [json.loads(client.line())["id"] for _ in range(50)]
            self.expect(ids == [7] * 50, ids)
            self.count("duplicates", 50)
            client.close()
        self.in_threads(send, send)

    def halves(self):
        """Sends a call and then nothing more, gets the answer and then the end."""
        def half():
            client = Client(self.path)
            client.send(call("status", 1) + b'{"jsonrpc":"2.0","id":2,"meth')
            client.finish_sending()
            answers = [json.loads(client.line() or b"null") for _ in range(2)]
            # What is cut off is no call, and is told so whenever it turns out.
            self.expect(fault(-32700, "Parse error") in answers, answers)
            self.expect(any(answer["id"] == 1 and "result" in answer for answer in answers), answers)
            self.expect(client.line() is None, "the connection is kept")
            client.close()
            self.count("ended")
        self.in_threads(half, half)

    def killed(self):
        """Processes that are killed in mid-message."""
        beginnings = [b'{"jsonrpc":"2.0","id":1,"method":"stat', call("status", 1) * 50 + b'{"jsonrpc',
                      b'{"jsonrpc":"2.0","id":1,"method":"strengthen","params":[' + b"1," * 100_000]

        def begin_and_be_killed():
            for beginning in beginnings:
                readable, writable = os.pipe()
                child = os.fork()
                if child == 0:
                    try:
                        client = Client(self.path)
                        if client.send(call("status", 1)) and client.line() and client.send(beginning):
                            os.write(writable, b"!")
                        time.sleep(HANG_SECONDS)
                    finally:
                        os._exit(1)
                os.close(writable)
                told = os.read(readable, 1)
                os.close(readable)
                os.kill(child, signal.SIGKILL)
                os.waitpid(child, 0)
                self.expect(told, "the connection was lost before it was cut")
                self.count("killed")
        # In this thread: what forks has no others.
        begin_and_be_killed()
        while self.goes_on():
            begin_and_be_killed()

    def vanishing(self):
        """Connections that end while they subscribe and announce a user interface."""
        def vanish():
            for wait in (False, True):
                client = Client(self.path)
                client.send(call("announceUserInterface", 1) + call("subscribeToStatusChanges", 2))
                if wait:  # for the first of the two answers
                    self.expect(client.line(), "the connection is lost")
                client.close()
                self.count("vanished")
        self.in_threads(vanish, vanish)


def main():
    role, path, user, seconds = sys.argv[1:]
    # Everything that is imported has been; a stranger's user need not be able to read it.
    os.setgroups([])
    os.setresgid(int(user), int(user), int(user))
    os.setresuid(int(user), int(user), int(user))
    load = Load(path, float(seconds))
    began = time.monotonic()
    getattr(load, role)()
    load.counts["seconds"] = round(time.monotonic() - began)
    print(json.dumps(load.counts))


if __name__ == "__main__":
    main()
