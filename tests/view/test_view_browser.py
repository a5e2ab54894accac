"""mvlog view in a real browser: headless Chromium driven by Selenium.

A file with known contents is recorded here (a camera of graymaps, a JSON
weather source, a text log, bookmarks, a gap), `mvlog view` serves it beside
a damaged file, and the page is checked for what it shows: lanes, bookmark
markers, decoded frames (pixel for pixel), stepping, play, the JSON plot, the
damaged file's message and the refusals of the server.
"""

from __future__ import annotations

import base64
import hashlib
import json
import os
import re
import struct
import subprocess
import time
import urllib.error
import urllib.parse
import urllib.request
import zlib

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select, WebDriverWait

import marivane_logging as ml

MVLOG = os.environ["MVLOG"]
BASE = 1_750_000_000_000
WIDTH, HEIGHT = 64, 48
FRAMES = 60
CAMERA_PERIOD = 100
# The camera is silent for 2 s after frame GAP_AFTER.
GAP_AFTER = 39
GAP_MS = 2000
# Texts from a file are hostile: were they markup, the page would run this.
HOSTILE_NAME = 'deck log <script>'
HOSTILE_VESSEL = 'RV <img src=x onerror="window.pwned=1">Test'


def camera_time(i: int) -> int:
    return BASE + CAMERA_PERIOD * i + (GAP_MS if i > GAP_AFTER else 0)


def frame(i: int) -> bytes:
    """A 64x48 binary graymap whose pixels depend on the frame."""
    pixels = bytes((x * 3 + y * 5 + i * 7) % 256 for y in range(HEIGHT) for x in range(WIDTH))
    return f"P5\n{WIDTH} {HEIGHT}\n255\n".encode() + pixels


PNG_WIDTH, PNG_HEIGHT = 16, 12
PNG_COUNT = 8
PNG_PERIOD = 1000


def png_pixels(i: int) -> bytes:
    """The RGB pixels of the rear camera's i-th picture."""
    return bytes(v for y in range(PNG_HEIGHT) for x in range(PNG_WIDTH)
                 for v in ((x * 16 + i) % 256, (y * 20) % 256, (i * 30) % 256))


def png(width: int, height: int, rgb: bytes) -> bytes:
    """A PNG of 8-bit RGB pixels, written by hand."""
    def chunk(kind: bytes, data: bytes) -> bytes:
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)
    rows = b"".join(b"\x00" + rgb[y * width * 3:(y + 1) * width * 3] for y in range(height))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


def weather(i: int) -> dict:
    return {"temperature": round(10 + 0.25 * i, 2), "wind": {"speed": i % 7, "gusts": [i, i + 1]}, "site": "mast"}


WEATHER_COUNT = 16
WEATHER_PERIOD = 500


def record(path: str) -> dict:
    """Records the file; returns what the checks need: every entry's id, source and time."""
    entries = []  # (timestamp, id, source)
    with ml.LogFile.create(path, application="view-test", version="1.0", created=BASE - 1000) as f:
        camera = f.add_data_source(ml.SourceType.CAMERA, "front camera")
        mast = f.add_data_source(ml.SourceType.ENVIRONMENT, "weather mast")
        notes = f.add_data_source(ml.SourceType.GENERIC, HOSTILE_NAME)
        f.add_encoding(camera, ml.Encoding.GRAYMAP)
        f.add_encoding(mast, ml.Encoding.JSON)
        f.add_encoding(notes, ml.Encoding.TEXT)
        rear = f.add_data_source(ml.SourceType.CAMERA, "rear camera")
        f.add_encoding(rear, ml.Encoding.PNG)
        f.set_thumbnail(png(PNG_WIDTH, PNG_HEIGHT, png_pixels(0)))
        f.add_metadata("vessel", HOSTILE_VESSEL)
        f.add_resource("calibration.json", b'{"k": 1}')
        log = []
        for i in range(FRAMES):
            log.append((camera_time(i), camera, 1, frame(i)))
        for i in range(WEATHER_COUNT):
            log.append((BASE + 50 + WEATHER_PERIOD * i, mast, 2, json.dumps(weather(i)).encode()))
        for i in range(4):
            log.append((BASE + 1500 * i + 30, notes, 3, f"note {i}: all well".encode()))
        for i in range(PNG_COUNT):
            log.append((BASE + 70 + PNG_PERIOD * i, rear, 4, png(PNG_WIDTH, PNG_HEIGHT, png_pixels(i))))
        log.sort(key=lambda e: e[0])
        with f.batch():
            for next_id, (timestamp, source, kind, payload) in enumerate(log, start=1):
                f.log(source, kind, payload, timestamp)
                entries.append((timestamp, next_id, source))
        ids = {(t, s): i for t, i, s in entries}
        f.add_bookmark(ids[(camera_time(10), camera)], "Turn to port", "a hard turn")
        f.add_bookmark(ids[(camera_time(45), camera)], "Dock", "")
    return {"entries": entries, "camera": camera, "mast": mast, "notes": notes, "rear": rear,
            "sources": [camera, mast, notes, rear]}


def jpeg_gray(levels: list) -> bytes:
    """A baseline grayscale JPEG of 8x8 blocks side by side, each of one level.

    Written by hand: quantisation by 1 and blocks of one level have only a DC
    coefficient (8 times the level less 128), which decodes back exactly.
    """
    def segment(marker: int, data: bytes) -> bytes:
        return struct.pack(">BBH", 0xFF, marker, len(data) + 2) + data
    # The usual luminance DC table (categories 0 to 11); an AC table with only
    # the end of block, coded "0".
    dc_counts = [0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0]
    dc_codes, code, category = {}, 0, 0
    for length, count in enumerate(dc_counts, start=1):
        for _ in range(count):
            dc_codes[category] = (code, length)
            code, category = code + 1, category + 1
        code <<= 1
    bits = []
    previous = 0
    for level in levels:
        dc = 8 * (level - 128)
        difference, previous = dc - previous, dc
        size = abs(difference).bit_length()
        code, length = dc_codes[size]
        bits += [(code >> (length - 1 - i)) & 1 for i in range(length)]
        extra = difference if difference >= 0 else difference + (1 << size) - 1
        bits += [(extra >> (size - 1 - i)) & 1 for i in range(size)]
        bits.append(0)  # end of block
    bits += [1] * (-len(bits) % 8)
    scan = bytearray()
    for at in range(0, len(bits), 8):
        byte = int("".join(map(str, bits[at:at + 8])), 2)
        scan += bytes([byte, 0]) if byte == 0xFF else bytes([byte])
    return (b"\xff\xd8" + segment(0xDB, b"\x00" + b"\x01" * 64)
            + segment(0xC0, struct.pack(">BHHB", 8, 8, 8 * len(levels), 1) + b"\x01\x11\x00")
            + segment(0xC4, b"\x00" + bytes(dc_counts) + bytes(range(12)))
            + segment(0xC4, b"\x10" + bytes([1] + [0] * 15) + b"\x00")
            + segment(0xDA, b"\x01\x01\x00\x00\x3f\x00") + bytes(scan) + b"\xff\xd9")


