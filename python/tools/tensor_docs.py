#!/usr/bin/env python3
"""Reads the members of Tensor and their docstrings from tensor.h.

As a program it writes them as entries of a C++ table: tensor_docs.py TENSOR_H TENSOR_DOCS_INC
The tests use `members` to compare the bindings with the header.
"""

import re
import sys
from typing import NamedTuple


class Parameter(NamedTuple):
    type: str
    name: str
    default: str | None


class Member(NamedTuple):
    name: str
    parameters: list[Parameter]
    doc: str

    @property
    def key(self):
        return f"{self.name}({', '.join(p.name for p in self.parameters)})"


def split_parameters(text):
    """The parameters between the parentheses of a declaration, without results by pointer."""
    parameters, depth, start = [], 0, 0
    for i, c in enumerate(text + ","):
        depth += c in "<({"
        depth -= c in ">)}"
        if c == "," and depth == 0:
            declared, _, default = text[start:i].partition("=")
            start = i + 1
            if match := re.fullmatch(r"\s*(.*[\s*&])(\w+)\s*", declared, re.S):
                type_ = " ".join(match[1].split())
                if type_ != "size_t*":
                    parameters.append(Parameter(type_, match[2], default.strip() or None))
    return parameters


def words(lines):
    return "\n".join(line.strip().lstrip("/").removeprefix(" ") for line in lines)


def class_doc(header):
    lines = header.split("\n")
    end = lines.index("class Tensor {") - 1
    start = end
    while lines[start - 1].startswith("///"):
        start -= 1
    return words(lines[start:end])


def members(header):
    """The public members in order. A docstring counts up to the next one or a blank line; a comment
    under the head of a section counts for all of its members."""
    body = header[header.index("\nclass Tensor {") : header.index("\nprivate:")]
    found, section, doc, declaration = [], [], [], ""
    is_doc_complete = False
    for line in body.split("\n")[3:]:
        text = line.strip()
        if declaration:
            pass
        elif text.startswith("// ----"):
            section, doc = [], []
            continue
        elif text.startswith("///"):
            if is_doc_complete:
                doc = []
            doc.append(text)
            is_doc_complete = False
            continue
        elif text.startswith("//"):
            section.append(text)
            continue
        elif not text:
            doc = []
            continue
        is_doc_complete = True
        declaration += " " + text
        is_balanced = all(declaration.count(a) == declaration.count(b) for a, b in ("()", "{}"))
        if not is_balanced or declaration[-1] not in ";}":
            continue
        match = re.search(r"(operator[^\s(]+|~?\w+)\((.*)\)", declaration.split("{")[0], re.S)
        assert match, declaration
        doc_of_member = words(doc)
        if section:
            doc_of_member += ("\n\n" if doc else "") + words(section)
        found.append(Member(match[1], split_parameters(match[2]), doc_of_member))
        declaration = ""
    return found


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        header = file.read()
    entries = {"Tensor": class_doc(header)}
    for member in members(header):
        entries.setdefault(member.key, member.doc)
    with open(sys.argv[2], "w", encoding="utf-8") as file:
        for key, doc in entries.items():
            file.write(f'{{"{key}", R"doc({doc})doc"}},\n')


if __name__ == "__main__":
    main()
