#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Computes the expected sums and rankings of the curation engine for the real histories.

    tests/data/vectors/rankings.py            rewrites the .rankings and .sums files next to this script
    tests/data/vectors/rankings.py --check    compares the files with what it would write

The script shares no code with the library: local hours come from zoneinfo, sums are integers, rankings are sorted
lists. Only the cap on a usage is read from the library's header. Scores are written so that they read back exactly.

For each history NAME it writes two files of words separated by white space.

NAME.sums holds what the date type accumulates from all records, one line per unit in order of first appearance; sums
of 0 are omitted:

    UNIT total SECONDS hour HOUR:SECONDS ... day DAY:SECONDS ... week DAY.HOUR:SECONDS ...

NAME.rankings holds "zone" and the zone, and then, for minimum durations of 0 s and of 30 s, the rankings and one cell
for each hour of the week:

    ranking TYPE MIN-DURATION MAX-RESULT NOW COUNT     followed by COUNT lines UNIT SCORE
    cell MIN-DURATION MAX-RESULT DAY HOUR COUNT UNIT SCORE ...

TYPE is mru, mfu or date. NOW is the time of the request, or 0 for types that ignore it.
"""
import csv
import datetime
import heapq
import pathlib
import re
import sys
import zoneinfo

TESTS = pathlib.Path(__file__).resolve().parents[2]
HISTORIES = TESTS / "data" / "histories"
VECTORS = TESTS / "data" / "vectors"

ZONES = {"tv_a": "America/Sao_Paulo", "music_d": "Europe/Copenhagen"}
MOMENTS = ["2022-05-01 00:30", "2022-05-02 08:00", "2022-05-06 21:15", "2022-05-07 14:59"]  # local
MIN_DURATIONS = [0, 30]
MAX_RESULT = 300
MAX_CELL_RESULT = 10

UNIT_HEADER = TESTS.parent / "include" / "Provider" / "CuratorUnit.h"
MAX_LEARNT_SECONDS = int(re.search(r"kMaxLearntSeconds = (\d+);", UNIT_HEADER.read_text(encoding="utf-8"))[1])
WEIGHT_TOTAL, WEIGHT_HOUR, WEIGHT_DAY, WEIGHT_WEEK = 0.1, 1.0, 6.0, 11.0


def hour_of_week(local):
    return local.isoweekday() % 7, local.hour  # Sunday is 0


def pieces(start, duration, zone):
    """Yields (day, hour, seconds) for each piece of a usage, split at full hours of local time."""
    end = start + min(duration, MAX_LEARNT_SECONDS)
    while start < end:
        local = datetime.datetime.fromtimestamp(start, zone)
        full_hour = start + 3600 - local.minute * 60 - local.second
        # These zones change their clocks only at full hours.
        assert datetime.datetime.fromtimestamp(full_hour - 1, zone).utcoffset() == local.utcoffset()
        piece_end = min(end, full_hour)
        yield *hour_of_week(local), piece_end - start
        start = piece_end


class Unit:
    def __init__(self):
        self.last_start = 0
        self.seconds = 0
        self.total = 0
        self.hour = [0] * 24
        self.day = [0] * 7
        self.week = [[0] * 24 for _ in range(7)]

    def learn(self, start, duration, zone):
        self.last_start = start % 2**32
        self.seconds += duration
        for day, hour, seconds in pieces(start, duration, zone):
            self.total += seconds
            self.hour[hour] += seconds
            self.day[day] += seconds
            self.week[day][hour] += seconds

    def date_score(self, day, hour):
        score = float(self.total) * WEIGHT_TOTAL + 0.0
        score += float(self.hour[hour]) * WEIGHT_HOUR
        score += float(self.day[day]) * WEIGHT_DAY
        score += float(self.week[day][hour]) * WEIGHT_WEEK
        return score


def learn(history, min_duration, zone):
    units = {}
    for unit_id, start, duration in history:
        if duration >= min_duration:
            units.setdefault(unit_id, Unit()).learn(start, duration, zone)
    return units


def rank(units, score, max_result):
    ranking = ((unit_id, float(score(unit))) for unit_id, unit in units.items())
    return heapq.nlargest(max_result, ranking, key=lambda entry: entry[1])  # stable for equal scores


def sums_lines(units):
    def some(sums):
        return [f"{key}:{seconds}" for key, seconds in sums if seconds]

    for unit_id, unit in units.items():
        week = [(f"{day}.{hour}", unit.week[day][hour]) for day in range(7) for hour in range(24)]
        yield " ".join([unit_id, "total", str(unit.total), "hour", *some(enumerate(unit.hour)),
                        "day", *some(enumerate(unit.day)), "week", *some(week)])


def rankings_lines(history, zone):
    yield f"zone {zone.key}"
    for min_duration in MIN_DURATIONS:
        units = learn(history, min_duration, zone)
        requests = [("mru", 0, lambda unit: unit.last_start), ("mfu", 0, lambda unit: unit.seconds)]
        for moment in MOMENTS:
            local = datetime.datetime.fromisoformat(moment).replace(tzinfo=zone)
            day, hour = hour_of_week(local)
            requests.append(("date", int(local.timestamp()),
                             lambda unit, day=day, hour=hour: unit.date_score(day, hour)))
        for kind, now, score in requests:
            ranking = rank(units, score, MAX_RESULT)
            yield f"ranking {kind} {min_duration} {MAX_RESULT} {now} {len(ranking)}"
            yield from (f"{unit_id} {score!r}" for unit_id, score in ranking)
        for day in range(7):
            for hour in range(24):
                ranking = rank(units, lambda unit, day=day, hour=hour: unit.date_score(day, hour), MAX_CELL_RESULT)
                yield " ".join([f"cell {min_duration} {MAX_CELL_RESULT} {day} {hour} {len(ranking)}",
                                *(f"{unit_id} {score!r}" for unit_id, score in ranking)])


def files():
    for name, zone_name in ZONES.items():
        zone = zoneinfo.ZoneInfo(zone_name)
        with open(HISTORIES / f"{name}.csv", encoding="utf-8", newline="") as rows:
            history = [(row["unit_id"], int(row["start_time"]), int(row["duration"])) for row in csv.DictReader(rows)]
        sums = sums_lines(learn(history, 0, zone))
        for suffix, lines in (("sums", sums), ("rankings", rankings_lines(history, zone))):
            yield VECTORS / f"{name}.{suffix}", "".join(line + "\n" for line in lines)


def main(arguments):
    if arguments not in ([], ["--check"]):
        sys.exit(__doc__)
    stale = []
    for path, text in files():
        if not arguments:
            path.parent.mkdir(exist_ok=True)
            path.write_text(text, encoding="utf-8", newline="\n")
        elif not path.is_file() or path.read_bytes() != text.encode():
            stale.append(path.name)
    if stale:
        sys.exit(f"{', '.join(stale)}: not what tests/data/vectors/rankings.py writes")


if __name__ == "__main__":
    main(sys.argv[1:])