# The trawl: a second readable file, made by one producer and copied by
# another, whose sources say less about their payloads than the survey's.
TRAWL_BASE = BASE + 86_400_000
JPEG_LEVELS = [[10, 200, 90, 160], [250, 30, 128, 70]]
PIXMAP_WIDTH, PIXMAP_HEIGHT = 5, 3
# Larger than the panels' 256 KiB preview of a payload of unknown kind.
BIG_PNG_WIDTH, BIG_PNG_HEIGHT = 320, 300
RAW_PAYLOAD = bytes(range(40)) + b"\xff\xfe mixed \x00 bytes"
TRAWL_THUMBNAIL_SIZE = (6, 4)
LAST_BOOKMARK = "End of the trawl, nets aboard and secured"


def gnss_line(i: int) -> bytes:
    return f"$STATUS,t={i},fix=RTK,sats={12 + i % 3}".encode()


def haul_note(i: int) -> bytes:
    return f"haul {i}: {120 + 35 * i} kg of cod, nets sound".encode()


def pixmap_pixels(i: int) -> bytes:
    return bytes((x * 50 + i * 9, y * 100, (x + y) * 20 + i) [c] % 256
                 for y in range(PIXMAP_HEIGHT) for x in range(PIXMAP_WIDTH) for c in range(3))


def pixmap(i: int) -> bytes:
    return f"P6\n# deck {i}\n{PIXMAP_WIDTH} {PIXMAP_HEIGHT}\n255\n".encode() + pixmap_pixels(i)


def thumbnail_pixels() -> bytes:
    width, height = TRAWL_THUMBNAIL_SIZE
    return bytes((x * 40, y * 60, 255 - x * 20)[c] for y in range(height) for x in range(width) for c in range(3))


def big_png_pixels(i: int) -> bytes:
    return bytes(((x + i) % 256, (y * 2) % 256, (x * y + i) % 256)[c]
                 for y in range(BIG_PNG_HEIGHT) for x in range(BIG_PNG_WIDTH) for c in range(3))


def stored_png(width: int, height: int, rgb: bytes) -> bytes:
    """A PNG whose pixels are stored uncompressed: as large as they are."""
    def chunk(kind: bytes, data: bytes) -> bytes:
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)
    rows = b"".join(b"\x00" + rgb[y * width * 3:(y + 1) * width * 3] for y in range(height))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(rows, 0)) + chunk(b"IEND", b""))


def record_trawl(original: str, path: str) -> dict:
    """Records the trawl with producer "trawl-logger" 0.9, then copies it as "trawl-sorter" 2.0."""
    entries = []
    with ml.LogFile.create(original, application="trawl-logger", version="0.9", created=TRAWL_BASE - 1000) as f:
        gnss = f.add_data_source(ml.SourceType.NAVIGATION, "gnss")
        sonar = f.add_data_source(ml.SourceType.CAMERA, "sonar")
        deck = f.add_data_source(ml.SourceType.CAMERA, "deck camera")
        winch = f.add_data_source(ml.SourceType.CAMERA, "winch camera")
        raw = f.add_data_source(ml.SourceType.GENERIC, "raw")
        notes = f.add_data_source(ml.SourceType.GENERIC, "haul notes")
        # Mixed payloads: bytes of no one kind; the sonar, the raw bytes and
        # the notes declare nothing.
        f.add_encoding(gnss, ml.Encoding.OCTET_STREAM)
        f.add_encoding(deck, ml.Encoding.JPEG)
        f.add_encoding(winch, ml.Encoding.PIXMAP)
        width, height = TRAWL_THUMBNAIL_SIZE
        f.set_thumbnail(f"P6\n{width} {height}\n255\n".encode() + thumbnail_pixels())
        f.add_resource("net-plan.bin", bytes(range(256)) * 3)
        log = []
        for i in range(10):
            log.append((TRAWL_BASE + 200 * i, gnss, 1, gnss_line(i)))
            log.append((TRAWL_BASE + 200 * i + 100, gnss, 2, struct.pack("<dd", 59.9 + i, 10.7)))
        for i in range(2):
            log.append((TRAWL_BASE + 50 + 1000 * i, sonar, 3,
                        stored_png(BIG_PNG_WIDTH, BIG_PNG_HEIGHT, big_png_pixels(i))))
            log.append((TRAWL_BASE + 60 + 1000 * i, deck, 4, jpeg_gray(JPEG_LEVELS[i])))
            log.append((TRAWL_BASE + 70 + 1000 * i, winch, 5, pixmap(i)))
            log.append((TRAWL_BASE + 80 + 1000 * i, raw, 6, RAW_PAYLOAD[i:]))
            log.append((TRAWL_BASE + 40 + 1000 * i, notes, 7, haul_note(i)))
        log.sort(key=lambda e: e[0])
        with f.batch():
            for next_id, (timestamp, source, kind, payload) in enumerate(log, start=1):
                f.log(source, kind, payload, timestamp)
                entries.append((timestamp, next_id, source))
        f.add_bookmark(entries[-1][1], LAST_BOOKMARK)
    ml.clone(original, path, application="trawl-sorter", version="2.0").close()
    return {"entries": entries, "gnss": gnss, "sonar": sonar, "deck": deck, "winch": winch, "raw": raw,
            "notes": notes, "sources": [gnss, sonar, deck, winch, raw, notes], "path": path}


