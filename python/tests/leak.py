"""A thousand fits leave the process as large as a hundred did."""
import resource
import sys
import warnings

import numpy as np

import kdr3

warnings.simplefilter("ignore", kdr3.KDR3Warning)
draw = np.random.default_rng(1)
group = np.repeat(np.arange(40), 25)
data = {"y": draw.normal(size=1000) + draw.normal(size=40)[group], "x": draw.normal(size=1000), "g": group}


def size():
    with open("/proc/self/statm") as file:
        return int(file.read().split()[1]) * resource.getpagesize() / 2**20


for i in range(int(sys.argv[1]) if len(sys.argv) > 1 else 1000):
    kdr3.fit("y ~ x + (x | g)", data).predict()
    if i in (99, 499):
        print(f"{i + 1} fits: {size():.1f} MiB")
    if i == 99:
        before = size()
print(f"at the end: {size():.1f} MiB")
sys.exit(size() > before + 8)
