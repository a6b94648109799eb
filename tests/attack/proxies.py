"""Proxies that mean harm, on 127.0.0.1: each answers requests in its own way, as long as the connection lasts."""

import base64
import socketserver
import struct
import threading


def challenge(*schemes):
    lines = "".join(f"Proxy-Authenticate: {scheme}\r\n" for scheme in schemes)
    return f"HTTP/1.1 407 No\r\n{lines}Content-Length: 0\r\n\r\n".encode("utf-8", "surrogateescape")


def ntlm(length, offset, size=48):
    """NTLM's second message ([MS-NLMP], section 2.2.1.2) with such a place of its target information."""
    message = b"NTLMSSP\0" + struct.pack("<IHHIIQQHHI", 2, 12, 12, 48, 0x00810201, 0x0807060504030201, 0,
                                         length, length, offset) + b"O\0F\0F\0I\0C\0E\0"
    return "NTLM " + base64.b64encode((message * (size // len(message) + 1))[:size]).decode()


EVIL = '\x1b]0;evil\x07%n%s \u202e\u200b\ufffe \udcff'
ANSWERS = [
    None,  # says nothing
    b"",   # closes
    b"SSH-2.0-x\r\n\r\n",
    b"HTTP/1.1 200 Established\r\n\r\n",
    b"HTTP/1.1 200 OK\r\n" + b"X-Header: some value or other\r\n" * 20000,
    b"HTTP/1.1 407 No\r\nProxy-Authenticate: Basic realm=\"" + b"x" * 1_000_000 + b"\"\r\n\r\n",
    b"HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n",
    challenge('Basic realm="Office"'),
    challenge(f'Basic realm="{EVIL}"'),
    challenge("Negotiate"),
    challenge("Negotiate YIIABAo=", 'Basic realm="x"'),
    challenge("NTLM"),
    challenge("NTLM AAAA"),
    challenge(ntlm(0, 0, 11)),
    challenge(ntlm(20, 60)),
    challenge(ntlm(0xFFFF, 0xFFFFFFF0)),
    challenge(ntlm(0xFFFF, 48, 60_000)),
]


class Handler(socketserver.StreamRequestHandler):
    def handle(self):
        try:
            while line := self.rfile.readline(65536):
                while line.strip():
                    line = self.rfile.readline(65536)
                if self.server.answer == b"":
                    return
                if self.server.answer is not None:
                    self.wfile.write(self.server.answer)
        except OSError:
            pass


class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    block_on_close = False

    def __init__(self, answer):
        super().__init__(("127.0.0.1", 0), Handler)
        self.answer = answer


class Proxies:
    def __init__(self):
        self.servers = [Server(answer) for answer in ANSWERS]
        self.where = [f"127.0.0.1:{server.server_address[1]}" for server in self.servers]
        for server in self.servers:
            threading.Thread(target=server.serve_forever, daemon=True).start()

    def close(self):
        for server in self.servers:
            server.shutdown()
            server.server_close()
