#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Ranks and evaluates histories, and compares the results with plain counting.

  ranking_test.py ROOT CONTEXT_HOST CONTEXT_QUERY
"""
import collections
import csv
import datetime
import json
import pathlib
import sys
import zoneinfo

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from host_case import HEADER, HISTORIES, HostCase, constant, main  # noqa: E402

MAX_LEARNT_SECONDS = int(constant("Provider/CuratorUnit.h", "kMaxLearntSeconds"))


class RankingTest(HostCase):
    def test_ranks_a_real_history_by_total_use(self):
        totals = collections.Counter()
        with open(HISTORIES / "music_d.csv", encoding="utf-8", newline="") as file:
            for row in csv.DictReader(file):
                if int(row["duration"]) >= 30:
                    totals[row["unit_id"]] += int(row["duration"])
        ranking = self.rank("--min-duration", 30, "--max", 25, HISTORIES / "music_d.csv")
        self.assertEqual(ranking, [(unit, float(total)) for unit, total in totals.most_common(25)])

    def test_ranks_by_the_latest_record(self):
        path = self.write("a.csv", HEADER + "x,X,d,100,5\ny,Y,d,300,5\nx,X,d,200,5\nz,Z,d,300,5\n")
        self.assertEqual(self.rank("--agent", "mru", path), [("y", 300.0), ("z", 300.0), ("x", 200.0)])

    def test_learns_by_start_time_then_by_arrival(self):
        path = self.write("a.csv", HEADER + "late,,d,9,1\nfirst,,d,5,1\nsecond,,d,5,1\n")
        self.assertEqual([unit for unit, _ in self.rank(path)], ["first", "second", "late"])

    def test_ranks_each_hour_of_the_week_in_local_time(self):
        path = self.write("a.csv", HEADER + "x,X,d,1709560800,600\n")  # Monday 2024-03-04 14:00 UTC
        grid = json.loads(self.run_host("--weekly", "--json", path, zone="Asia/Kolkata").stdout)
        self.assertEqual(grid["Size"], 7)
        scores = {(day, hour): grid[day][0][hour][0]["list"][0]["Score"] for day in grid if day != "Size"
                  for hour in grid[day][0]}
        self.assertEqual(len(scores), 168)
        self.assertEqual(max(scores, key=scores.get), ("Mon", "19"))
        self.assertAlmostEqual(scores["Mon", "19"], 600 * (0.1 + 1 + 6 + 11))
        self.assertAlmostEqual(scores["Tue", "19"], 600 * (0.1 + 1))

    def test_ranks_the_stored_records_without_a_file(self):
        self.assertEqual(self.rank(), [])
        self.rank(self.write("a.csv", HEADER + "x,X,d,100,5\n"))
        self.assertEqual(self.rank(), [("x", 5.0)])
        self.assertEqual(self.rank("--database", "other.db"), [])

    def predicted(self, name, zone):
        """Evaluates the three rankings by plain counting and sorting."""
        with open(HISTORIES / name, encoding="utf-8", newline="") as file:
            records = [(row["unit_id"], int(row["start_time"]), int(row["duration"])) for row in csv.DictReader(file)]
        zone = zoneinfo.ZoneInfo(zone)
        last, total, pattern = {}, collections.Counter(), collections.Counter()
        found = [[0, 0, 0, 0.0] for _ in range(3)]
        tries = len(records) // 5
        for index, (unit, start, duration) in enumerate(records):
            local = datetime.datetime.fromtimestamp(start, zone)
            day, hour = local.isoweekday() % 7, local.hour
            if index >= len(records) - tries:
                scores = [last, total, {
                    known: 0.1 * total[known] + pattern[known, hour] + 6 * pattern[known, "day", day]
                    + 11 * pattern[known, day, hour] for known in last}]
                for result, score in zip(found, scores):
                    if unit in last:
                        place = sorted(last, key=lambda known: -score[known]).index(unit) + 1
                        for column, limit in enumerate((1, 3, 5)):
                            result[column] += place <= limit
                        result[3] += 1 / place
            last[unit] = start
            left, moment = min(duration, MAX_LEARNT_SECONDS), start
            total[unit] += duration
            while left > 0:
                local = datetime.datetime.fromtimestamp(moment, zone)
                piece = min(left, 3600 - local.minute * 60 - local.second)
                day, hour = local.isoweekday() % 7, local.hour
                for key in ((unit, hour), (unit, "day", day), (unit, day, hour)):
                    pattern[key] += piece
                left -= piece
                moment += piece
        return tries, [[f"{100 * hits / tries:.1f}" for hits in row[:3]] + [f"{row[3] / tries:.3f}"] for row in found]

    def test_evaluates_how_often_the_next_use_was_predicted(self):
        tries, expected = self.predicted("tv_a.csv", "America/Sao_Paulo")
        text = self.run_host("--evaluate", HISTORIES / "tv_a.csv", zone="America/Sao_Paulo").stdout
        self.assertIn(f"{tries} uses, the last fifth of 2121 records", text)
        rows = [line.replace("%", "").split() for line in text.splitlines()]
        self.assertEqual([row[-4:] for row in rows if row[:1] in (["recency"], ["total"], ["week"])], expected)
        bandits = {row[0]: [float(column) for column in row[-4:]] for row in rows[9:] if row}
        self.assertEqual(list(bandits), ["epsilon-greedy", "softmax", "most", "Thompson", "Kalman"])
        best = [max(float(row[column]) for row in expected) for column in range(4)]
        for row in bandits.values():
            self.assertTrue(all(0 < column <= limit for column, limit in zip(row, best)), row)

    def test_evaluates_nothing_with_too_few_records(self):
        self.assertIn("Nothing to predict", self.run_host("--evaluate").stdout)


if __name__ == "__main__":
    main()
