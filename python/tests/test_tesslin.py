"""The Python binding over the library: opening pages, numpy arrays checked
against Pillow's reading of the same files, processing, saving (checked
with poppler's pdfinfo), errors."""
import os
import re
import shutil
import subprocess

import pytest

import tesslin

numpy = pytest.importorskip("numpy")
SAMPLE = os.environ.get("TESSLIN_TEST_SAMPLE", "")


@pytest.fixture
def sample():
    if not os.path.exists(SAMPLE):
        pytest.skip("no sample: set TESSLIN_TEST_SAMPLE to a multi-page TIFF")
    return SAMPLE


def test_loads_the_installed_library_when_asked():
    prefix = os.environ.get("TESSLIN_TEST_PREFIX")
    if not prefix:
        pytest.skip("not run from an install prefix")
    assert os.path.realpath(tesslin.library_path()).startswith(os.path.realpath(prefix))


def test_pages_match_pillow(sample):
    Image = pytest.importorskip("PIL.Image")
    assert tesslin.page_count(sample) == 3
    with Image.open(sample) as peer:
        for page in range(3):
            b = tesslin.open(sample, page=page)
            assert (b.width, b.height, b.bits) == (1700, 2200, 1)
            peer.seek(page)
            ours = numpy.asarray(b)
            assert ours.shape == (2200, 1700) and ours.dtype == numpy.uint8
            theirs = numpy.asarray(peer.convert("L"))
            assert numpy.array_equal(ours, theirs)


@pytest.mark.parametrize("mode,shape", [
    ("RGB", (5, 7, 3)), ("L", (5, 7)), ("P", (5, 7, 3)), ("RGBA", (5, 7, 4))])
def test_array_shapes_and_values_against_pillow(tmp_path, mode, shape):
    Image = pytest.importorskip("PIL.Image")
    rng = numpy.random.default_rng(7)
    rgb = rng.integers(0, 256, (5, 7, 3), dtype=numpy.uint8)
    image = Image.fromarray(rgb)
    image = image.convert(mode) if mode != "P" else image.quantize(colors=16)
    path = tmp_path / ("x.png")
    image.save(path)
    ours = numpy.asarray(tesslin.open(path))
    expect = numpy.asarray(image.convert({"P": "RGB"}.get(mode, mode)))
    assert ours.shape == shape
    assert numpy.array_equal(ours, expect)


def test_bytes_round_trip(sample):
    b = tesslin.open(sample, page=1)
    data = b.to_bytes("tiff-g4")
    again = tesslin.from_bytes(data)
    assert numpy.array_equal(numpy.asarray(again), numpy.asarray(b))


def test_rotate_and_save_pdf(sample, tmp_path):
    b = tesslin.open(sample)
    try:
        b.rotate(90)
    except tesslin.Error as e:
        if e.status == -7 and "not in this library" in str(e):
            pytest.skip("rotation not in this build")
        raise
    assert (b.width, b.height) == (2200, 1700)
    out = tmp_path / "page.pdf"
    b.save(out)
    if shutil.which("pdfinfo"):
        info = subprocess.run(["pdfinfo", str(out)], capture_output=True, text=True)
        assert info.returncode == 0
        assert re.search(r"^Pages:\s+1$", info.stdout, re.M), info.stdout


def test_save_follows_extension_and_format(tmp_path):
    b = tesslin.from_bytes(_tiny_bmp())
    for name, fmt, magic in [("a.png", None, b"\x89PNG"), ("a.bmp", None, b"BM"),
                             ("a.out", "png", b"\x89PNG"), ("a.tif", None, b"II*\0")]:
        b.save(tmp_path / name, format=fmt)
        assert (tmp_path / name).read_bytes().startswith(magic), name
    with pytest.raises(ValueError):
        b.save(tmp_path / "a.nosuch")


def test_errors_carry_status_and_text(tmp_path):
    with pytest.raises(tesslin.Error) as e:
        tesslin.open(tmp_path / "missing.tif")
    assert e.value.status == -2 and e.value.name == "IMG_ERR_OPEN"
    assert "missing.tif" in str(e.value) and e.value.text in str(e.value)
    (tmp_path / "junk.bin").write_bytes(b"not an image at all, really")
    with pytest.raises(tesslin.Error) as e:
        tesslin.open(tmp_path / "junk.bin")
    assert e.value.status < 0


def _tiny_bmp():
    """A 2 x 2 24-bit BMP file image."""
    import struct
    rows = b"\x00\x00\xff\xff\xff\xff\x00\x00" * 2
    header = struct.pack("<IiiHHIIiiII", 40, 2, 2, 1, 24, 0, len(rows), 2835, 2835, 0, 0)
    return b"BM" + struct.pack("<IHHI", 14 + 40 + len(rows), 0, 0, 54) + header + rows


@pytest.mark.parametrize("operation,expect", [
    (lambda b: b.flip_x(), numpy.fliplr),
    (lambda b: b.flip_y(), numpy.flipud),
    (lambda b: b.invert(), lambda a: 255 - a),
    (lambda b: b.rotate(90), lambda a: numpy.rot90(a, -1)),
    (lambda b: b.rotate(180), lambda a: numpy.rot90(a, 2)),
    (lambda b: b.resize(3400, 4400, "nearest"), lambda a: a.repeat(2, 0).repeat(2, 1)),
])
def test_operations_match_numpy(sample, operation, expect):
    before = numpy.asarray(tesslin.open(sample, page=2))
    b = tesslin.open(sample, page=2)
    try:
        operation(b)
    except tesslin.Error as e:
        if "not in this library" in str(e):
            pytest.skip(str(e))
        raise
    assert numpy.array_equal(numpy.asarray(b), expect(before))
