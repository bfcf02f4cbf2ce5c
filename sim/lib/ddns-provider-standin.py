#!/usr/bin/env python3
"""DDNS provider stand-in: runs on the emulated device's upstream router in place of the
dynamic-DNS provider's update host, which the device reaches by that host name (its /etc/hosts
points the name at the router).

Like a provider it asks for credentials: a GET without Basic credentials is answered 401 with a
challenge (clients such as GNU wget send them only then; busybox wget sends them at once), and a
GET with them "good <address>". Each request is recorded as one JSON line in the record file: the
status answered, the raw path, the path without the query, the query's parameters
(percent-decoded, each name with the list of its values), and the Basic credentials decoded
("user" and "password", null when none were sent).

  ddns-provider-standin.py [--port N] [--record FILE]
      defaults: port 80, record /run/ddns-provider.jsonl
"""
import argparse
import base64
import json
import sys
import urllib.parse
from http.server import BaseHTTPRequestHandler, HTTPServer


class Handler(BaseHTTPRequestHandler):
    record = None

    def do_GET(self):
        url = urllib.parse.urlsplit(self.path)
        user = password = None
        auth = self.headers.get("Authorization", "")
        if auth.startswith("Basic "):
            raw = base64.b64decode(auth[6:]).decode("utf-8", "replace")
            user, _, password = raw.partition(":")
        status = 200 if user is not None else 401
        entry = {
            "status": status,
            "raw_path": self.path,
            "path": url.path,
            "query": urllib.parse.parse_qs(url.query, keep_blank_values=True),
            "user": user,
            "password": password,
            "client": self.client_address[0],
        }
        with open(self.record, "a") as f:
            f.write(json.dumps(entry) + "\n")
        body = (f"good {self.client_address[0]}\n" if status == 200 else "badauth\n").encode()
        self.send_response(status)
        if status == 401:
            self.send_header("WWW-Authenticate", 'Basic realm="DDNS update"')
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, fmt, *args):
        pass  # the record file is the log


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--port", type=int, default=80)
    ap.add_argument("--record", default="/run/ddns-provider.jsonl")
    args = ap.parse_args()
    Handler.record = args.record
    open(args.record, "a").close()
    HTTPServer(("0.0.0.0", args.port), Handler).serve_forever()
    return 0


if __name__ == "__main__":
    sys.exit(main())
