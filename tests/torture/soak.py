#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Keeps context-host under load: requests, slow and hostile clients, imports beside it, signals.

  soak.py CONTEXT_HOST CONTEXT_QUERY [--minutes N] [--seed N]

At the end the host must have answered every request correctly, hold every record that it has acknowledged, and use no
more memory, descriptors and threads than after the warm-up.
"""
import argparse
import json
import os
import pathlib
import random
import re
import signal
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import threading
import time

HEADER = "unit_id,unit_name,device_name,start_time,duration\n"
UNITS, RECORDS = 50, 30000
LONGEST = 10                  # units in a ranking
BESIDE_RECORDS = 200
SHORT_SECONDS = 20
WARM_UP_SHARE = 0.4           # of the whole time
BOUND = 60                    # seconds for anything that must end
DISCONNECTED_AFTER = 5 + 10   # seconds: the host's limit for a request, and what a busy machine may need
GROWTH_KIB = 3072             # allowed after the warm-up
HARMLESS = (signal.SIGSTOP, signal.SIGCHLD, signal.SIGURG, signal.SIGWINCH, signal.SIGPIPE, signal.SIGCONT)


class Tally:
    """Counts tries, from any thread."""

    def __init__(self):
        self.lock = threading.Lock()
        self.kinds = {}
        self.good = 0

    def count(self, kind, is_as_promised, what=""):
        with self.lock:
            self.kinds[kind] = self.kinds.get(kind, 0) + 1
            self.good += bool(is_as_promised)
            if not is_as_promised:
                print(f"NOT AS PROMISED: {kind}: {what}", flush=True)

    def end(self):
        for kind in sorted(self.kinds):
            print(f"{kind}: {self.kinds[kind]}")
        tried = sum(self.kinds.values())
        print(f"soak: {tried} tried, {self.good} as promised")
        return 0 if tried == self.good and tried else 1


def receive(client, size):
    data = b""
    while len(data) < size:
        part = client.recv(size - len(data))
        if not part:
            raise ConnectionError("the host has ended the connection")
        data += part
    return data


def ask(client, request):
    """One request and its answer, each a frame: length with the zero byte, text, zero byte."""
    client.sendall(struct.pack(">i", len(request) + 1) + request.encode() + b"\0")
    return json.loads(receive(client, struct.unpack(">i", receive(client, 4))[0])[:-1])


class Server:
    """The context-host under load."""

    def __init__(self, program, history):
        self.process = subprocess.Popen([program, "--serve", "0", "--max", str(LONGEST), "--database", "soak.db", history],
                                        stderr=subprocess.PIPE, encoding="utf-8", env={**os.environ, "TZ": "UTC"})
        self.port = int(re.search(r"serving at port (\d+)", self.process.stderr.readline())[1])
        self.lines = []
        self.reader = threading.Thread(target=lambda: self.lines.extend(self.process.stderr), daemon=True)
        self.reader.start()

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), timeout=BOUND)

    def acknowledged(self):
        return sum(int(match[1]) for match in (re.match(r"(\d+) new records", line) for line in list(self.lines)) if match)

    def usage(self):
        """Memory in KiB, descriptors, threads."""
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        value = {name: int(re.search(rf"^{name}:\s+(\d+)", status, re.M)[1]) for name in ("VmRSS", "Threads")}
        return value["VmRSS"], len(os.listdir(f"/proc/{self.process.pid}/fd")), value["Threads"]


class Load:
    """Threads that use the server until they are told to stop, or pause for a look at its usage."""

    def __init__(self, server, query, host, folder, tally, seed):
        self.server, self.query, self.host, self.folder, self.tally = server, query, host, folder, tally
        self.stopping = threading.Event()
        self.running = threading.Event()
        self.running.set()
        self.idle = threading.Condition()
        self.busy = 0
        self.beside = {}       # history to whether its records were acknowledged
        self.imports = 0
        steps = [self.ask_often] * 3 + [self.run_query, self.be_slow, self.be_slow, self.be_hostile, self.come_and_go,
                                        self.import_beside, self.import_into_same_store, self.send_signal]
        self.threads = [threading.Thread(target=self.repeat, args=(step, random.Random(seed + index)))
                        for index, step in enumerate(steps)]
        for thread in self.threads:
            thread.start()

    def repeat(self, step, chance):
        while not self.stopping.is_set():
            self.running.wait()
            with self.idle:
                self.busy += 1
            try:
                step(chance)
            except (OSError, ValueError, KeyError, subprocess.SubprocessError) as error:
                self.tally.count(step.__name__.replace("_", " "), False, repr(error))
            with self.idle:
                self.busy -= 1
                self.idle.notify_all()
            self.stopping.wait(chance.random() / 20)

    def pause(self):
        """Returns when no client is connected."""
        self.running.clear()
        with self.idle:
            return self.idle.wait_for(lambda: self.busy == 0, BOUND)

    def resume(self):
        self.running.set()

    def stop(self):
        self.stopping.set()
        self.running.set()
        for thread in self.threads:
            thread.join(BOUND)

    # What the threads do.

    def ask_often(self, chance):
        with self.server.connect() as client:
            for _ in range(chance.randrange(1, 60)):
                count = chance.randrange(LONGEST + 1)
                answer = ask(client, f"rank mfu {count}")
                wanted = [f"unit-{UNITS - 1 - place}" for place in range(count)]
                found = [item["Id"] for item in answer.get("list", [])]
                self.tally.count("request", found == wanted, f"rank mfu {count} gives {found[:3]}, {len(found)} units")
            self.tally.count("weekly request", ask(client, "weekly").get("Size") == 7)

    def run_query(self, _):
        result = subprocess.run([self.query, str(self.server.port), "rank", "mru", "1"], capture_output=True,
                                encoding="utf-8", timeout=BOUND)
        self.tally.count("context-query", result.returncode == 0 and json.loads(result.stdout)["Size"] == 1,
                         result.stderr)

    def be_slow(self, chance):
        begun = time.monotonic()
        with self.server.connect() as client:
            try:
                for byte in struct.pack(">i", 200) + b"x" * 100:
                    client.sendall(bytes([byte]))
                    client.settimeout(0.2 + chance.random())
                    try:
                        if client.recv(1) == b"":
                            break
                    except TimeoutError:
                        pass
                    if time.monotonic() - begun > DISCONNECTED_AFTER:
                        break
                    if not self.running.is_set() or self.stopping.is_set():
                        return
            except ConnectionError:
                pass
        self.tally.count("slow client", time.monotonic() - begun < DISCONNECTED_AFTER, "is not disconnected")

    def be_hostile(self, chance):
        sent = chance.choice((b"", b"\0\0", struct.pack(">i", -1), struct.pack(">i", 2**31 - 1) + b"x" * 10000,
                              struct.pack(">i", 0), struct.pack(">i", 4) + b"rank", chance.randbytes(500),
                              struct.pack(">i", 9) + b"rank mfu\0" * 100))
        with self.server.connect() as client:
            try:
                client.sendall(sent)
                if chance.random() < 0.5:  # the connection is reset instead of closed
                    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            except ConnectionError:
                pass
        with self.server.connect() as client:
            self.tally.count("hostile client", ask(client, "nonsense").get("error"), "the next client gets no answer")

    def come_and_go(self, chance):
        for client in [self.server.connect() for _ in range(chance.randrange(1, 30))]:
            client.close()
        with self.server.connect() as client:
            self.tally.count("burst of connections", ask(client, "quit") == {"bye": True})

    def import_beside(self, chance):
        """Imports into another store of the same folder. Some imports are killed."""
        self.imports += 1
        path = self.folder / f"beside-{self.imports}.csv"
        rows = (f"unit,,tv,{number},{self.imports}\n" for number in range(BESIDE_RECORDS))
        path.write_text(HEADER + "".join(rows), encoding="utf-8")
        process = subprocess.Popen([self.host, "--max", "1", "--database", "beside.db", path], encoding="utf-8",
                                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        if chance.random() < 0.2:
            time.sleep(chance.random())  # the random moment of its end
            process.kill()
        messages = process.communicate(timeout=BOUND)[1]
        path.unlink()
        is_stored = f"{BESIDE_RECORDS} new records stored" in messages
        self.beside[f"usage/{path.stem}"] = is_stored
        self.tally.count("import beside", is_stored or process.returncode == -signal.SIGKILL,
                         f"status {process.returncode}, {messages}")

    def import_into_same_store(self, _):
        result = subprocess.run([self.host, "--database", "soak.db"], capture_output=True, encoding="utf-8",
                                timeout=BOUND)
        self.tally.count("second host on the store", result.returncode == 5 and "another context-host" in result.stderr,
                         f"status {result.returncode}, {result.stderr}")
        self.stopping.wait(0.3)

    def send_signal(self, chance):
        chosen = chance.choice(HARMLESS)
        self.server.process.send_signal(chosen)
        self.stopping.wait(chance.random() / 5)
        self.server.process.send_signal(signal.SIGCONT)
        self.tally.count("harmless signal", self.server.process.poll() is None, f"{chosen.name} has ended the host")


def write_history(path):
    """Unit k is used for k + 1 seconds each time, so that the rankings are known."""
    rows = (f"unit-{row % UNITS},,tv,{1600000000 + row * 60},{row % UNITS + 1}\n" for row in range(RECORDS))
    path.write_text(HEADER + "".join(rows), encoding="utf-8")
    return path


def check_usage(tally, server, load, baseline):
    """Compares the usage while no client is connected with that after the warm-up, which is None at first."""
    tally.count("pause", load.pause(), "a client is stuck")
    deadline = time.monotonic() + BOUND
    usage, looks = server.usage(), 0
    # The host needs a moment to notice that its clients are gone.
    while time.monotonic() < deadline and (looks < 20 or (baseline and usage[1:] != baseline[1:])):
        time.sleep(0.05)
        before, usage = usage, server.usage()
        looks = looks + 1 if usage[1:] == before[1:] else 0
    print("memory %d KiB, %d descriptors, %d threads" % usage, flush=True)
    if baseline:
        tally.count("memory, descriptors and threads",
                    usage[0] <= baseline[0] + GROWTH_KIB and usage[1:] == baseline[1:],
                    f"were {baseline} after the warm-up, are {usage}")
    load.resume()
    return usage


def check_records(tally, load):
    folder = pathlib.Path(os.environ["LUMORA_PRIVATE_DATA_DIRECTORY"])
    for name in ("soak.db", "beside.db"):
        with sqlite3.connect(folder / name) as store:
            found = dict(store.execute("SELECT history, count(*) FROM usage GROUP BY history"))
            tally.count("integrity check", store.execute("PRAGMA integrity_check").fetchone() == ("ok",), name)
        if name == "soak.db":
            tally.count("acknowledged history", found == {"usage/tv": RECORDS}, f"{found}")
            continue
        for history, is_acknowledged in load.beside.items():
            count = found.get(history, 0)
            tally.count("acknowledged history", count == BESIDE_RECORDS or (count == 0 and not is_acknowledged),
                        f"{history} has {count} records")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("host")
    parser.add_argument("query")
    parser.add_argument("--minutes", type=float)
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(2**32))
    options = parser.parse_args()
    print(f"seed {options.seed}", flush=True)
    seconds = options.minutes * 60 if options.minutes else SHORT_SECONDS
    tally = Tally()
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        server = Server(options.host, write_history(folder / "tv.csv"))
        deadline = time.monotonic() + BOUND
        while server.acknowledged() != RECORDS and time.monotonic() < deadline:
            time.sleep(0.05)
        time.sleep(2.5)  # the host learns new records at its next tick
        tally.count("import of the server", server.acknowledged() == RECORDS, "".join(server.lines))
        load = Load(server, options.query, options.host, folder, tally, options.seed)
        time.sleep(seconds * WARM_UP_SHARE)
        baseline = check_usage(tally, server, load, None)
        looks = max(2, int(seconds / 60))
        for _ in range(looks):
            time.sleep(seconds * (1 - WARM_UP_SHARE) / looks)
            check_usage(tally, server, load, baseline)
        load.stop()
        server.process.terminate()
        status = server.process.wait(BOUND)
        tally.count("end", status == 0, f"status {status}")
        check_records(tally, load)
    return tally.end()


if __name__ == "__main__":
    sys.exit(main())
