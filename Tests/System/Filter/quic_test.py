"""HTTP/3: a real client against a real server, over IPv4 and IPv6."""

import os

from filterbench import (CertificateAuthority, FilterTestCase, datagrams, main, wait_until)


class QUICServer:
    """caddy with HTTP/3 on port 443; the answer to any request is "ok NAME"."""

    def __init__(self, namespace, directory, authority, names):
        directory.mkdir()
        certificate, key = authority.issue(names)
        self._access_log = directory / "access.log"
        configuration = directory / "Caddyfile"
        configuration.write_text(f"""
{{
  admin off
  auto_https off
  storage file_system {directory}
}}
https:// {{
  log {{
    output file {self._access_log}
  }}
  tls {certificate} {key}
  respond "ok {{host}}"
}}
""", encoding="utf-8")
        process = namespace.start(
            "caddy", "run", "--adapter", "caddyfile", "--config", configuration,
            log_path=directory / "caddy.log", env={**os.environ, "HOME": str(directory)})
        wait_until(lambda: ":443" in namespace.run("ss", "-Hlun", "sport = :443").stdout,
                   f"caddy to listen: {process.log()}")

    def was_asked(self, host):
        return self._access_log.exists() and f'"host":"{host}"' in self._access_log.read_text()


class QUIC(FilterTestCase):
    names = ("*.blocked.example", "*.neighbour.example")

    def hosts(self):
        return "".join(f"{address} {label}.{name}\n"
                       for label, address in (("v4", "10.77.1.2"), ("v6", "fd77:1::2"))
                       for name in ("blocked.example", "neighbour.example"))

    def setUp(self):
        super().setUp()
        self.authority = CertificateAuthority(self.directory)
        self.web = QUICServer(self.server, self.directory / "caddy", self.authority, self.names)
        self.directive.publish("blocked.example")
        self.start_filter()
        self.rules.arm()

    def fetch(self, host, seconds=60):
        """Runs the client until it has the answer or gives up: what matters of what it says."""
        result = self.client.run(*self.private_root.command(
            "gtlsclient", "--exit-on-all-streams-close", f"--timeout={seconds}s",
            f"--handshake-timeout={seconds}s", host, "443", f"https://{host}/"), check=False)
        lines = (result.stdout + result.stderr).splitlines()
        return [line for line in lines if ":status:" in line or "ERR_" in line]

    def test_blocks_names_over_quic_and_passes_others(self):
        for label in ("v4", "v6"):
            with self.subTest(label=label):
                host = f"{label}.neighbour.example"
                self.assertEqual(self.fetch(host), ["http: stream 0x0 [:status: 200]"])
                self.assertTrue(self.web.was_asked(host))
                host = f"{label}.blocked.example"
                # This client takes no notice of refusals and tries on for the time it is given.
                self.assertIn("ERR_", "".join(self.fetch(host, seconds=2)))
                self.assertFalse(self.web.was_asked(host))
        self.assertEqual(self.counters()["dropped"], 2)
        self.assertEqual(self.counters()["released"], 2)

    def test_blocks_a_browsers_hello_that_fills_two_datagrams(self):
        self.directive.publish("example.com", "example.org", "example.net")
        for ipv6 in (False, True):
            with self.subTest(ipv6=ipv6):
                before = self.counters()
                receiver = self.receive_udp(9443, ipv6=ipv6)
                udp = self.connect_udp(9443, ipv6=ipv6)
                first, second = datagrams("chromium-quic.datagrams")[:2]
                udp.send(first)
                self.assertEqual(receiver.recv(65536), first)  # half a hello names nobody
                udp.send(second)
                with self.assertRaises(OSError):
                    udp.recv(65536)
                after = self.counters()
                self.assertEqual(after["classified"] - before["classified"], 1)
                self.assertEqual(after["dropped"] - before["dropped"], 1)
                receiver.setblocking(False)
                with self.assertRaises(BlockingIOError):
                    receiver.recv(65536)
                receiver.close()

    def test_looks_at_no_other_datagram(self):
        receiver = self.receive_udp(9443)
        udp = self.connect_udp(9443)
        for payload in (b"\x00" * 1200,         # WireGuard, STUN, DNS: no bit of a long header
                        b"\xc0" + b"\x00" * 1198):  # too short to open a QUIC connection
            udp.send(payload)
            self.assertEqual(receiver.recv(65536), payload)
        self.assertEqual(self.counters()["packets"], 0)


if __name__ == "__main__":
    main()
