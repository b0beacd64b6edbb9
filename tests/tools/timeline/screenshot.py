"""Makes the picture of the timeline in the README: the slowest piece of a page, selected by a click.

    screenshot.py PAGE PICTURE
"""

import pathlib
import sys

import browser

page, picture = sys.argv[1:]
with browser.Browser(1300, 460) as b:
    b.open(pathlib.Path(page).resolve())
    b.run("document.querySelector('#slowList button').click()")
    b.keys("0")
    b.wait("true")
    b.screenshot(picture)
