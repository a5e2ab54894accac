"""Payload encodings: what a data source's payloads are, and decoding them.

A data source declares the media type of its payloads in its text property
``"encoding"`` (:data:`ENCODING_PROPERTY`); :meth:`LogFile.add_encoding` and
:meth:`Recorder.add_encoding` add it. Readers use the declared type, or the
payload's first bytes (:func:`sniff`, the library's own test) when a source
declares none or ``application/octet-stream``.
"""

from __future__ import annotations

import io
import json
from typing import Any, Optional

import numpy as np

from . import _core

#: The data-source property that names the media type of a source's payloads.
ENCODING_PROPERTY = "encoding"


class Encoding:
    """The media types readers know; any other text may be declared too."""

    PNG = "image/png"
    JPEG = "image/jpeg"
    GRAYMAP = "image/x-portable-graymap"
    PIXMAP = "image/x-portable-pixmap"
    JSON = "application/json"
    TEXT = "text/plain"
    OCTET_STREAM = "application/octet-stream"


def sniff(payload: Any) -> str:
    """The media type of a payload from its first bytes (PNG, JPEG, graymap, pixmap, JSON, text or octet-stream)."""
    return _core._sniff_encoding(bytes(payload))


def declared_encoding(properties: dict) -> Optional[str]:
    """A source's declared media type from its properties: non-empty text under ``"encoding"``, else None."""
    value = properties.get(ENCODING_PROPERTY)
    return value if isinstance(value, str) and value else None


def is_text(media_type: str) -> bool:
    """True for JSON and ``text/*`` types, whose payloads read as text."""
    return media_type == Encoding.JSON or media_type.startswith("text/") or media_type.endswith("+json")


def _netpbm(data: bytes, channels: int) -> np.ndarray:
    """A binary (P5/P6) or plain (P2/P3) netpbm image as an (h, w) or (h, w, 3) array."""
    plain = data[1:2] in (b"2", b"3")
    fields = []
    position = 2
    # Width, height and maximum value, with comments, then one whitespace.
    while len(fields) < 3:
        while position < len(data) and data[position : position + 1].isspace():
            position += 1
        if data[position : position + 1] == b"#":
            while position < len(data) and data[position : position + 1] not in (b"\n", b"\r"):
                position += 1
            continue
        start = position
        while position < len(data) and data[position : position + 1].isdigit():
            position += 1
        if start == position:
            raise ValueError("a netpbm header needs a width, a height and a maximum value")
        fields.append(int(data[start:position]))
    width, height, maximum = fields
    shape = (height, width) if channels == 1 else (height, width, channels)
    count = width * height * channels
    if plain:
        values = np.array(data[position:].split()[:count], dtype=np.int64)
        if values.size != count:
            raise ValueError(f"the image holds {values.size} of its {count} samples")
        return values.astype(np.uint8 if maximum < 256 else np.uint16).reshape(shape)
    dtype = np.dtype(np.uint8) if maximum < 256 else np.dtype(">u2")
    pixels = data[position + 1 : position + 1 + count * dtype.itemsize]
    if len(pixels) != count * dtype.itemsize:
        raise ValueError(f"the image holds {len(pixels)} of its {count * dtype.itemsize} bytes")
    return np.frombuffer(pixels, dtype=dtype).reshape(shape)


def _raster(data: bytes, media_type: str) -> np.ndarray:
    """PNG and JPEG through matplotlib's reader (Pillow underneath for JPEG)."""
    try:
        import matplotlib.image
    except ImportError as error:  # pragma: no cover - matplotlib is a Debian suggestion
        raise ImportError(f"decoding {media_type} payloads needs matplotlib (python3-matplotlib)") from error
    return np.asarray(matplotlib.image.imread(io.BytesIO(data), format=media_type.split("/")[1]))


def decode(payload: Any, media_type: Optional[str] = None) -> Any:
    """A payload as what it is: images as numpy arrays, JSON as objects, text as str, the rest as bytes.

    `media_type` is the source's declared type; without one (or with
    ``application/octet-stream``) the payload's first bytes decide. Text that
    is not valid UTF-8, or JSON that does not parse, stays bytes. A damaged
    image raises ValueError.
    """
    data = bytes(payload)
    kind = media_type if media_type and media_type != Encoding.OCTET_STREAM else sniff(data)
    if kind in (Encoding.GRAYMAP, Encoding.PIXMAP):
        return _netpbm(data, 1 if kind == Encoding.GRAYMAP else 3)
    if kind in (Encoding.PNG, Encoding.JPEG):
        return _raster(data, kind)
    if is_text(kind):
        try:
            text = data.decode("utf-8")
        except UnicodeDecodeError:
            return data
        if kind == Encoding.JSON or kind.endswith("+json"):
            try:
                return json.loads(text)
            except ValueError:
                return data
        return text
    return data