@pytest.fixture(scope="module")
def recording(tmp_path_factory):
    directory = tmp_path_factory.mktemp("view")
    path = os.fspath(directory / "survey.mvlog")
    known = record(path)
    damaged = os.fspath(directory / "broken.mvlog")
    with open(damaged, "wb") as out:
        out.write(b"this is not a log file at all" * 100)
    known["path"] = path
    known["damaged"] = damaged
    # Named after the survey: the page opens the first readable file.
    known["trawl"] = record_trawl(os.fspath(tmp_path_factory.mktemp("original") / "trawl.mvlog"),
                                  os.fspath(directory / "trawl.mvlog"))
    return known


def digest(path: str) -> str:
    with open(path, "rb") as read:
        return hashlib.sha256(read.read()).hexdigest()


def serve(*arguments):
    """Starts mvlog view; returns the process and what its first line says."""
    process = subprocess.Popen([MVLOG, "view", "--no-browser", *arguments],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    line = process.stdout.readline()
    match = re.search(r"^Serving (\d+) files?: open (http://127\.0\.0\.1:(\d+)/\?token=([0-9a-f]{32}))$", line)
    assert match, line + process.stderr.read()
    return process, {"files": int(match.group(1)), "url": match.group(2), "port": int(match.group(3)),
                     "token": match.group(4)}


@pytest.fixture(scope="module")
def server(recording):
    # A fleet: the directory of the recording and the damaged file.
    before = digest(recording["path"])
    process, served = serve(os.path.dirname(recording["path"]))
    assert served["files"] == 3
    yield served
    process.terminate()
    assert process.wait(timeout=10) == 0
    # Looking never changes a byte.
    assert digest(recording["path"]) == before


@pytest.fixture(scope="module")
def browser(server):
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1400,1000",
                     # A name of another site that resolves to this machine: what a rebinding attack does.
                     "--host-resolver-rules=MAP rebound.example 127.0.0.1"):
        options.add_argument(argument)
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.set_script_timeout(30)
    yield driver
    driver.quit()


def wait(driver, condition, timeout=10.0, message=""):
    return WebDriverWait(driver, timeout, poll_frequency=0.05).until(lambda d: condition(d), message)


def state(driver, expression):
    return driver.execute_script(f"return {expression};")


@pytest.fixture
def page(browser, server):
    browser.get(server["url"])
    wait(browser, lambda d: state(d, "window.mvlogView && mvlogView.summary !== null && mvlogView.cursorUpdates > 0"),
         message="the page did not load the file")
    return browser


def at_or_before(recording, source, time_ms):
    found = [(t, i) for t, i, s in recording["entries"] if s == source and t <= time_ms]
    return max(found) if found else None


def shown_entry(driver, source):
    value = state(driver, f"document.querySelector('.panel[data-source=\"{source}\"]').dataset.entryId")
    return None if value is None else int(value)


def settled(driver):
    """Waits until no panel update runs or waits."""
    wait(driver, lambda d: state(d, "!mvlogView.busy && !mvlogView.pending"))


def camera_pixels(driver, source, channels=1):
    """The width, height and pixels (gray, or RGB for 3 channels) of a panel's picture."""
    return driver.execute_script(
        """const canvas = document.querySelector(`.panel[data-source="${arguments[0]}"] canvas`);
        if (!canvas) return null;
        const data = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
        const pixels = [];
        for (let i = 0; i < data.length; i += 4) for (let c = 0; c < arguments[1]; c++) pixels.push(data[i + c]);
        return [canvas.width, canvas.height, pixels];""", source, channels)


def test_lanes_name_every_source_with_its_type_and_rate(page, recording):
    names = [e.text for e in page.find_elements(By.CSS_SELECTOR, ".lane-label .lane-name")]
    assert names == ["[1] front camera", "[2] weather mast", f"[3] {HOSTILE_NAME}", "[4] rear camera"]
    details = [e.text for e in page.find_elements(By.CSS_SELECTOR, ".lane-label small")]
    assert details == ["Camera · 10 Hz", "Environment · 2.0 Hz", "Generic · every 1.500 s", "Camera · 1.0 Hz"]
    # A hostile name is text, never markup.
    assert state(page, "window.pwned") is None
    files = [e.text.split("\n")[0] for e in page.find_elements(By.CSS_SELECTOR, "#files li")]
    # In name order; the first file that can be shown is opened.
    assert files == ["broken.mvlog", "survey.mvlog", "trawl.mvlog"]
    assert page.find_element(By.CSS_SELECTOR, "#files li.chosen").text.startswith("survey.mvlog")
    facts = page.find_element(By.ID, "facts").text
    assert f"{len(recording['entries'])} entries, 4 data sources" in facts
    assert "time index: no" in facts and "durability: fast" in facts


def test_the_camera_gap_is_marked(page, recording):
    gaps = state(page, "mvlogView.bins.lanes['1'].gaps")
    assert gaps == [[camera_time(GAP_AFTER), camera_time(GAP_AFTER + 1)]]
    assert state(page, "mvlogView.bins.lanes['2'].gaps") == []


def test_a_bookmark_marker_moves_the_cursor_and_the_camera_shows_that_frame(page, recording):
    markers = page.find_elements(By.CSS_SELECTOR, "#marks .bookmark")
    assert [m.text for m in markers] == ["Turn to port", "Dock"]
    markers[0].click()
    wait(page, lambda d: state(d, "mvlogView.cursor") == camera_time(10))
    settled(page)
    bookmarked = at_or_before(recording, recording["camera"], camera_time(10))[1]
    assert shown_entry(page, recording["camera"]) == bookmarked
    width, height, gray = camera_pixels(page, recording["camera"])
    assert (width, height) == (WIDTH, HEIGHT)
    assert bytes(gray) == frame(10)[len(f"P5\n{WIDTH} {HEIGHT}\n255\n"):]
    record_text = page.find_element(By.CSS_SELECTOR, f'.panel[data-source="{recording["camera"]}"] .record').text
    assert record_text.startswith(f"entry {bookmarked} · ")
    assert f"· type 1 · {len(frame(10))} B" in record_text and "image/x-portable-graymap" in record_text


