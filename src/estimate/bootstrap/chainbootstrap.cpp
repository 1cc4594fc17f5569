#include "estimate/bootstrap/chainbootstrap.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <utility>
#include <vector>

#include "core/formatted.h"
#include "estimate/bootstrap/generator.h"
#include "estimate/linear/deletion.h"
#include "estimate/linear/recordunits.h"
#include "estimate/quasi/categories.h"
#include "estimate/quasi/categoryloop.h"
#include "estimate/quasi/family.h"
#include "estimate/quasi/macroloop.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

// A record that the analysis keeps: its linear predictor without random effects, its rows of Z1 and Z2, trials or
// exposure.
struct Predicted {
  std::size_t row = 0;  // of its block
  double fixed = 0.0, count = 1.0;
  std::vector<double> z1, z2;
};

// The data set in memory, block by block, and the blocks of each level-3 unit.
struct DataBlocks {
  std::vector<UnitBlock> blocks;
  std::vector<std::vector<Predicted>> predicted;  // per block; of a parametric bootstrap
  std::vector<std::size_t> first;                 // per level-3 unit its first block, and the end
};

UnitBlock copyof(const UnitBlock& block, std::size_t nvar1) {
  UnitBlock twin;
  twin.nj = block.nj;
  twin.means = block.means.copy();
  twin.records.reset(at(block.nj) * nvar1);
  std::copy_n(block.records.data(), twin.records.size(), twin.records.data());
  twin.level2 = block.level2.copy();
  twin.id3 = block.id3;
  twin.id2 = block.id2;
  return twin;
}

Failure readblocks(const Analysis& analysis, DataBlocks& data) {
  const MdmData& mdm = analysis.mdm;
  UnitReader reader;
  reader.observer = &analysis.observer;
  startunits(reader, mdm, mdm.stream, mdm.firstblock, mdm.nvar1, mdm.nvar2, true);
  UnitBlock block;
  while (readunit(reader, block)) {
    if (data.blocks.empty() || !sameid(block.id3, data.blocks.back().id3, mdm.numericids))
      data.first.push_back(data.blocks.size());
    data.blocks.push_back(copyof(block, at(mdm.nvar1)));
  }
  data.first.push_back(data.blocks.size());
  return reader.failure;
}

// What the outcomes of the records that the analysis keeps are drawn from.
Failure predict(const Pass& pass, const Estimates& est, DataBlocks& data) {
  const Analysis& analysis = *pass.analysis;
  const Model& model = analysis.model;
  RecordUnits units;
  startrecords(units, analysis);
  UnitMeans means = makeunitmeans(pass);
  Array<double> none(at(pass.b)), beta(at(pass.npi)), x(at(pass.npi));
  const std::size_t width = at(analysis.mdm.nvar1);
  for (std::size_t j = 0; j < data.blocks.size(); ++j) {
    if (!nextblock(units)) return units.failure;
    centerblock(units);
    takeunitmeans(pass, units.k, est.gammahat.data(), none.data(), means);
    level2coefficients(pass, units.unit.level2.data(), means.theta.data(), beta.data());
    std::vector<Predicted>& records = data.predicted.emplace_back();
    std::size_t kept = 0;
    for (std::size_t i = 0; i < at(data.blocks[j].nj); ++i) {
      const double* const raw = data.blocks[j].records.data() + i * width;
      if (!analysis.mdm.deletednow && lacksvalue(model, raw)) continue;
      const double* const values = units.unit.records.data() + kept++ * width;
      Predicted record;
      record.row = i;
      if (units.layout.count >= 0) record.count = values[units.layout.count];
      for (std::size_t c = 0; c < x.size(); ++c)
        x[c] = units.layout.column[c] < 0 ? 1.0 : values[units.layout.column[c]];
      record.fixed = dot(x.data(), beta.data(), x.size());
      for (std::size_t r = 0; r < at(pass.p); ++r) record.z1.push_back(x[pass.design.random1[r]]);
      for (std::size_t m = 0; m < at(pass.b); ++m)
        record.z2.push_back(x[pass.design.owner2[m]] * level2entry(pass, m, units.unit.level2.data()));
      records.push_back(std::move(record));
    }
  }
  return {};
}

