#include "construct/description.h"

namespace kdr {

Array<VariableTotals> starttotals(int nvar) {
  Array<VariableTotals> totals(static_cast<std::size_t>(nvar));
  totals.fill(VariableTotals{});
  return totals;
}

Array<double> meansof(const Array<VariableTotals>& totals) {
  Array<double> means(totals.size());
  for (std::size_t v = 0; v < totals.size(); ++v)
    if (totals[v].count > 0) means[v] = totals[v].sum / static_cast<double>(totals[v].count);
  return means;
}

double standarddeviation(const VariableTotals& totals) {
  const auto n = static_cast<double>(totals.count);
  if (totals.count < 2) return 0.0;
  const double squares = totals.squares - totals.deviations * totals.deviations / n;
  return squares > 0.0 ? std::sqrt(squares / (n - 1.0)) : 0.0;
}

void printdesc(std::FILE* stream, int level, const Array<Name>& names, const Array<double>& means,
               const Array<VariableTotals>& totals) {
  if (stream == nullptr) return;
  std::fprintf(stream, "\n                      LEVEL-%1d DESCRIPTIVE STATISTICS", level);
  std::fprintf(stream, "\n\n VARIABLE NAME       N       MEAN         SD         MINIMUM      MAXIMUM\n");
  for (std::size_t v = 0; v < totals.size(); ++v)
    std::fprintf(stream, "  %12s    %6lld    %7.2f    %7.2f    %9.2f    %9.2f\n", names[v + 1].text, totals[v].count,
                 means[v], standarddeviation(totals[v]), totals[v].minimum, totals[v].maximum);
  std::fprintf(stream, "\n");
}

}  // namespace kdr
