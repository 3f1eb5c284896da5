"""What the filter cannot see or chooses not to stop. docs/known-limits.md explains each; these tests
show what happens, so that a change of it is noticed."""

import socket
import ssl
import threading

from filterbench import CURL_OK, FilterTestCase, answer, main, request


def hello_with_name_after(padding_bytes, host):
    """A real ClientHello for `host` with an extension that no server knows in front of the others."""
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    context = ssl.create_default_context()
    client = context.wrap_bio(incoming, outgoing, server_hostname=host)
    try:
        client.do_handshake()
    except ssl.SSLWantReadError:
        pass
    message = outgoing.read()[5:]  # without the record's header
    at = 4 + 2 + 32
    at += 1 + message[at]
    at += 2 + int.from_bytes(message[at:at + 2], "big")
    at += 1 + message[at]
    fixed, extensions = message[4:at], message[at + 2:]
    padding = b"\x0a\x0a" + padding_bytes.to_bytes(2, "big") + bytes(padding_bytes)
    extensions = padding + extensions
    body = fixed + len(extensions).to_bytes(2, "big") + extensions
    message = b"\1" + len(body).to_bytes(3, "big") + body
    return b"\x16\x03\x01" + len(message).to_bytes(2, "big") + message


class Proxy:
    """A proxy that takes CONNECT, in the server's namespace."""

    def __init__(self, test, port):
        with test.server.entered():
            self._listener = socket.create_server(("", port))
            # Sockets of the thread belong to the namespace in which it makes them.
            self._upstream = socket.socket()
        test.addCleanup(self._listener.close)
        test.addCleanup(self._upstream.close)
        thread = threading.Thread(target=self._serve, args=(test.link.right_ipv4,), daemon=True)
        thread.start()

    def _serve(self, address):
        inner, _ = self._listener.accept()
        with inner:
            while b"\r\n\r\n" not in inner.recv(65536):
                pass
            self._upstream.connect((address, 443))
            inner.sendall(b"HTTP/1.1 200 Connection established\r\n\r\n")
            pairs = ((inner, self._upstream), (self._upstream, inner))
            threads = [threading.Thread(target=self._copy, args=pair, daemon=True)
                       for pair in pairs]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()

    @staticmethod
    def _copy(source, target):
        try:
            while data := source.recv(65536):
                target.sendall(data)
            target.shutdown(socket.SHUT_WR)
        except OSError:
            pass


class KnownLimits(FilterTestCase):
    def setUp(self):
        super().setUp()
        self.web = self.start_server()
        self.directive.publish("blocked.example")

    def arm(self):
        self.start_filter()
        self.rules.arm()

    def tls(self, tcp, host, protocols):
        context = ssl.create_default_context(cafile=self.authority.bundle)
        context.set_alpn_protocols(protocols)
        return context.wrap_socket(tcp, server_hostname=host)

    def test_a_later_request_on_a_kept_connection_is_not_seen(self):
        self.arm()
        tcp = self.connect()
        tcp.send(request("neighbour.example"))
        self.assertEqual(answer(tcp), "ok neighbour.example")
        tcp.send(request("blocked.example"))
        self.assertEqual(answer(tcp), "ok blocked.example")

    def test_a_later_request_over_http2_is_not_seen(self):
        self.arm()
        stream = self.tls(self.connect(443), "neighbour.example", ["h2"])
        self.addCleanup(stream.close)
        self.assertEqual(stream.selected_alpn_protocol(), "h2")

        def frame(kind, flags, number, payload=b""):
            return (len(payload).to_bytes(3, "big") + bytes((kind, flags)) +
                    number.to_bytes(4, "big") + payload)

        def headers(host):
            def literal(index, value):
                return bytes((index, len(value))) + value.encode()
            # :method GET, :scheme https, :path / and the authority, none of them indexed anew.
            return b"\x82\x87\x84" + literal(0x01, host)

        settings, end_of_request = 4, 0x05
        stream.sendall(b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(settings, 0, 0) +
                       frame(1, end_of_request, 1, headers("neighbour.example")) +
                       frame(1, end_of_request, 3, headers("blocked.example")))
        received = b""
        while b"ok blocked.example" not in received:
            part = stream.recv(65536)
            self.assertTrue(part, f"the stream ended after {received}")
            received += part
        self.assertIn(b"ok neighbour.example", received)

    def test_a_name_after_4096_bytes_of_hello_is_not_read(self):
        self.arm()
        tcp = self.connect(443)
        tcp.sendall(hello_with_name_after(3_000, "blocked.example"))
        with self.assertRaises(ConnectionResetError):
            tcp.recv(1)
        # That the address serves other names too keeps the nameless flow from being judged by it.
        self.assert_passes("https://neighbour.example/")
        tcp = self.connect(443)
        tcp.sendall(hello_with_name_after(4_200, "blocked.example"))
        self.assertEqual(tcp.recv(1), b"\x16", "the server's side of the handshake")

    def test_a_name_inside_a_proxys_tunnel_is_not_seen(self):
        self.arm()
        Proxy(self, 3128)
        result = self.client.run(
            "curl", "-q", "-sS", "--cacert", self.authority.bundle, "--proxytunnel", "--proxy",
            f"http://{self.link.right_ipv4}:3128", "https://blocked.example/", check=False)
        self.assertEqual((result.returncode, result.stdout), (CURL_OK, "ok blocked.example\n"),
                         result.stderr)

    def test_a_local_proxy_is_not_seen_but_what_it_sends_on_is(self):
        self.arm()
        with self.client.entered():
            listener = socket.create_server(("127.0.0.1", 8118))
            local = socket.create_connection(("127.0.0.1", 8118))
        self.addCleanup(listener.close)
        self.addCleanup(local.close)
        served, _ = listener.accept()
        self.addCleanup(served.close)
        local.send(request("blocked.example"))
        self.assertEqual(served.recv(1000), request("blocked.example"))
        upstream = self.connect()
        upstream.send(request("blocked.example"))
        self.assertEqual(answer(upstream), "reset")

    def test_a_connection_from_before_the_rules_goes_on(self):
        tls = self.tls(self.connect(443), "blocked.example", ["http/1.1"])
        self.addCleanup(tls.close)
        tls.send(request("blocked.example"))
        self.assertEqual(answer(tls), "ok blocked.example")
        self.arm()
        tls.send(request("blocked.example"))
        self.assertEqual(answer(tls), "ok blocked.example")

    def test_a_server_without_names_is_reached_by_its_address(self):
        self.arm()
        tcp = self.connect()
        tcp.send(request(self.link.right_ipv4))
        self.assertEqual(answer(tcp), f"ok {self.link.right_ipv4}")

    def test_an_address_that_only_blocked_names_had_is_blocked_without_a_name(self):
        self.arm()
        tcp = self.connect()
        tcp.send(request("blocked.example"))
        self.assertEqual(answer(tcp), "reset")
        tcp = self.connect()
        tcp.send(request(self.link.right_ipv4))
        self.assertEqual(answer(tcp), "reset")


if __name__ == "__main__":
    main()