def test_the_other_panels_decode_json_text_and_name_the_entry(page, recording):
    page.find_elements(By.CSS_SELECTOR, "#marks .bookmark")[0].click()
    wait(page, lambda d: state(d, "mvlogView.cursor") == camera_time(10))
    settled(page)
    mast_time, mast_id = at_or_before(recording, recording["mast"], camera_time(10))
    assert shown_entry(page, recording["mast"]) == mast_id
    index = (mast_time - BASE - 50) // WEATHER_PERIOD
    tree = page.find_element(By.CSS_SELECTOR, f'.panel[data-source="{recording["mast"]}"] .tree').text
    assert f"temperature: {json.dumps(weather(index)['temperature'])}" in tree
    assert 'site: "mast"' in tree
    notes_time, notes_id = at_or_before(recording, recording["notes"], camera_time(10))
    text = page.find_element(By.CSS_SELECTOR, f'.panel[data-source="{recording["notes"]}"] pre').text
    assert text == f"note {(notes_time - BASE - 30) // 1500}: all well"
    # A PNG, decoded by the browser: pixel for pixel what was logged.
    rear_time, rear_id = at_or_before(recording, recording["rear"], camera_time(10))
    assert shown_entry(page, recording["rear"]) == rear_id
    width, height, rgb = camera_pixels(page, recording["rear"], channels=3)
    assert (width, height) == (PNG_WIDTH, PNG_HEIGHT)
    assert bytes(rgb) == png_pixels((rear_time - BASE - 70) // PNG_PERIOD)


def test_keys_step_through_entries_of_any_source_or_the_selected_one(page, recording):
    body = page.find_element(By.TAG_NAME, "body")
    page.find_elements(By.CSS_SELECTOR, "#marks .bookmark")[0].click()
    wait(page, lambda d: state(d, "mvlogView.cursor") == camera_time(10))
    times = sorted({t for t, _, _ in recording["entries"]})
    start = camera_time(10)
    after = [t for t in times if t > start]
    body.send_keys(Keys.ARROW_RIGHT)
    wait(page, lambda d: state(d, "mvlogView.cursor") == after[0])
    body.send_keys(Keys.ARROW_RIGHT)
    wait(page, lambda d: state(d, "mvlogView.cursor") == after[1])
    body.send_keys(Keys.ARROW_LEFT)
    wait(page, lambda d: state(d, "mvlogView.cursor") == after[0])
    # The camera lane is selected: Shift steps from frame to frame.
    page.find_elements(By.CSS_SELECTOR, ".lane-label")[0].click()
    body.send_keys(Keys.SHIFT, Keys.ARROW_RIGHT)
    wait(page, lambda d: state(d, "mvlogView.cursor") == camera_time(11))
    settled(page)
    assert shown_entry(page, recording["camera"]) == at_or_before(recording, recording["camera"], camera_time(11))[1]
    # B jumps to the next bookmark, End to the last entry.
    body.send_keys("b")
    wait(page, lambda d: state(d, "mvlogView.cursor") == camera_time(45))
    body.send_keys(Keys.END)
    wait(page, lambda d: state(d, "mvlogView.cursor") == times[-1])


def test_play_at_ten_times_reaches_the_right_entries(page, recording):
    Select(page.find_element(By.ID, "speed")).select_by_value("10")
    body = page.find_element(By.TAG_NAME, "body")
    body.send_keys(Keys.HOME)
    wait(page, lambda d: state(d, "mvlogView.cursor") == recording["entries"][0][0])
    settled(page)
    span = recording["entries"][-1][0] - recording["entries"][0][0]
    started = time.monotonic()
    page.find_element(By.ID, "play").click()
    # Pause half way: the panels show the entries at or before the cursor.
    time.sleep(span / 10 / 1000 / 2)
    body.send_keys(" ")
    settled(page)
    cursor = state(page, "mvlogView.cursor")
    assert recording["entries"][0][0] < cursor < recording["entries"][-1][0]
    for source in recording["sources"]:
        assert shown_entry(page, source) == at_or_before(recording, source, cursor)[1]
    # Played on to the end: the last entry of each source.
    started = time.monotonic()
    page.find_element(By.ID, "play").click()
    wait(page, lambda d: not state(d, "mvlogView.playing"), timeout=30)
    elapsed = time.monotonic() - started
    remaining = (recording["entries"][-1][0] - cursor) / 10 / 1000
    assert remaining * 0.5 < elapsed < remaining * 4 + 1
    settled(page)
    assert state(page, "mvlogView.cursor") == recording["entries"][-1][0]
    for source in recording["sources"]:
        assert shown_entry(page, source) == at_or_before(recording, source, recording["entries"][-1][0])[1]


def test_the_plot_of_a_json_field_has_the_payloads_values(page, recording):
    Select(page.find_element(By.ID, "plot-source")).select_by_value(str(recording["mast"]))
    wait(page, lambda d: "temperature" in [o.text for o in Select(d.find_element(By.ID, "plot-field")).options])
    fields = [o.text for o in Select(page.find_element(By.ID, "plot-field")).options]
    assert fields == ["temperature", "wind.speed", "wind.gusts.0", "wind.gusts.1"]
    expected = [[t, weather(n)["temperature"], i]
                for n, (t, i) in enumerate((t, i) for t, i, s in recording["entries"] if s == recording["mast"])]
    wait(page, lambda d: state(d, "mvlogView.plot.points") == expected, message="temperature points")
    Select(page.find_element(By.ID, "plot-field")).select_by_value("wind.speed")
    wait(page, lambda d: state(d, "mvlogView.plot.field") == "wind.speed")
    expected = [[t, weather(n)["wind"]["speed"], i]
                for n, (t, i) in enumerate((t, i) for t, i, s in recording["entries"] if s == recording["mast"])]
    wait(page, lambda d: state(d, "mvlogView.plot.points") == expected, message="wind points")
    assert page.find_element(By.ID, "plot-info").text == f"{WEATHER_COUNT} points"


def test_metadata_resources_and_bookmarks_are_listed(page, recording):
    metadata = page.find_element(By.ID, "metadata-table").text
    assert f"vessel {HOSTILE_VESSEL} text" in metadata
    assert state(page, "window.pwned") is None
    assert "applicationName view-test text" in metadata
    resources = page.find_element(By.ID, "resources-table").text.splitlines()
    thumbnail_size = len(png(PNG_WIDTH, PNG_HEIGHT, png_pixels(0)))
    assert resources[1:] == [f"thumbnail {thumbnail_size} B download", "calibration.json 8 B download"]
    bookmarks = page.find_element(By.ID, "bookmarks-table").text
    assert "Turn to port a hard turn" in bookmarks and "Dock" in bookmarks
    # The thumbnail, a PNG, drawn by the browser.
    wait(page, lambda d: canvas_rgb(d, "#thumbnail canvas") is not None, message="no thumbnail")
    assert page.find_element(By.ID, "thumbnail").is_displayed()
    assert canvas_rgb(page, "#thumbnail canvas") == (PNG_WIDTH, PNG_HEIGHT, png_pixels(0))


def test_a_damaged_file_says_so(page, recording):
    item = page.find_elements(By.CSS_SELECTOR, "#files li")[0]
    assert item.text.split("\n") == ["broken.mvlog", "cannot be shown"]
    item.click()
    problem = page.find_element(By.ID, "problem")
    wait(page, lambda d: problem.is_displayed())
    assert problem.text.startswith("broken.mvlog cannot be shown: ")
    assert "mvlog check" in problem.text
    assert not page.find_element(By.ID, "content").is_displayed()


def test_scrubbing_draws_at_least_twenty_frames_a_second(page, recording):
    # Every camera frame in turn, as a drag across the lane would ask for
    # them, each one drawn before the next is asked for.
    # The page starts on frame 0; each of the others is drawn once.
    times = [camera_time(i) for i in range(1, FRAMES)]
    result = page.execute_async_script(
        """const [times, camera, done] = [arguments[0], arguments[1], arguments[arguments.length - 1]];
        (async () => {
          const before = mvlogView.drawnBySource[camera] || 0;
          const started = performance.now();
          for (const t of times) await setCursor(t);
          done({frames: mvlogView.drawnBySource[camera] - before, ms: performance.now() - started});
        })();""", times, recording["camera"])
    fps = result["frames"] / (result["ms"] / 1000)
    print(f"scrubbing: {result['frames']} frames in {result['ms']:.0f} ms, {fps:.0f} frames/s")
    assert result["frames"] == FRAMES - 1
    assert fps >= 20


def test_refusals_seen_from_the_browser(browser, server):
    port, token = server["port"], server["token"]
    browser.get(f"http://127.0.0.1:{port}/")
    assert json.loads(browser.find_element(By.TAG_NAME, "body").text)["error"].startswith("refused")
    browser.get(f"http://rebound.example:{port}/?token={token}")
    assert json.loads(browser.find_element(By.TAG_NAME, "body").text)["error"].startswith("refused")
    browser.get(f"http://127.0.0.1:{port}/api/files/..%2F..%2Fetc%2Fpasswd/summary?token={token}")
    assert json.loads(browser.find_element(By.TAG_NAME, "body").text) == {"error": "not found"}
    for target in (f"/etc/passwd?token={token}", f"/api/files/3/summary?token={token}"):
        with pytest.raises(urllib.error.HTTPError) as refused:
            urllib.request.urlopen(f"http://127.0.0.1:{port}{target}")
        assert refused.value.code == 404


def test_screenshot(page, recording):
    """The picture of the page the README shows."""
    page.find_elements(By.CSS_SELECTOR, "#marks .bookmark")[0].click()
    wait(page, lambda d: state(d, "mvlogView.cursor") == camera_time(10))
    settled(page)
    target = os.environ.get("MVLOG_VIEW_SCREENSHOT")
    if target:
        assert page.save_screenshot(target)
    assert len(page.get_screenshot_as_png()) > 10000


def test_a_file_being_recorded_shows_its_new_entries(browser, tmp_path):
    path = os.fspath(tmp_path / "live.mvlog")
    with ml.LogFile.create(path, application="live", version="1", durability=ml.Durability.SAFE) as writer:
        source = writer.add_data_source(ml.SourceType.GENERIC, "counter")
        writer.add_encoding(source, ml.Encoding.TEXT)
        for i in range(10):
            writer.log(source, 1, f"count {i}".encode(), BASE + 100 * i)
        process, served = serve(path)
        try:
            browser.get(served["url"])
            wait(browser, lambda d: "10 entries" in d.find_element(By.ID, "facts").text)
            for i in range(10, 25):
                writer.log(source, 1, f"count {i}".encode(), BASE + 100 * i)
            wait(browser, lambda d: "25 entries" in d.find_element(By.ID, "facts").text, timeout=15,
                 message="the page did not show the new entries")
            browser.find_element(By.TAG_NAME, "body").send_keys(Keys.END)
            wait(browser, lambda d: state(d, "mvlogView.cursor") == BASE + 2400)
            settled(browser)
            assert browser.find_element(By.CSS_SELECTOR, '.panel[data-source="1"] pre').text == "count 24"
        finally:
            process.terminate()
            assert process.wait(timeout=10) == 0


def test_listening_beyond_this_machine_warns(recording):
    process = subprocess.Popen([MVLOG, "view", "--no-browser", "--bind", "0.0.0.0", recording["path"]],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        assert process.stderr.readline() == ("mvlog view: warning: listening on 0.0.0.0: whoever reaches this "
                                             "address and has the address with its token can read the files\n")
        assert process.stdout.readline().startswith("Serving 1 file: open http://127.0.0.1:")
    finally:
        process.terminate()
        process.wait(timeout=10)


def test_the_ipv6_loopback_serves_the_page_to_the_browser(browser, recording):
    # The browser names the address in brackets in its Host header.
    process = subprocess.Popen([MVLOG, "view", "--no-browser", "--bind", "::1", recording["path"]],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        line = process.stdout.readline()
        match = re.search(r"^Serving 1 file: open (http://\[::1\]:(\d+)/\?token=[0-9a-f]{32})$", line)
        assert match, line + process.stderr.read()
        browser.get(match.group(1))
        wait(browser, lambda d: state(d, "window.mvlogView && mvlogView.summary !== null && mvlogView.cursorUpdates > 0"),
             message="the page did not load over IPv6")
        assert browser.find_element(By.ID, "title").text == "survey.mvlog"
    finally:
        process.terminate()
        assert process.wait(timeout=10) == 0
    # Loopback stays on this machine: no warning.
    assert process.stderr.read() == ""


def test_a_directory_without_log_files_is_refused(tmp_path):
    result = subprocess.run([MVLOG, "view", "--no-browser", os.fspath(tmp_path)], capture_output=True, text=True)
    assert result.returncode == 1
    assert result.stderr == f"mvlog: {os.fspath(tmp_path)}: no log files (*.mvlog) in this directory\n"
    result = subprocess.run([MVLOG, "view", "--no-browser", os.fspath(tmp_path / "missing.mvlog")],
                            capture_output=True, text=True)
    assert result.returncode == 1
    assert result.stderr == f"mvlog: {os.fspath(tmp_path / 'missing.mvlog')}: no such file\n"


def test_zoom_by_keys_and_wheel_down_to_single_entries(page, recording):
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.actions.wheel_input import ScrollOrigin

    page.find_elements(By.CSS_SELECTOR, "#marks .bookmark")[0].click()
    wait(page, lambda d: state(d, "mvlogView.cursor") == camera_time(10))
    whole = state(page, "mvlogView.to - mvlogView.from")
    body = page.find_element(By.TAG_NAME, "body")
    body.send_keys("+")
    wait(page, lambda d: abs(state(d, "mvlogView.to - mvlogView.from") - whole / 2) < 1)
    # The wheel zooms in at the pointer, until the lanes show entries one by one.
    lanes = page.find_element(By.ID, "timeline")
    for _ in range(12):
        ActionChains(page).scroll_from_origin(ScrollOrigin.from_element(lanes), 0, -300).perform()
    wait(page, lambda d: state(d, "mvlogView.to - mvlogView.from") <= 100)
    wait(page, lambda d: state(d, "mvlogView.bins.from") == state(d, "Math.floor(mvlogView.from)"))
    low, high = state(page, "[mvlogView.bins.from, mvlogView.bins.to]")
    counts = state(page, "mvlogView.bins.lanes['1'].counts")
    in_window = [t for t, _, s in recording["entries"] if s == recording["camera"] and low <= t <= high]
    # Every bin holds at most one camera frame: each is drawn on its own.
    assert sum(counts) == len(in_window) and max(counts, default=0) <= 1
    # "0" shows the whole file again.
    body.send_keys("0")
    wait(page, lambda d: state(d, "mvlogView.from") <= recording["entries"][0][0]
         and state(d, "mvlogView.to") >= recording["entries"][-1][0])


# ---- the trawl: payloads that say less about themselves ----

def canvas_rgb(driver, selector):
    """The width, height and RGB bytes of the canvas at `selector`, or None without one."""
    answer = driver.execute_script(
        """const canvas = document.querySelector(arguments[0]);
        if (!canvas || canvas.tagName !== 'CANVAS') return null;
        const data = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
        const rgb = new Uint8Array(canvas.width * canvas.height * 3);
        for (let p = 0; p < canvas.width * canvas.height; p++)
          for (let c = 0; c < 3; c++) rgb[3 * p + c] = data[4 * p + c];
        let text = '';
        for (let at = 0; at < rgb.length; at += 8192) text += String.fromCharCode(...rgb.subarray(at, at + 8192));
        return [canvas.width, canvas.height, btoa(text)];""", selector)
    return None if answer is None else (answer[0], answer[1], base64.b64decode(answer[2]))


def open_listed(driver, name):
    """Clicks a file in the list and waits until its panels show the cursor's entries."""
    before = state(driver, "mvlogView.cursorUpdates")
    item = [i for i in driver.find_elements(By.CSS_SELECTOR, "#files li") if i.text.split("\n")[0] == name]
    assert len(item) == 1, name
    item[0].click()
    wait(driver, lambda d: state(d, "mvlogView.summary && mvlogView.summary.name") == name
         and state(d, "mvlogView.cursorUpdates") > before, message=f"{name} did not open")
    settled(driver)


@pytest.fixture
def trawl(page, recording):
    open_listed(page, "trawl.mvlog")
    return recording["trawl"]


def test_switching_files_shows_each_ones_lanes(page, recording):
    names = lambda d: [e.text for e in d.find_elements(By.CSS_SELECTOR, ".lane-label .lane-name")]
    assert names(page)[0] == "[1] front camera"
    open_listed(page, "trawl.mvlog")
    assert names(page) == ["[1] gnss", "[2] sonar", "[3] deck camera", "[4] winch camera", "[5] raw",
                           "[6] haul notes"]
    assert page.find_element(By.CSS_SELECTOR, "#files li.chosen").text.startswith("trawl.mvlog")
    assert page.find_element(By.ID, "facts").text.startswith("30 entries, 6 data sources")
    assert shown_entry(page, recording["trawl"]["gnss"]) == 1
    open_listed(page, "survey.mvlog")
    assert names(page)[:2] == ["[1] front camera", "[2] weather mast"]
    assert page.find_element(By.ID, "facts").text.startswith(f"{len(recording['entries'])} entries, 4 data sources")
    settled(page)
    assert shown_entry(page, recording["camera"]) == at_or_before(recording, recording["camera"],
                                                                   state(page, "mvlogView.cursor"))[1]


def test_a_source_of_mixed_bytes_shows_text_as_text_and_the_rest_as_hex(page, trawl):
    # The cursor starts where every source has logged: the first status line.
    assert state(page, "mvlogView.cursor") == TRAWL_BASE + 80
    panel = f'.panel[data-source="{trawl["gnss"]}"]'
    assert page.find_element(By.CSS_SELECTOR, f"{panel} pre").text == gnss_line(0).decode()
    assert page.find_element(By.CSS_SELECTOR, f"{panel} .record").text.endswith(" · text/plain")
    # The next entry of the receiver: a binary fix, in hex.
    page.execute_script("return setCursor(arguments[0]);", TRAWL_BASE + 100)
    settled(page)
    fix = struct.pack("<dd", 59.9, 10.7)
    assert page.find_element(By.CSS_SELECTOR, f"{panel} pre.hex").text == hex_dump(fix)
    assert page.find_element(By.CSS_SELECTOR, f"{panel} .record").text.endswith(" · application/octet-stream")
    # A source that declares nothing: its text is text too.
    notes = f'.panel[data-source="{trawl["notes"]}"]'
    assert page.find_element(By.CSS_SELECTOR, f"{notes} pre").text == haul_note(0).decode()
    record_text = page.find_element(By.CSS_SELECTOR, f"{notes} .record").text
    assert re.search(rf" · type 7 · {len(haul_note(0))} B \(stored \d+ B\) · text/plain$", record_text), record_text


def hex_dump(data: bytes) -> str:
    """The page's hex view of a payload of at most 4 KiB."""
    lines = []
    for at in range(0, len(data), 16):
        row = data[at:at + 16]
        text = " ".join(f"{b:02x}" for b in row).ljust(47)
        ascii_text = "".join(chr(b) if 32 <= b < 127 else "." for b in row)
        lines.append(f"{at:08x}  {text}  {ascii_text}".rstrip())
    return "\n".join(lines)


def test_a_binary_source_shows_its_payload_in_hex(page, trawl):
    panel = page.find_element(By.CSS_SELECTOR, f'.panel[data-source="{trawl["raw"]}"]')
    assert [line.rstrip() for line in panel.find_element(By.CSS_SELECTOR, "pre.hex").text.split("\n")] == \
        hex_dump(RAW_PAYLOAD).split("\n")
    record_text = panel.find_element(By.CSS_SELECTOR, ".record").text
    assert re.search(rf" · type 6 · {len(RAW_PAYLOAD)} B \(stored \d+ B\) · application/octet-stream$", record_text)


def test_an_undeclared_picture_larger_than_a_preview_is_drawn_whole(page, trawl):
    for i in range(2):
        page.execute_script("return setCursor(arguments[0]);", TRAWL_BASE + 80 + 1000 * i)
        settled(page)
        sonar = f'.panel[data-source="{trawl["sonar"]}"]'
        size = len(stored_png(BIG_PNG_WIDTH, BIG_PNG_HEIGHT, big_png_pixels(i)))
        assert size > 262144
        record_text = page.find_element(By.CSS_SELECTOR, f"{sonar} .record").text
        assert re.search(rf" · type 3 · {size} B \(stored \d+ B\) · image/png$", record_text), record_text
        assert canvas_rgb(page, f"{sonar} canvas") == (BIG_PNG_WIDTH, BIG_PNG_HEIGHT, big_png_pixels(i))
    # Once pictures, always asked for whole: one request per frame.
    assert state(page, f"mvlogView.pictureSources.has({trawl['sonar']})")


def test_jpeg_and_pixmap_panels_show_the_logged_pixels(page, trawl):
    for i in range(2):
        page.execute_script("return setCursor(arguments[0]);", TRAWL_BASE + 80 + 1000 * i)
        settled(page)
        width = 8 * len(JPEG_LEVELS[i])
        gray = bytes(JPEG_LEVELS[i][x // 8] for y in range(8) for x in range(width))
        assert canvas_rgb(page, f'.panel[data-source="{trawl["deck"]}"] canvas') == \
            (width, 8, bytes(v for g in gray for v in (g, g, g)))
        assert canvas_rgb(page, f'.panel[data-source="{trawl["winch"]}"] canvas') == \
            (PIXMAP_WIDTH, PIXMAP_HEIGHT, pixmap_pixels(i))


def test_a_pixmap_thumbnail_is_drawn(page, trawl):
    wait(page, lambda d: canvas_rgb(d, "#thumbnail canvas") is not None, message="no thumbnail")
    assert page.find_element(By.ID, "thumbnail").is_displayed()
    assert canvas_rgb(page, "#thumbnail canvas") == (*TRAWL_THUMBNAIL_SIZE, thumbnail_pixels())


def test_the_producer_history_is_told_apart_from_the_current_producer(page, trawl):
    rows = lambda kind: [[td.text for td in tr.find_elements(By.TAG_NAME, "td")]
                         for tr in page.find_elements(By.CSS_SELECTOR, f"#metadata-table tr.{kind}")]
    assert rows("producer") == [["applicationName", "trawl-sorter", "text"], ["applicationVersion", "2.0", "text"]]
    assert rows("history") == [["oldApplicationName", "trawl-logger", "text"],
                               ["oldApplicationVersion", "0.9", "text"],
                               ["producer history", "oldApplicationName: trawl-logger, oldApplicationVersion: 0.9",
                                "(derived file)"]]
    colour = lambda kind: state(page, f"getComputedStyle(document.querySelector('#metadata-table tr.{kind} td'))"
                                      ".backgroundColor")
    plain = state(page, "getComputedStyle([...document.querySelectorAll('#metadata-table tr')]"
                        ".find(tr => tr.cells[0] && tr.cells[0].textContent === 'logVersion').cells[0]).backgroundColor")
    assert len({colour("producer"), colour("history"), plain}) == 3


def test_a_bookmark_at_the_last_entry_stays_inside_the_page(page, trawl):
    marks = page.find_elements(By.CSS_SELECTOR, "#marks .bookmark")
    assert [m.get_attribute("textContent") for m in marks] == [LAST_BOOKMARK]
    inside = page.execute_script(
        """const mark = document.querySelector('#marks .bookmark').getBoundingClientRect();
        const lanes = document.getElementById('marks').getBoundingClientRect();
        return [mark.left >= lanes.left, mark.right <= lanes.right + 0.5, mark.width > 50];""")
    assert inside == [True, True, True]
    assert state(page, "document.documentElement.scrollWidth <= window.innerWidth")
    assert state(page, "document.getElementById('main').scrollWidth <= document.getElementById('main').clientWidth")
    # And it still moves the cursor to its entry.
    marks[0].click()
    wait(page, lambda d: state(d, "mvlogView.cursor") == trawl["entries"][-1][0])


def test_a_resource_downloads_as_its_bytes(page, trawl):
    # The bytes and the name of the link the page makes and clicks are kept
    # here instead of downloaded.
    page.execute_script(
        """window.downloaded = null;
        let made = null;
        const make = URL.createObjectURL;
        URL.createObjectURL = blob => { made = blob; return make(blob); };
        HTMLAnchorElement.prototype.click = function () {
          const name = this.download;
          made.arrayBuffer().then(buffer => { window.downloaded = [name, Array.from(new Uint8Array(buffer))]; });
        };""")
    rows = page.find_elements(By.CSS_SELECTOR, "#resources-table tr")
    assert [r.text for r in rows[1:]] == ["thumbnail 83 B download", "net-plan.bin 768 B download"]
    rows[2].find_element(By.TAG_NAME, "button").click()
    wait(page, lambda d: state(d, "window.downloaded") is not None, message="nothing downloaded")
    name, data = state(page, "window.downloaded")
    assert name == "net-plan.bin"
    assert bytes(data) == bytes(range(256)) * 3
    # The address behind it needs the page's token.
    port = urllib.parse.urlsplit(page.current_url).port
    token = state(page, "token")
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/api/files/2/resources/1?token={token}") as answer:
        assert answer.read() == bytes(range(256)) * 3
        assert answer.headers["Content-Disposition"] == 'attachment; filename="net-plan.bin"'
    with pytest.raises(urllib.error.HTTPError) as refused:
        urllib.request.urlopen(f"http://127.0.0.1:{port}/api/files/2/resources/1")
    assert refused.value.code == 403


# ---- moving around with the pointer ----

def test_dragging_in_the_lanes_moves_the_cursor(page, recording):
    from selenium.webdriver.common.action_chains import ActionChains

    lanes = page.find_element(By.ID, "timeline")
    width = state(page, "timelineWidth()")
    left = -lanes.size["width"] // 2  # offsets are from the element's centre
    updates = state(page, "mvlogView.cursorUpdates")
    actions = ActionChains(page).move_to_element_with_offset(lanes, left + width // 10, 5).click_and_hold()
    seen = []
    for x in (width // 4, width // 2, 3 * width // 4):
        actions.move_to_element_with_offset(lanes, left + x, 5).perform()
        wait(page, lambda d: state(d, "mvlogView.cursor") == state(d, f"timeOf({x})"))
        seen.append(state(page, "mvlogView.cursor"))
        actions = ActionChains(page)
    ActionChains(page).release().perform()
    assert seen == sorted(seen) and len(set(seen)) == 3
    settled(page)
    assert state(page, "mvlogView.cursorUpdates") > updates
    for source in recording["sources"]:
        assert shown_entry(page, source) == at_or_before(recording, source, seen[-1])[1]


def test_dragging_the_time_axis_pans_the_window(page, recording):
    from selenium.webdriver.common.action_chains import ActionChains

    page.find_elements(By.CSS_SELECTOR, "#marks .bookmark")[0].click()
    wait(page, lambda d: state(d, "mvlogView.cursor") == camera_time(10))
    body = page.find_element(By.TAG_NAME, "body")
    body.send_keys("+")
    body.send_keys("+")
    whole = recording["entries"][-1][0] - recording["entries"][0][0]
    wait(page, lambda d: state(d, "mvlogView.to - mvlogView.from") < whole / 3)
    start, end = state(page, "[mvlogView.from, mvlogView.to]")
    width = state(page, "timelineWidth()")
    axis = page.find_element(By.ID, "axis")
    # Dragged 100 px to the left: later times come into view.
    ActionChains(page).move_to_element(axis).click_and_hold().move_by_offset(-100, 0).release().perform()
    shift = 100 / width * (end - start)
    wait(page, lambda d: abs(state(d, "mvlogView.from") - (start + shift)) < 1
         and abs(state(d, "mvlogView.to") - (end + shift)) < 1, message="the axis drag did not pan")
    # The cursor stays; the lanes' bins follow the window.
    assert state(page, "mvlogView.cursor") == camera_time(10)
    wait(page, lambda d: state(d, "mvlogView.bins.from") == state(d, "Math.floor(mvlogView.from)"))
    # Shift and the wheel pan too, by a fifth of the window per 100.
    start, end = state(page, "[mvlogView.from, mvlogView.to]")
    page.execute_script("""document.getElementById('timeline').dispatchEvent(new WheelEvent('wheel',
        {deltaY: -100, shiftKey: true, bubbles: true, cancelable: true}));""")
    wait(page, lambda d: abs(state(d, "mvlogView.from") - (start - (end - start) / 5)) < 1)
    assert abs(state(page, "mvlogView.to - mvlogView.from") - (end - start)) < 1


# ---- the command line ----

def free_port() -> int:
    import socket
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def test_the_port_asked_for_is_the_one_served(recording):
    port = free_port()
    process, served = serve("--port", str(port), recording["path"])
    try:
        assert served["port"] == port
        assert served["url"] == f"http://127.0.0.1:{port}/?token={served['token']}"
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/api/files?token={served['token']}") as answer:
            assert [f["name"] for f in json.loads(answer.read())] == ["survey.mvlog"]
        # A port in use is refused with the reason.
        second = subprocess.run([MVLOG, "view", "--no-browser", "--port", str(port), recording["path"]],
                                capture_output=True, text=True, timeout=20)
        assert second.returncode == 1
        assert second.stderr == f"mvlog: view: cannot listen on 127.0.0.1:{port}\n"
    finally:
        process.terminate()
        assert process.wait(timeout=10) == 0


# ---- the demo's file ----

@pytest.fixture(scope="module")
def demo(tmp_path_factory):
    directory = tmp_path_factory.mktemp("demo") / "demo"
    result = subprocess.run([MVLOG, "demo", os.fspath(directory)], capture_output=True, text=True, timeout=240)
    assert result.returncode == 0, result.stdout + result.stderr
    path = os.fspath(directory / "demo.mvlog")
    process, served = serve(path)
    yield {"path": path, "url": served["url"]}
    process.terminate()
    assert process.wait(timeout=10) == 0


def test_the_demo_file_shows_its_graymap_thumbnail_and_its_receivers_text(browser, demo):
    browser.get(demo["url"])
    wait(browser, lambda d: state(d, "mvlogView.summary !== null && mvlogView.cursorUpdates > 0"), timeout=20)
    settled(browser)
    with ml.LogFile.open(demo["path"]) as f:
        thumbnail = f.thumbnail
        gnss = next(s.id for s in f.data_sources if s.name == "gnss")
        first = f.time_range()[0]
    header = b"P5\n64 64\n255\n"
    assert thumbnail.startswith(header)
    wait(browser, lambda d: canvas_rgb(d, "#thumbnail canvas") is not None, message="no thumbnail")
    width, height, rgb = canvas_rgb(browser, "#thumbnail canvas")
    assert (width, height) == (64, 64)
    assert rgb[0::3] == thumbnail[len(header):] and rgb[1::3] == rgb[0::3] and rgb[2::3] == rgb[0::3]
    # The receiver declares bytes of no one kind: its status lines are text.
    browser.execute_script("return setCursor(arguments[0]);", first + 1000)
    settled(browser)
    panel = f'.panel[data-source="{gnss}"]'
    assert browser.find_element(By.CSS_SELECTOR, f"{panel} pre").text.startswith("$STATUS,t=1000,fix=RTK,sats=")
    assert browser.find_element(By.CSS_SELECTOR, f"{panel} .record").text.endswith(" · text/plain")
    # The last bookmark sits at the right edge, inside the page.
    marks = [m.get_attribute("textContent") for m in browser.find_elements(By.CSS_SELECTOR, "#marks .bookmark")]
    assert marks[-1] == "End of survey"
    assert state(browser, "document.getElementById('main').scrollWidth <= document.getElementById('main').clientWidth")
    assert state(browser, "document.documentElement.scrollWidth <= window.innerWidth")
