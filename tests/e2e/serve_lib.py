"""What the web console's end-to-end checks share: the floor serve_linux.sh made, an HTTP client and
the rows the console must show for it."""
import http.client
import json
import socket
import ssl
import sys
import time
import urllib.parse


class Failed(Exception):
    pass


def check(condition, what):
    if not condition:
        raise Failed(what)


def same(got, expected, what):
    if got != expected:
        raise Failed(f"{what}:\n  got      {got!r}\n  expected {expected!r}")


def step(text):
    print("== " + text, flush=True)


class Console:
    """The console at a URL printed by agent-explorer serve (".../login?token=...")."""

    def __init__(self, url, context=None):
        parts = urllib.parse.urlsplit(url)
        self.scheme, self.netloc = parts.scheme, parts.netloc
        self.host, self.port = parts.hostname, parts.port
        self.token = urllib.parse.parse_qs(parts.query)["token"][0]
        self.url = url
        self.context = context

    def origin(self):
        return f"{self.scheme}://{self.netloc}"

    def request(self, method, path, body=None, headers=None, bearer=True):
        if self.scheme == "https":
            c = http.client.HTTPSConnection(self.host, self.port, timeout=240, context=self.context)
        else:
            c = http.client.HTTPConnection(self.host, self.port, timeout=240)
        h = dict(headers or {})
        if bearer:
            h.setdefault("Authorization", "Bearer " + self.token)
        data = None
        if body is not None:
            data = body if isinstance(body, (bytes, str)) else json.dumps(body)
            h.setdefault("Content-Type", "application/json")
        c.request(method, path, body=data, headers=h)
        r = c.getresponse()
        payload = r.read()
        c.close()
        return r.status, dict(r.getheaders()), payload

    def json(self, method, path, body=None, expect=200, **kw):
        status, headers, payload = self.request(method, path, body, **kw)
        same(status, expect, f"{method} {path}: status (body {payload[:300]!r})")
        return json.loads(payload)

    def wait_scan(self, after=0, limit=120):
        """Waits until a scan numbered above `after` has finished; returns /api/hosts."""
        deadline = time.time() + limit
        while time.time() < deadline:
            scan = self.json("GET", "/api/scan")
            if not scan["running"] and scan["scans"] > after:
                return self.json("GET", "/api/hosts")
            time.sleep(0.2)
        raise Failed(f"no scan finished within {limit} s")


class Floor:
    """The floor of serve_linux.sh: agents 0..N (0 refuses the console), the peers, and each agent's
    settings file as it stood at the start."""

    def __init__(self, work):
        self.work = work
        with open(f"{work}/floor.json") as f:
            d = json.load(f)
        self.agents = {int(i): p for i, p in d["agents"].items()}
        self.peers = d["peers"]
        self.computer, self.me, self.login_agent = d["computer"], d["me"], d["login_agent"]
        self.n = max(self.agents)
        self.settings = {i: self.read_settings(i) for i in self.agents}

    def key(self, i):
        return f"127.0.0.1:{self.agents[i]}"

    def peer(self, name):
        return f"127.0.0.1:{self.peers[name]}"

    def settings_path(self, i):
        return f"{self.work}/a{i}/TDRegInfo.TXT"

    def read_settings(self, i):
        with open(self.settings_path(i), "rb") as f:
            return f.read()

    def value(self, i, name):
        for line in self.settings[i].decode("latin-1").split("\r\n"):
            if line.startswith(name + "="):
                return line[len(name) + 1:]
        return ""

    def with_value(self, i, name, value):
        """Agent i's settings file with one line changed, as the agent saves it."""
        lines = self.settings[i].split(b"\r\n")
        return b"\r\n".join(name.encode() + b"=" + value.encode() if l.startswith(name.encode() + b"=") else l
                            for l in lines)

    def others(self):
        """The hosts that are no answering agents, with the state the console gives them."""
        return {self.key(0): "closed", self.peer("silent"): "timeout", self.peer("wrong"): "not-an-agent",
                self.peer("flood"): "error: reply too long", self.peer("trickle"): "timeout",
                self.peer("hostile"): "ok", self.peer("dead"): "refused"}

    def order(self):
        """Every host in the order of the host list."""
        return [self.key(i) for i in range(self.n + 1)] + [self.peer(p) for p in
                                                           ("silent", "wrong", "flood", "trickle", "hostile", "dead")]


