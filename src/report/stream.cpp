#include "report/stream.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <utility>

#include "construct/fileclashes.h"
#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/questions.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

bool beginswith(const std::string& text, const char* start) {
  return strncasecmp(text.c_str(), start, std::string_view(start).size()) == 0;
}

// One report for each sub-run of a series, numbered from 1. The name given for the first one makes all the others.
void numberreport() {
  RunFiles& files = run.files;
  if (!run.series.pvmode || run.series.pvindex == 0) {
    const std::size_t dot = extensionplace(files.outfile);
    files.outbase = files.outfile.substr(0, dot);
    run.report.numberedhtml = beginswith(files.outfile.substr(dot), ".htm");
  }
  const std::string number = std::to_string(subrunnumber());
  files.outfile = run.report.numberedhtml ? files.outbase + "_" + number + ".html" : files.outbase + "." + number;
}

// The line ends of a caption stand in its text. A table wider than the window scrolls by itself. windowtext, in the
// styles of the cells, goes with the reader's choice of light or dark.
constexpr const char* stylesheet =
    "<style>\n"
    ":root { color-scheme: light dark; }\n"
    "body { margin: 1em 2em; font-family: Georgia, 'Times New Roman', serif; line-height: 1.35; background: Canvas;\n"
    "  color: CanvasText; overflow-wrap: anywhere; }\n"
    "h1 { font-size: 100%; }\n"
    "h1 table { font-weight: normal; }\n"
    "h4 { white-space: pre-line; }\n"
    "h4 br { display: none; }\n"
    "table { margin: 0.4em 0; }\n"
    "table[border] { display: block; width: fit-content; max-width: 100%; overflow-x: auto; white-space: nowrap; }\n"
    "td { font-variant-numeric: tabular-nums; }\n"
    "th { font-weight: normal; }\n"
    "caption { text-align: left; white-space: pre-line; font-weight: bold; padding: 0.6em 0; }\n"
    "caption br { display: none; }\n"
    "nav ul { list-style: none; padding: 0; columns: 20em; }\n"
    "nav li.inner { padding-left: 1.2em; }\n"
    "nav a { color: LinkText; }\n"
    "@media (max-width: 640px) {\n"
    "  body { margin: 0.5em; }\n"
    "  h2 { font-size: 125%; }\n"
    "  h2 table { width: 100%; font-size: 80%; }\n"
    "  table[border] { font-size: 76%; }\n"
    "  table[border] td, table[border] th { padding: 0 0.2em !important; word-spacing: -0.07em; }\n"
    "}\n"
    "@media print { nav { display: none; } table[border] { display: table; } }\n"
    "</style>\n";

// What the browser makes of the report, whose own text stays as it is: a heading in front of a table becomes its
// caption, the first row its head, and the headings get a table of contents. Without scripts a reader has the report.
constexpr const char* script =
    "<script>\n"
    "document.addEventListener('DOMContentLoaded', () => {\n"
    "  const main = document.createElement('main');\n"
    "  main.append(...document.body.childNodes);\n"
    "  document.body.append(main);\n"
    "  for (const table of main.querySelectorAll('table[border]')) {\n"
    "    const heading = table.previousElementSibling;\n"
    "    const gap = heading === null || heading.nextSibling === table ? '' : heading.nextSibling.textContent.trim();\n"
    "    if (heading && heading.matches('h4, h5') && !gap) {\n"
    "      const caption = table.createCaption();\n"
    "      caption.append(...heading.childNodes);\n"
    "      heading.remove();\n"
    "    }\n"
    "    table.tabIndex = 0;\n"
    "    for (const cell of [...table.rows[0].cells]) {\n"
    "      const head = document.createElement('th');\n"
    "      for (const {name, value} of cell.attributes) head.setAttribute(name, value);\n"
    "      head.scope = 'col';\n"
    "      head.append(...cell.childNodes);\n"
    "      if (head.textContent.trim()) cell.replaceWith(head);\n"
    "    }\n"
    "  }\n"
    "  const list = document.createElement('ul');\n"
    "  let above = 1;\n"
    "  main.querySelectorAll('h2, h3, h4, h5, caption').forEach((part, i) => {\n"
    "    if (part.querySelector('table')) return;\n"
    "    const level = Number(part.localName[1]);\n"
    "    if (level > above + 1) {\n"
    "      part.setAttribute('role', 'heading');\n"
    "      part.setAttribute('aria-level', above + 1);\n"
    "    }\n"
    "    if (level) above = Math.min(level, above + 1);\n"
    "    part.id = 'part' + i;\n"
    "    const link = document.createElement('a'), item = document.createElement('li');\n"
    "    link.href = '#' + part.id;\n"
    "    link.innerHTML = part.innerHTML.replace(/<br>/g, ' ');\n"
    "    const lines = link.textContent.trim().split(/\\s*\\n\\s*/);\n"
    "    if (lines.length > 1 && lines[0].startsWith('The outcome variable is')) lines.shift();\n"
    "    link.textContent = lines.join(' ');\n"
    "    item.className = part.localName === 'h2' ? '' : 'inner';\n"
    "    item.append(link);\n"
    "    list.append(item);\n"
    "  });\n"
    "  const contents = document.createElement('nav');\n"
    "  contents.setAttribute('aria-label', 'Contents');\n"
    "  contents.append(list);\n"
    "  const start = main.querySelector('h2');\n"
    "  if (start) start.after(contents);\n"
    "});\n"
    "</script>\n";

