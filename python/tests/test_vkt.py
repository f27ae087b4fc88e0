"""The vkt Python module: the mapping, round trips, images written by the
C++ library and the tool, damaged images, and lifetimes."""
import json
import math
import mmap
import os
import subprocess

import pytest
from hypothesis import given, settings, strategies as st

import vkt

TOOL = os.environ.get("VKT_TOOL", "")
DATA = os.environ.get("VKT_DATA_DIR", "")


# One row per rule: a Python value, what reads back.
MAPPING = [
    (None, None),
    (True, True),
    (False, False),
    (0, 0),
    (2**31 - 1, 2**31 - 1),
    (-(2**31), -(2**31)),
    (2**31, 2**31),  # a long integer
    (-(2**63), -(2**63)),
    (2**63 - 1, 2**63 - 1),
    (1.5, 1.5),
    (-0.0, 0.0),  # every zero float is one id
    (float("inf"), float("inf")),
    ("", ""),
    ("h\u00e9llo \U0001f600", "h\u00e9llo \U0001f600"),
    ([], []),
    ((1, "a"), [1, "a"]),  # tuples are arrays
    ({}, {}),
    ({"b": 1, "a": [None]}, {"a": [None], "b": 1}),
]


@pytest.mark.parametrize("value,back", MAPPING)
def test_mapping(value, back):
    got = vkt.loads(vkt.dumps(value))
    assert got == back and type(got) is type(back)


@pytest.mark.parametrize(
    "value,error,where",
    [
        (2**64, OverflowError, "a[1]"),
        (-(2**63) - 1, OverflowError, "a[1]"),
        ("x\0y", ValueError, "a[1]"),
        ({1: 2}, TypeError, "a[1]"),
        ({"k\0": 2}, ValueError, "a[1]"),
        (object(), TypeError, "a[1]"),
        ({"x.y": {"z": 2**70}}, OverflowError, 'a[1]["x.y"].z'),
    ],
)
def test_refusals_name_the_path(value, error, where):
    with pytest.raises(error, match=r" at " + where.replace("[", r"\[")
                       .replace("]", r"\]").replace(".", r"\.")):
        vkt.dumps({"a": [0, value]})


def test_cycles_and_depth_are_refused():
    a = []
    a.append(a)
    with pytest.raises(ValueError, match="holds itself"):
        vkt.dumps(a)
    deep = []
    for _ in range(vkt.MAX_DEPTH):
        deep = [deep]
    with pytest.raises(ValueError, match="deeper"):
        vkt.dumps(deep)
    assert vkt.loads(vkt.dumps(deep[0])) == deep[0]


def test_streams_and_alignment():
    data = {
        "plain": b"\x01\x02\x03",
        "array": bytearray(b"ab"),
        "view": memoryview(b"xyz"),
        "aligned": vkt.Stream(b"\xff" * 5, align=64),
        "bound": vkt.Stream(b"bs", align=16, bound=True),
    }
    image = vkt.dumps(data)
    root = vkt.Image(image).root
    for key, want in [("plain", b"\x01\x02\x03"), ("array", b"ab"),
                      ("view", b"xyz"), ("aligned", b"\xff" * 5),
                      ("bound", b"bs")]:
        view = root[key]
        assert isinstance(view, memoryview) and view.readonly
        assert bytes(view) == want
    offset = image.index(b"\xff" * 5)
    assert offset % 64 == 0
    assert root.type == "object"


json_values = st.recursive(
    st.none() | st.booleans() | st.integers(-(2**63), 2**63 - 1)
    | st.floats(allow_nan=False) | st.text().filter(lambda s: "\0" not in s),
    lambda kids: st.lists(kids, max_size=5)
    | st.dictionaries(st.text().filter(lambda s: "\0" not in s), kids,
                      max_size=5),
    max_leaves=30,
)


@settings(max_examples=150, deadline=None)
@given(json_values)
def test_round_trip(value):
    assert vkt.loads(vkt.dumps(value)) == value
    assert vkt.loads(vkt.dumps(value, share=False)) == value


