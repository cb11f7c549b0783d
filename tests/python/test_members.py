"""The members of the bindings are those of the header, by name, parameters, defaults and words."""

import importlib.util
import pathlib
import re

import pytest

import vorn

ROOT = pathlib.Path(__file__).parents[2]
spec = importlib.util.spec_from_file_location(
    "tensor_docs", ROOT / "python" / "tools" / "tensor_docs.py"
)
tensor_docs = importlib.util.module_from_spec(spec)
spec.loader.exec_module(tensor_docs)

MEMBERS = [
    member
    for member in tensor_docs.members((ROOT / "include/vorn/tensor/tensor.h").read_text())
    if member.name not in ("Tensor", "~Tensor") and not member.name.startswith("operator")
]
CLASSES = {
    vorn.Tensor: "float32",
    vorn.IntTensor: "int32",
    vorn.UnsignedLongTensor: "uint64",
    vorn.UnsignedCharTensor: "uint8",
    vorn.ShortTensor: "int16",
}
# What the header says that each element type has; float has all but the member of int masks.
OF_ANY = """is_init get_ptr get_data get_data_python get_size get_stride ld get_width get_height get_w
get_h get_c get_n row col get_dim count get_element_count get_device is_contiguous set_element zero
ones copy_from copy_to""".split()
OF_INT = """resize is_valid_index index add mul elem_add col_sum row_sum sum transpose
count_valid_label write read write_diff show check""".split()


def overloads(cls, name):
    """(parameter names, defaults, docstring) of each overload."""
    for signature, doc, defaults in getattr(cls, name).__nb_signature__:
        inside = re.search(r"\((.*)\) ->", signature)[1]
        names = re.findall(r"(?:^|, )(\w+)(?=[:,)]|$)", inside)
        at = {name: defaults[int(i)] for name, i in re.findall(r"(\w+): [^:=]*= \\(\d+)", inside)}
        yield [n.rstrip("_") for n in names if n != "self"], at, doc


def value_of(default):
    words = {"true": True, "false": False, "nullptr": None}
    return words[default] if default in words else float(default)


@pytest.mark.parametrize("member", MEMBERS, ids=lambda member: member.key)
def test_member_is_that_of_the_header(member):
    of_int = member.key == "count_valid_label(mask, batch_size, sub_frame_len)"
    cls = vorn.IntTensor if of_int else vorn.Tensor
    names = [parameter.name for parameter in member.parameters]
    defaults = {p.name: value_of(p.default) for p in member.parameters if p.default}
    for bound_names, bound_defaults, doc in overloads(cls, member.name):
        if bound_names == names:
            assert bound_defaults == defaults
            assert (doc or "") == member.doc
            return
    pytest.fail(f"{cls.__name__} has no {member.key}")


def test_element_types_have_what_the_library_links():
    names = {member.name for member in MEMBERS}
    for cls, dtype in CLASSES.items():
        expected = set(OF_ANY)
        if dtype == "float32":
            expected = names
        elif dtype == "int32":
            expected |= set(OF_INT)
        elif dtype == "uint64":
            expected |= {"resize"}
        assert {name for name in names if hasattr(cls, name)} == expected, dtype
        assert cls((2, 3)).dtype == dtype
        assert cls((2, 3)).shape == (2, 3)


def test_help_tells_formula_and_shapes():
    doc = vorn.Tensor.lstm_op.__doc__
    assert "c = f c_pre + i g" in doc and "(H by 4W)" in doc
    assert "row pitch" in vorn.Tensor.__doc__


def test_package_is_typed():
    package = pathlib.Path(vorn.__file__).parent
    assert (package / "py.typed").exists()
    stub = (package / "_core.pyi").read_text()
    compile(stub, "_core.pyi", "exec")
    assert "def lstm_op(self, wx_out: Tensor, wc_i: Tensor" in stub