std::string overwriting() { return lossby(run.files.outfile, {run.files.mdmfile, run.files.cmdfile}); }

// Whether a report can be written at the path: without touching it, which a reader at the other end of a pipe would
// see.
bool writable(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) {
    errno = EISDIR;
    return !S_ISDIR(status.st_mode) && access(path.c_str(), W_OK) == 0;
  }
  if (path.empty() || errno != ENOENT) return false;
  const std::size_t slash = path.rfind('/');
  if (slash + 1 == path.size()) return false;
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  return access(folder.c_str(), W_OK | X_OK) == 0;
}

// Says so where the answer to the question is none for this run.
bool usableanswer() {
  const std::string& path = run.files.outfile;
  if (path.empty()) return false;
  if (const std::string words = overwriting(); !words.empty()) {
    std::printf("%s", words.c_str());
    return false;
  }
  if (writable(path)) return true;
  std::perror("");
  std::printf("Unable to open %s for writing\n", path.c_str());
  return false;
}

void askreport() {
  std::string& path = run.files.outfile;
  for (int tries = 0; tries < maxtries; ++tries) {
    if (!readanswer("Enter name of output file: ", path, Question::outputfile)) return;
    if (reportisstdout() || run.series.pvmode || run.series.mimode || usableanswer()) return;
  }
  noproperresponse();
}

}  // namespace

std::size_t extensionplace(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::size_t dot = path.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return path.size();
  return dot;
}

std::string averagedreportname() {
  if (reportisstdout()) return {};
  return run.files.outbase + (run.report.html ? "_avg.html" : ".avg");
}

std::string subrunname(const std::string& name) {
  if (name.empty() || (!run.series.mimode && !run.series.pvmode)) return name;
  return numberedname(name, subrunnumber());
}

std::string numberedname(const std::string& name, int number) {
  const std::size_t dot = extensionplace(name);
  return name.substr(0, dot) + "_" + std::to_string(number) + name.substr(dot);
}

int subrunnumber() { return (run.series.pvmode ? run.series.pvindex : run.series.miindex) + 1; }

void namereport(void (*keep)()) {
  RunFiles& files = run.files;
  const bool laterpass = run.series.pvmode && run.series.pvindex > 0 && !files.outbase.empty();
  if (files.outfile.empty() && !laterpass) {
    if (keep != nullptr) keep();
    askreport();
  }
  const bool series = run.series.pvmode || run.series.mimode;
  if (!reportisstdout() && series) numberreport();
  const std::size_t dot = files.outfile.rfind('.');
  run.report.html = dot != std::string::npos && beginswith(files.outfile.substr(dot), ".htm");
}

void openreport(void (*check)(), void (*keep)()) {
  RunFiles& files = run.files;
  const bool series = run.series.pvmode || run.series.mimode;
  namereport(keep);
  if (check != nullptr) check();
  if (reportisstdout()) {
    run.report.stream = stdout;
  } else {
    if (const std::string words = overwriting(); !words.empty()) stopwith("%s", words.c_str());
    run.report.stream = openfile(files.outfile, series ? "w+" : "w");
  }
  const std::string title = escaped(files.title);
  reporthtml(
      "<!DOCTYPE html>\n<html lang=en>\n<head>\n"
      "<meta http-equiv=\"content-type\" content=\"text/html;charset=utf-8\" />\n"
      "<title>%s</title>\n%s%s</head>\n"
      "<body bgcolor=\"FFFFFF\" fgcolor=\"000000\">\n",
      title.find_first_not_of(' ') == std::string::npos ? module : title.c_str(), stylesheet, script);
}

void closereport() {
  if (run.report.stream == nullptr) return;
  if (!run.model.outcome.linear()) cutreport();
  reporthtml("</body></html>\n");
  if (reportisstdout()) {
    run.report.stream = nullptr;
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) fail(5);
  } else {
    std::FILE* report = std::exchange(run.report.stream, nullptr);
    if (std::fflush(report) != 0 || std::ferror(report) != 0) std::printf("%s:", printable(run.files.outfile).c_str());
    closechk(report);
  }
}

void opentable() { reporthtml("<table border=1 cellpadding=3 style='border-collapse:collapse;border:none'>\n<tr>\n"); }

std::string escaped(std::string_view text) {
  std::string shown = printable(text);
  if (!run.report.html) return shown;
  std::string safe;
  for (const char c : shown) {
    if (c == '&') {
      safe += "&amp;";
    } else if (c == '<') {
      safe += "&lt;";
    } else if (c == '>') {
      safe += "&gt;";
    } else {
      safe += c;
    }
  }
  return safe;
}

std::string eightcolumns(const Name& name) {
  char columns[9];
  std::snprintf(columns, sizeof columns, "%8.8s", name.text);
  return escaped(columns);
}

std::string bareword(const Name& name) {
  const std::string left = leftname(name);
  return escaped(std::string_view(left).substr(0, left.find(' ')));
}

std::string pvalue(double p, int decimals, bool least) {
  if (p > 0.5) return ">.500";
  if (p < 0.001 && (least || run.report.html)) return run.report.html ? "&lt;0.001" : "<0.001";
  return formatted("%.*f", decimals, p);
}

std::string fixedpoint(double value, int width, int decimals) {
  char text[400];  // the largest double takes 309 digits
  if (!std::isfinite(value)) {
    std::snprintf(text, sizeof text, "%*s", width, "NC");
  } else {
    std::snprintf(text, sizeof text, "%*.*f", width, decimals, value);
  }
  return text;
}

}  // namespace kdr
