#!/usr/bin/env python3
"""vkt beside json, msgpack and cbor2 on the sample documents and a record
file, side by side in one run (ratios, not times, are what to read).

    PYTHONPATH=build/default/python /usr/bin/python3 python/bench.py
"""
import json
import os
import sys
import timeit

import cbor2
import msgpack

import vkt

DATA = os.path.join(os.path.dirname(__file__), "..", "..", "shared", "data")


def best(fn, n=5, repeat=5):
    return min(timeit.repeat(fn, number=n, repeat=repeat)) / n


def records(n):
    return [{"id": i * 7919, "name": "user%d" % i, "score": (i % 1000) / 7,
             "active": i % 3 == 0, "group": i % 50,
             "email": "user%d@example.org" % i, "tags": ["t%d" % (i % 10)]}
            for i in range(n)]


def row(name, doc, path, get):
    image, packed = vkt.dumps(doc), msgpack.packb(doc)
    t = {
        "path (open+read)": best(lambda: get(vkt.Image(image))),
        "unpackb whole": best(lambda: msgpack.unpackb(packed)),
        "loads": best(lambda: vkt.loads(image)),
        "dumps": best(lambda: vkt.dumps(doc)),
        "packb": best(lambda: msgpack.packb(doc)),
        "cbor2.loads": best(lambda: cbor2.loads(cbor2.dumps(doc)), 1, 3),
        "json.loads": best(lambda: json.loads(json.dumps(doc)), 1, 3),
    }
    print("%-14s path read: %8.0fx faster than unpackb | loads/unpackb %.2f "
          "| dumps/packb %.2f" % (
              name, t["unpackb whole"] / t["path (open+read)"],
              t["loads"] / t["unpackb whole"], t["dumps"] / t["packb"]))
    return image, packed


def main():
    for name, path in [("twitter", "statuses[3].user.screen_name"),
                       ("citm_catalog", "performances[5].name"),
                       ("canada", "features[0].geometry.type")]:
        file = os.path.join(DATA, name + ".json")
        if not os.path.exists(file):
            print("skipped %s: no %s" % (name, file))
            continue
        with open(file) as f:
            doc = json.load(f)
        row(name, doc, path, lambda img, p=path: img.get(p))
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 1000000
    doc = records(n)
    image, packed = row("%d records" % n, doc, "[%d].name" % (n // 2),
                        lambda img: img.get("[%d].name" % (n // 2)))

    def vkt_sum():
        return sum(r["score"] for r in vkt.Image(image).root)

    def msgpack_sum():
        return sum(r["score"] for r in msgpack.unpackb(packed))

    print("iterate and sum one field: vkt/msgpack %.2f" % (
        best(vkt_sum, 1, 3) / best(msgpack_sum, 1, 3)))


if __name__ == "__main__":
    main()