def test_views_read_in_place():
    doc = {"statuses": [{"user": {"screen_name": "ab", "id": 7}}] * 3,
           "n": 2}
    img = vkt.Image(vkt.dumps(doc))
    root = img.root
    assert len(root) == 2 and sorted(root) == ["n", "statuses"]
    assert root["statuses"][-1]["user"]["screen_name"] == "ab"
    assert img.get("statuses[2].user.id") == 7
    assert img.get("statuses[9]", "none") == "none"
    assert "n" in root and "x" not in root and 3 not in root
    assert root.get("x", 5) == 5
    assert dict(root.items())["n"] == 2
    assert root["statuses"].values()[0].to_py() == doc["statuses"][0]
    with pytest.raises(KeyError):
        root["missing"]
    with pytest.raises(IndexError):
        root["statuses"][3]
    with pytest.raises(TypeError):
        root[0]
    with pytest.raises(ValueError):
        img.get("a[")


def run_tool(*args):
    return subprocess.run([TOOL, *args], capture_output=True, check=True)


@pytest.mark.skipif(not TOOL, reason="the vkt tool was not built")
@pytest.mark.parametrize("name", ["twitter", "citm_catalog", "canada"])
def test_same_bytes_as_pack(name, tmp_path):
    path = os.path.join(DATA, name + ".json")
    if not os.path.exists(path):
        pytest.skip("no sample data in " + DATA)
    run_tool("pack", path, "-o", str(tmp_path / "s.vkt"))
    with open(path, "rb") as f:
        doc = json.load(f)
    assert vkt.dumps(doc) == (tmp_path / "s.vkt").read_bytes()
    assert vkt.loads((tmp_path / "s.vkt").read_bytes()) == doc


@pytest.mark.skipif(not TOOL, reason="the vkt tool was not built")
def test_reads_what_the_tool_writes(tmp_path):
    text = ('{"s":{"$stream":"AAECAw==","align":64},'
            '"b":{"$stream":"/w==","align":16,"bound":true},"n":[1,2.5],'
            '"z":"a\\u0000b"}')
    (tmp_path / "in.json").write_text(text)
    run_tool("pack", "--lax", str(tmp_path / "in.json"), "-o",
             str(tmp_path / "i.vkt"))
    img = vkt.Image.open(str(tmp_path / "i.vkt"))
    assert bytes(img.root["s"]) == b"\x00\x01\x02\x03"
    assert bytes(img.get("b")) == b"\xff"
    assert img.get("n[1]") == 2.5
    assert img.get("z") == "a\0b"  # a NUL kept by --lax reads whole


def test_filtered_images_are_refused():
    image = bytearray(vkt.dumps({"a": 1}))
    image[6] |= 2  # an info filter bit; the checksum is left as it was
    with pytest.raises(vkt.Error):
        vkt.Image(bytes(image))


def damaged_images():
    good = vkt.dumps({"a": [1, "two", 3.5, {"b": b"xy"}], "c": "d" * 40})
    for cut in range(0, len(good), 7):
        yield good[:cut]
    for i in range(len(good)):
        for mask in (0xFF, 0x01):
            b = bytearray(good)
            b[i] ^= mask
            yield bytes(b)


def test_damaged_images_raise_and_never_crash():
    refused = 0
    for data in damaged_images():
        try:
            img = vkt.Image(data)
            img.root if not isinstance(img.root, vkt.Value) else \
                img.root.to_py()
            img.verify()
        except vkt.Error as e:
            assert isinstance(e, ValueError) and e.reason
            refused += 1
        except (UnicodeDecodeError, KeyError):
            pass
    assert refused > 0


def test_views_keep_the_image_alive(tmp_path):
    path = tmp_path / "m.vkt"
    path.write_bytes(vkt.dumps({"a": [1, 2], "s": b"xyz"}))
    with open(path, "rb") as f:
        m = mmap.mmap(f.fileno(), 0, access=mmap.ACCESS_READ)
    view = vkt.Image(m).root["a"]
    stream = vkt.Image(m).root["s"]
    with pytest.raises(BufferError):
        m.close()  # the image holds the buffer
    del m
    assert view.to_py() == [1, 2] and bytes(stream) == b"xyz"
    data = bytearray(vkt.dumps([1, [2]]))
    inner = vkt.Image(data).root[1]
    with pytest.raises(BufferError):
        data.extend(b"more")  # exported: cannot move under the view
    assert inner[0] == 2


def test_trusted_images_read_the_same():
    doc = {"x": [1, {"y": "z"}]}
    assert vkt.Image(vkt.dumps(doc), trusted=True).root.to_py() == doc
    assert math.isinf(vkt.loads(vkt.dumps(float("-inf"))))
