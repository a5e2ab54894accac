"""SourceType: the library's table of common data-source types, as Python spells it."""

import marivane_logging as ml


def test_members_follow_the_library_names_and_values():
    assert [(member.name, int(member)) for member in ml.SourceType] == [
        ("INVALID", -1),
        ("GENERIC", 0),
        ("CAMERA", 1),
        ("LIDAR", 2),
        ("RADAR", 3),
        ("NAVIGATION", 4),
        ("INERTIAL", 5),
        ("VEHICLE_BUS", 6),
        ("ENVIRONMENT", 7),
        ("TEXT", 8),
    ]


def test_is_an_int_enum_with_the_usual_docstring():
    assert ml.SourceType.VEHICLE_BUS == 6
    assert isinstance(ml.SourceType.CAMERA, int)
    assert ml.SourceType.__module__ == "marivane_logging._selection"
    assert "common vocabulary" in ml.SourceType.__doc__


def test_source_type_keeps_other_values_as_ints():
    from marivane_logging._selection import source_type

    assert source_type(5) is ml.SourceType.INERTIAL
    assert source_type(42) == 42
    assert not isinstance(source_type(42), ml.SourceType)
