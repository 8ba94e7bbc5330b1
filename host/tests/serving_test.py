#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Serves rankings on a port, to context-query and to hostile clients.

  serving_test.py ROOT CONTEXT_HOST CONTEXT_QUERY
"""
import json
import os
import pathlib
import re
import resource
import select
import signal
import socket
import sqlite3
import struct
import subprocess
import sys
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from host_case import BOUND, HEADER, HISTORIES, PROGRAM, QUERY, HostCase, constant, main  # noqa: E402


def frame(text):
    return struct.pack(">i", len(text) + 1) + text.encode() + b"\0"


class ServingTest(HostCase):
    def test_answers_requests_with_json(self):
        path = self.write("a.csv", HEADER + "x,X,tv,100,5\ny,Y,,300,7\nz,Z,,200,6\n")
        with self.served(path) as (port, _):
            self.wait_for(port, ["rank", "mfu", "1"], {"Size": 1, "list": [{"Id": "y", "Score": 7.0}]})
            self.assertEqual([item["Id"] for item in self.ask(port, "rank", "mru")["list"]], ["y", "z", "x"])
            self.assertEqual([item["Id"] for item in self.ask(port, "rank", "mru", "2")["list"]], ["y", "z"])
            self.assertEqual(self.ask(port, "rank", "date", "0"), {"Size": 0})
            self.assertEqual(len(self.ask(port, "rank", "date")["list"]), 3)
            self.assertEqual(self.ask(port, "weekly")["Size"], 7)
            self.assertEqual(self.ask(port, "quit"), {"bye": True})
            for request in (["rank"], ["rank", "best"], ["rank", "mru", "-1"], ["rank", "mru", "1x"],
                            ["rank", "mru", "-0"], ["rank", "mru", "1", "2"], ["weekly", "now"], ["nonsense"]):
                with self.subTest(request):
                    self.assertIn("rank mru|mfu|date [N]", self.ask(port, *request, status=3)["error"])
            with open("/dev/full", "wb") as full:
                self.assertEqual(subprocess.run([QUERY, str(port), "rank", "mru"], stdout=full, timeout=BOUND,
                                                stderr=subprocess.DEVNULL).returncode, 8)
        self.assertIn("no answer", self.ask(port, "rank", "mru", status=1))

    def test_query_reports_a_wrong_command_line(self):
        for arguments in ([], ["7300"], ["many", "rank"], ["0", "rank"], ["65536", "rank"], ["73x", "rank"],
                          ["--no", "1"], ["+80", "rank"], [" 80", "rank"], ["0x50", "rank"],
                          ["--timeout", "0", "80", "rank"], ["--timeout", "1s", "80", "rank"], ["--timeout", "5"]):
            with self.subTest(arguments):
                result = subprocess.run([QUERY, *arguments], capture_output=True, encoding="utf-8", timeout=BOUND)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertIn("--help", result.stderr)
                self.assertEqual(result.stderr.count("\n"), 1)

    def test_refuses_answers_longer_than_one_reply(self):
        longest = int(constant("NetUtil.h", "kMaxReplySize")) - len('{"Size":1,"list":[{"Id":"","Score":500.0}]}\n') - 1
        path = self.write("a.csv", HEADER + f"{'f' * longest},,,500,1\n{'t' * (longest + 1)},,,100,500\n")
        with self.served(path, "--max", 1) as (port, _):
            self.wait_for_refusal(port, "rank", "mfu")  # both records are learnt then
            self.assertEqual(self.ask(port, "rank", "mru"), {"Size": 1, "list": [{"Id": "f" * longest, "Score": 500.0}]})
            self.assertIn("lower --max", self.ask(port, "rank", "mfu", status=3)["error"])

    def wait_for_refusal(self, port, *request):
        deadline = time.monotonic() + BOUND
        while subprocess.run([QUERY, str(port), *request], stdout=subprocess.DEVNULL, timeout=BOUND).returncode != 3:
            self.assertLess(time.monotonic(), deadline, "the request was never refused")
            time.sleep(0.05)

    def test_learns_records_added_while_serving(self):
        with self.served(HISTORIES / "tv_a.csv") as (port, _):
            self.wait_for(port, ["rank", "mru", "1"],
                          {"Size": 1, "list": [{"Id": "show-950df24a", "MetaDataSrc": "Edge OSS - Windows (Cadmium)",
                                                "Score": 1705427569.0}]})

    def test_survives_hostile_and_incomplete_requests(self):
        path = self.write("a.csv", HEADER + "x,X,tv,100,5\n")
        with self.served(path) as (port, process):
            hostile = {
                "nothing at all": b"",
                "half a header": b"\0\0",
                "half a text": b"\0\0\0\x09rank",
                "a negative length": struct.pack(">i", -1),
                "a huge length": struct.pack(">i", 2**31 - 1) + b"x" * 1000,
                "no text": struct.pack(">i", 0),
                "no terminator": struct.pack(">i", 4) + b"rank",
                "bytes": struct.pack(">i", 200) + bytes(range(200)),
            }
            for name, sent in hostile.items():
                with self.subTest(name):
                    with socket.create_connection(("127.0.0.1", port), timeout=BOUND) as client:
                        client.sendall(sent)
                    self.wait_for(port, ["rank", "mfu"],
                                  {"Size": 1, "list": [{"Id": "x", "MetaDataSrc": "tv", "Score": 5.0}]})
            self.assertIsNone(process.poll())

    def connect(self, port):
        client = socket.create_connection(("127.0.0.1", port), timeout=BOUND)
        self.addCleanup(client.close)
        return client

    def receive(self, client):
        """The answer in the next frame."""
        with client.makefile("rb") as stream:
            size, = struct.unpack(">i", stream.read(4))
            text = stream.read(size)
        self.assertEqual(text[-1:], b"\0")
        return json.loads(text[:-1])

    def test_silent_clients_delay_nobody(self):
        with self.served(self.write("a.csv", HEADER + "x,X,,100,5\n")) as (port, _):
            self.wait_for(port, ["rank", "mfu"], {"Size": 1, "list": [{"Id": "x", "Score": 5.0}]})
            silent = [self.connect(port) for _ in range(30)]
            for index, client in enumerate(silent):
                client.sendall(frame("rank mfu")[:index % 13])
            self.assertEqual(self.ask(port, "rank", "mfu")["Size"], 1)
            for client in silent:
                client.setblocking(False)
                with self.assertRaises(BlockingIOError, msg="answered only after a silent client was disconnected"):
                    client.recv(1)
            for client in silent:
                client.settimeout(BOUND)
                self.assertEqual(client.recv(1), b"", "a silent client was not disconnected")

    def test_answers_when_more_clients_are_silent_than_served(self):
        with self.served() as (port, _):
            silent = [self.connect(port) for _ in range(100)]
            self.assertEqual(self.ask(port, "rank", "mfu"), {"Size": 0})
            self.assertEqual(silent[0].recv(1), b"")

    def test_answers_requests_that_arrive_in_pieces_or_at_once(self):
        with self.served(self.write("a.csv", HEADER + "x,X,,100,5\ny,Y,,200,4\n")) as (port, _):
            self.wait_for(port, ["rank", "mfu", "1"], {"Size": 1, "list": [{"Id": "x", "Score": 5.0}]})
            client = self.connect(port)
            for byte in frame("rank mru 1"):
                client.sendall(bytes([byte]))
            self.assertEqual(self.receive(client)["list"][0]["Id"], "y")
            client.sendall(frame("rank mfu 1") + frame("nonsense") + struct.pack(">i", 0) + frame("quit"))
            with client.makefile("rb") as stream:
                answers = []
                while header := stream.read(4):
                    answers.append(json.loads(stream.read(struct.unpack(">i", header)[0])[:-1]))
            self.assertEqual([list(answer) for answer in answers], [["Size", "list"], ["error"], ["error"], ["bye"]])

    def test_clients_that_read_no_answer_delay_nobody(self):
        path = self.write("a.csv", HEADER + f"{'x' * 150000},X,,100,5\n")
        with self.served(path) as (port, _):
            deadline = time.monotonic() + BOUND
            while self.ask(port, "rank", "mfu") == {"Size": 0}:
                self.assertLess(time.monotonic(), deadline)
            greedy = [self.connect(port) for _ in range(10)]
            for client in greedy:
                client.sendall(frame("rank mfu") * 200)
            self.assertEqual(self.ask(port, "rank", "mru", "0"), {"Size": 0})
            for client in greedy:
                self.assertTrue(self.has_hung_up(client), "a client that reads nothing was not disconnected")

    def has_hung_up(self, client):
        """Waits, without reading, until the server has disconnected a client."""
        events = select.poll()
        events.register(client, select.POLLRDHUP)
        return bool(events.poll(BOUND * 1000))

    def test_serves_with_few_descriptors(self):
        command = self.with_store("sh", "-c", 'ulimit -n 14 && exec "$0" --serve 0', PROGRAM)
        process = subprocess.Popen(command, stderr=subprocess.PIPE, encoding="utf-8", start_new_session=True)
        try:
            port = int(re.search(r"serving at port (\d+)", process.stderr.readline())[1])
            silent = [self.connect(port) for _ in range(12)]
            self.assertEqual(self.ask(port, "rank", "mfu"), {"Size": 0})
            self.assertEqual(silent[0].recv(1), b"")
        finally:
            os.killpg(process.pid, signal.SIGTERM)
            process.communicate(timeout=BOUND)

    def test_serves_again_after_memory_ran_out(self):
        self.need_plain_program()
        path = self.write("a.csv", HEADER + f"{'x' * 150000},X,,100,5\n")
        # The large texts of an answer are never taken from memory that was freed before.
        os.environ["GLIBC_TUNABLES"] = ("glibc.malloc.arena_max=1:glibc.malloc.mmap_threshold=65536:"
                                        "glibc.malloc.trim_threshold=4096:glibc.malloc.top_pad=0")
        self.addCleanup(os.environ.pop, "GLIBC_TUNABLES")
        with self.served(path) as (port, process):
            answer = {"Size": 1, "list": [{"Id": "x" * 150000, "Score": 5.0}]}
            self.wait_for(port, ["rank", "mfu"], answer)
            host = int(pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text())
            limits = resource.prlimit(host, resource.RLIMIT_AS)
            resource.prlimit(host, resource.RLIMIT_AS, (1, limits[1]))
            self.assertIn("no answer", self.ask(port, "rank", "mfu", status=1))
            self.assertIn("use: ", self.ask(port, "nonsense", status=3)["error"])
            resource.prlimit(host, resource.RLIMIT_AS, limits)
            self.assertEqual(self.ask(port, "rank", "mfu"), answer)

    def test_learns_records_that_another_program_replaced(self):
        with self.served(self.write("a.csv", HEADER + "x,X,,100,5\n")) as (port, _):
            self.wait_for(port, ["rank", "mfu"], {"Size": 1, "list": [{"Id": "x", "Score": 5.0}]})
            with sqlite3.connect(self.store / "usage.db") as connection:
                connection.execute("UPDATE usage SET unit_id = 'z', duration = 7")
            connection.close()
            self.wait_for(port, ["rank", "mfu"], {"Size": 1, "list": [{"Id": "z", "Score": 7.0}]})

    # context-query.

    def query(self, *arguments):
        result = subprocess.run([QUERY, *map(str, arguments)], capture_output=True, encoding="utf-8", timeout=BOUND)
        self.assertEqual((result.returncode, result.stdout, result.stderr.count("\n")), (1, "", 1), result.stderr)
        return result.stderr

    def test_query_ends_when_its_time_is_over(self):
        with socket.create_server(("127.0.0.1", 0), backlog=0) as server:
            port = server.getsockname()[1]
            begun = time.monotonic()
            self.assertIn("no answer in time; --timeout", self.query("--timeout", 1, port, "rank", "mru"))
            self.assertGreaterEqual(time.monotonic() - begun, 1)
            # The connection that the query has left fills the backlog: now connecting blocks.
            self.assertIn("no answer in time", self.query("-t", 1, port, "rank", "mru"))

    def test_query_reports_an_answer_that_is_no_json(self):
        for text in ("[" * 1100 + "]" * 1100, '{"a":' * 1100 + "1" + "}" * 1100, "\x1b[31mred", "{"):
            with self.subTest(text[:10]), socket.create_server(("127.0.0.1", 0)) as server:
                def answer():
                    client = server.accept()[0]
                    with client:
                        client.recv(100)
                        client.sendall(frame(text))
                thread = threading.Thread(target=answer)
                thread.start()
                self.assertIn("is not JSON text, or is nested too deeply",
                              self.query(server.getsockname()[1], "rank", "mru"))
                thread.join()

    def test_query_reports_that_it_has_too_little_memory(self):
        self.need_plain_program()
        with self.served(self.write("a.csv", HEADER + "x,X,,100,5\n")) as (port, _):
            self.wait_for(port, ["rank", "mfu"], {"Size": 1, "list": [{"Id": "x", "Score": 5.0}]})

            def ask_with(limit):  # in kB of address space
                result = subprocess.run(["sh", "-c", 'ulimit -v "$1" && exec "$0" "$2" rank mfu', QUERY, str(limit),
                                         str(port)], capture_output=True, encoding="utf-8", timeout=BOUND)
                return result.returncode, result.stderr

            limit = 60000
            while ask_with(limit) == (0, ""):
                limit -= 1000
            # Of all that the program needs, the buffer for the answer, of 200 kB, is the last and the largest.
            self.assertIn((1, "context-query: failed: std::bad_alloc\n"),
                          [ask_with(limit + more) for more in range(0, 1000, 50)])

    def test_reports_a_port_in_use(self):
        with socket.create_server(("0.0.0.0", 0)) as taken:
            result = self.run_host("--serve", taken.getsockname()[1], status=6)
            self.assertIn(f"cannot open port {taken.getsockname()[1]}: it is in use", result.stderr)

    def test_ends_when_terminated(self):
        with self.served("--track-memory") as (port, process):
            self.assertIn("error", self.ask(port, "nonsense", status=3))
            os.killpg(process.pid, signal.SIGTERM)
            process.wait(timeout=BOUND)
        self.assertIn("the host's own buffers: 0 blocks in use, 0 bytes; at most 256 bytes at once", self.rest)


if __name__ == "__main__":
    main()
