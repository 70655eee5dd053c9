"""/api/hosts of agent-explorer.exe serve under Wine (see serve_wine.sh): agent 0 refuses the console,
agents 1..N answer with the values fleet_lib.sh gave them."""
import argparse

from serve_lib import Console, check, hostile_requests, main, same, step


def run():
    a = argparse.ArgumentParser()
    a.add_argument("--url")
    a.add_argument("--agents", type=int)
    a.add_argument("--computer")
    a.add_argument("--ports")
    args = a.parse_args()
    ports = [int(p) for p in args.ports.split(",")]
    c = Console(args.url)
    same(c.request("GET", "/api/hosts", bearer=False)[0], 401, "/api/hosts without the token")
    floor = c.wait_scan(limit=120)
    same(floor["counts"], {"ok": args.agents, "refused": 0, "timeout": 0, "closed": 1, "not-an-agent": 0, "error": 0,
                           "pending": 0}, "the counts per state")
    rows = floor["hosts"]
    same([r["host"] for r in rows], [f"127.0.0.1:{p}" for p in ports], "the rows")
    same(rows[0]["state"], "closed", "the agent that refuses the console")
    for i in range(1, args.agents + 1):
        r = rows[i]
        same((r["state"], r["computer"], r["ext"], r["server"], r["listening_ports"]),
             ("ok", args.computer, str(4000 + i), "10.1.1.5", f"5001,{ports[i]},6001,6002"), f"agent {i}'s row")
    step("/api/hosts answered for every agent")
    hostile_requests(c)


if __name__ == "__main__":
    main(run)
