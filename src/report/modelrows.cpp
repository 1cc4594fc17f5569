#include "report/modelrows.h"

#include "driver/runrecord.h"
#include "report/stream.h"

namespace kdr {

bool multinomialrun() { return run.model.outcome.family == Family::multinomial; }

std::string categorylabel(int k) {
  if (k < 0 || static_cast<std::size_t>(k) >= run.model.categorylabel.size()) return {};
  return run.model.categorylabel[k].text;
}

std::string categoryof(int k) { return escaped(categorylabel(k)); }

std::vector<std::string> randomcategories(Tau which, int n) {
  std::vector<std::string> categories;
  if (multinomialrun()) {
    const ModelRows rows = modelrows(run.model);
    if (which == Tau::pi) {
      for (const CoefficientRow& coefficient : rows.coefficients)
        if (coefficient.random) categories.push_back(categoryof(coefficient.set));
    } else {
      for (const TermRow& term : rows.terms)
        if (term.random) categories.push_back(categoryof(rows.owner(term).set));
    }
  }
  categories.resize(static_cast<std::size_t>(n));
  return categories;
}

}  // namespace kdr
