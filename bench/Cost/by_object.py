#!/usr/bin/env python3
"""Instructions a second by shared object, from what InstructionCount.cpp has written down: by_object.py PREFIX SECONDS

Ours are the library and its platform; what stands in for devices (the simulated car in tavi-recorder, its microphone, the
elements that cost nothing) is shown and not counted in the total.
"""
import bisect
import os
import re
import sys

OURS = re.compile(r"^lib(Tavi|Kbase|Kdevice|KMedia|Kmedia|Ksystem)\.so")
STAND_INS = re.compile(r"tavi_sim|gsttavifree|^tavi-recorder$")


def read(path):
    """(first address, one behind the last, name) of each mapping in the program's addresses; counts by address."""
    maps, base, counts = [], 0, {}
    with open(path, encoding="utf-8") as file:
        for line in file:
            words = line.split()
            if words[0] == "map" and len(words) > 6 and words[6].startswith("/"):
                start, end = (int(word, 16) for word in words[1].split("-"))
                maps.append((start, end, os.path.basename(words[6])))
            elif words[0] == "base":
                base = int(words[1])
            elif words[0] != "map":
                counts[int(words[0])] = int(words[1])
    return sorted((start - base, end - base, name) for start, end, name in maps), counts


def count_by_object(prefix):
    _, first = read(prefix + ".1")
    maps, second = read(prefix + ".2")
    starts = [start for start, _, _ in maps]
    by_object = {}
    for address, count in second.items():
        at = bisect.bisect_right(starts, address) - 1
        name = maps[at][2] if at >= 0 and address < maps[at][1] else "elsewhere"
        by_object[name] = by_object.get(name, 0) + count - first.get(address, 0)
    return {name: count for name, count in by_object.items() if count > 0}


def main(prefix, seconds):
    by_object = {name: count / float(seconds) / 1e6 for name, count in count_by_object(prefix).items()}
    for name, count in sorted(by_object.items(), key=lambda item: -item[1])[:20]:
        print(f"{count:9.3f}  {name}{' (stands in for a device)' if STAND_INS.search(name) else ''}")
    ours = sum(count for name, count in by_object.items() if OURS.search(name))
    total = sum(count for name, count in by_object.items() if not STAND_INS.search(name))
    print(f"million instructions a second: {total:.3f} in all, {ours:.3f} of them in the library and its platform")
    return 0 if total > 0 else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
