#include "command/text.h"

#include <algorithm>
#include <utility>

#include "construct/rawvariables.h"
#include "core/constants.h"
#include "core/formatted.h"
#include "driver/runrecord.h"

namespace kdr {

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return text.substr(0, 0);
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string titlefrom(std::string_view text) {
  std::string title = printable(text.substr(0, maxtitle - 1));
  title.erase(title.find_last_not_of(' ') + 1);
  return title;
}

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  for (;;) {
    const std::size_t end = text.find(separator);
    pieces.emplace_back(trimmed(text.substr(0, end)));
    if (end == std::string_view::npos) return pieces;
    text.remove_prefix(end + 1);
  }
}

char firstletter(std::string_view text) { return text.empty() ? '\0' : upper(text[0]); }

bool isyes(std::string_view text) { return sameword(text, "Y") || sameword(text, "YES"); }

bool isno(std::string_view text) { return sameword(text, "N") || sameword(text, "NO") || sameword(text, "NONE"); }

namespace {

// Letters to be changed, added, left out or exchanged with the next one.
std::size_t distance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> before(b.size() + 1), row(b.size() + 1), next(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    next[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      next[j] = std::min({row[j] + 1, next[j - 1] + 1, row[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        next[j] = std::min(next[j], before[j - 2] + 1);
    }
    before.swap(row);
    row.swap(next);
  }
  return row[b.size()];
}

}  // namespace

namespace {

int levelof(const Array<Name>& table) { return &table == &run.mdm.names1 ? 1 : &table == &run.mdm.names2 ? 2 : 3; }

// The one variable of the table that has this whole name, or -1.
int wholenameindex(std::string_view name, const Array<Name>& table, int n) {
  int found = -1;
  for (int v = 1; v <= n; ++v) {
    const VariableText* text = run.mdm.texts.of(levelof(table), v);
    if (text == nullptr || text->name.empty()) continue;
    if (!sameword(text->name, name) && !sameword(usablename(text->name), name)) continue;
    if (found != -1) return -1;
    found = v;
  }
  return found;
}

}  // namespace

FoundVariable findvariable(std::string_view name, const Array<Name>& table, int n) {
  const int eight = findname(name, table, n);
  const bool longer = leftname(paddedname(name)).size() < trimmed(name).size();
  const int whole = eight < 0 || longer ? wholenameindex(name, table, n) : -1;
  return whole > 0 ? FoundVariable{whole} : FoundVariable{eight, longer};
}

std::string nearestnames(std::string_view name, const Array<Name>& table, int n) {
  std::vector<std::pair<std::size_t, int>> far;
  const std::string wanted = uppercase(name);
  for (int v = 1; v <= n; ++v) {
    const std::string other = leftname(table[static_cast<std::size_t>(v)]);
    if (const std::size_t d = distance(wanted, other); 2 * d <= std::max(wanted.size(), other.size()))
      far.emplace_back(d, v);
  }
  std::sort(far.begin(), far.end());
  std::string list;
  for (std::size_t i = 0; i < far.size() && i < 3; ++i)
    list += (i > 0 ? ", " : "") + leftname(table[static_cast<std::size_t>(far[i].second)]);
  return list;
}

}  // namespace kdr
