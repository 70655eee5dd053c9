"""The web console's JSON API against the floor of serve_linux.sh (see there)."""
import argparse
import hashlib
import http.client
import json
import os
import re
import select
import socket
import ssl
import subprocess
import tempfile
import time

from serve_lib import Console, Failed, Floor, check, hostile_requests, main, same, step

AGENT_VERSION = {8: "3, 0, 0, 7", 9: "2, 1, 0, 15"}


def run():
    a = argparse.ArgumentParser()
    a.add_argument("--url")
    a.add_argument("--work")
    a.add_argument("--explorer")
    args = a.parse_args()
    c = Console(args.url)
    f = Floor(args.work)
    n = f.n

    step("without a token or session: 401")
    for method, path in [("GET", "/api/hosts"), ("GET", "/"), ("GET", "/app.js"), ("POST", "/api/scan"),
                         ("GET", "/api/export.csv"), ("GET", "/api/audit")]:
        status, headers, _ = c.request(method, path, bearer=False)
        same(status, 401, f"{method} {path} without a token")
    same(c.request("GET", "/api/hosts", headers={"Authorization": "Bearer " + "0" * 64})[0], 401, "a wrong bearer token")
    same(c.request("GET", "/api/hosts", headers={"Cookie": "tdx_session=" + "1" * 64}, bearer=False)[0], 401,
         "an unknown session")
    same(c.request("GET", "/login?token=" + "0" * 64, bearer=False)[0], 401, "/login with a wrong token")

    step("the first scan: every state, every value")
    floor = c.wait_scan()
    same([h["host"] for h in floor["hosts"]], f.order(), "the rows and their order")
    same(floor["counts"], {"ok": n + 1, "refused": 1, "timeout": 2, "closed": 1, "not-an-agent": 1, "error": 1,
                           "pending": 0}, "the counts per state")
    same(floor["common"]["server"], "10.1.1.5", "the floor's server")
    same(floor["common"]["notification_method"], "ServiceMessage", "the floor's notification method")
    same(floor["common"]["listening_ports"], "", "no listening-ports value most hosts share")
    same(floor["common"]["components"]["Agent Login Service"], "Unavailable!", "the floor's agent version")
    rows = {h["host"]: h for h in floor["hosts"]}
    for i in range(1, n + 1):
        h = rows[f.key(i)]
        ext, server, user = f.value(i, "Ext"), f.value(i, "Server"), f.value(i, "CurrentUser")
        expected_drift = (["server"] if server != "10.1.1.5" else []) + \
                         (["component:Agent Login Service"] if i in AGENT_VERSION else [])
        same({k: h[k] for k in ("state", "category", "computer", "current_user", "ext", "server",
                                "notification_method", "listening_ports", "version", "drift")},
             {"state": "ok", "category": "ok", "computer": f.computer, "current_user": user, "ext": ext,
              "server": server, "notification_method": "ServiceMessage",
              "listening_ports": f"5001,{f.agents[i]},6001,6002", "version": AGENT_VERSION.get(i, "Unavailable!"),
              "drift": expected_drift}, f"row of agent {i}")
        check(isinstance(h["rtt_ms"], int) and h["rtt_ms"] >= 0, f"agent {i}'s round trip {h['rtt_ms']}")
        check(re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d", h["time"]), f"agent {i}'s answer time {h['time']}")
    for key, state in f.others().items():
        same(rows[key]["state"], state, f"the state of {key}")
    hostile = rows[f.peer("hostile")]
    same(hostile["computer"], "<img src=x onerror=alert(1)>", "the hostile computer name, as sent")
    same(hostile["drift"], ["component:Agent Login Service"], "the hostile host's drift")
    same(rows[f.peer("dead")]["rtt_ms"], None, "no round trip without an answer")

    step("a seat: every GETINFO value and the component report")
    seat = c.json("GET", "/api/hosts/" + f.key(1))
    same((seat["network_user"], seat["pop4ext"], seat["pop4win"]), (f.me, "false", "false"), "seat 1's other values")
    same(seat["components"][0], {"name": "Agent Login Service", "version": "Unavailable!", "state": ""},
         "seat 1's first component")
    same(c.json("GET", "/api/hosts/" + f.key(8))["components"][0]["version"], "3, 0, 0, 7", "seat 8's version")
    for bad in ["10.9.9.9:5002", "127.0.0.1:0", "..%2F..:1", "127.0.0.1:abc", "%00:1"]:
        same(c.request("GET", "/api/hosts/" + bad)[0], 404, f"GET /api/hosts/{bad}")

    step("a session: the cookie, the CSRF token, the Origin")
    status, headers, _ = c.request("GET", "/login?token=" + c.token, bearer=False)
    same(status, 303, "/login with the token")
    same(headers.get("Location"), "/", "the redirect after /login")
    cookie = headers.get("Set-Cookie", "")
    check(re.fullmatch(r"tdx_session=[0-9a-f]{64}; Path=/; HttpOnly; SameSite=Strict", cookie), f"the cookie {cookie}")
    session = {"Cookie": cookie.split(";")[0]}
    csrf = c.json("GET", "/api/session", headers=session, bearer=False)["csrf"]
    check(re.fullmatch(r"[0-9a-f]{64}", csrf), "a CSRF token")
    page = c.request("GET", "/", headers=session, bearer=False)
    same(page[0], 200, "the page with a session")
    csp = page[1].get("Content-Security-Policy", "")
    check("script-src 'self'" in csp and "unsafe-inline" not in csp and "default-src 'none'" in csp, f"the CSP {csp}")
    own = {"Origin": c.origin()}
    for what, extra in [("no CSRF token", own), ("a foreign Origin", {"Origin": "http://evil.example", "X-CSRF-Token": csrf}),
                        ("no Origin", {"X-CSRF-Token": csrf}),
                        ("a wrong CSRF token", {**own, "X-CSRF-Token": "f" * 64})]:
        same(c.request("POST", "/api/scan", headers={**session, **extra}, bearer=False)[0], 403, f"a POST with {what}")
        same(c.request("POST", "/api/set", body={"hosts": [f.key(1)], "settings": {"ext": "1"}},
                       headers={**session, **extra}, bearer=False)[0], 403, f"/api/set with {what}")
    same(c.request("POST", "/api/scan", headers={"Origin": "http://evil.example"})[0], 403,
         "a bearer POST from a foreign Origin")
    posting = {**session, **own, "X-CSRF-Token": csrf}

    step("a seat's login and trace file")
    login = c.json("POST", f"/api/hosts/{f.key(f.login_agent)}/login", headers=posting, bearer=False)
    same((login["status"], login["result"]),
         ("replied", "The Tyndrel Agent Client Successfully Logged in User (jsmith).{CRLF}{CRLF}"
                     "User has proper access to both temp folders."), "the login's answer")
    trace = c.json("POST", f"/api/hosts/{f.key(f.login_agent)}/gettracefile", headers=posting, bearer=False)
    same((trace["status"], trace["result"]), ("replied", "1"), "the trace file's answer")
    refused = c.json("POST", f"/api/hosts/{f.peer('dead')}/gettracefile")
    same(refused["status"], "no connection", "the trace file of a host where nothing listens")
    # The login stored what the server said: that file is the one a change must keep.
    f.settings[f.login_agent] = f.read_settings(f.login_agent)

    step("preview: every answering agent would change, nothing is sent")
    hosts = [f.key(i) for i in range(0, n + 1)] + [f.peer("dead")]
    before = {i: f.read_settings(i) for i in f.agents}
    preview = c.json("POST", "/api/set", {"hosts": hosts, "settings": {"server": "10.2.2.2"}, "apply": False},
                     headers=posting, bearer=False)
    same(preview["summary"], f"{n + 2} hosts: {n} ok, 1 refused, 1 closed; {n} would change", "the preview's summary")
    for row in preview["rows"]:
        i = next((k for k in f.agents if f.key(k) == row["host"]), None)
        if i in range(1, n + 1):
            same((row["state"], row["setting"], row["current"], row["new"], row["result"]),
                 ("ok", "server", f.value(i, "Server"), "10.2.2.2", "would change"), f"preview row of agent {i}")
        else:
            same(row["result"], "", f"preview row of {row['host']}")
    same({i: f.read_settings(i) for i in f.agents}, before, "the settings files after a preview")

    step("apply: only the preview, exactly as shown")
    apply = {"hosts": hosts, "settings": {"server": "10.2.2.2"}, "apply": True, "preview": preview["preview"]}
    same(c.request("POST", "/api/set", {**apply, "preview": "a" * 64}, headers=posting, bearer=False)[0], 409,
         "an apply of no preview")
    same(c.request("POST", "/api/set", {**apply, "settings": {"server": "10.3.3.3"}}, headers=posting, bearer=False)[0],
         409, "an apply of another value than previewed")
    same(c.request("POST", "/api/set", {**apply, "hosts": hosts[:3]}, headers=posting, bearer=False)[0], 409,
         "an apply to other hosts than previewed")
    same(c.request("POST", "/api/set", {k: v for k, v in apply.items() if k != "preview"}, headers=posting,
                   bearer=False)[0], 400, "an apply without its preview")
    same({i: f.read_settings(i) for i in f.agents}, before, "the settings files after refused applies")
    applied = c.json("POST", "/api/set", apply, headers=posting, bearer=False)
    same(applied["summary"], f"{n} hosts: {n} ok; {n} changed", "the apply's summary (the hosts that would change)")
    for i in range(1, n):
        same(f.read_settings(i), f.with_value(i, "Server", "10.2.2.2"), f"agent {i}'s TDRegInfo.TXT")
    # The agent that logged in rewrites its temp folder's path on a save of its own: its server line.
    check(b"\r\nServer=10.2.2.2\r\n" in f.read_settings(n), "the server of the agent that logged in")
    same(f.read_settings(0), before[0], "the refusing agent's TDRegInfo.TXT")
    same(c.request("POST", "/api/set", apply, headers=posting, bearer=False)[0], 409, "the same preview applied twice")

    step("the audit log: one line per change sent, on the disk before the answer")
    with open(f"{args.work}/audit.jsonl", "rb") as log:
        lines = log.read().split(b"\n")
    same(lines[-1], b"", "the audit log ends with a line end")
    entries = [json.loads(l) for l in lines[:-1]]
    same(len(entries), n, "audit lines")
    for e, i in zip(entries, range(1, n + 1)):
        check(re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d", e["time"]), f"audit time {e['time']}")
        same({k: v for k, v in e.items() if k != "time"},
             {"client": "127.0.0.1", "host": f.key(i), "setting": "server", "old": f.value(i, "Server"),
              "new": "10.2.2.2", "result": "changed"}, f"audit line of agent {i}")
        same(list(e), ["time", "client", "host", "setting", "old", "new", "result"], "the audit line's fields")
    same(c.json("GET", "/api/audit"), entries, "GET /api/audit")

    step("bodies that are refused")
    for body, why in [(b"{", "the body is no JSON object"), (b"[]", "the body is no JSON object"),
                      ({"hosts": [f.key(1)], "settings": {"server": "a;b"}},
                       "set: the value of server cannot hold ';', '|' or control characters"),
                      ({"hosts": [f.key(1)], "settings": {"volume": "1"}},
                       "set: unknown setting volume (ext, server, notify, listen, pop4ext, pop4win)"),
                      ({"hosts": [f.key(1)], "settings": {"ext": ""}}, "set: empty value for ext"),
                      ({"hosts": ["10.9.9.9:5002"], "settings": {"ext": "1"}}, "not a host of this floor: 10.9.9.9:5002"),
                      ({"hosts": [[[[[f.key(1)]]]]], "settings": {"ext": "1"}}, "the body nests too deeply"),
                      ({"hosts": [f.key(1)], "settings": {"ext": "1"}, "extra": 1}, "unknown field \"extra\"")]:
        status, _, payload = c.request("POST", "/api/set", body, headers=posting, bearer=False)
        same((status, json.loads(payload)), (400, {"error": why}), f"a body refused: {why}")
    status, _, _ = c.request("POST", "/api/set", b"x" * (2 << 20), headers=posting, bearer=False)
    check(status in (400, 413), f"a body of 2 MiB: {status}")

    step("a scan on request, then the exports beside fleet getver's own")
    scans = c.json("GET", "/api/scan")["scans"]
    started = c.json("POST", "/api/scan", expect=202)
    check(started["started"] or started["running"], "the scan asked for")
    floor = c.wait_scan(after=scans)
    same(floor["common"]["server"], "10.2.2.2", "the floor's server after the apply")
    status, headers, csv = c.request("GET", "/api/export.csv")
    same(status, 200, "the CSV export")
    fleet = subprocess.run([args.explorer, "fleet", "getver", "--hosts", f"@{args.work}/hosts.txt", "--timeout", "2",
                            "--format", "csv"], capture_output=True)
    rtt = lambda text: re.sub(rb"^(127\.0\.0\.1,[0-9]+,ok),[0-9]+,", rb"\1,RTT,", text, flags=re.M)
    same(rtt(csv), rtt(fleet.stdout), "the CSV export beside fleet getver --format csv")
    status, _, refused_csv = c.request("GET", "/api/export.csv?state=refused")
    same(refused_csv.split(b"\r\n")[1:], [b"127.0.0.1,%d,refused" % f.peers["dead"] + b"," * 7, b""],
         "the CSV export of the refused hosts")
    js = c.json("GET", "/api/export.json?drift=1")
    same((js["command"], sorted(h["port"] for h in js["hosts"])),
         ("getver", sorted([f.agents[8], f.agents[9], f.peers["hostile"]])),
         "the JSON export of the drifting seats (every server moved: versions only)")

    step("bounds: an endless header is cut, the console still answers")
    s = socket.create_connection((c.host, c.port))
    s.sendall(b"GET /api/hosts HTTP/1.1\r\nHost: x\r\n")
    sent, t0 = 0, time.time()
    try:
        # The kernel's buffers on both ends take a few MiB before the console's bound shows.
        while sent < (32 << 20) and time.time() - t0 < 30:
            s.sendall(b"X-Filler: " + b"a" * 1000 + b"\r\n")
            sent += 1012
    except OSError:
        pass
    s.close()
    check(sent < (32 << 20), "an endless header was read to 32 MiB")
    same(c.request("GET", "/api/scan")[0], 200, "the console after an endless header")

    hostile_requests(c)

    step("bounds: a client that trickles is cut after 10 s; one address holds at most 8 connections")
    # A first request answered on the connection makes sure the console holds it; the second trickles.
    kept = http.client.HTTPConnection(c.host, c.port, timeout=30)
    kept.request("GET", "/api/scan", headers={"Authorization": "Bearer " + c.token})
    kept.getresponse().read()
    slow = kept.sock
    slow.sendall(b"GET /api/scan HTTP/1.1\r\nHost: x\r\n")
    t0 = time.time()
    # The trickling one and 7 idle ones are served; the other 3 are closed without a word. A connection
    # of an earlier step may still be on its way out: then the count is tried again.
    for attempt in range(3):
        idle = [socket.create_connection((c.host, c.port)) for _ in range(10)]
        # Those closed at once are readable (at their end) within a second; the others wait for a request.
        closed_at_once = 0
        deadline = time.time() + 1.0
        waiting = list(idle)
        while waiting and time.time() < deadline:
            ready, _, _ = select.select(waiting, [], [], max(0.0, deadline - time.time()))
            for s in ready:
                waiting.remove(s)
                try:
                    if s.recv(1) == b"":
                        closed_at_once += 1
                except OSError:
                    closed_at_once += 1
        for s in idle:
            s.close()
        if closed_at_once == 3:
            break
    same(closed_at_once, 3, "connections beyond 8 from one address closed at once")
    cut = None
    slow.settimeout(1.0)
    while time.time() - t0 < 20:
        try:
            slow.sendall(b"X")
            if slow.recv(1) == b"":
                cut = time.time() - t0
                break
        except socket.timeout:
            continue
        except OSError:
            cut = time.time() - t0
            break
    slow.close()
    check(cut is not None and 9 <= cut <= 13, f"the trickling client was cut after {cut} s (10 s and the watchdog)")
    same(c.request("GET", "/api/scan")[0], 200, "the console after the trickling client")

    step("a listen beyond loopback without TLS is refused; HTTPS with a test certificate")
    r = subprocess.run([args.explorer, "serve", "--hosts", f.key(1), "--listen", "0.0.0.0:0"], capture_output=True,
                       timeout=20)
    same((r.returncode, r.stdout, r.stderr.decode()),
         (2, b"", "agent-explorer serve: --listen 0.0.0.0:0 is beyond loopback: the console can change every seat's "
                  "settings, so there it serves HTTPS only (give --tls-cert and --tls-key)\n"), "a listen beyond loopback")
    tls = tempfile.mkdtemp(dir=args.work)
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
                    "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", f"{tls}/key.pem", "-out", f"{tls}/cert.pem"],
                   check=True, capture_output=True)
    # Beyond loopback (every address), as it may be with TLS; reached here through loopback.
    server = subprocess.Popen([args.explorer, "serve", "--hosts", f.key(1), "--listen", "0.0.0.0:0", "--tls-cert",
                               f"{tls}/cert.pem", "--tls-key", f"{tls}/key.pem", "--audit-log", f"{tls}/audit.jsonl"],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    try:
        line = server.stdout.readline().decode()
        m = re.match(r"agent-explorer serve: https://0\.0\.0\.0:(\d+)/login\?token=([0-9a-f]{64}) \(1 host, audit log ",
                     line)
        check(m, f"the HTTPS start-up line: {line!r}")
        context = ssl.create_default_context(cafile=f"{tls}/cert.pem")
        h = Console(f"https://127.0.0.1:{m.group(1)}/login?token={m.group(2)}", context)
        status, headers, _ = h.request("GET", "/login?token=" + h.token, bearer=False)
        same(status, 303, "/login over HTTPS")
        check(headers["Set-Cookie"].endswith("; HttpOnly; SameSite=Strict; Secure"), "a Secure cookie under TLS")
        same(h.wait_scan()["hosts"][0]["state"], "ok", "a scan through the HTTPS console")
    finally:
        server.terminate()
        server.wait(10)
    print("API checks passed")


if __name__ == "__main__":
    main(run)
