#!/usr/bin/env python3
"""Writes a JSON array of N seven-field records, shaped like a dataset's rows,
for measuring the vkt tool on large images:

    bench/make_records.py 1500000 > records.json   # about 200 MB
    vkt pack records.json -o records.vkt
"""
import sys


def main():
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 1500000
    out = sys.stdout
    out.write("[")
    for i in range(n):
        if i:
            out.write(",\n")
        out.write(
            '{"id":%d,"name":"user%d","email":"user%d@example.org",'
            '"score":%r,"active":%s,"group":%d,"tags":["t%d","g%d"]}'
            % (i * 7919, i, i, (i % 1000) / 7.0,
               "true" if i % 3 == 0 else "false", i % 50, i % 10, i % 7))
    out.write("]\n")


if __name__ == "__main__":
    main()
