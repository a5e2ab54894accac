"""Editing what a file says about itself: metadata keys and resources."""

from __future__ import annotations

import pytest

import marivane_logging as ml


@pytest.fixture
def path(tmp_path):
    path = tmp_path / "edit.mvlog"
    with ml.LogFile.create(path, application="editor", version="1", level=3) as f:
        f.add_metadata("site", "north")
        f.add_resource("notes.txt", b"first")
        f.set_thumbnail(b"picture")
    return path


def test_set_and_remove_metadata(path):
    with ml.LogFile.open(path, read_only=False) as f:
        f.set_metadata("site", "south")
        f.set_metadata("depth", 12.5)
        f.set_metadata("runs", 7)
        f.remove_metadata("site")
    with ml.LogFile.open(path) as f:
        assert "site" not in f.metadata
        assert f.metadata["depth"] == 12.5
        assert f.metadata["runs"] == 7


def test_fixed_and_missing_keys_are_refused_naming_the_file(path):
    with ml.LogFile.open(path, read_only=False) as f:
        with pytest.raises(ml.RefusedError) as raised:
            f.set_metadata("logVersion", 5)
        assert str(raised.value) == (
            f"The metadata key 'logVersion' of '{path}' is set when a log file is created and cannot be "
            "changed or removed."
        )
        with pytest.raises(ml.RefusedError, match="has no metadata key 'nothing'"):
            f.remove_metadata("nothing")
        with pytest.raises(TypeError):
            f.set_metadata("flag", True)
    with ml.LogFile.open(path) as f:
        assert f.metadata["logVersion"] == 4


def test_replace_and_remove_resources(path):
    with ml.LogFile.open(path, read_only=False) as f:
        f.replace_resource("notes.txt", b"second")
        f.replace_resource("thumbnail", bytearray(b"another picture"))
        f.replace_resource("calibration.json", b"{}")
        f.remove_resource("calibration.json")
        with pytest.raises(ml.RefusedError, match="has no resource 'calibration.json'"):
            f.remove_resource("calibration.json")
    with ml.LogFile.open(path) as f:
        assert f.resources["notes.txt"] == b"second"
        # A replaced thumbnail reads back, also in a compressing file.
        assert f.thumbnail == b"another picture"
        assert "calibration.json" not in f.resources


def test_a_read_only_handle_changes_nothing(path):
    with ml.LogFile.open(path) as f:
        with pytest.raises(ml.ReadOnlyError):
            f.set_metadata("site", "east")
        with pytest.raises(ml.ReadOnlyError):
            f.remove_resource("notes.txt")
    with ml.LogFile.open(path) as f:
        assert f.metadata["site"] == "north"
