"""Tensor files through Python's own files, and printing."""

import io

import numpy as np
import pytest

import vorn


@pytest.fixture
def sample(tensor):
    return tensor(np.arange(12).reshape(3, 4) / 4)


def test_binary_forms_share_a_file(sample, tmp_path, device):
    path = tmp_path / "tensors"
    with open(path, "wb") as file:
        file.write(b"head")
        sample.write(file)
        sample.write_hfnn(file)
        file.write(b"tail")
    raw = path.read_bytes()
    assert np.frombuffer(raw[4:16], np.int32).tolist() == [2, 3, 4]
    assert np.frombuffer(raw[64:80], np.uint64).tolist() == [3, 4]
    assert raw.endswith(b"tail") and len(raw) == 4 + 60 + 64 + 4
    with open(path, "rb") as file:
        assert file.read(4) == b"head"
        for read in ("read", "read_hfnn"):
            back = vorn.Tensor(device)
            getattr(back, read)(file)
            np.testing.assert_array_equal(np.asarray(back.cpu()), np.asarray(sample.cpu()))
        assert file.read() == b"tail"


def test_text_forms_by_name_and_by_file(sample, tmp_path):
    by_name, by_file = tmp_path / "name", tmp_path / "file"
    sample.write(str(by_name))
    with open(by_file, "w+") as file:
        file.write("one line\n")
        sample.write(file)
        file.write("after\n")
        file.seek(0)
        assert file.readline() == "one line\n"
        back = vorn.Tensor()
        back.read(file)
        assert file.read().strip() == "after"
    np.testing.assert_array_equal(np.asarray(back), np.asarray(sample.cpu()))
    assert by_file.read_text() == f"one line\n{by_name.read_text()}after\n"
    back.read(filename=str(by_name))
    assert back.check(sample) == 0
    sample.write_diff(str(by_name), count=2, fixed=1)
    assert "0.2" in by_name.read_text() or "0.3" in by_name.read_text()


def test_files_that_cannot_do_it(sample, tmp_path):
    with pytest.raises((OSError, ValueError)):
        sample.write(io.BytesIO())
    with open(tmp_path / "a", "w") as file, pytest.raises(TypeError, match="binary"):
        sample.write_hfnn(file)
    with open(tmp_path / "a", "wb") as file, pytest.raises(vorn.CheckError) as caught:
        vorn.from_numpy(np.ones((3, 4), np.float32)[:, 1:]).write(file)
    assert caught.value.may_have_written


def test_what_a_damaged_file_says_is_an_error(tmp_path):
    path = tmp_path / "damaged"
    path.write_bytes(np.array([9, 1, 1], np.int32).tobytes())
    with open(path, "rb") as file, pytest.raises(vorn.CheckError, match="Invalid dim axis 9"):
        vorn.Tensor().read(file)


def test_show_prints_after_what_python_printed(sample, capfd):
    print("before")
    sample.show("sample", (0, 0), (1, 2))
    out = capfd.readouterr().out
    assert out.startswith("before\n") and "sample" in out
