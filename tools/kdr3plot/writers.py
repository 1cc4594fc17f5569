"""A comparison as a file: text, Markdown, HTML, LaTeX, comma-separated values, or a document of a word processor."""
import csv
import html
import io
import re
import zipfile

from .document import UNREADABLE, Refusal
from .page import closing, opening

MADE = "Made by kdr3-plot."  # in every table, so that one may take the place of another


# ---- Text

def aligned(rows, gap=2):
    """Rows of texts as columns: the first to the left, the others to the right."""
    widths = [max(len(row[i]) for row in rows if len(row) > i) for i in range(max(map(len, rows)))]
    return ["".join(cell.ljust(widths[0]) if i == 0 else " " * gap + cell.rjust(widths[i]) for i, cell in enumerate(row)).rstrip()
            for row in rows]


def textof(made, title):
    rows = [["", *made.names]]
    heads = []
    for head, body in made.sections:
        heads.append(len(rows))
        rows.append([head])
        rows += [["  " + row.label, *row.texts()] for row in body]
    # A heading is not what a column is as wide as.
    lines = aligned([row if i not in heads else [""] for i, row in enumerate(rows)])
    for i in heads:
        lines[i] = rows[i][0]
    rule = "-" * max(map(len, lines))
    text = ([title] if title else []) + [rule, lines[0], rule, *lines[1:], rule]
    heads, tests = made.testtable()
    if tests:
        text += ["", *aligned([heads, *tests])]
    return "\n".join(text + [""] + made.notes + [MADE, ""])


def markdown(made, title):
    escape = lambda text: re.sub(r"([\\|*_`<>\[\]])", r"\\\1", text)
    line = lambda cells: "| " + " | ".join(cells) + " |"
    text = [f"**{escape(title)}**", ""] if title else []
    text += [line(["", *map(escape, made.names)]), line(["---"] + ["---:"] * len(made.names))]
    for head, body in made.sections:
        text.append(line([f"**{escape(head)}**"] + [""] * len(made.names)))
        text += [line(map(escape, [row.label, *row.texts()])) for row in body]
    heads, tests = made.testtable()
    if tests:
        text += ["", line(heads), line(["---"] + ["---:"] * (len(heads) - 1))] + [line(map(escape, row)) for row in tests]
    return "\n".join(text + [""] + [f"- {escape(note)}" for note in made.notes] + ["", f"<!-- {MADE} -->", ""])


# ---- HTML

def htmltable(caption, heads, body):
    """body: lines of HTML."""
    return (f'<div class="wide" tabindex="0" role="group" aria-label="{caption}"><table><caption>{caption}</caption><thead><tr>'
            + "".join(f'<th scope="col">{head}</th>' if head else "<td></td>" for head in heads)
            + "</tr></thead>\n" + "\n".join(body) + "</table></div>\n")


def htmlrow(row):
    first, *others = map(html.escape, row)
    return f'<tr><th scope="row">{first}</th>' + "".join(f"<td>{cell}</td>" for cell in others) + "</tr>"


def webpage(made, title):
    title = html.escape(title or "Comparison of models")
    body = []
    for head, rows in made.sections:
        body += [f'<tbody><tr><th class="section" scope="rowgroup" colspan="{len(made.names) + 1}">{html.escape(head)}</th></tr>',
                 *(htmlrow([row.label, *row.texts()]) for row in rows), "</tbody>"]
    text = htmltable("Models side by side", ["", *map(html.escape, made.names)], body)
    heads, tests = made.testtable()
    if tests:
        text += htmltable("Likelihood-ratio tests", heads, ["<tbody>", *map(htmlrow, tests), "</tbody>"])
    notes = "".join(f"<li>{html.escape(note)}</li>" for note in made.notes)
    return (opening(title) + f'{text}<h2>Notes</h2><ul>{notes}</ul>\n'
            + closing("Made"))


# ---- LaTeX

SIGNS = {"\\": r"\textbackslash{}", "~": r"$\sim$", "^": r"\textasciicircum{}", "−": "$-$", "–": "--", "×": r"$\times$",
         "χ": r"$\chi$", "²": r"\textsuperscript{2}", "≤": r"$\le$", "<": r"\textless{}", ">": r"\textgreater{}",
         "|": r"\textbar{}", "[": "{[}", "]": "{]}", **{sign: "\\" + sign for sign in "&%$#_{}"}}


def tex(text):
    return "".join(SIGNS.get(sign, sign) for sign in text)


def textable(columns, heads, lines):
    return ([rf"\begin{{tabular}}{{l{'r' * columns}}}", r"\toprule", " & ".join(map(tex, heads)) + r" \\", r"\midrule"]
            + lines + [r"\bottomrule", r"\end{tabular}"])


def latex(made, title):
    lines = []
    for head, body in made.sections:
        lines += [r"\addlinespace"] * bool(lines) + [rf"\multicolumn{{{len(made.names) + 1}}}{{l}}{{\textit{{{tex(head)}}}}} \\"]
        lines += [r"\quad " + " & ".join(map(tex, [row.label, *row.texts()])) + r" \\" for row in body]
    text = ["% " + MADE, r"% Needs \usepackage{booktabs}, and of an old LaTeX \usepackage[utf8]{inputenc}", r"\begin{table}", r"\centering",
            rf"\caption{{{tex(title or 'Comparison of models')}}}", *textable(len(made.names), ["", *made.names], lines)]
    heads, tests = made.testtable()
    if tests:
        text += ["", r"\medskip", *textable(len(heads) - 1, heads, [" & ".join(map(tex, row)) + r" \\" for row in tests])]
    text += ["", r"\medskip", r"\begin{minipage}{\linewidth}\footnotesize\raggedright"]
    return "\n".join(text + [tex(note) + r"\par" for note in made.notes] + [r"\end{minipage}", r"\end{table}", ""])


