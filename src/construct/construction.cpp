#include "construct/construction.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "construct/buildlog.h"
#include "construct/description.h"
#include "construct/fileclashes.h"
#include "construct/levelsource.h"
#include "construct/mdmwriter.h"
#include "construct/rawvariables.h"
#include "construct/readers/ascii.h"
#include "construct/singleunits.h"
#include "construct/template.h"
#include "core/formatted.h"
#include "data/unitreader.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"

namespace kdr {

DeletedRows deletedrows;

namespace {

constexpr std::size_t firstrows = 500;  // capacity of the level-3 table at its start
constexpr int firstrecords = 50;        // capacity of a unit's records at its start

constexpr std::size_t mostshown = 5;  // units of a file that the log names when nothing matches

// The IDs of a level-1 or level-2 record, or the ID of a level-3 record.
struct Place {
  Id id3{}, id2{};
};

// One raw file of level 1 or 2 on its way through the merge.
struct RawWalk {
  int level = 0;         // 0 or 1
  Array<double> values;  // the current record
  Id id3{}, id2{};       // its IDs
  Id last3{}, last2{};   // those of the record before it
  bool any = false;      // a record has been read
  bool ended = false;
  long long withoutid = 0;    // records that were passed over
  std::vector<Place> places;  // the first units
};

// The rows that repeat a unit of level 2 or 3, of which the first one is used.
struct Repeats {
  bool any = false;
  Array<char> differs;  // [nvar]: not 0 where a later row has another value
  bool folded = false;  // the level's file is that of level 1, so that many rows for a unit are no surprise
  long long folds = 0;  // rows behind the first one of their unit
};

// What the merge gathers besides run.mdm.
struct Construction {
  ResultFile mdm;
  RawWalk walk1, walk2;
  std::vector<Place> places3;  // the first level-3 rows
  bool accepted2 = false;      // a level-2 record without a missing value has been read
  Place place2;                // the IDs of the last one that began a unit, and its values
  Array<double> values2;
  Repeats repeats2;
  long long unmatched = 0;  // level-1 records without a level-2 row
  Place firstunmatched;
  UnitBlock unit;  // the unit in hand
  int capacity = firstrecords;
  ScratchFile blocks;
  Array<VariableTotals> totals1;
  Array<double> sums2;
  Array<int> unitsof;       // written units of each level-3 row
  Id unknown{};             // the level-3 ID that was reported last
  std::size_t lastrow = 0;  // where the level-3 row of the last unit was found
};

// The two streams that all blocks go through write in large pieces.
constexpr std::size_t piecesize = std::size_t{1} << 20;
char blockpiece[piecesize];
char mdmpiece[piecesize];

int misses(const double* values, std::size_t n) {
  return static_cast<int>(std::count(values, values + n, missingcode));
}

// IDs and names in messages.

std::string shown(const Id& id) {
  if (run.mdm.numericids) return formatted("%.0f", id.number);
  const std::string text = printable(id.text.text);
  return text.substr(std::min(text.find_first_not_of(' '), text.size()));
}

// The same, in the columns that an ID has.
std::string wide(const Id& id) { return formatted("%12s", shown(id).c_str()); }

bool same(const Id& a, const Id& b) { return sameid(a, b, run.mdm.numericids); }
int orderof(const Id& a, const Id& b) { return compareids(a, b, run.mdm.numericids); }

// Writes one block.
void putunit(std::FILE* stream, const UnitBlock& unit) {
  writeunit(stream, unit, run.mdm.nvar1, run.mdm.nvar2, true, run.mdm.numericids);
  checkwritten(stream);
}

bool sameplace(const Place& a, const Place& b) { return same(a.id3, b.id3) && same(a.id2, b.id2); }

void keepplace(std::vector<Place>& places, const Place& place) {
  if (places.size() < mostshown && (places.empty() || !sameplace(places.back(), place))) places.push_back(place);
}

// Holds a further row of a unit against its first one.
void noterepeat(Repeats& repeats, const double* first, const double* row, std::size_t nvar) {
  if (!repeats.any) repeats.differs.reset(nvar);
  repeats.any = true;
  ++repeats.folds;
  for (std::size_t v = 0; v < nvar; ++v) repeats.differs[v] |= first[v] != row[v];
}

std::string differing(const Repeats& repeats, int level) {
  std::string names;
  for (std::size_t v = 0; v < repeats.differs.size(); ++v)
    if (repeats.differs[v] != 0) names += (names.empty() ? "" : ", ") + leftname(namesof(level - 1)[v + 1]);
  return names;
}

// What folding a level-1 file to the units of a higher level leaves out.
void tellfolds(const Repeats& repeats, int level) {
  if (!repeats.folded || !repeats.any) return;
  logextra("%lld rows of the level-%d file were folded into the first one of their unit.\n", repeats.folds, level);
  const std::string names = differing(repeats, level);
  if (names.empty()) return;
  logboth("Level-%d variables that vary within units: %s. The first row of each unit counts.\n", level, names.c_str());
  if (raw.varyingfirst) return;
  logboth("That has to be asked for by VARYING:FIRST in the template.\n");
  stoprun(100);
}

bool isfolded(int level) { return samefile(raw.level[0].filename, raw.level[level - 1].filename); }

// One line of the log for the unit, whatever the number of its rows.
void tellrepeats(Repeats& repeats, int level, const Id& id) {
  if (!repeats.any || repeats.folded) return;
  repeats.any = false;
  const std::string names = differing(repeats, level);
  logextra("Level-%d group %s stands more than once in the level-%d file. Only its first row is used.%s\n", level,
           wide(id).c_str(), level, names.empty() ? "" : (" Its rows differ in " + names + ".").c_str());
}

// The order of a level's file.

[[noreturn]] void notsorted(int level, const Id& before, const Id& id) {
  logboth("\nThe level-%d file is not sorted!\n", level);
  if (run.mdm.numericids) {
    logboth("ID %lf\n", id.number);
  } else {
    logboth("ID %s\n", id.text.text);
  }
  const std::string first = shown(before);
  const std::string second = shown(id);
  logboth("In %s, ID %s comes before ID %s (record %lld).\n", raw.level[level - 1].filename.c_str(), first.c_str(),
          second.c_str(), raw.level[level - 1].asked);
  if (!run.mdm.numericids && first.size() > second.size() && first < second)
    logboth(
        "A shorter text ID has to come before a longer one: fill the IDs up with zeros, or sort by their length.\n");
  if (rawis(RawType::ascii)) tellcrossing(level - 1);
  stoprun(100);
}

// Records without an ID can belong to no unit, and no package agrees with another where they stand in a sorted file.
bool withoutid(const Id& id) {
  if (run.mdm.numericids) return id.number == missingcode;
  return std::all_of(id.text.text, id.text.text + std::strlen(id.text.text),
                     [](char c) { return static_cast<unsigned char>(c) <= ' '; });
}

// Tells what was found in the IDs of a level, at the end of its file.
void reportids(int level, long long withoutid) {
  if (withoutid != 0) {
    countextra();
    logboth("%lld level-%d records have no ID. They were passed over.\n", withoutid, level);
  }
  const LevelSource& source = raw.level[level - 1];
  if (source.fractions != 0) {
    countextra();
    logboth(
        "%lld IDs of the level-%d file have a fraction, which does not count. The first one is %g in record %lld.\n",
        source.fractions, level, source.firstfraction, source.fractionrecord);
  }
}

// Reads the next record that has its IDs and holds them against those of the record before. False at the end of the
// file.
bool nextraw(RawWalk& walk) {
  if (walk.ended) return false;
  std::swap(walk.id3, walk.last3);
  std::swap(walk.id2, walk.last2);
  while (readrecord(walk.level, walk.values.data(), &walk.id3, &walk.id2) == 0) {
    if (withoutid(walk.id3) || withoutid(walk.id2)) {
      ++walk.withoutid;
      continue;
    }
    if (walk.any) {
      const int order = orderof(walk.last3, walk.id3);
      if (order > 0) notsorted(walk.level + 1, walk.last3, walk.id3);
      if (order == 0 && orderof(walk.last2, walk.id2) > 0) notsorted(walk.level + 1, walk.last2, walk.id2);
    }
    if (walk.places.size() < mostshown) keepplace(walk.places, {walk.id3, walk.id2});
    walk.any = true;
    return true;
  }
  walk.ended = true;
  reportids(walk.level + 1, walk.withoutid);
  return false;
}

// Whether the level-2 record in hand repeats the last unit. Notes how it differs.
bool repeatsunit(Construction& build) {
  const RawWalk& walk = build.walk2;
  if (!build.accepted2 || !sameplace({walk.id3, walk.id2}, build.place2)) return false;
  if (misses(walk.values.data(), walk.values.size()) == 0)
    noterepeat(build.repeats2, build.values2.data(), walk.values.data(), walk.values.size());
  return true;
}

// Reads the next level-2 record that has no missing value and is the first one of its unit.
bool nextunitrow(Construction& build) {
  RawWalk& walk = build.walk2;
  while (nextraw(walk)) {
    const bool missing = misses(walk.values.data(), walk.values.size()) > 0;
    if (missing) ++deletedrows.level2;
    if (repeatsunit(build) || missing) continue;
    tellrepeats(build.repeats2, 2, build.place2.id2);
    build.accepted2 = true;
    build.place2 = {walk.id3, walk.id2};
    std::copy(walk.values.begin(), walk.values.end(), build.values2.begin());
    return true;
  }
  return false;
}

// Level 3.

void growlevel3(std::size_t rows) {
  MdmData& mdm = run.mdm;
  if (mdm.numericids) {
    mdm.numericid3.resize(rows);
  } else {
    mdm.textid3.resize(rows);
  }
  mdm.level3.resize(rows * static_cast<std::size_t>(mdm.nvar3));
}

void storelevel3id(std::size_t row, const Id& id) {
  if (run.mdm.numericids) {
    run.mdm.numericid3[row] = id.number;
  } else {
    run.mdm.textid3[row] = id.text;
  }
}

// Keeps the rows of the level-3 table for which `keep` holds. Returns how many went.
template <class Keep>
int keeplevel3(Keep keep) {
  MdmData& mdm = run.mdm;
  const auto width = static_cast<std::size_t>(mdm.nvar3);
  std::size_t kept = 0;
  const auto rows = static_cast<std::size_t>(mdm.nunits3);
  for (std::size_t row = 0; row < rows; ++row) {
    if (!keep(row)) continue;
    storelevel3id(kept, level3id(run.mdm, static_cast<int>(row)));
    if (width > 0) std::memmove(&mdm.level3[kept * width], &mdm.level3[row * width], width * sizeof(double));
    ++kept;
  }
  mdm.nunits3 = static_cast<int>(kept);
  growlevel3(kept);
  return static_cast<int>(rows - kept);
}

// Each unit's rows stand one behind the other.
void tellrepeats3() {
  const MdmData& mdm = run.mdm;
  const auto width = static_cast<std::size_t>(mdm.nvar3);
  Repeats repeats;
  repeats.folded = isfolded(3);
  std::size_t first = 0;
  for (std::size_t row = 1; row <= static_cast<std::size_t>(mdm.nunits3); ++row) {
    const Id id = level3id(run.mdm, static_cast<int>(first));
    if (row < static_cast<std::size_t>(mdm.nunits3) && same(id, level3id(run.mdm, static_cast<int>(row)))) {
      noterepeat(repeats, mdm.level3.data() + first * width, mdm.level3.data() + row * width, width);
    } else {
      tellrepeats(repeats, 3, id);
      first = row;
    }
  }
  tellfolds(repeats, 3);
}

// In data of two levels the rows are those of the level-2 file, without their values. What there is to say of them is
// said when they are read as such.
void readlevel3(Construction& build) {
  MdmData& mdm = run.mdm;
  const auto width = static_cast<std::size_t>(mdm.nvar3);
  std::size_t capacity = firstrows;
  std::size_t row = 0;
  mdm.textid3.reset(0);
  mdm.numericid3.reset(0);
  mdm.level3.reset(0);
  growlevel3(capacity);
  Id id{};
  Id before{};
  long long passed = 0;
  while (readrecord(2, mdm.level3.data() + row * width, &id, nullptr) == 0) {
    if (withoutid(id)) {
      ++passed;
      continue;
    }
    if (row > 0 && orderof(before, id) > 0) notsorted(mdm.twolevel() ? 2 : 3, before, id);
    keepplace(build.places3, {id, {}});
    storelevel3id(row, id);
    before = id;
    if (++row == capacity) growlevel3(capacity *= 2);
    if (row == INT_MAX) stopwith("There are too many level-3 records!\n");
  }
  closeraw(2);
  if (!mdm.twolevel()) reportids(3, passed);
  mdm.nunits3 = static_cast<int>(row);
  deletedrows.level3 = keeplevel3([&](std::size_t r) { return misses(mdm.level3.data() + r * width, width) == 0; });
  if (!mdm.twolevel()) tellrepeats3();
}

// The first row of the level-3 table with this ID, or nunits3. The table is in ascending order.
std::size_t findlevel3(std::size_t lastrow, const Id& id) {
  const auto rows = static_cast<std::size_t>(run.mdm.nunits3);
  if (lastrow < rows && same(level3id(run.mdm, static_cast<int>(lastrow)), id)) return lastrow;
  std::size_t low = 0;
  std::size_t high = rows;
  while (low < high) {
    const std::size_t middle = low + (high - low) / 2;
    if (orderof(level3id(run.mdm, static_cast<int>(middle)), id) < 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low < rows && same(level3id(run.mdm, static_cast<int>(low)), id) ? low : rows;
}

// The units.

void appendrecord(Construction& build) {
  UnitBlock& unit = build.unit;
  const auto width = static_cast<std::size_t>(run.mdm.nvar1);
  if (unit.nj == build.capacity) {
    if (unit.nj > INT_MAX / 2) stopwith("A level-2 unit has too many records!\n");
    build.capacity *= 2;
    unit.records.resize(static_cast<std::size_t>(build.capacity) * width);
  }
  const std::size_t at = static_cast<std::size_t>(unit.nj++) * width;
  std::copy_n(build.walk1.values.begin(), width, unit.records.begin() + at);
}

// Puts the missing code in place of each value that stands for missing in its variable.
void recode(UnitBlock& unit) {
  const Array<double>& codes = raw.missingcodes;
  if (!run.mdm.l1missing || codes.empty()) return;
  double* value = unit.records.data();
  for (int i = 0; i < unit.nj; ++i)
    for (const double code : codes) {
      if (*value == code) *value = missingcode;
      ++value;
    }
}

// Drops the records that the rules on missing values delete.
void deleterecords(UnitBlock& unit) {
  const auto width = static_cast<std::size_t>(run.mdm.nvar1);
  double* kept = unit.records.data();
  const double* record = kept;
  int left = 0;
  for (int i = 0; i < unit.nj; ++i, record += width) {
    const int missing = misses(record, width);
    if (missing > 0 && !run.mdm.l1missing) {
      logboth("\nThere are missing data at level-%d. Unable to continue.\n", 1);
      stoprun(100);
    }
    if (static_cast<std::size_t>(missing) == width || (missing > 0 && run.mdm.deletednow)) continue;
    if (kept != record) std::memmove(kept, record, width * sizeof(double));
    kept += width;
    ++left;
  }
  unit.nj = left;
}

void reportunknown(Construction& build) {
  const Id& id = build.unit.id3;
  if (same(id, build.unknown)) return;
  logextra(" Group %s not in level-3 file.\n", wide(id).c_str());
  build.unknown = id;
}

// Adds the unit's values to the totals of level 1 and makes its means: for each variable the sum of its non-missing
// values over nj.
void addrecords(Construction& build) {
  UnitBlock& unit = build.unit;
  const std::size_t width = build.totals1.size();
  std::fill_n(unit.means.begin(), width, 0.0);
  const double* value = unit.records.data();
  for (int i = 0; i < unit.nj; ++i)
    for (std::size_t v = 0; v < width; ++v, ++value) {
      if (*value == missingcode) continue;
      addvalue(build.totals1[v], *value);
      unit.means[v] += *value;
    }
  for (std::size_t v = 0; v < width; ++v) unit.means[v] /= unit.nj;
}

void processunit(Construction& build) {
  MdmData& mdm = run.mdm;
  UnitBlock& unit = build.unit;
  recode(unit);
  deleterecords(unit);
  if (unit.nj == 0) {
    logextra("Level-2 group %s has inadequate data\n", wide(unit.id2).c_str());
    return;
  }
  const std::size_t row = findlevel3(build.lastrow, unit.id3);
  if (row == static_cast<std::size_t>(mdm.nunits3)) {
    reportunknown(build);
    return;
  }
  build.lastrow = row;
  ++build.unitsof[row];
  addrecords(build);
  for (std::size_t v = 0; v < build.sums2.size(); ++v) build.sums2[v] += unit.level2[v];
  mdm.maxnj = std::max(mdm.maxnj, unit.nj);
  putunit(build.blocks.get(), unit);
  if (mdm.nunits1 > INT_MAX - unit.nj) stopwith("There are too many level-1 records!\n");
  mdm.nunits1 += unit.nj;
  ++mdm.nunits2;
}

int compareplace(const RawWalk& a, const RawWalk& b) {
  const int order = orderof(a.id3, b.id3);
  return order != 0 ? order : orderof(a.id2, b.id2);
}

void noteunmatched(Construction& build) {
  if (++build.unmatched == 1) build.firstunmatched = {build.walk1.id3, build.walk1.id2};
}

// Merges the two files from their first records on. Level-1 records without a level-2 row and level-2 rows without a
// record are passed over; the former are counted.
void mergeunits(Construction& build) {
  bool more = true;
  while (more) {
    checksignals();
    const int order = compareplace(build.walk1, build.walk2);
    if (order < 0) {
      noteunmatched(build);
      more = nextraw(build.walk1);
    } else if (order > 0) {
      more = nextunitrow(build);
      if (!more) noteunmatched(build);
    } else {
      UnitBlock& unit = build.unit;
      unit.nj = 0;
      unit.id3 = build.walk2.id3;
      unit.id2 = build.walk2.id2;
      std::copy(build.walk2.values.begin(), build.walk2.values.end(), unit.level2.begin());
      while (more && compareplace(build.walk1, build.walk2) == 0) {
        appendrecord(build);
        more = nextraw(build.walk1);
      }
      processunit(build);
    }
  }
  // What is left of either file belongs to no unit, unless its file is out of order.
  while (nextraw(build.walk1)) noteunmatched(build);
  while (nextraw(build.walk2)) (void)repeatsunit(build);
  tellrepeats(build.repeats2, 2, build.place2.id2);
  tellfolds(build.repeats2, 2);
  if (build.unmatched != 0) {
    countextra();
    const std::string outer = run.mdm.twolevel() ? "" : " in unit " + shown(build.firstunmatched.id3);
    logboth("%lld level-1 records have no level-2 row that counts. The first one is of unit %s%s.\n", build.unmatched,
            shown(build.firstunmatched.id2).c_str(), outer.c_str());
  }
}

// The steps of mkmdm.

void openmdm(Construction& build) {
  const std::string& path = run.files.mdmfile;
  if (path.empty()) stopwith("There is no name for the MDM file!\n");
  for (const LevelSource& source : raw.level)
    if (samefile(source.filename, path))
      stopwith("The MDM file %s must not be one of the raw data files!\n", path.c_str());
  if (samefile(raw.templatename, path)) stopwith("The MDM file %s must not be the template!\n", path.c_str());
  if (leadtoone(path, logname)) stopwith("The MDM file must not bear the name of the log, %s!\n", logname);
  if (leadtoone(path, templatecopy))
    stopwith("The MDM file must not bear the name of the template's copy, %s!\n", templatecopy);
  refuseinput(path, InputKind::mdmfile);
  refuseunwritable(path);
  openresult(build.mdm, path);
  run.mdm.stream = build.mdm.stream;
  std::setvbuf(build.mdm.stream, mdmpiece, _IOFBF, piecesize);
}

// What the construction writes besides the MDM file must not be one of the raw files.
void sparerawfiles() {
  for (const LevelSource& source : raw.level)
    if (samefile(source.filename, logname))
      stopwith("The raw data file %s bears the name of the log. Please rename it.\n", source.filename.c_str());
  const bool copied = leadtoone(raw.templatename, templatecopy);
  refuseclashes({copied ? std::string() : raw.templatename}, {templatecopy, logname});
  refuseinput(logname);
}

void takedimensions() {
  MdmData& mdm = run.mdm;
  for (int level = 0; level < 3; ++level) {
    raw.reader->prepare(level);
    mdm.fnames[level] = raw.level[level].filename;
  }
  mdm.rawdattype = raw.reader->rawdattype;
  mdm.nvar1 = raw.level[0].selected;
  mdm.nvar2 = raw.level[1].selected;
  mdm.nvar3 = raw.level[2].selected;
}

// Variables that count by codes which stand for something.
void telllabels(int level) {
  const LevelSource& source = raw.level[level];
  std::string list;
  for (const int row : source.chosen) {
    const RawVariable& variable = source.vartable[static_cast<std::size_t>(row)];
    if (variable.labels.empty()) continue;
    list += (list.empty() ? "" : ", ") + shownname(variable);
    if (variable.labels != "yes") list += " (" + variable.labels + ")";
  }
  if (!list.empty())
    logboth("Level-%d variables with value labels, which count by their codes: %s.\n", level + 1, list.c_str());
}

void readfirstrecords(Construction& build) {
  const bool first1 = nextraw(build.walk1);
  const bool first2 = nextunitrow(build);
  if (!first1) fail(1, raw.level[0].filename.c_str());
  if (!first2) fail(1, raw.level[1].filename.c_str());
}

void startmerge(Construction& build) {
  MdmData& mdm = run.mdm;
  const auto nvar1 = static_cast<std::size_t>(mdm.nvar1);
  const auto nvar2 = static_cast<std::size_t>(mdm.nvar2);
  mdm.nunits1 = mdm.nunits2 = mdm.maxnj = 0;
  build.walk2.level = 1;
  build.repeats2.folded = isfolded(2);
  build.walk1.values.reset(nvar1);
  build.walk2.values.reset(nvar2);
  build.unit.means.reset(nvar1);
  build.unit.level2.reset(nvar2);
  build.unit.records.reset(static_cast<std::size_t>(build.capacity) * nvar1);
  build.totals1 = starttotals(mdm.nvar1);
  build.sums2.reset(nvar2);
  build.values2.reset(nvar2);
}

void describe(int level, const Array<Name>& names, const Array<double>& means, const Array<VariableTotals>& totals) {
  if (totals.empty()) return;
  for (std::FILE* stream : {raw.silent ? nullptr : stdout, logstream()}) printdesc(stream, level, names, means, totals);
}

void finishmeans(Construction& build) {
  MdmData& mdm = run.mdm;
  mdm.mean1 = meansof(build.totals1);
  mdm.mean2.reset(build.sums2.size());
  for (std::size_t v = 0; v < build.sums2.size(); ++v) mdm.mean2[v] = build.sums2[v] / mdm.nunits2;
}

Array<VariableTotals> totallevel3() {
  const MdmData& mdm = run.mdm;
  Array<VariableTotals> totals = starttotals(mdm.nvar3);
  const double* value = mdm.level3.data();
  for (int k = 0; k < mdm.nunits3; ++k)
    for (VariableTotals& variable : totals) addvalue(variable, *value++);
  return totals;
}

// Copies the blocks behind the tables. Returns the totals of the level-2 variables.
Array<VariableTotals> copyunits(Construction& build) {
  const MdmData& mdm = run.mdm;
  Array<VariableTotals> totals = starttotals(mdm.nvar2);
  UnitReader reader;
  startunits(reader, mdm, build.blocks.get(), 0, mdm.nvar1, mdm.nvar2, true);
  for (int j = 0; j < mdm.nunits2; ++j) {
    checksignals();
    if (!neededunit(reader, build.unit)) tell(reader.failure);
    putunit(build.mdm.stream, build.unit);
    for (std::size_t v = 0; v < totals.size(); ++v) addvalue(totals[v], build.unit.level2[v]);
  }
  return totals;
}

// The first units of the three files, side by side.
void logplaces(const Construction& build) {
  std::FILE* log = logstream();
  const bool two = run.mdm.twolevel();
  std::fprintf(log, "The first IDs of each file%s:\n  %-25s  %-25s  %s\n", two ? "" : ", level-3 ID first", "level 1",
               "level 2", two ? "" : "level 3");
  const auto column = [two](const std::vector<Place>& places, std::size_t i) {
    if (i >= places.size()) return std::string(25, ' ');
    return two ? formatted("%-25s", wide(places[i].id2).c_str()) : wide(places[i].id3) + " " + wide(places[i].id2);
  };
  const std::size_t rows = std::max({build.walk1.places.size(), build.walk2.places.size(), build.places3.size()});
  for (std::size_t i = 0; i < rows; ++i)
    std::fprintf(log, "  %s  %s  %s\n", column(build.walk1.places, i).c_str(), column(build.walk2.places, i).c_str(),
                 !two && i < build.places3.size() ? wide(build.places3[i].id3).c_str() : "");
}

[[noreturn]] void nothingleft(const Construction& build) {
  std::fprintf(logstream(), "No groups left for analysis\n");
  if (run.mdm.nvar1 > 0) logplaces(build);
  std::printf("%s", run.mdm.nvar1 == 0 ? "You have selected no level-1 variable, so that no level-1 record counts!\n"
                                       : "No level-2 unit is left for the analysis. KDR3MDM.STS tells more.\n");
  closelog();
  stoprun(100);
}

void signlog() {
  static constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::tm& started = run.id.started;
  std::FILE* log = logstream();
  std::fprintf(log, "MDM template:  %s\n", raw.templatename.c_str());
  std::fprintf(log, "MDM file name: %s\n", run.files.mdmfile.c_str());
  std::fprintf(log, "Date:          %s %d, %d\n", months[started.tm_mon], started.tm_mday, started.tm_year + 1900);
  std::fprintf(log, "Time:          %02d:%02d:%02d\n", started.tm_hour, started.tm_min, started.tm_sec);
}

}  // namespace

void mkmdm() {
  MdmData& mdm = run.mdm;
  Construction build;
  deletedrows = DeletedRows{};
  sparerawfiles();
  takedimensions();
  openmdm(build);
  openlog();
  for (int level = 0; level < 3; ++level) telllabels(level);
  readlevel3(build);
  startmerge(build);
  readfirstrecords(build);
  build.unitsof.reset(static_cast<std::size_t>(mdm.nunits3));
  build.blocks = neededscratch();
  std::setvbuf(build.blocks.get(), blockpiece, _IOFBF, piecesize);
  mergeunits(build);
  if (mdm.nunits2 == 0) nothingleft(build);
  keeplevel3([&](std::size_t row) { return build.unitsof[row] > 0; });

  finishmeans(build);
  describe(1, mdm.names1, mdm.mean1, build.totals1);
  const Array<VariableTotals> totals3 = totallevel3();
  mdm.mean3 = meansof(totals3);
  writemdmtables(build.mdm.stream);
  closeraw(0);
  closeraw(1);
  describe(2, mdm.names2, mdm.mean2, copyunits(build));
  describe(3, mdm.names3, mdm.mean3, totals3);
  build.blocks.reset();
  mdm.stream = nullptr;
  finishmdm(build.mdm);
  mdm.numl1rec = mdm.nunits1;
  mdm.numl2rec = mdm.nunits2;
  mdm.numl3rec = mdm.nunits3;
  for (const std::string& words : singleunits()) logboth("\n%s\n", words.c_str());
  signlog();
  closelog();
  if (extramessages() != 0) std::printf("\nThere are extra messages in KDR3MDM.STS.  Please examine this file.\n\n");
}

void printprocessed() {
  std::printf(" %6d level-1 records have been processed\n", run.mdm.nunits1);
  std::printf(" %6d level-2 records have been processed\n", run.mdm.nunits2);
  if (!run.mdm.twolevel()) std::printf(" %6d level-3 records have been processed\n", run.mdm.nunits3);
  if (deletedrows.level2 != 0) std::printf("%d level-2 cases were deleted due to missing data.\n", deletedrows.level2);
  if (deletedrows.level3 != 0) std::printf("%d level-3 cases were deleted due to missing data.\n", deletedrows.level3);
}

}  // namespace kdr
