#include "report/header.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <string>

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "report/passtables.h"
#include "report/stream.h"

namespace kdr {

namespace {

constexpr const char* months[] = {"January", "February", "March",     "April",   "May",      "June",
                                  "July",    "August",   "September", "October", "November", "December"};
constexpr const char* weekdays[] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
constexpr const char* supportaddress = "support@kdr3.example";
constexpr const char* webaddress = "https://kdr3.example";

// File name and extension of the running program, or nothing when it cannot be had.
std::string programfile() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0) return {};
  const std::string whole(path, static_cast<std::size_t>(length));
  return whole.substr(whole.rfind('/') + 1);
}

void product() {
  const int major = std::atoi(version);
  report2("\n", "<h1>\n  <table width = \"99%%\">\n");
  report2(" Program:                       KDR %d Nested Linear and Nonlinear Modeling\n",
          "    <tr>\n      <td width=\"25%%\">Program:</td>\n"
          "      <td width=\"75%%\" align=\"right\">KDR %d Nested Linear and Nonlinear Modeling</td>\n    </tr>\n",
          major);
  report2(" Authors:                       Dara Quill, Ivo Renk, & Mira Sol\n",
          "    <tr>\n      <td width=\"25%%\">Authors:</td>\n"
          "      <td width=\"75%%\" align=\"right\">Dara Quill, Ivo Renk, &amp; Mira Sol</td>\n    </tr>\n");
  report2(" Publisher:                     Tessel Analytic Press, Inc.\n",
          "    <tr>\n      <td width=\"25%%\">Publisher:</td>\n"
          "      <td width=\"75%%\" align=\"right\">Tessel Analytic Press, Inc.</td>\n    </tr>\n");
  report2("%80s\n%80s\n", "    <tr>\n      <td />\n      <td align=\"right\">%s<br />%s</td>\n    </tr>\n",
          supportaddress, webaddress);
  report2(" -------------------------------------------------------------------------------\n",
          "  </table>\n  <hr />\n</h1>\n");
}

void occasion(const std::tm& now) {
  const std::string file = escaped(programfile());
  reporthtml("<h2>\n  <table width = \"50%%\">\n");
  report2(" Module:      %s (%s)\n", "    <tr>\n      <td>Module:</td>\n      <td>%s (%s)</td>\n    </tr>\n",
          file.c_str(), version);
  report2(" Date:        %d %s %4d, %s\n", "    <tr>\n      <td>Date:</td>\n      <td>%d %s %4d, %s</td>\n    </tr>\n",
          now.tm_mday, months[now.tm_mon], now.tm_year + 1900, weekdays[now.tm_wday]);
  report2(" Time:        %2d:%2d:%2d\n", "    <tr>\n      <td>Time:</td>\n      <td>%2d:%2d:%2d</td>\n    </tr>\n",
          now.tm_hour, now.tm_min, now.tm_sec);
  report2(" -------------------------------------------------------------------------------\n\n",
          "  </table>\n  <hr />\n</h2>\n<br />\n");
}

}  // namespace

void writeheader() {
  const std::time_t seconds = std::time(nullptr);
  std::tm now{};
  localtime_r(&seconds, &now);
  product();
  occasion(now);
  for (const RunWarning& warning : run.warnings)
    if (warning.ofcommands) reportwarning("WARNING: Command file: " + escaped(warning.words));
  reportbreak();
  for (const RunWarning& warning : run.warnings)
    if (!warning.ofcommands) reportwarning("WARNING: " + escaped(warning.words));
}

}  // namespace kdr
