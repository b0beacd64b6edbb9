"""Tests the page of `metrics timeline` in a browser, by what is on the page.

    page_test.py METRICS

METRICS is the command. Ends with 77 when there is no browser, after what can be tested without one.
"""

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

import browser

METRICS = sys.argv[1]
HEADER = "timestamp,datetime,context_id,event_type,param1,param2\n"
EVIL = "</script><script>document.title='taken over'</script><img src=x onerror=document.title='taken-over'>"


class Recording:
    """Lines of a CSV file, as the raw client writes them; times in nanoseconds."""

    def __init__(self, pid, wall):
        self._pid, self._wall, self._lines = pid, wall, []
        self.put(0, 0, 2, 0, 1)
        self.put(1, 0, 3, 0, 1)

    def put(self, time, context, kind, first, second):
        wall = self._wall + time // 1000
        self._lines.append((time, f"{time},{wall // 10**6}.{wall % 10**6:06d},{context},{kind},{first},{second}\n"))

    def context(self, id, parent, created, opened, closed, tid, name):
        self.put(created, parent, 2, 0, id)
        if opened is None:
            return
        self.put(opened, parent, 3, 0, id)
        for key, value in (("pid", self._pid), ("tid", tid), ("cid", id)):
            self.put(opened, id, 8, key, value)
        self.put(opened, id, 5, name, 0)
        if closed is not None:
            self.put(closed, id, 6, name, 0)
            self.put(closed, parent, 4, 0, id)

    def scope(self, context, label, begin, end):
        self.put(begin, context, 5, label, 0)
        self.put(end, context, 6, label, 0)

    def write(self, path):
        path.write_text(HEADER + "".join(line for _, line in sorted(self._lines, key=lambda line: line[0])))


def two_processes(folder):
    """A request that hands a part to another thread, one that is open at the end, one that was never
    opened; and a second process, 40 us later."""
    one = Recording(100, 1_700_000_000_000_000)
    one.context(2, 1, 1_000, 2_000, 90_000, 100, "job")
    one.scope(2, "prepare", 3_000, 20_000)
    one.context(3, 2, 10_000, 40_000, 80_000, 101, "part")
    one.scope(3, "crunch", 50_000, 70_000)
    one.put(45_000, 3, 8, "file", EVIL)
    one.put(60_000, 3, 7, "rows", 42)
    one.context(4, 1, 95_000, 96_000, None, 100, "stuck")
    one.context(5, 1, 97_000, None, None, 0, "")
    one.scope(4, EVIL, 98_000, 99_000)
    one.put(100_000, 4, 7, "last", 1)
    one.write(folder / "one.csv")
    two = Recording(200, 1_700_000_000_000_040)
    two.context(2, 1, 1_000, 1_000, 11_000, 200, "other")
    two.write(folder / "two.csv")


def make_page(folder, files, *options):
    page = folder / "run.html"
    subprocess.run([METRICS, "timeline", *(folder / file for file in files), "-o", page, *options], check=True)
    return page


class File(unittest.TestCase):
    def test_holds_all_and_nothing_of_the_recording_as_markup(self):
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            two_processes(folder)
            text = make_page(folder, ["one.csv", "two.csv"]).read_text()
        self.assertEqual(re.findall(r"(?:https?:)?//[a-z0-9.]+\.[a-z]{2,}", text), [])
        self.assertEqual(re.findall(r"\b(?:fetch|XMLHttpRequest|WebSocket|import)\(", text), [])
        self.assertFalse("taken over" in text or "taken-over" in text)
        self.assertTrue(re.search(r'<script id="data"[^>]*>\s*[A-Za-z0-9+/=]+\s*</script>\s*</body>', text))


