#!/usr/bin/env python3
# Load reports while the control port is busy: a daemon with N subscriptions that never
# tick (default 300) and one watched subscription with a 10 s reply frequency; C client
# processes (default 8) ask for the status report without pause for S seconds (default 30).
# Prints the gaps between the watched subscription's datagrams and the status replies served.
# Usage: bench/busy-port.py [--subs N] [--clients C] [--seconds S]
#   HOSTGAUGE_BUILD: build directory with hostgauge and hostgauge-vmstat (default build)
import argparse
import multiprocessing
import socket
import time

import hgrun


def poll_status(port, deadline, counter):
    served = 0
    while time.monotonic() < deadline:
        try:
            if hgrun.request(port, hgrun.STATUS, timeout=10):
                served += 1
        except OSError:
            pass
    with counter.get_lock():
        counter.value += served


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--subs", type=int, default=300)
    parser.add_argument("--clients", type=int, default=8)
    parser.add_argument("--seconds", type=float, default=30)
    args = parser.parse_args()
    daemon = hgrun.Daemon()
    drain = hgrun.Receiver()
    try:
        for ident in range(1, args.subs + 1):
            daemon.request(hgrun.create(ident, drain.port, replyfreq=3600000, change=100))
        watched = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        watched.bind(("127.0.0.1", 0))
        counter = multiprocessing.Value("l", 0)
        deadline = time.monotonic() + args.seconds
        clients = [multiprocessing.Process(target=poll_status, args=(daemon.port, deadline, counter))
                   for _ in range(args.clients)]
        for client in clients:
            client.start()
        time.sleep(0.5)
        start = time.monotonic()
        daemon.request(hgrun.create(999999, watched.getsockname()[1], replyfreq=10000, change=100))
        arrivals = [start]
        while time.monotonic() < deadline:
            watched.settimeout(max(0.01, deadline - time.monotonic()))
            try:
                watched.recv(2048)
                arrivals.append(time.monotonic())
            except socket.timeout:
                break
        for client in clients:
            client.join()
        gaps = [b - a for a, b in zip(arrivals, arrivals[1:])]
        tail = deadline - arrivals[-1]
        print(f"subscriptions {args.subs}, clients {args.clients}, {args.seconds:.0f} s: "
              f"{counter.value} status replies ({counter.value / args.seconds:.0f}/s)")
        print(f"datagrams {len(gaps)}; gaps after subscribing (s): "
              + ", ".join(f"{g:.2f}" for g in gaps)
              + f"; {tail:.2f} s from the last one to the end")
        print(f"largest gap {max(gaps + [tail]):.2f} s")
    finally:
        drain.close()
        daemon.stop()


if __name__ == "__main__":
    main()
