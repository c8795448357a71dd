#!/usr/bin/env python3
"""Prints the mangled names of the functions that the given headers declare out of line.

Reads clang's JSON syntax tree (-Xclang -ast-dump=json) on standard input. A location carries its
file only when the file changes, so the walk follows the tree in the order clang wrote it.
"""
import json
import sys

DECLARATION_KINDS = {"FunctionDecl", "CXXMethodDecl", "CXXConstructorDecl", "CXXDestructorDecl"}


def main():
    headers = tuple(sys.argv[1:])
    current_file = ""
    names = set()

    def walk(node):
        nonlocal current_file
        if isinstance(node, list):
            for child in node:
                walk(child)
            return
        if not isinstance(node, dict):
            return
        if "file" in node:
            current_file = node["file"]
        node_file = current_file
        for key, value in node.items():
            if key != "includedFrom" and isinstance(value, (dict, list)):
                walk(value)
            if key == "loc":
                node_file = current_file
        body = any(child.get("kind") == "CompoundStmt" for child in node.get("inner", []))
        if (node.get("kind") in DECLARATION_KINDS and node_file.endswith(headers)
                and not node.get("isImplicit") and not body and "mangledName" in node):
            names.add(node["mangledName"])

    walk(json.load(sys.stdin))
    for name in sorted(names):
        print(name)


if __name__ == "__main__":
    main()
