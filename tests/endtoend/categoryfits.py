"""Models of outcomes with categories, fitted by quadrature or Laplace on the study of tests/reference/nonlinear."""
import json
import os
import pathlib

from program import NOFEATURES, NOFILES, REFERENCE, Checks, madefolder, run


def phase(document):
    return next(p for p in document["phases"] if p["phase"] == "quadrature")


def numbers(p):
    """Log-likelihood, the taus by rows, coefficients, standard errors."""
    rows = p["fixed_effects"]
    return (p["marginal_log_likelihood"], [x for t in ("tau_pi", "tau_beta") for row in p[t]["estimate"] for x in row],
            [r["estimate"] for r in rows], [r["model_based"]["standard_error"] for r in rows])


class Fits:
    def __init__(self, program):
        self.program, self.check = os.path.abspath(program), Checks()
        self.folder = pathlib.Path(madefolder(self.program, REFERENCE / "nonlinear", "nonlin.mdmt"))

    def fit(self, kind, outcome, engine, predictors=("X1", "X2"), random=(), more="", words=()):
        """Exit code, what was said, and the results document, of one model for each category but the last, or for all."""
        name, _, categories = kind.partition(",")
        sets = int(categories) - 1 if name == "MULTINOMIAL" else 1
        cuts = "".join(f"+THOLD{c}" for c in range(2, int(categories))) if name == "ORDINAL" else ""
        equations = (f"LEVEL1:{outcome}=INTRCPT1{''.join('+' + x for x in predictors)}{cuts}+RANDOM\n"
                     "LEVEL2:INTRCPT1=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/\n"
                     + "".join(f"LEVEL2:{x}=INTRCPT2{'+RANDOM' if x in random else ''}/\nLEVEL3:INTRCPT2=INTRCPT3/\n" for x in predictors))
        (self.folder / "s.kdr").write_text(f"NONLIN:{kind}\nMACROIT:100,N\nMICROIT:100\n{engine}\n" + sets * equations
                                           + f"{more}OUTPUT:s.txt\n" + NOFILES + NOFEATURES)
        return self.run("s.kdr", *words)

    def run(self, command, *words):
        made = self.folder / "s.json"
        made.unlink(missing_ok=True)
        code, said = run(self.program, self.folder, "-results", made.name, *words, "nonlin.mdm", command)
        return code, said, json.loads(made.read_text()) if made.exists() else None

    def twoarebinary(self, kind):
        """Two categories are a binary outcome with the signs turned."""
        for random, points in (((), "1"), (("X1",), "7"), ((), "AUTO")):
            categories = self.fit(kind + ",2", "YBERN", f"AGQ:Y,50,{points}", random=random)[2]
            binary = self.fit("BERNOULLI", "YBERN", f"AGQ:Y,50,{points}", random=random, more="FIXSIGMA2:1\n")[2]
            a, b = numbers(phase(categories)), numbers(phase(binary))
            self.check.near(f"two, {points}", a[0], b[0], 1e-6)
            for x, y, se in zip(a[2], b[2], b[3]):
                self.check.near(f"two, {points}: coefficient", x, -y, 1e-3 * se)
            for x, y in zip(a[1] + a[3], b[1] + b[3]):
                self.check.near(f"two, {points}: taus and errors", x, y, 1e-4 * abs(y))

    def again(self, document):
        """newcmd.kdr gives the same numbers."""
        self.check.equal("newcmd.kdr", numbers(phase(self.run("newcmd.kdr")[2])), numbers(phase(document)))

    def refused(self, kind, outcome, engine, said, **model):
        code, words, document = self.fit(kind, outcome, engine, **model)
        self.check.equal(f"{kind} {engine}", (code, " ".join(said.split()) in " ".join(words.split()), document), (100, True, None))