@unittest.skipUnless(browser.is_there(), "no browser")
class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls._folder = tempfile.TemporaryDirectory()
        cls.folder = pathlib.Path(cls._folder.name)
        two_processes(cls.folder)
        cls.page = cls.folder / "run.html"
        cls.browser = browser.Browser(1200, 700)

    @classmethod
    def tearDownClass(cls):
        cls.browser.__exit__()
        cls._folder.cleanup()

    def open(self, *files, options=()):
        make_page(self.folder, files or ["one.csv", "two.csv"], *options)
        self.browser.open(self.page)

    def tearDown(self):
        self.assertEqual(self.browser.complaints(), [])

    def search(self, text):
        self.browser.keys("/", *text)
        self.browser.wait(f"document.querySelector('#view').dataset.search === {json.dumps(text.lower())}")
        return self.browser.text("#found")

    def box(self):
        return [int(number) for number in self.browser.state()["box"].split()]

    def colour(self, x, y):
        self.browser.wait("true")
        return tuple(self.browser.run(
            "return [...document.querySelector('#view').getContext('2d').getImageData(arguments[0], arguments[1], 1, 1).data]",
            round(x), round(y)))

    def find(self, text):
        """Selects what is found first, and leaves the field."""
        self.search(text)
        self.browser.keys("Enter", "Tab")
        return self.browser.state()

    def click(self, x, y, kind="mouse"):
        top = self.browser.run("return document.querySelector('#view').getBoundingClientRect().top")
        self.browser.pointer([("move", x, y + top), ("down",), ("up",)], kind)

    def test_shows_every_piece_where_and_when_it_was(self):
        self.open()
        state = self.browser.state()
        self.assertEqual((state["mode"], state["lanes"], state["begin"], state["span"]), ("threads", "4", "0", "100000"))
        self.assertEqual(self.browser.run("return document.title"), "one.csv and 1 more — timeline")
        width = self.browser.run("return document.querySelector('#view').clientWidth")
        for text, begin, end in (("prepare", 3_000, 20_000), ("crunch", 50_000, 70_000), ("part", 40_000, 80_000),
                                 ("other", 41_000, 51_000)):
            with self.subTest(text):
                self.find(text)
                left, top, wide, _ = self.box()
                at = lambda time: 150 + time / 100_000 * (width - 150)
                self.assertAlmostEqual(left, at(begin), delta=1.5)
                self.assertAlmostEqual(left + wide, at(end), delta=1.5)
                self.browser.keys("Escape")

        colours = [self.colour(x, y) for x, y in ((left + 4, top + 1), (left + wide / 2, top + 20), (left - 4, top + 20))]
        self.assertEqual(len(set(colours)), 3)  # its edge, the bar, and nothing

    def test_shows_a_slow_piece_from_afar(self):
        many = Recording(100, 1_700_000_000_000_000)
        many.context(2, 1, 1_000, 2_000, 900_000_000, 100, "job")
        for i in range(40_000):
            many.scope(2, "slow" if i == 25_100 else "fast", 20_000 * i + 3_000, 20_000 * i + (8_000 if i == 25_100 else 3_100))
        many.write(self.folder / "many.csv")
        self.open("many.csv")
        self.find("slow")
        left, top, width, height = self.box()
        self.browser.keys("Escape", "Escape", "/", "Escape")
        here, beside, fast, other = (self.colour(left + x, top + height - 6) for x in (0, -1, 5, 10))
        self.assertEqual(fast, other)
        self.assertNotEqual({here, beside}, {fast})
        self.click(left, top + 8)
        self.assertEqual(self.browser.state()["selected"], "slow")

    def test_draws_an_arrow_for_a_hand_over(self):
        self.open()
        self.assertEqual(self.browser.state()["arrows"], "1")
        self.find("prepare")
        self.assertEqual(self.browser.state()["arrows"], "1")
        self.find("stuck")
        self.browser.keys("a")
        self.assertEqual(self.browser.state()["arrows"], "0")

    def test_a_click_lights_the_request_on_every_thread_and_shows_its_attributes(self):
        self.open()
        self.find("crunch")
        left, top, width, height = self.box()
        self.browser.keys("Escape")
        self.assertEqual(self.browser.state()["selected"], "")
        self.click(left + width / 2, top + height / 2)
        state = self.browser.state()
        self.assertEqual((state["selected"], state["request"], state["lit"]), ("crunch", "2", "4"))
        details = self.browser.text("#details")
        for text in ("scope", "20 µs", "job", "thread 101", "4 pieces on 2 threads", EVIL, "rows", "42, at 20 µs"):
            self.assertIn(text, details)
        self.click(left + width / 2, 600)  # beside everything
        self.assertEqual(self.browser.state()["selected"], "")
        self.assertIn("Nothing selected", self.browser.text("#details"))

    def test_tells_of_waiting_and_leads_to_where_a_piece_came_from(self):
        self.open()
        self.find("part")
        self.assertIn("30 µs, from its creation until thread 101, process 100 opened it", self.browser.text("#details"))
        self.browser.keys("Shift+ArrowUp")  # across threads, to what created it
        self.assertEqual(self.browser.state()["selected"], "job")
        self.browser.keys("Shift+ArrowDown")
        self.assertEqual(self.browser.state()["selected"], "prepare")
        self.browser.keys("Shift+ArrowUp", "Shift+ArrowRight")
        self.assertEqual(self.browser.state()["selected"], "stuck")
        self.assertIn("no end in the file", self.browser.text("#details"))

    def test_finds_labels_and_attributes(self):
        self.open()
        for text, found in (("CRUNCH", "1 piece"), ("job", "1 piece"), ("file=", "1 piece"), ("onerror", "2 pieces"),
                            ("file=onerror", "1 piece"), ("name=onerror", "nothing found")):
            with self.subTest(text):
                self.assertEqual(self.search(text), found)
                self.browser.keys("Escape")
                self.browser.wait("document.querySelector('#found').textContent === ''")
        self.search("onerror")
        self.browser.keys("Enter")
        self.assertEqual(self.browser.state()["selected"], "part")
        self.browser.keys("Enter")
        self.assertEqual(self.browser.state()["selected"], EVIL)
        self.assertEqual(self.browser.run("return document.title"), "one.csv and 1 more — timeline")
        self.assertEqual(self.browser.run("return document.querySelectorAll('img, b').length"), 0)

    def test_zooms_and_moves_by_mouse_keys_and_touch(self):
        self.open()
        b = self.browser
        left, top = b.run("const r = document.querySelector('#view').getBoundingClientRect(); return [r.left, r.top]")
        view = lambda: [int(b.state()[key]) for key in ("begin", "span")]
        x = left + 150 + (b.run("return document.querySelector('#view').clientWidth") - 150) / 2
        b.wheel(x, top + 60, delta_y=-200)
        begin, span = view()
        self.assertLess(span, 80_000)
        self.assertAlmostEqual(begin + span / 2, 50_000, delta=200)  # what is below the pointer stays there
        b.pointer([("move", x, top + 300), ("down",), ("move", x - 60, top + 300), ("move", x - 120, top + 300), ("up",)])
        dragged, same = view()
        self.assertGreater(dragged, begin)
        self.assertEqual(same, span)
        b.keys("ArrowLeft", "+")
        self.assertLess(view()[1], span)
        b.keys("0")
        self.assertEqual(view(), [0, 100_000])
        b.fingers([("move", x - 40, top + 300), ("down",), ("move", x - 80, top + 300), ("move", x - 120, top + 300), ("up",)],
                  [("move", x + 40, top + 300), ("down",), ("move", x + 80, top + 300), ("move", x + 120, top + 300), ("up",)])
        begin, span = view()
        self.assertAlmostEqual(span, 100_000 / 3, delta=6_000)
        self.assertAlmostEqual(begin + span / 2, 50_000, delta=6_000)
        b.keys("0")
        self.find("crunch")
        b.keys("z")
        self.assertEqual(view(), [40_000, 40_000])
        b.keys("r")
        begin, span = view()
        self.assertLessEqual(begin, 1_000)
        self.assertGreaterEqual(begin + span, 90_000)

    def test_lanes_of_requests_begin_with_the_slowest_at_its_creation(self):
        self.open("one.csv")
        self.browser.keys("v")
        state = self.browser.state()
        self.assertEqual((state["mode"], state["lanes"]), ("requests", "2"))
        self.find("crunch")
        left, top, *_ = self.box()
        width = self.browser.run("return document.querySelector('#view').clientWidth")
        at = 150 + 49_000 / int(self.browser.state()["span"]) * (width - 150)
        self.assertAlmostEqual(left, at, delta=1.5)
        self.find("stuck")
        self.assertGreater(self.box()[1], top)
        self.browser.keys("Escape")
        self.find("part")
        left, top, *_ = self.box()
        self.browser.keys("Escape")
        waiting = {self.colour(left - 20 + x, top + 5) for x in range(8)}
        self.assertEqual(len(waiting), 2)  # hatched

    def test_takes_the_requests_of_a_name(self):
        self.open("one.csv", options=["--request", "part"])
        self.find("crunch")
        self.assertEqual((self.browser.state()["request"], self.browser.state()["lit"]), ("3", "2"))
        self.browser.keys("v")
        self.assertEqual(self.browser.state()["lanes"], "1")

    def test_keeps_the_slowest_whole_and_sums_up_the_rest(self):
        many = Recording(100, 1_700_000_000_000_000)
        for i in range(100):
            begin = 1_000_000 * (i + 1)
            end = begin + (900_000 if i == 70 else 1_000 + i)
            many.context(10 + i, 1, begin, begin, end, 100 + i % 2, "job")
            many.scope(10 + i, "work", begin + 100, end - 100)
        many.write(self.folder / "many.csv")
        self.open("many.csv", options=["--keep", "9"])
        self.assertIn("the 4 slowest of 100 requests", self.browser.text("#summary"))
        self.assertEqual(self.search("work"), "4 pieces")
        self.browser.keys("Enter", "Tab")
        self.assertIn("900 µs", self.browser.text("#slowList"))
        self.assertIn("the requests that are not in this file", self.browser.text("#legend"))

    def test_an_empty_and_a_damaged_file_are_shown_as_what_they_are(self):
        (self.folder / "empty.csv").write_text(HEADER)
        self.open("empty.csv")
        self.assertIn("0 requests", self.browser.text("#summary"))
        text = self.page.read_text()
        self.page.write_text(re.sub(r"(?s)(<script id=\"data\".*?>\s*.{8}).*?(\s*</script>)", r"\1\2", text))
        self.browser.open(self.page)
        self.assertIn("This recording cannot be shown", self.browser.text("#message"))
        self.browser.complaints()

    def test_everything_has_a_name_and_follows_the_light(self):
        self.open()
        nameless = self.browser.run("""
            return [...document.querySelectorAll('button, input, select, canvas, [role]')]
                .filter(e => e.checkVisibility() && !(e.ariaLabel || e.innerText || e.labels?.length)).map(e => e.outerHTML)""")
        self.assertEqual(nameless, [])
        back = "return getComputedStyle(document.body).backgroundColor"
        light = self.browser.run(back)
        self.browser.command("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": "dark"}])
        self.assertNotEqual(self.browser.run(back), light)
        self.browser.command("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": "light"}])


if __name__ == "__main__":
    result = unittest.main(argv=[sys.argv[0], *sys.argv[2:]], exit=False, verbosity=2).result
    if not result.wasSuccessful():
        sys.exit(1)
    if not browser.is_there():
        print("no browser here, so the page was not looked at: apt-get install chromium chromium-driver")
        sys.exit(77)
