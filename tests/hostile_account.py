"""An account that means ill, for hostile_account_test.sh.

Speaks the storage service's API on 127.0.0.1. POST /script with {"pages": [...]} lays out the next pages of the change
feed, the last of them for ever with "repeat": true. GET /ids lists the identifiers of the files in /names.
"""
import http.server
import json
import socket
import struct
import sys
import threading
import urllib.parse

HEAD = 100
LEVELS = 10000
NAMES = [  # and whether the name cannot stand in a folder
    ("", True), (".", True), ("..", True), ("a/b", True), ("../../../escape", True), ("/etc/passwd", True),
    ("nul\0byte", True), ("\x1b]0;owned\x07/\x1b[31mred", True), ("n" * 300, True), ("é" * 200, True), ("%=x", True),
    ("twice", False), ("twice", True), ("Twice", False), ("line\nbreak", False), ("tab\t", False),
    ("\x1b[31mred\x1b[0m", False), ("\x1b]0;title\x07", False), ("-rf", False), (" blanks ", False), ("dot.", False),
    ("\u202egpj.exe", False), ("~", False), ("$HOME `id` $(id)", False), ("*", False), ("\\", False), ("\"'", False),
    ("😀", False), ("%2F", False), ("n" * 255, False), ("\x7f\x01", False), ("CON", False), ("...", False),
]
TROUBLE = ["cut", "reset", "early-reset", "stall", "longer", "status-500", "file-address", "no-server", "garbage-item",
           "gone", "no-address", "round", "status-401"]
LISTINGS = ["not-json", "half", "nested", "null", "wrong-types", "not-utf8", "status-500", "reset", "empty-body"]


def contents(identifier):
    return ("contents of %s\n" % identifier).encode()


def file(identifier, name, parent, size=None):
    return {"id": identifier, "filename": name, "parent_id": parent, "version": 1, "mtime": "2024-05-01T10:00:00Z",
            "size": len(contents(identifier)) if size is None else size, "key": "key-" + identifier, "role": "owner"}


def folder(identifier, name, parent):
    return {"id": identifier, "name": name, "parent_id": parent, "is_folder": True, "role": "owner"}


def top():
    folders = [folder(name, name, "root") for name in ("names", "trouble", "listings", "quiet", "loop", "pair")]
    folders.append(folder("deep-0", "deep", "root"))
    return {"folders": folders, "files": [file("plain", "plain.txt", "root")]}


def listing(identifier):
    """The reply, as bytes or an object; None: no such folder."""
    if identifier == "root":
        return top()
    if identifier == "names":
        return {"folders": [], "files": [file("n%d" % i, name, "names") for i, (name, _) in enumerate(NAMES)]}
    if identifier == "trouble":
        return {"folders": [], "files": [file("t-" + name, name, "trouble") for name in TROUBLE]}
    if identifier == "listings":
        return {"folders": [folder("l-" + name, name, "listings") for name in LISTINGS], "files": []}
    if identifier == "quiet":
        return {"folders": [folder("inner", "inner", "quiet")], "files": [file("q", "q.txt", "quiet")]}
    if identifier == "inner":
        return {"folders": [], "files": [file("i", "i.txt", "inner")]}
    if identifier == "loop":  # itself, what it lies in, and the root
        return {"folders": [folder("loop", "itself", "loop"), folder("root", "top", "loop")],
                "files": [file("in-loop", "file.txt", "loop")]}
    if identifier == "pair":
        return {"folders": [folder("left", "left", "pair"), folder("right", "right", "pair")], "files": []}
    if identifier in ("left", "right"):
        other = "right" if identifier == "left" else "left"
        return {"folders": [folder(other, other, identifier)], "files": []}
    if identifier.startswith("deep-"):
        level = int(identifier[5:])
        if level == LEVELS:
            return {"folders": [], "files": [file("bottom", "bottom.txt", identifier)]}
        return {"folders": [folder("deep-%d" % (level + 1), "d", identifier)], "files": []}
    return {"l-not-json": b"<html>Hello</html>", "l-half": b'{"folders": [], "files": [{"id": "x", "filena',
            "l-nested": b'{"folders": [], "files": ' + b"[" * 100000 + b"]" * 100000 + b"}", "l-null": b"null",
            "l-wrong-types": b'{"folders": {}, "files": "none"}',
            "l-not-utf8": b'{"folders": [], "files": [{"id": "x", "filename": "\xff\xfe"}]}',
            "l-empty-body": b""}.get(identifier)


