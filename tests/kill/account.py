"""The account as another device sees it: the part of the storage service's API that the tests with killed processes need."""
import http.client
import json
import urllib.parse


class Refused(Exception):
    def __init__(self, what, status):
        super().__init__("%s: HTTP %d" % (what, status))
        self.status = status


class Account:
    def __init__(self, server, key_file):
        self.host = urllib.parse.urlsplit(server).netloc
        with open(key_file) as file:
            self.key = file.read().strip()

    def send(self, method, target, body=None, headers={}):
        connection = http.client.HTTPConnection(self.host, timeout=20)
        try:
            connection.request(method, target, body, headers)
            reply = connection.getresponse()
            data = reply.read()
        finally:
            connection.close()
        if reply.status != 200:
            raise Refused(target.split("?")[0], reply.status)
        return data

    def ask(self, endpoint, **parameters):
        target = "/vondle/api/%s?%s" % (endpoint, urllib.parse.urlencode(parameters))
        return json.loads(self.send("GET", target, headers={"X-API-Key": self.key}))

    def tell(self, endpoint, **body):
        headers = {"X-API-Key": self.key, "Content-Type": "application/json"}
        return json.loads(self.send("POST", "/vondle/api/" + endpoint, json.dumps(body).encode(), headers))

    def transfer(self, method, address, body=None):
        parts = urllib.parse.urlsplit(address)
        headers = {} if body is None else {"Content-Type": "application/octet-stream"}
        return self.send(method, "%s?%s" % (parts.path, parts.query), body, headers)

    def listing(self, folder):
        """The entries of a folder by name, with all that is known of them."""
        found = self.ask("browse", path=folder)
        entries = {each["name"]: each for each in found["folders"]}
        entries.update((each["name"], each) for each in found["files"])
        return entries

    def find(self, path):
        folder, _, name = path.rpartition("/")
        return self.listing(folder).get(name)

    def read(self, identifier):
        """An entry and the contents that belong to its version."""
        entry = self.ask("item", id=identifier)
        return entry, self.transfer("GET", entry["download_url"])

    def tree(self, folder=""):
        """Contents by path; None for folders."""
        tree = {}
        for name, entry in self.listing(folder).items():
            path = folder + "/" + name if folder else name
            if entry["is_folder"]:
                tree[path] = None
                tree.update(self.tree(path))
            else:
                tree[path] = self.transfer("GET", entry["download_url"])
        return tree

    def trash(self):
        """The contents of the files there."""
        return [self.read(each["id"])[1] for each in self.ask("trash")["items"] if not each["is_folder"]]

    def make_folder(self, path):
        folder, _, name = path.rpartition("/")
        self.tell("folders", path=folder, name=name)

    def make_file(self, path, contents):
        folder, _, name = path.rpartition("/")
        target = self.tell("upload-urls", path=folder, files=[{"filename": name, "size": len(contents)}])["urls"][0]
        self.transfer("PUT", target["upload_url"], contents)

    def replace(self, entry, contents):
        """New contents on top of that version, and of no other."""
        target = self.tell("content-url", id=entry["id"], base_version=entry["version"])
        self.transfer("PUT", target["upload_url"], contents)
        self.tell("content-commit", id=entry["id"], base_version=entry["version"], key=target["key"])

    def remove(self, entry):
        self.tell("delete-files", keys=[entry["key"]])
