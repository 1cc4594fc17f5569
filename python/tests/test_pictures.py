"""Pictures of a result are those of kdr3-plot: what they read is in the program's residual files, digit by digit.

    test_pictures.py <program> <folder of the source tree>     with PYTHONPATH and KDR3_LIBRARY set
"""
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest
import warnings
import xml.etree.ElementTree as tree

import numpy as np

try:
    import matplotlib
except ImportError:
    print("No matplotlib: pictures are not drawn")
    sys.exit(0)
import cases
import kdr3
from kdr3 import plot
from kdr3.kdr3plot import files, simulated

PROGRAM, TREE = os.path.abspath(sys.argv.pop(1)), pathlib.Path(sys.argv.pop(1)).resolve()
GROWTH = TREE / "tests" / "reference" / "formulas" / "growth.csv"
QUADRATURE = {"points": 7}


def growth():
    return cases.read(GROWTH)


def byprogram(folder, formula, words):
    """The run of -fit with its residual files, which have six decimals."""
    def run(*call):
        done = subprocess.run([PROGRAM, "-q", *call], cwd=folder, capture_output=True, text=True)
        assert done.returncode == 0, done.stdout
    run("-fit", formula, str(GROWTH), "-o", "f", *words)
    commands = pathlib.Path(folder, "f.kdr")
    text = commands.read_text().replace("RESFIL1:N", "RESFIL1:Y/YEAR").replace("RESFIL2:N", "RESFIL2:Y").replace("RESFIL3:N", "RESFIL3:Y")
    commands.write_text(text + "RESFILTYPE:FREEFORMAT\n")
    run("f.mdm", "f.kdr")
    return files.Run(f"{folder}/f.json")


class Pictures(unittest.TestCase):
    def test_read_what_the_program_writes(self):
        for formula, given, words in (
                ("score ~ year*sex + ses + (year | school/pupil)", {}, ()),
                ("score ~ year + offset(ses) + (1 | school)", {}, ()),
                ("passed ~ year + ses + (1 | school/pupil)", {"family": "binomial", **QUADRATURE}, ("-family", "binomial", "-points", "7")),
                ("passed ~ year + (1 | school)", {"family": "binomial", "settings": {"AGQNODESFIXED": 1}, **QUADRATURE},
                 ("-family", "binomial", "-points", "7", "-keyword", "AGQNODES:FIXED")),
                ("books ~ year + (1 | school/pupil)", {"family": "poisson", "exposure": "weeks", **QUADRATURE},
                 ("-family", "poisson", "-exposure", "weeks", "-points", "7")),
                ("factor(tries) ~ year + ses + (1 | school)", {"family": "ordinal"}, ("-family", "ordinal")),
                ("arm ~ year + (1 | school)", {"family": "multinomial", "engine": "pql"}, ("-family", "multinomial", "-engine", "pql"))):
            with tempfile.TemporaryDirectory() as folder:
                theirs = byprogram(folder, formula, words)
                mine = plot.runof(kdr3.fit(formula, growth(), **given))
                theirs.read()
                self.assertEqual(set(mine.tables), set(theirs.tables))
                for level, table in mine.tables.items():
                    other = theirs.table(level)
                    for i, name in enumerate(table.names):
                        place = i if level > 1 else other.names.index(name) if name in other.names else None
                        if name in ("L2ID", "L3ID"):
                            self.assertEqual(list(map(str, table.at(i))), other.at(i))
                        elif place is not None and not name.startswith("OL"):
                            offset = name == "FITVAL" and "offset" in formula  # the outcome of the program is less its offset
                            before = name == "L1RESID" and "settings" in given  # its working residual is that of the step before
                            atol = np.inf if offset else 1e-3 if before else 1e-6
                            np.testing.assert_allclose(table.at(i), other.at(place), rtol=0, atol=atol, err_msg=f"{formula} {level} {name}")

    def test_every_kind(self):
        """Each is drawn or refused in a sentence, and the session's figures and looks stay as they were."""
        import matplotlib.pyplot as pyplot
        mine, looks = pyplot.figure(), dict(matplotlib.rcParams)
        data = growth()
        m = kdr3.fit("score ~ year*sex + (year | school/pupil)", data)
        flat = kdr3.fit("score ~ year + (1 | school)", data, settings={"PROFILE": 1})
        nominal = kdr3.fit("arm ~ year + (1 | school)", data, family="multinomial", engine="pql")
        made = [m.plot.coefficients(intercept=True), m.plot.caterpillar(), m.plot.effects("school:pupil", "year", units=[("S01", 1)]), m.plot.qq(),
                m.plot.lines(), m.plot.residuals(), m.plot.simulated(), flat.plot.profile(), nominal.plot.calibration(), nominal.plot.coefficients(ratio=True)]
        self.assertIn("year of level-3 units", made[3].words)
        self.assertNotIn("Intercept", made[2].words)
        self.assertIn("arm = books", made[8].words)
        self.assertIn("year, category none", made[9].words)
        with tempfile.TemporaryDirectory() as folder:
            for picture in made:
                self.assertTrue(tree.fromstring(picture._repr_svg_()).tag.endswith("svg"))
            self.assertIn('alt="Fixed effects', made[0]._repr_html_())
            made[0].save(f"{folder}/p.png")
            self.assertTrue(pathlib.Path(f"{folder}/p.png").read_bytes().startswith(b"\x89PNG"))
        self.assertTrue(pyplot.fignum_exists(mine.number))
        self.assertEqual(dict(matplotlib.rcParams), looks)
        for words, call in (("PROFILE", nominal.plot.profile), ("of the program alone", m.plot.margins), ("no groups to compare", m.plot.calibration),
                            ("no random effects of class", lambda: m.plot.effects("class")), ("no random effect ses", lambda: m.plot.effects("school", "ses")),
                            ("no unit S99", lambda: m.plot.caterpillar(units=["S99"])), ("saved as", lambda: made[0].save("x.pdf")),
                            ("name of a column of residuals", kdr3.fit("score ~ SIGMA + (1 | school)", {**data, "SIGMA": data["ses"]}).plot.qq)):
            with self.assertRaisesRegex(kdr3.KDR3Error, words):
                call()

    def test_outcomes_drawn_from_the_model_look_so(self):
        """Residuals of an outcome that was simulated from a fit are uniform, whatever the model."""
        data = growth()
        for family, text in (("gaussian", "score ~ year + (year | school/pupil)"), ("binomial", "passed ~ year + ses + (1 | school/pupil)"),
                             ("poisson", "books ~ year + (1 | school/pupil)")):
            whole = {name: values[~np.isnan(data["score"])] for name, values in data.items()}
            name = text.split()[0]
            given = {} if family == "gaussian" else {"family": family, **QUADRATURE}
            drawn = kdr3.fit(text, whole, **given).simulate(seed=4)[:, 0]
            m = kdr3.fit(text, {**whole, name: drawn}, **given)
            for _, label, points in simulated.residuals(plot.runof(m)):
                self.assertGreater(simulated.kolmogorov([u for _, u in points])[1], 0.001, (family, label))


if __name__ == "__main__":
    warnings.simplefilter("ignore", kdr3.KDR3Warning)
    unittest.main(warnings="ignore")
