#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Opens the page in a browser, and compares its contents with the output of context-host.

  page_test.py ROOT CONTEXT_HOST CHROMEDRIVER CHROMIUM
"""
import concurrent.futures
import functools
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from browser import Browser  # noqa: E402

ROOT, PROGRAM, DRIVER, BROWSER = sys.argv[1:5]
HISTORIES = pathlib.Path(ROOT) / "tests/data/histories"
HEADER = "unit_id,unit_name,device_name,start_time,duration\n"
ZONE = "America/Sao_Paulo"
BOUND = 20
DAYS = ["Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"]
LONG_DAYS = ["Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"]
HOSTILE = [
    "</script><script>document.title = 'harm'</script>",
    "<img src=x onerror=\"document.title='harm'\">",
    "<!-- <script>",
    "]]> & &lt;b&gt; ' \" ` \\ \\u003c ${1} @WEEK@",
    "line\u2028and\u2029paragraph",
    "bell\x07escape\x1b[31m return\r\nend\x7f\x85",
    "abc\u202edef",
    "日本語 עברית 🎬",
]
CELL = '#grid td[data-day="{}"][data-hour="{}"]'

# The contrast between each text and its background, by the formula of WCAG 2.
CONTRASTS = """
const channel = value => (value /= 255) <= 0.04045 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4;
const luminance = ([r, g, b]) => 0.2126 * channel(r) + 0.7152 * channel(g) + 0.0722 * channel(b);
const colour = text => text.match(/[\\d.]+/g).map(Number);
const background = element => {
  const found = colour(getComputedStyle(element).backgroundColor);
  return found[3] === 0 && element.parentElement ? background(element.parentElement) : found;
};
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
const poor = [];
let count = 0;
for (let node; (node = walker.nextNode());) {
  const element = node.parentElement;
  if (!node.data.trim() || !element.checkVisibility({visibilityProperty: true})) continue;
  ++count;
  const [a, b] = [luminance(colour(getComputedStyle(element).color)), luminance(background(element))];
  const contrast = (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
  if (contrast < 4.5) poor.push([node.data, contrast]);
}
return [count, poor];
"""
CELLS = """
return [...document.querySelectorAll('#grid td[data-day]')].map(cell => ({
  day: Number(cell.dataset.day), hour: Number(cell.dataset.hour), letter: cell.textContent,
  colour: getComputedStyle(cell).backgroundColor, label: cell.ariaLabel, tab: cell.tabIndex,
  box: (({left, top, width, height}) => [left, top, width, height])(cell.getBoundingClientRect())}));
"""


def shown(name):
    """A name as the page shows it."""
    return re.sub("[\0-\x1f\x7f-\x9f\u2028\u2029\u202a-\u202e\u2066-\u2069]", "\ufffd", name)


class Store:
    """A new store, and the page that the host makes from it."""

    def __init__(self, folder, name, *files, zone=ZONE):
        self._store, self._zone, self.page = folder / name, zone, folder / (name + ".html")
        self.run("--page", self.page, *files)

    @functools.lru_cache
    def run(self, *arguments):
        return subprocess.run([f"{ROOT}/scripts/with-data-directory", str(self._store), PROGRAM, *map(str, arguments)],
                              check=True, capture_output=True, timeout=BOUND, stdin=subprocess.DEVNULL,
                              env={**os.environ, "TZ": self._zone}).stdout.decode()


class PageTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        folder = pathlib.Path(folder.name)
        rows = "".join('u{},"{}","{}",{},{}\n'.format(index, name.replace('"', '""'), name.replace('"', '""'),
                                                       1700000000 + 100000 * index, 60 * (index + 1))
                       for index, name in enumerate(HOSTILE))
        (folder / "hostile.csv").write_bytes((HEADER + rows + "<i>&,,,1700900000,30\n__proto__,Proto,,1701000000,20\n")
                                             .encode())
        many = "".join(f"m{index},Unit {index},,{1704067200 + 3600 * (index * 5 % 168)},600\n" for index in range(30))
        (folder / "many.csv").write_text(HEADER + many, encoding="utf-8")
        (folder / "none.csv").write_text(HEADER, encoding="utf-8")
        (folder / "early.csv").write_text(HEADER + "x,X,,-86400,60\n", encoding="utf-8")
        with concurrent.futures.ThreadPoolExecutor() as pool:
            stores = [pool.submit(Store, folder, "real", HISTORIES / "tv_a.csv"),
                      pool.submit(Store, folder, "hostile", folder / "hostile.csv", zone="EST5EDT,M3.2.0,M11.1.0"),
                      pool.submit(Store, folder, "many", folder / "many.csv"),
                      pool.submit(Store, folder, "none", folder / "none.csv"),
                      pool.submit(Store, folder, "early", folder / "early.csv")]
        cls.real, cls.hostile, cls.many, cls.none, cls.early = (store.result() for store in stores)
        cls.browser = Browser(DRIVER, BROWSER, language="en-US", zone="Asia/Tokyo")
        cls.addClassCleanup(cls.browser.close)

    def setUp(self):
        self._opened = []
        self.browser.complaints()
        self.browser.requests()
        self.addCleanup(self.check_console_and_requests)

    def check_console_and_requests(self):
        self.assertEqual(self.browser.complaints(), [])
        self.assertEqual([url for url in self.browser.requests() if url != "data:,"], self._opened)

    def open(self, store, width=1280, height=900, **preferences):
        self.browser.resize(width, height, reduced=True, **preferences)
        self.browser.open(store.page)
        self._opened.append(store.page.as_uri())

    def cells(self):
        return {(cell["day"], cell["hour"]): cell for cell in self.browser.run(CELLS)}

    def texts(self, selector):
        return self.browser.run("return [...document.querySelectorAll(arguments[0])].map(found => found.textContent)",
                                selector)

    def focused(self):
        return tuple(self.browser.run("const {day, hour} = document.activeElement.dataset; "
                                      "return [Number(day), Number(hour)]"))

    def ranking(self, day, hour):
        grid = json.loads(self.real.run("--weekly", "--json"))
        return [self.names()[item["Id"]] for item in grid[DAYS[day]][0][str(hour)][0]["list"]]

    def names(self):
        return self.browser.run("return Object.fromEntries(names)")

    # Contents.

    def test_contains_the_printed_json_with_names(self):
        for store in (self.real, self.hostile):
            with self.subTest(store.page.name):
                self.open(store)
                for element, arguments in {"week-data": ["--weekly"], "recent-data": ["--agent", "mru"],
                                           "total-data": ["--agent", "mfu"]}.items():
                    printed = store.run("--json", *arguments)
                    text = self.browser.run("return document.getElementById(arguments[0]).textContent", element)
                    self.assertNotIn("<", text)
                    self.assertEqual(re.sub(r'"Name":"(?:[^"\\]|\\.)*",', "", text) + "\n",
                                     printed.replace("<", "\\u003c"))

    def test_marks_each_hour_with_its_top_unit(self):
        self.open(self.real)
        grid = json.loads(self.real.run("--weekly", "--json"))
        keys = self.browser.run("return [...document.querySelectorAll('#legend button')].map(button => "
                                "[button.querySelector('bdi').textContent, button.querySelector('.key').textContent, "
                                "getComputedStyle(button.querySelector('.key')).backgroundColor])")
        self.assertEqual(len({letter for _, letter, _ in keys}), len(keys))
        self.assertEqual(len({colour for _, _, colour in keys}), len(keys))
        legend = {name: (letter, colour) for name, letter, colour in keys}
        names = self.names()
        cells = self.cells()
        self.assertEqual(len(cells), 168)
        for (day, hour), cell in cells.items():
            ranking = [names[item["Id"]] for item in grid[DAYS[day]][0][str(hour)][0]["list"]]
            self.assertEqual((cell["letter"], cell["colour"]), legend[ranking[0]], (day, hour))
            clock = f"{hour % 12 or 12} {'AM' if hour < 12 else 'PM'}"
            self.assertEqual(re.sub(r"\s+", " ", cell["label"]),
                             re.sub(r"\s+", " ", f"{LONG_DAYS[day]} {clock}: " + "; ".join(ranking)))

    def test_lays_out_days_as_rows_and_hours_as_columns(self):
        self.open(self.real)
        cells = self.cells()
        for day in range(7):
            for hour in range(24):
                left, top, width, height = cells[day, hour]["box"]
                self.assertGreater(min(width, height), 20)
                if hour:
                    self.assertEqual(top, cells[day, hour - 1]["box"][1])
                    self.assertGreaterEqual(left, cells[day, hour - 1]["box"][0] + width)
                if day:
                    self.assertEqual(left, cells[day - 1, hour]["box"][0])
                    self.assertGreater(top, cells[day - 1, hour]["box"][1])
        self.assertEqual(self.texts("#grid tbody th"), [day[:3] for day in LONG_DAYS])
        self.assertEqual(self.texts("#grid thead th")[11:14], ["11AM", "12PM", "1PM"])

    def test_swaps_rows_and_columns_on_a_phone(self):
        self.open(self.real, width=360, height=740)
        self.assertEqual(self.browser.run("return [innerWidth, document.documentElement.scrollWidth]"), [360, 360])
        cells = self.cells()
        for (day, hour), cell in cells.items():
            left, top, width, height = cell["box"]
            self.assertGreaterEqual(min(width, height), 24, "too small for a finger")
            self.assertEqual(top, cells[0, hour]["box"][1])
            self.assertEqual(left, cells[day, 0]["box"][0])
        self.browser.point(CELL.format(2, 20), click=True, kind="touch")
        self.assertEqual(self.texts("#hour bdi"), self.ranking(2, 20))
        self.assertEqual(self.focused(), (2, 20))
        self.assertTrue(self.browser.run("const box = document.querySelector('.hour').getBoundingClientRect(); "
                                         "return box.top >= 0 && box.bottom <= innerHeight + 1"),
                        "the ranking is not visible")
        self.browser.press("ArrowDown")
        self.assertEqual(self.focused(), (2, 21))
        self.browser.resize(1280, 900)
        self.assertEqual(self.focused(), (2, 21), "the focus moved when the screen turned")
        self.browser.press("ArrowDown")
        self.assertEqual(self.focused(), (3, 21))

    def test_lists_the_printed_rankings(self):
        self.open(self.real)
        names = self.names()
        for element, agent in {"recent": "mru", "total": "mfu"}.items():
            items = json.loads(self.real.run("--json", "--agent", agent))["list"]
            self.assertEqual(self.texts(f"#{element} li bdi:first-child"), [names[item["Id"]] for item in items])
            self.assertEqual(self.texts(f"#{element} li .muted"), [item["MetaDataSrc"] for item in items])
        self.assertEqual(self.texts("#total li .number")[:3], ["123.1 hr", "94.2 hr", "91.8 hr"])
        self.assertEqual(re.sub(r"\s", " ", self.texts("#recent li .number")[0]), "Jan 16, 2024, 2:52 PM")
        self.assertEqual(self.texts("#about"), [f"2,121 records · time zone {ZONE}"])

    def test_draws_the_hit_rates(self):
        self.open(self.real)
        printed = [(row[1].strip(), [value + "%" for value in row.groups()[1:]]) for row in map(
            lambda line: re.match(r" (.{14}) +([\d.]+) %  +([\d.]+) %  +([\d.]+) %", line),
            self.real.run("--evaluate").splitlines()) if row]
        self.assertEqual(len(printed), 8)
        rows = self.browser.run("""return [...document.querySelectorAll('#rates tr')]
            .filter(row => row.cells.length === 4).slice(1).map(row => [row.cells[0].textContent, [...row.cells].slice(1).map(cell => cell.textContent),
            [...row.querySelectorAll('.bar i')].map(part =>
              part.getBoundingClientRect().width / part.parentNode.getBoundingClientRect().width)])""")
        self.assertEqual([(name, values) for name, values, _ in rows], printed)
        for _, values, widths in rows:
            for value, width in zip(reversed(values), widths):
                self.assertAlmostEqual(float(value[:-1]) / 100, width, delta=0.002)

    # Interaction.

    def test_shows_the_ranking_under_the_pointer(self):
        self.open(self.real)
        before = self.texts("#hour bdi")
        self.browser.point(CELL.format(1, 3))
        self.assertEqual(self.texts("#hour bdi"), self.ranking(1, 3))
        self.assertEqual(self.texts("#hour-title"), ["Monday 3 AM"])
        self.browser.point("h1")
        self.assertEqual(self.texts("#hour bdi"), before)

    def test_moves_with_arrow_keys_and_has_one_tab_stop(self):
        self.open(self.real)
        self.assertEqual(sum(cell["tab"] == 0 for cell in self.cells().values()), 1)
        for _ in range(len(self.texts("#legend button")) + 1):
            self.browser.press("Tab")
        start = self.focused()
        self.assertEqual(self.cells()[start]["tab"], 0)
        steps = [(["Home"], (start[0], 0)), (["Control", "Home"], (0, 0)), (["ArrowUp"], (0, 0)),
                 (["ArrowLeft"], (0, 0)), (["ArrowRight"], (0, 1)), (["ArrowDown"], (1, 1)), (["End"], (1, 23)),
                 (["ArrowRight"], (1, 23)), (["ArrowLeft"], (1, 22)), (["ArrowUp"], (0, 22)),
                 (["Control", "End"], (6, 23)), (["ArrowDown"], (6, 23)), (["Home"], (6, 0))]
        for keys, place in steps:
            self.browser.press(*keys)
            self.assertEqual(self.focused(), place, keys)
            self.assertEqual(self.texts("#hour bdi"), self.ranking(*place))
            self.assertEqual([at for at, cell in self.cells().items() if cell["tab"] == 0], [place])
            outline = self.browser.run("return getComputedStyle(document.activeElement).outlineStyle")
            self.assertNotEqual(outline, "none")

    def test_highlights_the_hours_of_a_selected_unit(self):
        self.open(self.real)
        before = self.cells()
        self.browser.point("#legend button:nth-child(2)", click=True)
        self.assertEqual(self.texts("#picked"), ["The Flash is at the top in 29 of 168 hours."])
        self.assertEqual(self.texts("#legend [aria-pressed=true] bdi"), ["The Flash"])
        lit = [at for at, cell in self.cells().items() if cell["colour"] == before[at]["colour"]]
        self.assertEqual(lit, [at for at, cell in before.items() if cell["letter"] == "B"])
        self.assertEqual(len(lit), 29)
        self.browser.press("Escape")
        self.assertEqual(self.cells(), before)
        self.browser.press("Enter")
        self.assertEqual(self.texts("#legend [aria-pressed=true] bdi"), ["The Flash"])
        self.browser.press("Space")
        self.assertEqual(self.texts("#legend [aria-pressed=true]") + self.texts("#picked"), [""])

    # Accessibility.

    def test_has_enough_contrast_in_light_and_dark_mode(self):
        colours = set()
        for dark in (False, True):
            for store in (self.real, self.many):
                with self.subTest(dark=dark, page=store.page.name):
                    self.open(store, dark=dark)
                    count, poor = self.browser.run(CONTRASTS)
                    self.assertGreater(count, 250)
                    self.assertEqual(poor, [])
                    self.browser.point("#legend button", click=True)
                    self.assertEqual(self.browser.run(CONTRASTS)[1], [])
            colours.add(self.browser.run("return getComputedStyle(document.body).backgroundColor"))
        self.assertEqual(len(colours), 2)

    def test_gives_each_top_unit_a_different_letter(self):
        self.open(self.many)
        letters = self.texts("#legend .key")
        self.assertGreater(len(letters), 26)
        self.assertEqual(len(set(letters)), len(letters))
        self.assertEqual(letters[24:28], ["Y", "Z", "AA", "AB"])

    def test_names_roles_for_assistive_technology(self):
        self.open(self.real)
        nodes = self.browser.devtools("Accessibility.getFullAXTree")["nodes"]
        roles = [(node["role"]["value"], node.get("name", {}).get("value")) for node in nodes if not node["ignored"]]
        for wanted in (("grid", "Top unit of each hour of the week"), ("region", "Most recently used"),
                       ("region", "How often the next use was predicted"), ("region", "Saturday 12 AM"),
                       ("heading", "What is used when"), ("group", "Select a unit to highlight its hours"),
                       ("columnheader", "11 PM"), ("rowheader", "Sat"), ("main", "")):
            self.assertIn(wanted, [(role, re.sub(r"\s+", " ", name or "")) for role, name in roles])
        self.assertEqual(sum(role == "gridcell" for role, _ in roles), 168)
        self.assertEqual(self.browser.run("return [document.documentElement.lang, "
                                          "document.querySelector('#hour bdi').lang, "
                                          "document.querySelector('#grid tbody th').lang]"), ["en", "", "en-US"])

    def test_has_no_transitions_with_reduced_motion(self):
        self.open(self.real)
        seconds = "return getComputedStyle(document.querySelector('#grid td')).transitionDuration"
        self.assertEqual(self.browser.run(seconds), "0s")
        self.browser.resize(1280, 900)
        self.assertNotEqual(self.browser.run(seconds), "0s")

    def test_prints_on_one_light_page(self):
        self.open(self.real, dark=True)
        pdf = self.browser.paper()
        self.assertTrue(pdf.startswith(b"%PDF-"))
        self.assertEqual(re.findall(rb"/Type /Pages\s+/Count (\d+)", pdf), [b"1"])
        self.browser.resize(720, 900, dark=True, media="print")
        self.assertEqual(self.browser.run("const style = element => getComputedStyle(element); return ["
                                          "style(document.querySelector('.week')).backgroundColor, "
                                          "style(document.querySelector('.hour')).display, "
                                          "style(document.querySelector('#grid td[data-day]')).printColorAdjust]"),
                         ["rgb(255, 255, 255)", "none", "exact"])

    # Unusual contents.

    def test_shows_names_with_markup_as_text(self):
        self.open(self.hostile)
        self.assertEqual(self.browser.run("return document.title"), "What is used when")
        self.assertEqual(self.browser.run("return [document.images.length, document.scripts.length, "
                                          "document.querySelectorAll('bdi *, [onerror]').length]"), [0, 6, 0])
        expected = [shown(name) for name in HOSTILE]
        names = expected[::-1] + ["<i>&", "Proto"]
        self.assertEqual(self.texts("#total li bdi:first-child"), names)
        self.assertEqual(self.texts("#total li .muted"), expected[::-1])
        self.assertEqual(sorted(self.texts("#hour bdi")), sorted(names))
        self.assertEqual(dict(self.browser.run("return [...names]")),
                         {**{f"u{index}": name for index, name in enumerate(HOSTILE)}, "<i>&": None,
                          "__proto__": "Proto"})

    def test_shows_utc_when_the_zone_is_unknown_to_browsers(self):
        self.open(self.hostile)
        self.assertIn("time zone EST5EDT,M3.2.0,M11.1.0", self.texts("#about")[0])
        self.assertTrue(all(text.endswith(" UTC") for text in self.texts("#recent .number")))

    def test_shows_the_time_of_a_use_before_1970(self):
        self.open(self.early)
        self.assertIn("Dec 30, 1969", self.texts("#recent li .number")[0])

    def test_says_that_an_empty_store_has_nothing_to_rank(self):
        self.open(self.none)
        self.assertEqual({cell["letter"] for cell in self.cells().values()}, {"–"})
        self.assertEqual(len(self.cells()), 168)
        text = self.browser.run("return document.body.innerText")
        self.assertEqual((text.count("Nothing to rank yet."), text.count("Nothing to predict yet.")), (2, 1))

    def test_formats_dates_in_the_viewers_language(self):
        self.browser.devtools("Emulation.setUserAgentOverride", userAgent="Test", acceptLanguage="de-DE")
        self.addCleanup(self.browser.devtools, "Emulation.setUserAgentOverride", userAgent="Test",
                        acceptLanguage="en-US")
        self.open(self.real)
        self.assertEqual(self.texts("#grid tbody th"), ["Mo", "Di", "Mi", "Do", "Fr", "Sa", "So"])
        self.assertEqual(self.texts("#grid thead th")[13], "13")
        self.assertEqual([self.cells()[0, 20]["label"].split(":")[0]], ["Sonntag, 20 Uhr"])
        self.assertEqual(self.texts("#total .number")[0], "123,1 Std.")
        self.assertEqual(self.texts("#about"), [f"2.121 records · time zone {ZONE}"])
        first, second = (self.cells()[day, 0]["box"][1] for day in (1, 0))
        self.assertLess(first, second, "the week does not begin on Monday")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[5:], verbosity=1)
