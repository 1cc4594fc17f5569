"""Whole reports, text and HTML, against the stored ones; date, time, style sheet and script are masked.

    reports_test.py PROGRAM [--store]      --store writes the reports that the program makes now
"""
import pathlib
import re
import shutil
import sys

import series_test
from program import ROOT, Checks, Workplace

STORED = pathlib.Path(__file__).parent / "reports"
check = Checks()
work = Workplace(sys.argv[1])


def masked(text):
    text = re.sub(r"\d+ \w+ \d{4}, \w+day", "DATE", text)
    text = re.sub(r"(?s)<style>.*</style>", "STYLE", text)
    text = re.sub(r"(?s)<script>.*</script>\n", "", text)
    return re.sub(r"[ \d]\d:[ \d]\d:[ \d]\d", "TIME", text)


work.run("-r", "chem97.mdmt")
everything = {
    # Exploratory lists, hypotheses, a comparison, constraints, a taupi that is held diagonal.
    "features": work.write("features.kdr", work.read("model2.kdr").replace("+SCHGCSE,2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+LEAGCSE,2+RANDOM/",
                                                                        "+SCHGCSE,2+RANDOM/SCHSIZE\nLEVEL3:INTRCPT2=INTRCPT3+LEAGCSE,2+RANDOM/LEANSCH")
                           .replace("CONSTRAIN:N", "CONSTRAIN:0,0,1,0,0,1\nGAMMA1:0,1,0,0,0,0\nGAMMA2:0,0,0,1,0,0\nGAMMA2:0,0,1,0,0,0\nDEVIANCE:140600\nDF:9\nDIAGONALIZETAUPI:Y")),
    # Thresholds and categories.
    "ordinal": work.edited("ordinal-few.kdr", "ordinal.kdr", STOPMACRO="0.01"),
}
for file in (ROOT / "examples" / "melanoma").iterdir():
    shutil.copy(file, work.folder)
work.run("-r", "melanoma.mdmt")
everything |= {
    # Counts with exposure and over-dispersion, few level-3 units, hypotheses, the list of files.
    "deaths": work.edited("deaths-all.kdr", "deaths.kdr", FULLOUTPUT="Y", FIXSIGMA2="N", TAYLOR="4", POPAVIT="5", GAMMA1="0,1",
                          **{"PRINTVARIANCE-COVARIANCE": "Y"}),
}
for file in (ROOT / "tests" / "reference" / "nonlinear").iterdir():
    shutil.copy(file, work.folder)
work.run("-r", "nonlin.mdmt")
everything |= {
    # Equations of each category, design weights; every section of a Bernoulli run. The engines follow few macro iterations,
    # so that the report is made fast.
    "multinomial": work.edited("multinomial.kdr", "M3W.kdr", STOPMACRO="0.01"),
    "engines": work.edited("engines.kdr", "BERNI.kdr", STOPMACRO="0.01", LAPLACE="Y,3", AGQ="Y,3,5", AGQNODES="FIXED", FULLOUTPUT="Y",
                           **{"PRINTVARIANCE-COVARIANCE": "Y"}),
    # The same in the coordinates that need no unit and no variance above 0.
    "moving": work.edited("moving.kdr", "BERNI.kdr", STOPMACRO="0.01", LAPLACE="Y,50", AGQ="Y,50,5"),
}
mdm = {"deaths": "melanoma.mdm", "multinomial": "nonlin.mdm", "engines": "nonlin.mdm", "moving": "nonlin.mdm"}


def compare(file, made):
    made = masked(made)
    if "--store" in sys.argv:
        STORED.mkdir(exist_ok=True)
        (STORED / file).write_text(made)
    stored = (STORED / file).read_text()
    if file.endswith("html"):
        for mark in ("<!DOCTYPE html>", "<head>", "</head>", "<body ", "</body></html>"):
            check(made.count(mark) == 1, f"{file}: {made.count(mark)} times {mark}")
        check(re.search(r"<[^a-zA-Z/!]", made) is None, f"{file}: a < that is no tag")
        opened = []  # every table, row and heading closes in its order
        for end, tag in re.findall(r"<(/?)(html|body|table|tbody|tr|h[1-5])\b", made):
            if not end:
                opened.append(tag)
            elif not opened or opened.pop() != tag:
                check(False, f"{file}: </{tag}> closes what is not open")
                break
        check(not opened, f"{file}: {opened} left open")
    for line, (a, b) in enumerate(zip(made.splitlines(), stored.splitlines()), 1):
        if a != b:
            check(False, f"{file}, line {line}: {a!r}, stored {b!r}")
            break
    check(len(made) == len(stored), f"{file}: {len(made)} bytes, stored {len(stored)}")


for name, command in everything.items():
    for extension in ("txt", "html"):
        file = f"{name}.{extension}"
        text = work.read(command)
        work.write("run.kdr", re.sub(r"(?m)^OUTPUT:.*$", f"OUTPUT:{file}", text))
        done = work.run(mdm.get(name, "chem97.mdm"), "run.kdr")
        check(done.returncode == 0, f"{file}: code {done.returncode}: {done.stdout[-200:]}")
        compare(file, work.read(file))

# Averages: three data sets of which the second fails, with hypotheses and a latent variable regression; plausible values.
place = series_test.Place(sys.argv[1])
latent = series_test.model().replace("LEVEL2:GCSECNT=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3/",
                                     "LEVEL2:GCSECNT=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/")
latent = latent.replace("LVR-BETA:N", "LVR-BETA:O,P")
bernoulli = series_test.nonlinear("BERNOULLI", options="FIXSIGMA2:1.0\n")
plausible = series_test.model(outcome="SC1", predictors="FEMALE+GC1", plausvals="PLAUSVALS:SC1,SC2\n")
for name, text in (("imputed", latent), ("imputedbernoulli", bernoulli), ("plausible", plausible)):
    for extension, averaged in (("txt", f"{name}.avg"), ("html", f"{name}_avg.html")):
        text = re.sub(r"(?m)^OUTPUT:.*$", f"OUTPUT:{name}.{extension}", text)
        if name == "plausible":
            place.write("run.kdr", text)
            place.run("pv.mdm", "run.kdr")
        else:
            place.series(text, ["imp1", "const", "imp2"])
        compare(averaged, place.read(averaged))
check.finish()
