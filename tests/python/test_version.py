"""The package reports the library's release."""

import marivane_logging as ml


def test_version_is_the_library_release():
    assert ml.__version__ == "4.0.0"