class Account(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True
    pages = []
    lock = threading.Lock()
    over = threading.Event()

    def log_message(self, *arguments):
        pass

    def answer(self, body, status=200):
        body = body if isinstance(body, bytes) else json.dumps(body).encode()
        self.send_response(status)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def reset(self):
        self.wfile.flush()
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.connection.close()
        self.close_connection = True

    def do_GET(self):
        address = urllib.parse.urlsplit(self.path)
        query = dict(urllib.parse.parse_qsl(address.query, keep_blank_values=True))
        if address.path == "/vondle/api/browse":
            identifier = query.get("id", "root")
            if identifier == "l-reset":
                return self.reset()
            if identifier == "l-status-500":
                return self.answer({"error": "\x1b]0;owned\x07"}, 500)
            reply = listing(identifier)
            return self.answer({}, 404) if reply is None else self.answer(reply)
        if address.path == "/vondle/api/item":
            return self.item(query.get("id", ""))
        if address.path == "/vondle/api/changes":
            return self.answer(self.page(int(query["since"]), int(query["limit"])))
        if address.path == "/vondle/api/trash":
            return self.answer({"items": []})
        if address.path.startswith("/contents/"):
            return self.contents(address.path[len("/contents/"):])
        if address.path == "/ids":
            return self.answer("".join("n%d\n" % i for i in range(len(NAMES))).encode())
        self.answer({}, 404)

    def do_POST(self):
        script = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
        with self.lock:
            Account.pages = script["pages"]
        self.answer({})

    def page(self, since, limit):
        if limit == 0:
            return {"changes": [], "seq": HEAD, "head": HEAD, "more": False}
        with self.lock:
            if not self.pages:
                return {"changes": [], "seq": since, "head": since, "more": False}
            page = self.pages[0]
            if not page.get("repeat"):
                Account.pages = self.pages[1:]
        return {"changes": page.get("changes", []), "seq": page.get("seq", since), "head": HEAD,
                "more": page.get("more", False)}

    def item(self, identifier):
        if identifier == "t-garbage-item":
            return self.answer(b"<html>")
        if identifier == "t-gone":
            return self.answer({}, 404)
        item = file(identifier, "name", "root")
        item["name"] = item.pop("filename")
        base = "http://127.0.0.1:%d" % self.server.server_address[1]
        addresses = {"t-file-address": "file:///etc/passwd", "t-no-server": "http://127.0.0.1:1/", "t-no-address": None}
        item["download_url"] = addresses.get(identifier, base + "/contents/" + identifier)
        self.answer(item)

    def contents(self, identifier):
        body = contents(identifier)
        if identifier == "t-stall":
            self.over.wait()
            self.close_connection = True
        elif identifier == "t-early-reset":
            self.reset()
        elif identifier in ("t-cut", "t-reset"):
            self.send_response(200)
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body[:5])
            self.reset() if identifier == "t-reset" else None
            self.close_connection = True
        elif identifier == "t-longer":
            self.answer(body + b"and more")
        elif identifier == "t-status-500":
            self.answer(b"<h1>\x1b]0;owned\x07</h1>", 500)
        elif identifier == "t-status-401":
            self.answer(b"", 401)
        elif identifier == "t-round":
            self.send_response(302)
            self.send_header("Location", self.path)
            self.send_header("Content-Length", "0")
            self.end_headers()
        else:
            self.answer(body)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 64

    def handle_error(self, request, address):
        pass  # clients and we ourselves break connections on purpose


server = Server(("127.0.0.1", 0), Account)
print("listening on http://127.0.0.1:%d" % server.server_address[1], flush=True)
server.serve_forever()
