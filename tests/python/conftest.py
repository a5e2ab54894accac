"""Shared fixtures: small log files with known contents."""

from __future__ import annotations

import os

import pytest

import marivane_logging as ml

BASE = 1_700_000_000_000  # 2023-11-14T22:13:20Z
ENTRIES = 30


def payload_of(i: int) -> bytes:
    """The payload of the i-th entry (0-based) of the sample file."""
    if i % 3 == 0:
        return bytes([i]) * 1000
    return f"fix-{i}".encode()


def write_sample(path: str) -> None:
    """30 entries, 100 ms apart: ids 1, 4, 7, ... from "cam" (type 1), the others from "gnss" (type 2)."""
    with ml.LogFile.create(path, application="sample", version="1.2.3", created=BASE - 1000) as f:
        cam = f.add_data_source(ml.SourceType.CAMERA, "cam")
        gnss = f.add_data_source(ml.SourceType.NAVIGATION, "gnss")
        f.add_property(cam, "width", 640)
        f.add_property(cam, "pixelFormat", "GRAY8")
        f.add_property(gnss, "rateHz", 20.0)
        f.add_metadata("vessel", "RV Test")
        f.add_resource("calibration.json", b'{"k": 1}')
        f.set_thumbnail(b"\x89PNG-thumb")
        with f.batch():
            for i in range(ENTRIES):
                source = cam if i % 3 == 0 else gnss
                f.log(source, 1 if source == cam else 2, payload_of(i), BASE + 100 * i)
        f.add_bookmark(5, "Turn", "to port", b"\x01\x02")
        f.add_bookmark(20, "Stop")


@pytest.fixture(scope="session")
def sample_path(tmp_path_factory) -> str:
    path = os.fspath(tmp_path_factory.mktemp("sample") / "sample.mvlog")
    write_sample(path)
    return path


@pytest.fixture
def sample(sample_path):
    with ml.LogFile.open(sample_path) as f:
        yield f