// x (n) of covariance T.
void draweffects(const Array<double>& root, int n, Generator& random, std::vector<double>& x) {
  std::vector<double> z(at(n));
  for (double& value : z) value = random.normal();
  for (std::size_t i = 0; i < at(n); ++i) x[i] = dot(root.data() + i * at(n), z.data(), at(n));
}

double outcomeof(Family family, double eta, double count, Generator& random) {
  if (family == Family::poisson) return random.poisson(count * std::exp(eta));
  return random.binomial(family == Family::bernoulli ? 1.0 : count, logitmean(eta).mu);
}

// A data set of a replicate: the head, and the blocks in a file.
struct DrawnData {
  MdmData mdm;
  ScratchFile file;
};

Failure startdata(const MdmData& whole, DrawnData& made) {
  made.mdm = whole.copy();
  made.file = scratchopen();
  if (!made.file) return notemporaryfile();
  made.mdm.stream = made.file.get();
  made.mdm.firstblock = made.mdm.lastblock = 0;
  return {};
}

void writeblock(DrawnData& made, const UnitBlock& block) {
  writeunit(made.file.get(), block, made.mdm.nvar1, made.mdm.nvar2, true, made.mdm.numericids);
}

struct Roots {
  Array<double> taupi, taubeta;
};

void drawoutcomes(const DataBlocks& data, const Analysis& analysis, const Pass& pass, const Roots& roots,
                  Generator& random, DrawnData& made) {
  const Outcome& outcome = analysis.model.outcome;
  const std::size_t width = at(analysis.mdm.nvar1), place = at(analysis.model.outvar - 1);
  std::vector<double> u(at(pass.p)), v(at(pass.b));
  for (std::size_t k = 0; k + 1 < data.first.size(); ++k) {
    draweffects(roots.taubeta, pass.b, random, v);
    for (std::size_t j = data.first[k]; j < data.first[k + 1]; ++j) {
      draweffects(roots.taupi, pass.p, random, u);
      UnitBlock block = copyof(data.blocks[j], width);
      for (const Predicted& record : data.predicted[j]) {
        const double eta =
            record.fixed + dot(record.z1.data(), u.data(), u.size()) + dot(record.z2.data(), v.data(), v.size());
        block.records[record.row * width + place] = outcomeof(outcome.family, eta, record.count, random);
      }
      writeblock(made, block);
    }
  }
}

// A unit that is drawn twice is two units: all get IDs of their own, in order.
Id numbered(std::size_t k, bool numeric) {
  Id id{};
  if (numeric) {
    id.number = static_cast<double>(k + 1);
  } else {
    id.text = paddedname(formatted("%zu", k + 1), 12);
  }
  return id;
}

void drawunits(const DataBlocks& data, Generator& random, DrawnData& made) {
  MdmData& mdm = made.mdm;
  const std::size_t units3 = data.first.size() - 1, nvar3 = at(mdm.nvar3);
  const Array<double> level3 = mdm.level3.copy();
  std::size_t records = 0, units2 = 0;
  for (std::size_t i = 0; i < units3; ++i) {
    const std::size_t k = random.below(units3);
    const Id id = numbered(i, mdm.numericids);
    if (mdm.numericids) {
      mdm.numericid3[i] = id.number;
    } else {
      mdm.textid3[i] = id.text;
    }
    std::copy_n(level3.data() + k * nvar3, nvar3, mdm.level3.data() + i * nvar3);
    for (std::size_t j = data.first[k]; j < data.first[k + 1]; ++j) {
      UnitBlock block = copyof(data.blocks[j], at(mdm.nvar1));
      block.id3 = id;
      records += at(block.nj);
      ++units2;
      writeblock(made, block);
    }
  }
  mdm.nunits1 = mdm.numl1rec = static_cast<int>(records);
  mdm.nunits2 = mdm.numl2rec = static_cast<int>(units2);
}

