"""Payload encodings: declaring them, sniffing, decoding, and payload_as="auto"."""

from __future__ import annotations

import io
import json

import numpy as np
import pytest

import marivane_logging as ml
from conftest import BASE


def _png(pixels: np.ndarray) -> bytes:
    import matplotlib.image

    out = io.BytesIO()
    matplotlib.image.imsave(out, pixels, format="png", cmap="gray", vmin=0, vmax=255)
    return out.getvalue()


@pytest.fixture(scope="module")
def encoded(tmp_path_factory):
    """One source per kind, each with one or two entries."""
    path = tmp_path_factory.mktemp("encoded") / "encoded.mvlog"
    gray = np.arange(12, dtype=np.uint8).reshape(3, 4) * 20
    with ml.LogFile.create(path, application="t", version="1", created=BASE) as f:
        camera = f.add_data_source(ml.SourceType.CAMERA, "camera")
        weather = f.add_data_source(ml.SourceType.ENVIRONMENT, "weather")
        log = f.add_data_source(ml.SourceType.TEXT, "log")
        raw = f.add_data_source(ml.SourceType.GENERIC, "raw")
        f.add_encoding(camera, ml.Encoding.GRAYMAP)
        f.add_encoding(weather, "application/json")
        f.add_encoding(raw, ml.Encoding.OCTET_STREAM)
        with f.batch():
            f.log(camera, 1, b"P5\n4 3\n255\n" + gray.tobytes(), BASE)
            f.log(weather, 2, b'{"t": 0, "wind_mps": 5.5}', BASE + 10)
            f.log(log, 3, "fix lost at the bridge".encode(), BASE + 20)
            f.log(raw, 4, b"\x00\x01\x02", BASE + 30)
            f.log(raw, 4, b'["sniffed", 1]', BASE + 40)
    return path, gray


def test_declared_encodings_are_ordinary_properties(encoded):
    path, _ = encoded
    with ml.LogFile.open(path) as f:
        sources = {source.name: source for source in f.data_sources}
    assert sources["camera"].encoding == "image/x-portable-graymap"
    assert sources["camera"].properties == {"encoding": "image/x-portable-graymap"}
    assert sources["weather"].encoding == "application/json"
    assert sources["log"].encoding is None
    assert sources["raw"].encoding == "application/octet-stream"
    assert ml.ENCODING_PROPERTY == "encoding"


def test_payload_as_auto(encoded):
    path, gray = encoded
    with ml.LogFile.open(path) as f:
        payloads = [entry.payload for entry in f.entries(payload_as="auto")]
        ids = [entry.id for entry in f.entries(payload_as="auto")]
    assert ids == [1, 2, 3, 4, 5]
    image = payloads[0]
    assert isinstance(image, np.ndarray) and image.dtype == np.uint8
    np.testing.assert_array_equal(image, gray)
    assert payloads[1] == {"t": 0, "wind_mps": 5.5}
    # No declaration: the bytes tell (text); octet-stream: the bytes tell too.
    assert payloads[2] == "fix lost at the bridge"
    assert payloads[3] == b"\x00\x01\x02"
    assert payloads[4] == ["sniffed", 1]


def test_sniff_is_the_librarys():
    assert ml.sniff(b"\x89PNG\r\n\x1a\n\x00\x00") == ml.Encoding.PNG
    assert ml.sniff(b"\xff\xd8\xff\xe0") == ml.Encoding.JPEG
    assert ml.sniff(b"P6\n1 1\n255\n\x00\x00\x00") == ml.Encoding.PIXMAP
    assert ml.sniff(memoryview(b'{"a": 1}')) == ml.Encoding.JSON
    assert ml.sniff(b"hello") == ml.Encoding.TEXT
    assert ml.sniff(b"") == ml.Encoding.OCTET_STREAM
    assert ml.sniff(b"caf\xe9") == ml.Encoding.OCTET_STREAM


def test_decode_images():
    rgb = np.arange(2 * 3 * 3, dtype=np.uint8).reshape(2, 3, 3)
    np.testing.assert_array_equal(ml.decode(b"P6\n3 2\n255\n" + rgb.tobytes()), rgb)
    # Plain forms, comments and 16-bit samples.
    np.testing.assert_array_equal(ml.decode(b"P2\n# a comment\n2 2\n255\n0 1\n2 3\n"),
                                  np.array([[0, 1], [2, 3]], dtype=np.uint8))
    np.testing.assert_array_equal(ml.decode(b"P3 1 1 255 10 20 30"), np.array([[[10, 20, 30]]], dtype=np.uint8))
    deep = ml.decode(b"P5 2 1 65535\n" + np.array([1, 65535], dtype=">u2").tobytes())
    np.testing.assert_array_equal(deep, np.array([[1, 65535]]))
    gray = (np.arange(16, dtype=np.uint8).reshape(4, 4) * 16)
    png = ml.decode(_png(gray), ml.Encoding.PNG)
    assert png.shape[:2] == (4, 4)
    np.testing.assert_array_equal(np.round(png[..., 0] * 255).astype(np.uint8), gray)
    with pytest.raises(ValueError, match="holds 3 of its 4 bytes"):
        ml.decode(b"P5\n2 2\n255\n\x00\x01\x02")


def test_decode_text_and_the_rest():
    assert ml.decode(b'{"a": [1, 2]}') == {"a": [1, 2]}
    assert ml.decode(b'{"a": 1', "application/json") == b'{"a": 1'
    assert ml.decode(b"caf\xc3\xa9", "text/plain") == "café"
    assert ml.decode(b"caf\xe9", "text/plain") == b"caf\xe9"
    assert ml.decode(b'{"a": 1}', "application/geo+json") == {"a": 1}
    assert ml.decode(b"\x00\x01") == b"\x00\x01"
    # A declaration wins over the bytes, except octet-stream.
    assert ml.decode(b'{"a": 1}', "text/plain") == '{"a": 1}'
    assert ml.decode(b'{"a": 1}', ml.Encoding.OCTET_STREAM) == {"a": 1}


def test_the_recorder_declares_too(tmp_path):
    path = tmp_path / "recorded.mvlog"
    with ml.Recorder(path, application="t", version="1") as recorder:
        source = recorder.add_data_source(ml.SourceType.ENVIRONMENT, "weather")
        recorder.add_encoding(source, ml.Encoding.JSON)
        recorder.record(source, 1, json.dumps({"t": 1}).encode())
    with ml.LogFile.open(path) as f:
        assert f.data_source("weather").encoding == "application/json"
        assert [entry.payload for entry in f.entries(payload_as="auto")] == [{"t": 1}]
