#!/usr/bin/env python3
"""Deterministic data sets for the side-by-side suite, and the changes between runs.

    dataset.py make PROFILE DEST [--seed S]      make the tree (DEST must not exist)
    dataset.py touch DEST PERCENT --round N      new modification time for PERCENT % of files
    dataset.py version DEST PERCENT --round N    new content and time for PERCENT % of files
    dataset.py count DEST                        print "files bytes"

Profiles:
    tiny   2,000 files of 1-16 KiB in 100 folders three levels deep (smoke tests)
    small  100,000 files of 1-16 KiB in 1,000 folders three levels deep
    large  8 files of 128 MiB
    mixed  about 20,000 files, mostly 1-32 KiB, 20 of 10-50 MiB; about 1 GiB

Every fourth middle folder and every fifth file has a space in its name. Content and
times come from the seed only, so two machines build the same tree. The files changed
in round N are chosen by the seed and N, so every tool sees the same changes.
"""
import argparse
import os
import random
import sys

BASE_TIME = 1_700_000_000  # times are fixed, not "now": the tree is the same every time
KIB = 1024
MIB = 1024 * 1024

PROFILES = {
    # name: (fan-out per level, [(count, min size, max size), ...])
    "tiny": ((5, 5, 4), [(2_000, 1 * KIB, 16 * KIB)]),
    "small": ((10, 10, 10), [(100_000, 1 * KIB, 16 * KIB)]),
    "large": ((1, 1, 1), [(8, 128 * MIB, 128 * MIB)]),
    "mixed": ((10, 10, 2), [(19_980, 1 * KIB, 32 * KIB), (20, 10 * MIB, 50 * MIB)]),
}


def leaves(root, fan):
    out = []
    for a in range(fan[0]):
        for b in range(fan[1]):
            for c in range(fan[2]):
                middle = ("group %d" if b % 4 == 0 else "group-%d") % b
                out.append(os.path.join(root, "area-%d" % a, middle, "set-%d" % c))
    return out


def write(path, data, mtime):
    with open(path, "wb") as f:
        f.write(data)
    os.utime(path, (mtime, mtime))


def make(profile, dest, seed):
    fan, groups = PROFILES[profile]
    rng = random.Random(seed)
    folders = leaves(dest, fan)
    for folder in folders:
        os.makedirs(folder)
    index = 0
    for count, low, high in groups:
        for _ in range(count):
            name = ("note %06d.txt" if index % 5 == 0 else "file-%06d.dat") % index
            size = rng.randint(low, high)
            folder = folders[index % len(folders)]
            write(os.path.join(folder, name), rng.randbytes(size), BASE_TIME + index % 86_400)
            index += 1


def all_files(dest):
    files = []
    for top, dirs, names in os.walk(dest):
        dirs.sort()
        for name in sorted(names):
            files.append(os.path.join(top, name))
    return files


def chosen(dest, percent, seed, round_):
    files = all_files(dest)
    rng = random.Random("%d/%d" % (seed, round_))
    count = max(1, len(files) * percent // 100)
    return rng.sample(files, count), rng


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("action", choices=["make", "touch", "version", "count"])
    parser.add_argument("args", nargs="+")
    parser.add_argument("--seed", type=int, default=20261122)
    parser.add_argument("--round", type=int, default=1)
    o = parser.parse_args()

    if o.action == "make":
        profile, dest = o.args
        if profile not in PROFILES:
            sys.exit("unknown profile %s (%s)" % (profile, ", ".join(PROFILES)))
        make(profile, dest, o.seed)
    elif o.action == "count":
        files = all_files(o.args[0])
        print(len(files), sum(os.lstat(f).st_size for f in files))
    else:
        dest, percent = o.args[0], int(o.args[1])
        files, rng = chosen(dest, percent, o.seed, o.round)
        # Later than any time before: a day per round after the base.
        mtime = BASE_TIME + 100 * 86_400 + o.round * 86_400
        for path in files:
            if o.action == "touch":
                os.utime(path, (mtime, mtime))
            else:
                write(path, rng.randbytes(os.lstat(path).st_size), mtime)
        print(len(files))


if __name__ == "__main__":
    main()