// The estimates of a fit to the data of a replicate; null without a converged one.
const Estimates* fitted(ChainFit& chain) {
  const Control& control = chain.state.analysis.control;
  if (chain.state.analysis.model.outcome.categorical()) {
    CategoryTable table;
    if (readcategories(chain.state.analysis, table) || fitcategories(table, chain)) return nullptr;
  } else if (fitnonlinear(chain)) {
    return nullptr;
  }
  const MacroState& state = chain.state;
  const bool engine = control.laplace || control.agqpoints != 0;  // its maximum needs no end of quasi-likelihood
  if ((!engine && state.end != MacroEnd::converged) || state.separation.known()) return nullptr;
  const std::optional<PassResults>& of = state.quadrature ? state.quadrature : state.laplace6;
  if (engine && (!of || of->ending != Ending::converged)) return nullptr;
  return engine ? &of->est : &state.unitspecific.est;
}

}  // namespace

std::string bootstrapobstacle(const Model& model, const Control& control, bool cases) {
  if (model.weighted) return "The bootstrap cannot be combined with design weights.";
  if (control.hetit != 0) return "The bootstrap cannot be combined with HETIT:.";
  if (!cases && model.outcome.categorical())
    return "Outcomes with categories have a bootstrap of whole units alone: add -cases.";
  if (!cases && !model.outcome.linear() && model.restrictions.fixsigma2.value_or(0.0) != 1.0)
    return "A parametric bootstrap needs FIXSIGMA2:1.0: a model with over-dispersion has no distribution to draw from. "
           "Add it, or -cases.";
  return "";
}

Failure bootstrapchain(const ChainFit& fit, const Estimates& est, const BootstrapRequest& request,
                       BootstrapResults& results) {
  const Analysis& analysis = fit.state.analysis;
  const Pass& pass = fit.pass;
  DataBlocks data;
  if (Failure failure = readblocks(analysis, data)) return failure;
  if (!request.cases)
    if (Failure failure = predict(pass, est, data)) return failure;
  constexpr double rounding = 1.0e-12;
  Roots roots{Array<double>(square(pass.p)), Array<double>(square(pass.b))};
  lowerroot(est.taupi.data(), pass.p, rounding, roots.taupi.data());
  lowerroot(est.taubeta.data(), pass.b, rounding, roots.taubeta.data());
  std::atomic<bool> stopped{false};
  BootstrapRequest watched = request;
  watched.stops = [&] {
    if (request.stops && request.stops()) stopped = true;
    return stopped.load();
  };
  Replicates made(request.replicates, pass.g, pass.p, pass.b);
  runreplicates(watched, made, [&](int replicate, int worker) {
    DrawnData drawn;
    if (startdata(analysis.mdm, drawn)) return false;
    Generator random(request.seed, static_cast<std::uint64_t>(replicate));
    if (request.cases) {
      drawunits(data, random, drawn);
    } else {
      drawoutcomes(data, analysis, pass, roots, random, drawn);
    }
    Observer quiet;
    quiet.poll = [&] { return worker == 0 ? watched.stops() : stopped.load(); };
    const Analysis again{analysis.model, drawn.mdm, analysis.weights, analysis.control, quiet, {}, {}, 1, nullptr};
    ChainFit chain(again);
    const Estimates* found = fitted(chain);
    if (found == nullptr) return false;
    made.put(replicate, *found);
    return true;
  });
  results = bootstrapresults(made, request, est, false);
  if (request.kept != nullptr) *request.kept = std::move(made);
  return {};
}

}  // namespace kdr