# ---- Comma-separated values, with all digits

CSVHEAD = "part,term,model,value,error,lower,upper"


def commas(made, title):
    out = io.StringIO()
    writer = csv.writer(out, lineterminator="\n")
    writer.writerow(CSVHEAD.split(","))
    say = lambda x: "" if x is None else x
    for head, body in made.sections:
        for row in body:
            for name, cell, word in zip(made.names, row.cells, row.words):
                if cell:
                    writer.writerow([head, row.label, name, say(cell.value), say(cell.error), *map(say, cell.bounds or (None, None))])
                elif word != "–":
                    writer.writerow([head, row.label, name, word, "", "", ""])
    for a, b, test in made.tests:
        for key in ("chi_square", "df", "p", "mixture_p"):
            if test.get(key) is not None:
                writer.writerow(["Likelihood-ratio test", key, f"{test['large']} against {test['small']}", test[key], "", "", ""])
    for note in made.notes:
        writer.writerow(["Note", "", "", note, "", "", ""])
    return out.getvalue()


# ---- A document of a word processor

def wordtable(document, heads, body, indented=False):
    """body: (is a heading, texts), indented below headings. Rules above and below the head and at the end, as papers have them."""
    from docx.enum.text import WD_ALIGN_PARAGRAPH
    from docx.oxml import OxmlElement
    from docx.oxml.ns import qn
    from docx.shared import Pt

    def rule(row, edge):
        for cell in row.cells:
            borders = cell._tc.get_or_add_tcPr().find(qn("w:tcBorders"))
            if borders is None:
                borders = OxmlElement("w:tcBorders")
                cell._tc.get_or_add_tcPr().append(borders)
            line = OxmlElement(f"w:{edge}")
            for key, value in (("val", "single"), ("sz", "8"), ("space", "0"), ("color", "000000")):
                line.set(qn(f"w:{key}"), value)
            borders.append(line)

    table = document.add_table(0, len(heads))
    table.autofit = True
    for isheading, texts in [(False, heads), *body]:
        row = table.add_row()
        if isheading:
            row.cells[0].merge(row.cells[-1])
        for i, text in enumerate(texts):
            paragraph = row.cells[i].paragraphs[0]
            paragraph.paragraph_format.space_after = Pt(0)
            paragraph.alignment = WD_ALIGN_PARAGRAPH.RIGHT if i else WD_ALIGN_PARAGRAPH.LEFT
            paragraph.paragraph_format.left_indent = Pt(0 if i or isheading or not indented else 9)
            run = paragraph.add_run(text)
            run.font.size, run.italic = Pt(9), isheading
    mark = OxmlElement("w:tblHeader")  # repeated on every page
    table.rows[0]._tr.get_or_add_trPr().append(mark)
    rule(table.rows[0], "top")
    rule(table.rows[0], "bottom")
    rule(table.rows[-1], "bottom")


def word(made, title):
    try:
        import docx
        from docx.enum.section import WD_ORIENT
        from docx.shared import Pt
    except ImportError:
        raise Refusal(UNREADABLE, "python-docx is missing (Debian package python3-docx)")
    document = docx.Document()
    document.core_properties.author, document.core_properties.comments = "kdr3-plot", MADE
    document.core_properties.title = title or "Comparison of models"
    if len(made.names) > 4:  # the wide side of the paper
        section = document.sections[0]
        section.orientation, section.page_width, section.page_height = WD_ORIENT.LANDSCAPE, section.page_height, section.page_width
    document.add_paragraph(document.core_properties.title).runs[0].bold = True
    body = [line for head, rows in made.sections
            for line in [(True, [head])] + [(False, [row.label, *row.texts()]) for row in rows]]
    wordtable(document, ["", *made.names], body, True)
    heads, tests = made.testtable()
    if tests:
        document.add_paragraph()
        wordtable(document, heads, [(False, row) for row in tests])
    document.add_paragraph()
    for note in made.notes:
        paragraph = document.add_paragraph()
        paragraph.paragraph_format.space_after = Pt(2)
        paragraph.add_run(note).font.size = Pt(8)
    out = io.BytesIO()
    document.save(out)
    return out.getvalue()


FORMS = {".txt": textof, ".md": markdown, ".html": webpage, ".htm": webpage, ".tex": latex, ".csv": commas, ".docx": word}


def tableof(made, title, ending):
    data = FORMS[ending](made, title)
    return data if isinstance(data, bytes) else data.encode()


def istable(data):
    """Is it a file that tableof made?"""
    made = MADE.encode()
    return (data.startswith(((CSVHEAD + "\n").encode(), b"% " + made)) or made in data[-200:]
            or data.startswith(b"PK") and made in wordnotes(data))


def wordnotes(data):
    try:
        with zipfile.ZipFile(io.BytesIO(data)) as archive:
            return archive.read("docProps/core.xml")
    except (zipfile.BadZipFile, KeyError, OSError):
        return b""
