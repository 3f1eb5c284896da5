"""An HTTPS server that is not quite what it should be:

    odd_server.py ADDRESS CERTIFICATE KEY STATUS BODY CLOCK

answers every request with STATUS and BODY, in which HOST stands for the host that was asked for,
and tells the time as if its clock were CLOCK seconds ahead. It prints a line when it listens."""

import http.server
import ssl
import sys
import time
from email.utils import formatdate


def main():
    address, certificate, key, status, body, clock = sys.argv[1:]

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            text = body.replace("HOST", self.headers["Host"]).encode()
            self.send_response(int(status))
            self.send_header("Content-Length", str(len(text)))
            self.end_headers()
            self.wfile.write(text)

        def date_time_string(self, timestamp=None):
            return formatdate(time.time() + float(clock), usegmt=True)

    server = http.server.ThreadingHTTPServer((address, 443), Handler)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate, key)
    # A handshake that fails ends its own connection, and not the loop that accepts them.
    server.socket = context.wrap_socket(server.socket, server_side=True,
                                        do_handshake_on_connect=False)
    print("listening", flush=True)
    server.serve_forever()


main()
