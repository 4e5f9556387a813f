#!/usr/bin/env python3
"""Writes a simulated cluster's rows as JSON Lines on standard output:
PROVIDERS x HOSTS x RUNS rows (default 200 x 500 x 10 = 1,000,000), 200-byte
outputs, every host with its own run stamps an hour apart, one provider in
fifty failing on one host in ten.

    bench/cluster_rows.py [PROVIDERS HOSTS RUNS] > rows.jsonl
"""
import json
import sys
import time

providers, hosts, runs = (int(a) for a in sys.argv[1:4]) if len(sys.argv) > 3 else (200, 500, 10)
now = int(time.time()) * 1000000
hour = 3600 * 1000000
out = sys.stdout
for run in range(runs):
    for h in range(hosts):
        host = f"node{h:04d}"
        stamp = now - (runs - run) * hour + h * 1000
        start = stamp // 1000000
        for p in range(providers):
            text = (f"{host} provider{p:03d} run {run} " * 8)[:199] + "\n"
            failed = 1 if p % 50 == 0 and h % 10 == 0 else 0
            out.write(json.dumps({"Provider": f"provider{p:03d}", "Hostname": host,
                                  "num_nodes": 1, "node_names": [host], "Exit_status": failed,
                                  "Timestamp": start, "Duration": 0.01 * (p % 7 + 1),
                                  "STDOUT": text, "OptionID": "", "version": 1,
                                  "Username": "bench", "Unique_timestamp": stamp},
                                 separators=(",", ":")) + "\n")