def raw_exchange(c, data, limit=20):
    """Sends `data` as it stands on a connection of its own to the (plain HTTP) console and reads until
    the console closes it or `limit` seconds pass: (what came, whether the console closed)."""
    s = socket.create_connection((c.host, c.port), timeout=limit)
    got, closed = b"", False
    deadline = time.time() + limit
    try:
        s.sendall(data)
        while time.time() < deadline:
            s.settimeout(max(0.1, deadline - time.time()))
            chunk = s.recv(65536)
            if not chunk:
                closed = True
                break
            got += chunk
    except socket.timeout:
        pass
    except OSError:
        closed = True
    s.close()
    return got, closed


def hostile_requests(c):
    """Requests made to hurt the console: each is answered or refused, none ends a worker, makes it spin
    or smuggles a second request; the console answers afterwards."""
    auth = b"Authorization: Bearer " + c.token.encode() + b"\r\n"

    step("bounds: a range the library's pattern would recurse through is never matched")
    got, closed = raw_exchange(c, b"GET /api/hosts HTTP/1.1\r\nHost: h\r\nRange: bytes=" + b"1" * 8150 + b"-\r\n\r\n")
    check(got.startswith(b"HTTP/1.1 401 "), f"a long Range without a token: {got[:60]!r}")
    whole = c.request("GET", "/api/hosts")[2]
    for rng in [b"bytes=0-99999999999", b"bytes=" + b",".join([b"0-"] * 2700), b"bytes=5-9"]:
        got, closed = raw_exchange(c, b"GET /api/hosts HTTP/1.1\r\nHost: h\r\nConnection: close\r\n" + auth +
                                   b"Range: " + rng + b"\r\n\r\n")
        head, _, body = got.partition(b"\r\n\r\n")
        check(head.startswith(b"HTTP/1.1 200 ") and closed, f"Range {rng[:30]!r}: {head[:60]!r}, closed {closed}")
        same(len(body), len(whole), f"Range {rng[:30]!r}: the whole answer")

    step("bounds: a refused request's body is never taken for the next request")
    inner = b"POST /api/scan HTTP/1.1\r\nHost: h\r\nX-CSRF-Token: planted\r\nContent-Length: 0\r\n\r\n"
    got, closed = raw_exchange(c, b"POST /api/set HTTP/1.1\r\nHost: h\r\nContent-Type: application/json\r\n"
                               b"Content-Length: %d\r\n\r\n" % len(inner) + inner)
    same((got.count(b"HTTP/1.1 "), got.startswith(b"HTTP/1.1 401 "), closed), (1, True, True),
         f"one 401 and the connection closed ({got[:80]!r})")

    step("bounds: a request's head within 32 KiB")
    filler = b"".join(b"a%d: b\r\n" % i for i in range(4000))
    check(len(filler) > 32 << 10, "the filler passes 32 KiB")
    got, closed = raw_exchange(c, b"GET /api/scan HTTP/1.1\r\nHost: h\r\n" + auth + filler + b"\r\n")
    same((got, closed), (b"", True), "a head of more than 32 KiB: closed without an answer")
    got, closed = raw_exchange(c, b"GET /api/scan HTTP/1.1\r\nHost: h\r\nConnection: close\r\n" + auth +
                               b"".join(b"a%d: b\r\n" % i for i in range(2000)) + b"\r\n")
    check(got.startswith(b"HTTP/1.1 200 "), f"a head of 18 KiB is served: {got[:60]!r}")

    step("bounds: a path longer than 2048 bytes, a multipart body")
    status, _, payload = c.request("GET", "/api/hosts/" + "a" * 3000)
    same((status, json.loads(payload)), (414, {"error": "the path is longer than 2048 bytes"}), "a long path")
    status, _, payload = c.request("POST", "/api/scan", b"--x\r\n\r\n--x--\r\n",
                                   headers={"Content-Type": "multipart/form-data; boundary=x", "Origin": c.origin()})
    same((status, json.loads(payload)), (415, {"error": "a body is JSON, never multipart"}), "a multipart body")
    same(c.request("GET", "/api/scan")[0], 200, "the console after the hostile requests")


def main(run):
    try:
        run()
    except Failed as e:
        print("FAIL: " + str(e), flush=True)
        sys.exit(1)
