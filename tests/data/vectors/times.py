#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the time vectors that ContextStringTimeTest reads. Local times come from Python's zoneinfo.

    tests/data/vectors/times.py           rewrites tests/data/vectors/time-*.tsv
    tests/data/vectors/times.py --check   compares the files with what it would write

Needs Python 3.10 and the system's zone files. Nothing is random: every run writes the same bytes.

time-texts.tsv: a zone (the value of TZ), seconds since the epoch, their compact form and their display form.

time-parses.tsv: a zone, the current time, a text in the compact form, and the results of parsing it:
  looked_up   seconds, with the daylight-saving flag looked up for the date; "a|b" if the local time is ambiguous;
              "-" if the text is not a time
  cut         seconds, with the daylight-saving flag of the current time
  unadjusted  like `cut`, with the year counted from 1900 and the month from 0; "-" if the result is not certain
  digits      the compact form of `cut` as a number
A text without a certain result for `cut` has no row.
"""

import argparse
import io
import pathlib
import struct
import sys
from datetime import datetime, timedelta, timezone
from zoneinfo import ZoneInfo

FOLDER = pathlib.Path(__file__).resolve().parent
EPOCH = datetime(1970, 1, 1)

# Rules are valid for every year. The past of named zones differs between releases of the zone files, so only
# well-established times are used.
RULES = [
    "UTC0",
    "JST-9",
    "<+0545>-5:45",
    "NST3:30NDT,M3.2.0,M11.1.0",
    "EST5EDT,M3.2.0,M11.1.0",
    "CET-1CEST,M3.5.0,M10.5.0/3",
    "AEST-10AEDT,M10.1.0,M4.1.0/3",
    "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0",
]
NAMES = [
    "America/New_York",
    "America/Sao_Paulo",
    "Asia/Kolkata",
    "Asia/Seoul",
    "Australia/Lord_Howe",
    "Europe/Paris",
    "Pacific/Apia",
]

# Not valid times, but the parser by position accepts them.
ODD_TEXTS = [
    "20240231000000",  # carries over into March
    "20230229120000",
    "20241301000000",  # into the next year
    "20240001000000",  # into the previous year
    "20240300000000",
    "20240305246060",
    "20240305140799",
    "202403051407",  # no seconds
    "2024030514070",  # one digit of the seconds
    "20240305140709123",
    "2024 3 5 1 2 3",
    "2024-1-1-1-1-1",
    "2024+3+5+1+2+3",
    "2024ab05140709",
    "20240x051x0709",
    "20240305140709zz",
]


def zone_of_rule(rule):
    """Returns the zone of a TZ rule: a zone file without transitions, with the rule as its footer."""
    header = struct.pack(">4sc15x6l", b"TZif", b"3", 0, 0, 0, 0, 1, 1)
    block = header + struct.pack(">lbb", 0, 0, 0) + b"\0"
    return ZoneInfo.from_file(io.BytesIO(block + block + b"\n" + rule.encode() + b"\n"), key=rule)


def seconds_of(local, offset):
    return int((local - EPOCH - offset).total_seconds())


def local_of(zone, seconds):
    return (EPOCH + timedelta(seconds=seconds)).replace(tzinfo=timezone.utc).astimezone(zone)


def compact(time):
    return f"{time.year}{time.month:02}{time.day:02}{time.hour:02}{time.minute:02}{time.second:02}"


def display(time):
    date = f"{time.year}-{time.month:02}-{time.day:02} {time.hour:02}:{time.minute:02}:{time.second:02}"
    minutes = int(time.utcoffset().total_seconds()) // 60
    sign = "-" if minutes < 0 else "+"
    return f"{date}{sign}{abs(minutes) // 60:02}{abs(minutes) % 60:02}"


def changes(zone, first, last):
    """Returns the seconds at which the offset changes, between two moments."""
    found = []
    day = 86400
    for start in range(first, last, day):
        if local_of(zone, start).utcoffset() != local_of(zone, start + day).utcoffset():
            low, high = start, start + day
            while high - low > 1:
                middle = (low + high) // 2
                if local_of(zone, middle).utcoffset() == local_of(zone, start).utcoffset():
                    low = middle
                else:
                    high = middle
            found.append(high)
    return found


def looked_up(zone, local):
    readings = {seconds_of(local, local.replace(tzinfo=zone, fold=fold).utcoffset()) for fold in (0, 1)}
    return "|".join(str(reading) for reading in sorted(readings))


def flagged(zone, local, is_saving):
    """Returns the seconds of a local time with a given daylight-saving flag, or None if they are not certain."""
    fits = set()
    for fold in (0, 1):
        time = local.replace(tzinfo=zone, fold=fold)
        if bool(time.dst()) == is_saving:
            fits.add(time.utcoffset())
    if not fits:
        for direction in (-1, 1):
            for week in range(1, 8 * 52):
                time = (local + timedelta(weeks=direction * week)).replace(tzinfo=zone)
                if bool(time.dst()) == is_saving:
                    fits.add(time.utcoffset())
                    break
    return seconds_of(local, fits.pop()) if len(fits) == 1 else None


def number(piece):
    """Parses a piece as `strtol` does in base 10."""
    piece = piece.lstrip(" ")
    sign = piece[:1] if piece[:1] in ("+", "-") else ""
    digits = ""
    for character in piece[len(sign):]:
        if not character.isdigit():
            break
        digits += character
    return int(sign + digits) if digits else 0


def fields(text):
    return [number(text[start:end]) for start, end in ((0, 4), (4, 6), (6, 8), (8, 10), (10, 12), (12, 14))]


def carried(year, month, day, hour, minute, second):
    year, month = year + (month - 1) // 12, (month - 1) % 12 + 1
    return datetime(year, month, 1) + timedelta(days=day - 1, hours=hour, minutes=minute, seconds=second)


def well_formed(text):
    try:
        datetime.strptime(text, "%Y%m%d%H%M%S")
    except ValueError:
        return False
    return len(text) == 14


def spread(first, last, count):
    """Yields moments spread over a range, the same in every run."""
    state = 12345
    for _ in range(count):
        state = (state * 6364136223846793005 + 1442695040888963407) % 2**64
        yield first + (state >> 33) % (last - first)


def text_rows(name, zone, first, last):
    moments = [0, *spread(first, last, 20)]
    for change in changes(zone, 1704067200, 1735689600):  # 2024
        moments += [change - 1, change]
    for seconds in moments:
        time = local_of(zone, seconds)
        yield [name, seconds, compact(time), display(time)]


def parse_rows(name, zone, first, last):
    this_year = changes(zone, 1704067200, 1735689600)
    texts = [compact(local_of(zone, seconds)) for seconds in spread(first, last, 12)] + ODD_TEXTS
    moments = [] if this_year else [1705312800]
    for change in this_year:
        moments += [change - 1, change]
        around = local_of(zone, change - 1).replace(tzinfo=None, minute=30, second=0)
        texts += [compact(around + timedelta(hours=hours)) for hours in (-1, 0, 1, 2)]
    for text in texts:
        local = carried(*fields(text))
        year, month, *rest = fields(text)
        shifted = carried(year + 1900, month + 1, *rest)
        for now in moments:
            is_saving = bool(local_of(zone, now).dst())
            cut = flagged(zone, local, is_saving)
            if cut is None:
                continue
            unadjusted = flagged(zone, shifted, is_saving)
            yield [
                name,
                now,
                text,
                looked_up(zone, local) if well_formed(text) else "-",
                cut,
                "-" if unadjusted is None else unadjusted,
                compact(local_of(zone, cut)),
            ]


def table(columns, make_rows):
    lines = ["\t".join(columns)]
    for rule in RULES:
        # A rule without daylight saving also applies before the epoch.
        first = 0 if "," in rule else -2000000000
        lines += ["\t".join(map(str, row)) for row in make_rows(rule, zone_of_rule(rule), first, 4000000000)]
    for name in NAMES:
        lines += ["\t".join(map(str, row)) for row in make_rows(name, ZoneInfo(name), 100000000, 1735689600)]
    return "\n".join(lines) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--check", action="store_true", help="compare, write nothing")
    check = parser.parse_args().check
    tables = {
        "time-texts.tsv": table(["zone", "seconds", "compact", "display"], text_rows),
        "time-parses.tsv": table(["zone", "now", "text", "looked_up", "cut", "unadjusted", "digits"], parse_rows),
    }
    status = 0
    for name, made in tables.items():
        path = FOLDER / name
        if not check:
            FOLDER.mkdir(parents=True, exist_ok=True)
            path.write_text(made, encoding="utf-8", newline="\n")
            continue
        kept = path.read_text(encoding="utf-8")
        if kept == made:
            continue
        status = 1
        pairs = zip(kept.splitlines() + ["(end)"], made.splitlines() + ["(end)"])
        number_of_line, (old, new) = next((n, pair) for n, pair in enumerate(pairs, 1) if pair[0] != pair[1])
        print(f"{name}:{number_of_line}: committed: {old}\n{name}:{number_of_line}: made now:  {new}", file=sys.stderr)
    return status


if __name__ == "__main__":
    sys.exit(main())
