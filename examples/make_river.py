#!/usr/bin/env python3
"""Writes examples/data/river.csv, the table of examples/river.qz.

Five water gauges stand along a river, gauge 1 upstream and gauge 5
downstream. Each reads "low", "normal" or "high" at four times; a row is one
episode of four readings per gauge. Column g<k>_t<t> is gauge k at time t, and
the columns run time-major (all gauges at time 0, then at time 1, ...), which
is the numbering of the slices that STGRAPH builds.

How the readings arise: at time 0 each gauge draws its level. At each later
time the first gauge mostly keeps its level, and every other gauge mostly
takes over the level its upstream neighbour had one time earlier (the water
flows down), otherwise keeps its own, and now and then jumps at random.

The numbers come from Python's Mersenne Twister with a fixed seed, through
random() only, so that every run writes the same file:

    python3 examples/make_river.py [OUTPUT]
"""
import random
import sys

GAUGES = 5
TIMES = 4
ROWS = 300
SEED = 2024
LEVELS = ["low", "normal", "high"]


def draw(rng, weights):
    u = rng.random() * sum(weights)
    for level, w in enumerate(weights):
        if u < w:
            return level
        u -= w
    return len(weights) - 1


def episode(rng):
    x = [draw(rng, [0.3, 0.5, 0.2]) for _ in range(GAUGES)]
    rows = [list(x)]
    for _ in range(1, TIMES):
        y = []
        for k in range(GAUGES):
            u = rng.random()
            if u < 0.08:
                y.append(draw(rng, [1, 1, 1]))
            elif k > 0 and u < 0.68:
                y.append(x[k - 1])
            else:
                y.append(x[k])
        x = y
        rows.append(list(x))
    return [LEVELS[v] for t in rows for v in t]


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "examples/data/river.csv"
    rng = random.Random(SEED)
    header = ",".join("g%d_t%d" % (k + 1, t) for t in range(TIMES) for k in range(GAUGES))
    lines = [header]
    # The reader drops the line behind the header.
    lines.append(",".join(["normal"] * (GAUGES * TIMES)))
    for _ in range(ROWS):
        lines.append(",".join(episode(rng)))
    with open(out, "w") as f:
        f.write("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()
