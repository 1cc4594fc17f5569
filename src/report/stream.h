// The report as a file: its name and mode, its beginning and its end; and the pieces that all tables are made of.
#pragma once

#include <string>
#include <string_view>

#include "core/names.h"

namespace kdr {

// Cell styles of an HTML table: body, heading, last row.
inline constexpr const char* styleplain = "style='border:none;padding:0in 5.4pt 0in 5.4pt'";
inline constexpr const char* stylerule =
    "style='border:none;border-top:solid windowtext 1.5pt;border-bottom:solid windowtext 1.5pt;padding:0in 5.4pt 0in "
    "5.4pt'";
inline constexpr const char* stylebottom =
    "style='border:none;border-bottom:solid windowtext 1.5pt;padding:0in 5.4pt 0in 5.4pt'";

// The place of the dot of the last path component, or the length when it has none.
[[nodiscard]] std::size_t extensionplace(const std::string& path);
// The number of the sub-run of a series, from 1.
[[nodiscard]] int subrunnumber();
// The name of a file that each sub-run of a series has: with its number before the extension. Outside a series the name
// as it is.
[[nodiscard]] std::string subrunname(const std::string& name);
// The name that the sub-run of this number, from 1, gives it.
[[nodiscard]] std::string numberedname(const std::string& name, int number);

// The name of the averaged report: the stem of the sub-runs' numbered reports with ".avg" or "_avg.html"; empty when
// the reports go to standard output, which the averages follow there.
[[nodiscard]] std::string averagedreportname();

// Opens the report of this pass by run.files.outfile (asked for when empty, and then again while it cannot be opened or
// is an input of the run; `keep` is called before the first question, for what must not be lost with it; in a series a
// numbered name made from it, left in outfile with its stem in outbase) and sets run.report.html by the extension. In
// HTML mode the page head is written. A report that cannot be opened, or that would overwrite the run's own MDM file or
// command file, stops the run with code 100. `check` is called when all names are known and nothing is open yet.
void openreport(void (*check)() = nullptr, void (*keep)() = nullptr);

// The part of openreport that settles the report's name and mode.
void namereport(void (*keep)() = nullptr);

// Ends the report on a normal end of a pass: cuts what an earlier, longer iteration of a non-linear run left behind,
// closes the page, closes the file. Nothing is written to standard output.
void closereport();

// HTML mode: opens a table up to its first heading cell.
void opentable();

// A user's text as it may stand in the report: in HTML mode "&", "<" and ">" become entities.
[[nodiscard]] std::string escaped(std::string_view text);
// The first 8 columns of a name as they stand, escaped.
[[nodiscard]] std::string eightcolumns(const Name& name);
// A name as equations and sentences show it: without leading blanks, cut at the first blank, escaped.
[[nodiscard]] std::string bareword(const Name& name);
// The p-value of a chi-square or F test with so many decimals: ">.500" above one half, and below 0.001 "<0.001" in HTML
// mode or where `least` is set.
[[nodiscard]] std::string pvalue(double p, int decimals, bool least = false);
// A value by "%<width>.<decimals>f"; one that could not be computed (not finite) reads "NC".
[[nodiscard]] std::string fixedpoint(double value, int width, int decimals);

}  // namespace kdr
