"""nginx for several names on one address, with certificates of an authority made for the test."""

import signal

from processes import run, wait_until


class CertificateAuthority:
    """A certificate authority in `directory`; `bundle` is what a client has to trust."""

    def __init__(self, directory):
        self._directory = directory
        self.bundle = directory / "authority.pem"
        self._key = directory / "authority.key"
        run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
             "-nodes", "-days", "2", "-subj", "/CN=Test authority", "-keyout", self._key,
             "-out", self.bundle])

    def issue(self, names):
        """A certificate for `names` (wildcards allowed) and its key, as paths."""
        stem = self._directory / names[0].replace("*", "any")
        key, request, certificate = (stem.with_suffix(stem.suffix + end)
                                     for end in (".key", ".csr", ".pem"))
        extensions = stem.with_suffix(stem.suffix + ".ext")
        extensions.write_text(
            "subjectAltName=" + ",".join(f"DNS:{name}" for name in names) + "\n")
        run(["openssl", "req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
             "-nodes", "-subj", f"/CN={names[0].removeprefix('*.')}", "-keyout", key,
             "-out", request])
        run(["openssl", "x509", "-req", "-in", request, "-CA", self.bundle, "-CAkey", self._key,
             "-CAcreateserial", "-days", "2", "-extfile", extensions, "-out", certificate])
        return certificate, key


class WebServer:
    """nginx in a namespace: HTTPS with HTTP/2 on port 443 and HTTP on port 80, for every name of
    one certificate; the answer to any request is "ok NAME". The names that reached it are in
    `requests()`."""

    def __init__(self, namespace, directory, authority, names, extra_http=""):
        directory.mkdir(parents=True, exist_ok=True)
        certificate, key = authority.issue(names)
        self._directory = directory
        self._access_log = directory / "access.log"
        configuration = directory / "nginx.conf"
        configuration.write_text(f"""
daemon off;
worker_processes 1;
pid {directory}/nginx.pid;
error_log {directory}/error.log notice;
events {{ worker_connections 1024; }}
http {{
  log_format names '$host $server_protocol $request_uri';
  access_log {self._access_log} names;
  client_body_temp_path {directory}/body;
  proxy_temp_path {directory}/proxy;
  fastcgi_temp_path {directory}/fastcgi;
  uwsgi_temp_path {directory}/uwsgi;
  scgi_temp_path {directory}/scgi;
  keepalive_timeout 300;
  default_type text/plain;
  {extra_http}
  server {{
    listen 80 default_server fastopen=16;
    listen [::]:80 default_server fastopen=16;
    listen 443 ssl http2 default_server;
    listen [::]:443 ssl http2 default_server;
    ssl_certificate {certificate};
    ssl_certificate_key {key};
    location / {{ return 200 "ok $host\\n"; }}
  }}
}}
""", encoding="utf-8")
        self._process = namespace.start(
            "nginx", "-e", directory / "error.log", "-c", configuration,
            log_path=directory / "nginx.log")
        wait_until(
            lambda: ":443" in namespace.run("ss", "-Hltn", "sport = :443").stdout,
            f"nginx to listen: {self._process.log()}")

    def requests(self):
        """One line for each request that was answered: host, protocol, path."""
        return self._access_log.read_text(encoding="utf-8").splitlines()

    def stop(self):
        """Nobody answers any more."""
        self._process.stop()

    def reload(self):
        """Has nginx read its configuration again; returns when the new one answers."""
        before = (self._directory / "error.log").read_text(errors="replace").count("reconfiguring")
        self._process.send_signal(signal.SIGHUP)
        wait_until(lambda: (self._directory / "error.log").read_text(
            errors="replace").count("start worker process ") > before + 1, "nginx to reload")
