"""mvlog view in the browser on a file of five million entries: how many
camera frames a second the page draws while the cursor is dragged across the
lanes and while it steps from frame to frame.

The file is written here through the Python package (a 1 kHz IMU of 64-byte
readings and a 1 Hz camera of 256x256 graymaps, as marivane_view_bench
writes it), `mvlog view` serves it and headless Chromium (Selenium, as the
browser test drives it) shows it:

- drag: the pointer pressed in the camera's lane and moved across the lanes
  in 240 steps as fast as the browser's driver sends them (each move a new
  frame); the frames drawn in the time the drag takes, beside the pointer
  moves the page received. The page folds the cursor moves that come while
  it draws into one, so this is what a drag shows; frames as many as moves
  mean that the page kept up and the driver set the pace.
- step: the cursor set to the frames one after the other, each drawn before
  the next is asked for, spread over the whole file (a new frame every time).

Usage: view_scrubbing.py PATH/TO/mvlog (PYTHONPATH naming the package's
build). The target is at least 20 frames a second for both.
"""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

import marivane_logging as ml

# VIEW_SCRUBBING_ENTRIES: fewer, to try the script quickly.
ENTRIES = int(os.environ.get("VIEW_SCRUBBING_ENTRIES", 5_000_000))
START = 1_700_000_000_000
SIDE = 256
TARGET_FPS = 20.0
DRAG_STEPS = 240
STEPS = 200


def record(path: str) -> int:
    """Writes the file: an IMU reading every millisecond, a camera frame every second; returns the span in ms."""
    header = f"P5\n{SIDE} {SIDE}\n255\n".encode()
    gradient = bytes((x + y) % 256 for y in range(SIDE) for x in range(SIDE)) * 2
    reading = bytes(range(64))
    written = 0
    at = 0
    with ml.LogFile.create(path, application="view-scrubbing", version="1.0", level=-1, created=START) as f:
        imu = f.add_data_source(ml.SourceType.NAVIGATION, "imu")
        camera = f.add_data_source(ml.SourceType.CAMERA, "camera")
        f.add_encoding(camera, ml.Encoding.GRAYMAP)
        while written < ENTRIES:
            with f.batch():
                for _ in range(100_000):
                    if at % 1000 == 0:
                        # Every frame differs: the pattern moves by one pixel a second.
                        shift = (at // 1000) % (SIDE * SIDE)
                        f.log(camera, 1, header + gradient[shift:shift + SIDE * SIDE], START + at)
                        written += 1
                    f.log(imu, 2, reading, START + at)
                    written += 1
                    at += 1
                    if written >= ENTRIES:
                        break
    return at


def serve(mvlog: str, path: str):
    process = subprocess.Popen([mvlog, "view", "--no-browser", path], stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True)
    line = process.stdout.readline()
    match = re.search(r"open (http://127\.0\.0\.1:\d+/\?token=[0-9a-f]+)$", line)
    if not match:
        process.kill()
        raise RuntimeError(f"mvlog view did not start: {line}{process.stderr.read()}")
    return process, match.group(1)


def state(driver, expression):
    return driver.execute_script(f"return {expression};")


def settled(driver):
    WebDriverWait(driver, 60, poll_frequency=0.02).until(
        lambda d: state(d, "!mvlogView.busy && !mvlogView.pending"))


def drag_fps(driver, camera: int):
    """Frames drawn a second while the pointer drags across the lanes."""
    lanes = driver.find_element(By.ID, "timeline")
    width = lanes.size["width"]
    left = -width // 2 + 5
    driver.execute_script("return setCursor(arguments[0]);", START)
    settled(driver)
    before = state(driver, f"mvlogView.drawnBySource[{camera}] || 0")
    driver.execute_script("""window.pointerMoves = 0;
        document.getElementById('timeline').addEventListener('pointermove', () => window.pointerMoves++);""")
    # The camera's lane is the second: its middle is 51 px from the top.
    top = -lanes.size["height"] // 2 + 51
    actions = ActionChains(driver, duration=0)
    actions.move_to_element_with_offset(lanes, left, top).click_and_hold()
    step = (width - 10) / DRAG_STEPS
    for i in range(1, DRAG_STEPS + 1):
        actions.move_to_element_with_offset(lanes, int(left + i * step), top)
    actions.release()
    started = time.monotonic()
    actions.perform()
    settled(driver)
    elapsed = time.monotonic() - started
    frames = state(driver, f"mvlogView.drawnBySource[{camera}]") - before
    return frames, elapsed, state(driver, "window.pointerMoves")


def step_fps(driver, camera: int, span: int):
    """Frames drawn a second when the cursor goes from frame to frame, each drawn before the next."""
    seconds = span // 1000
    times = [START + 1000 * ((i * seconds) // STEPS) for i in range(STEPS)]
    result = driver.execute_async_script(
        """const [times, camera, done] = [arguments[0], arguments[1], arguments[arguments.length - 1]];
        (async () => {
          const before = mvlogView.drawnBySource[camera] || 0;
          const started = performance.now();
          for (const t of times) await setCursor(t);
          done({frames: mvlogView.drawnBySource[camera] - before, ms: performance.now() - started});
        })();""", times, camera)
    return result["frames"], result["ms"] / 1000


def row(label: str, value: float, unit: str, target: float) -> None:
    status = "MET" if value >= target else "NOT MET"
    print(f"{label:<58} {value:12.2f} {unit:<3} {'>=' + format(target, 'g') + ' ' + unit:>12} {status:>8}",
          flush=True)


def main() -> int:
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    mvlog = sys.argv[1]
    directory = tempfile.mkdtemp(prefix="marivane-view-scrubbing-")
    process = None
    driver = None
    try:
        path = os.path.join(directory, "view-5M.mvlog")
        print(f"mvlog view in headless Chromium on {ENTRIES} entries (1 kHz IMU, 1 Hz camera of 64 KiB graymaps, "
              "level -1)", flush=True)
        started = time.monotonic()
        span = record(path)
        print(f"recorded in {time.monotonic() - started:.1f} s", flush=True)
        process, url = serve(mvlog, path)
        options = webdriver.ChromeOptions()
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1400,1000"):
            options.add_argument(argument)
        driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        driver.set_script_timeout(300)
        started = time.monotonic()
        driver.get(url)
        WebDriverWait(driver, 120, poll_frequency=0.05).until(
            lambda d: state(d, "window.mvlogView && mvlogView.summary !== null && mvlogView.cursorUpdates > 0"))
        settled(driver)
        opened = time.monotonic() - started
        if state(driver, "mvlogView.summary.entries") != ENTRIES:
            raise RuntimeError("the page does not show every entry")
        camera = state(driver, "mvlogView.summary.dataSources.find(s => s.name === 'camera').id")
        print()
        print(f"{'figure':<58} {'value':>16} {'target':>12} {'status':>8}")
        print(f"{'page open: summary, lanes, first panels':<58} {opened * 1000:12.2f} ms  {'-':>12}", flush=True)
        frames, seconds, moves = drag_fps(driver, camera)
        row(f"drag across the lanes ({frames} frames, {moves} moves, {seconds:.2f} s)", frames / seconds, "fps",
            TARGET_FPS)
        frames, seconds = step_fps(driver, camera, span)
        row(f"step frame to frame ({frames} frames in {seconds:.2f} s)", frames / seconds, "fps", TARGET_FPS)
    finally:
        if driver is not None:
            driver.quit()
        if process is not None:
            process.terminate()
            process.wait(timeout=30)
        shutil.rmtree(directory, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
