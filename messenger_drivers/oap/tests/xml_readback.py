#!/usr/bin/env python3
"""Reads back request documents with the standard library's XML parser.

The file named by the first argument holds documents one after another, each
preceded by its length in bytes and a line feed. For each document one line is
printed: the text of every element as "parent/tag:hex" (the text's UTF-8 bytes
in hexadecimal), separated by blanks, or "!" and the parser's error.
"""
import sys
import xml.etree.ElementTree as ET


def elements(element, parent):
    yield parent + "/" + element.tag, element.text or ""
    for child in element:
        yield from elements(child, element.tag)


def main(path):
    with open(path, "rb") as source:
        data = source.read()
    lines = []
    pos = 0
    while pos < len(data):
        end = data.index(b"\n", pos)
        size = int(data[pos:end])
        document = data[end + 1:end + 1 + size]
        pos = end + 1 + size
        try:
            root = ET.fromstring(document)
        except ET.ParseError as error:
            lines.append("! " + str(error))
            continue
        lines.append(" ".join(name + ":" + text.encode("utf-8").hex()
                              for name, text in elements(root, "")))
    sys.stdout.write("".join(line + "\n" for line in lines))


if __name__ == "__main__":
    main(sys.argv[1])
