"""Simulated three-level studies of stated size, as an MDM file, as fixed-format text, and as raw doubles for R.

usage: simulate.py OUT LEVEL3 LEVEL2-PER-LEVEL3 RECORDS-PER-LEVEL2 [slope|intercept] [text] [bernoulli|ordinal] [scale=S]
       [seed=N]

Y = 1 + 2 X + u0 + v0 + (u1 + v1) X + e with standard deviations 1, 0.7, 0.5, 0.3, 1.5; without the random slopes for
"intercept". OUT.mdm holds Y and X; OUT.y, OUT.x and OUT.j, OUT.k (int32 unit numbers) hold the same for R. With "text"
the three raw files and their template are written too, with eight more variables of noise at level 1. The standard
deviations of levels 2 and 3 are multiplied by S. With "bernoulli", Y is 1 where (Y - e) / 2 and a logistic error together are above
0, else 0; with "ordinal" it counts how many of -1, 0.5 and 2 they are above.
"""
import sys

import numpy as np


def name(text):
    return text.rjust(8).ljust(12).encode() + b"\0"


def study(out, n3, per3, per2, sd2, sd3, seed=20, cuts=()):
    """OUT.mdm and the files for R; sd2 and sd3 are the standard deviations of intercept and slope at levels 2 and 3."""
    rng = np.random.default_rng(seed)
    n2 = n3 * per3
    n1 = n2 * per2
    ids3 = np.array([("%12d" % k).encode() + b"\0" for k in range(n3)])
    block = np.dtype([("n", "<i4"), ("m", "<f8", 2), ("r", "<f8", (per2, 2)), ("k", "S13"), ("j", "S13"), ("z", "<f8")])
    with open(out + ".mdm", "wb") as mdm, open(out + ".y", "wb") as fy, open(out + ".x", "wb") as fx:
        head = [2, 1, 1, n1, n2, n3, 0, 1, 0, 2, per2]
        mdm.write(b"MXKDR3" + np.float32(7.01).tobytes() + np.array(head, "<i4").tobytes())
        for names in (("INTRCPT1", "Y", "X"), ("INTRCPT2", "Z"), ("INTRCPT3", "Q")):
            mdm.write(b"".join(name(n) for n in names))
        mdm.write(np.array([260], "<i4").tobytes() + bytes(780) + np.zeros(4).tobytes())
        mdm.write(ids3.tobytes().ljust(13 * n3, b"\0") + np.zeros(n3).tobytes())
        for k in range(n3):
            x = rng.standard_normal((per3, per2))
            u, v = rng.standard_normal((per3, 2)) * sd2, rng.standard_normal(2) * sd3
            y = 1 + 2 * x + (u[:, :1] + v[0]) + (u[:, 1:] + v[1]) * x
            if cuts:
                y = np.sum((y / 2 + rng.logistic(size=(per3, per2)))[..., None] > np.array(cuts), axis=-1).astype(float)
            else:
                y = y + 1.5 * rng.standard_normal((per3, per2))
            b = np.zeros(per3, block)
            b["n"], b["k"] = per2, ids3[k]
            b["m"][:, 0], b["m"][:, 1] = y.mean(1), x.mean(1)
            b["r"][:, :, 0], b["r"][:, :, 1] = y, x
            b["j"] = [("%12d" % j).encode() for j in range(k * per3, (k + 1) * per3)]
            mdm.write(b.tobytes())
            fy.write(y.tobytes())
            fx.write(x.tobytes())
    np.repeat(np.arange(n2, dtype="<i4"), per2).tofile(out + ".j")
    np.repeat(np.arange(n3, dtype="<i4"), per3 * per2).tofile(out + ".k")
    return rng


def text(out, n3, per3, per2, rng):
    with open(out + "-1.dat", "w") as f:
        for j in range(n3 * per3):
            rows = rng.standard_normal((per2, 10))
            f.write("".join("%8d%8d" % (j // per3, j) + "".join("%9.4f" % v for v in row) + "\n" for row in rows))
    with open(out + "-2.dat", "w") as f:
        for j in range(n3 * per3):
            f.write("%8d%8d%9.4f\n" % (j // per3, j, 0))
    with open(out + "-3.dat", "w") as f:
        for k in range(n3):
            f.write("%8d%9.4f\n" % (k, 0))
    names = "\n".join("V%d" % v for v in range(1, 11))
    with open(out + ".mdmt", "w") as f:
        f.write("#KDR3 MDM CREATION TEMPLATE\nrawdattype:ascii\n")
        f.write(f"l1fname:{out}-1.dat\nl2fname:{out}-2.dat\nl3fname:{out}-3.dat\n")
        f.write("numl1var:10\nnuml2var:1\nnuml3var:1\n")
        f.write("l1format:(2A8,10F9.4)\nl2format:(2A8,F9.4)\nl3format:(A8,F9.4)\n")
        f.write(f"l1missing:n\ntimeofdeletion:now\nmdmname:{out}-text.mdm\n")
        f.write(f"*begin l1vars\n{names}\n*end l1vars\n*begin l2vars\nZ\n*end l2vars\n*begin l3vars\nQ\n*end l3vars\n")


def main():
    out, sizes, words = sys.argv[1], [int(word) for word in sys.argv[2:5]], sys.argv[5:]
    options = dict(word.split("=") for word in words if "=" in word)
    scale, slope = float(options.get("scale", 1)), "intercept" not in words
    rng = study(out, *sizes, scale * np.array([1.0, 0.5 * slope]), scale * np.array([0.7, 0.3 * slope]),
                int(options.get("seed", 20)), (0,) if "bernoulli" in words else (-1, 0.5, 2) if "ordinal" in words else ())
    if "text" in words:
        text(out, *sizes, rng)


main()
