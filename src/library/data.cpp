// Columns in memory become a data set: units are found, rows are brought into their order, blocks are written as an MDM
// file has them.
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "core/constants.h"
#include "core/failure.h"
#include "core/formatted.h"
#include "core/version.h"
#include "data/mdm.h"
#include "data/unitreader.h"
#include "kernel/places.h"
#include "library/cells.h"
#include "library/handles.h"

namespace kdr::library {

namespace {

thread_local std::string lasterror;

std::string ordinal(std::size_t row) { return formatted("row %zu", row + 1); }

// The IDs of a column, numbered in the order in which they appear, each one apart within its `owner`.
struct Numbering {
  std::vector<std::uint32_t> of;     // [records]
  std::vector<std::uint32_t> owner;  // of each number
};

std::vector<std::uint32_t> numbertexts(const kdr3_column& ids, std::size_t records) {
  std::unordered_map<std::string_view, std::uint32_t> known;
  std::vector<std::uint32_t> of(records);
  for (std::size_t i = 0; i < records; ++i)
    of[i] = known.try_emplace(cell<const char*>(ids, i), static_cast<std::uint32_t>(known.size())).first->second;
  return of;
}

// `keyat` makes of a record what its number is told by; records side by side mostly have the same.
template <class KeyAt>
std::vector<std::uint32_t> number(std::size_t records, Places& known, const KeyAt& keyat) {
  std::vector<std::uint32_t> of(records);
  std::uint64_t before = 0;
  for (std::size_t i = 0; i < records; ++i) {
    const std::uint64_t key = keyat(i);
    of[i] = i > 0 && key == before ? of[i - 1] : known.of(key);
    before = key;
  }
  return of;
}

std::vector<std::uint32_t> numbervalues(const kdr3_column& ids, std::size_t records) {
  Places known;
  if (ids.type == KDR3_TEXT) return numbertexts(ids, records);
  if (ids.type == KDR3_INT64)
    return number(records, known,
                  [&](std::size_t i) { return static_cast<std::uint64_t>(cell<std::int64_t>(ids, i)); });
  return number(records, known, [&](std::size_t i) { return keyof(valueof(ids, i)); });
}

std::string numberids(const kdr3_column& ids, std::size_t records, const std::vector<std::uint32_t>* owners,
                      Numbering& numbering) {
  if (ids.values == nullptr && records > 0) return "An ID column has no values.";
  for (std::size_t i = 0; i < records; ++i) {
    const bool missing = marked(ids, i) ||
                         (ids.type == KDR3_TEXT
                              ? cell<const char*>(ids, i) == nullptr
                              : (ids.type == KDR3_DOUBLE || ids.type == KDR3_FLOAT) && !std::isfinite(valueof(ids, i)));
    if (missing) return "The ID column " + std::string(ids.name) + " has no value in " + ordinal(i) + ".";
  }
  const std::vector<std::uint32_t> values = numbervalues(ids, records);
  Places known;
  numbering.of = number(records, known, [&](std::size_t i) { return keyof(owners ? (*owners)[i] : 0U, values[i]); });
  numbering.owner.resize(known.size());
  for (std::size_t i = 0; i < records; ++i) numbering.owner[numbering.of[i]] = owners ? (*owners)[i] : 0U;
  return "";
}

// What the rows are brought into: level-2 units in the order of their level-3 units.
struct Order {
  std::vector<std::size_t> rows;    // [records] the row of the table that stands at each place
  std::vector<std::size_t> start;   // [units + 1] places before each level-2 unit
  std::vector<std::size_t> level3;  // [units] its level-3 unit
  std::size_t units3 = 0;
};

// Places of `n` things sorted by the group of each, in their order within a group.
std::vector<std::size_t> counted(const std::vector<std::uint32_t>& group, std::size_t groups) {
  std::vector<std::size_t> first(groups + 1);
  for (const std::uint32_t g : group) ++first[g + 1];
  for (std::size_t g = 0; g < groups; ++g) first[g + 1] += first[g];
  return first;
}

Order orderof(const Numbering& level3, const Numbering& level2) {
  Order order;
  order.units3 = level3.owner.size();
  const std::size_t units2 = level2.owner.size(), records = level2.of.size();
  std::vector<std::size_t> next = counted(level2.owner, order.units3);
  std::vector<std::uint32_t> rank(units2), unitof(records);
  order.level3.resize(units2);
  for (std::size_t u = 0; u < units2; ++u) {
    rank[u] = static_cast<std::uint32_t>(next[level2.owner[u]]++);
    order.level3[rank[u]] = level2.owner[u];
  }
  for (std::size_t i = 0; i < records; ++i) unitof[i] = rank[level2.of[i]];
  order.start = counted(unitof, units2);
  order.rows.resize(records);
  std::vector<std::size_t> place = order.start;
  for (std::size_t i = 0; i < records; ++i) order.rows[place[unitof[i]]++] = i;
  return order;
}

// The columns of one level.
using Columns = std::vector<const kdr3_column*>;

// The value that column has in all rows from `first` to `last`, or words why it has none.
std::string onevalue(const kdr3_column& column, const Order& order, std::size_t first, std::size_t last,
                     double& value) {
  const std::string name = column.name;
  const std::string level = std::to_string(column.level);
  value = valueof(column, order.rows[first]);
  if (!std::isfinite(value))
    return "The level-" + level + " column " + name + " has no finite value in " + ordinal(order.rows[first]) + ".";
  for (std::size_t i = first + 1; i < last; ++i)
    if (valueof(column, order.rows[i]) != value)
      return "The level-" + level + " column " + name + " has two values in one level-" + level +
             " unit: " + ordinal(order.rows[first]) + " and " + ordinal(order.rows[i]) + ".";
  return "";
}

void takenames(kdr3_data& data, const Columns (&columns)[3]) {
  Array<Name>* names[] = {&data.mdm.names1, &data.mdm.names2, &data.mdm.names3};
  const char* intercepts[] = {"INTRCPT1", "INTRCPT2", "INTRCPT3"};
  for (std::size_t level = 0; level < 3; ++level) {
    names[level]->reset(columns[level].size() + 1);
    (*names[level])[0] = paddedname(intercepts[level]);
    data.names[level].assign(1, "(intercept)");
    for (const kdr3_column* column : columns[level]) {
      (*names[level])[data.names[level].size()] = paddedname(column->name);
      data.names[level].emplace_back(column->name);
    }
  }
}

std::string checkcolumns(std::size_t count, const kdr3_column* columns) {
  std::unordered_map<std::string_view, int> seen;
  for (std::size_t c = 0; c < count; ++c) {
    const kdr3_column& column = columns[c];
    if (column.name == nullptr || *column.name == '\0') return "Column " + std::to_string(c + 1) + " has no name.";
    const std::string name = column.name;
    if (column.values == nullptr) return "The column " + name + " has no values.";
    if (column.level < 1 || column.level > 3) return "The column " + name + " has no level from 1 to 3.";
    if (column.type < KDR3_DOUBLE || column.type > KDR3_INT64)
      return "The column " + name + " does not hold numbers: only IDs may be texts.";
    if (++seen[column.name] > 1) return "Two columns are called " + name + ".";
  }
  return "";
}

// A file without a name, in memory where the system has such files.
std::FILE* nameless() {
  const int descriptor = memfd_create("kdr3", MFD_CLOEXEC);
  if (descriptor < 0) return std::tmpfile();
  std::FILE* file = fdopen(descriptor, "w+b");
  if (file == nullptr) close(descriptor);
  return file;
}

// Sums and counts of the values that are there.
struct Mean {
  double sum = 0.0;
  std::size_t n = 0;
  void add(double value) {
    sum += value;
    ++n;
  }
  [[nodiscard]] double mean() const { return n > 0 ? sum / static_cast<double>(n) : 0.0; }
};

Array<double> meansof(const std::vector<Mean>& sums) {
  Array<double> means(sums.size());
  for (std::size_t v = 0; v < sums.size(); ++v) means[v] = sums[v].mean();
  return means;
}

// The level-2 blocks, and the means of levels 1 and 2.
std::string writeblocks(kdr3_data& data, const Order& order, const Columns& level1, const Columns& level2) {
  MdmData& mdm = data.mdm;
  std::vector<Mean> sums1(level1.size()), sums2(level2.size());
  UnitBlock block;
  block.means.reset(level1.size());
  block.level2.reset(level2.size());
  block.records.reset(static_cast<std::size_t>(mdm.maxnj) * level1.size());
  for (std::size_t u = 0; u + 1 < order.start.size(); ++u) {
    const std::size_t first = order.start[u], last = order.start[u + 1];
    block.nj = static_cast<int>(last - first);
    block.id2.number = static_cast<double>(u + 1);
    block.id3.number = static_cast<double>(order.level3[u] + 1);
    for (std::size_t v = 0; v < level1.size(); ++v) {
      double sum = 0.0;
      for (std::size_t i = first; i < last; ++i) {
        const double value = valueof(*level1[v], order.rows[i]);
        if (std::isinf(value))
          return "The column " + std::string(level1[v]->name) + " is infinite in " + ordinal(order.rows[i]) + ".";
        if (value == missingcode)
          return "The column " + std::string(level1[v]->name) + " has the value of missing data in " +
                 ordinal(order.rows[i]) + ".";
        block.records[(i - first) * level1.size() + v] = std::isnan(value) ? missingcode : value;
        if (std::isnan(value)) {
          mdm.l1missing = true;
          continue;
        }
        sum += value;
        sums1[v].add(value);
      }
      block.means[v] = sum / block.nj;
    }
    for (std::size_t v = 0; v < level2.size(); ++v) {
      if (std::string words = onevalue(*level2[v], order, first, last, block.level2[v]); !words.empty()) return words;
      sums2[v].add(block.level2[v]);
    }
    writeunit(mdm.stream, block, mdm.nvar1, mdm.nvar2, true, true);
  }
  mdm.mean1 = meansof(sums1);
  mdm.mean2 = meansof(sums2);
  return "";
}

std::string makelevel3(kdr3_data& data, const Order& order, const Columns& level3) {
  MdmData& mdm = data.mdm;
  std::vector<Mean> sums(level3.size());
  mdm.numericid3.reset(order.units3);
  mdm.level3.reset(order.units3 * level3.size());
  std::size_t u = 0;
  for (std::size_t k = 0; k < order.units3; ++k) {
    const std::size_t first = order.start[u];
    while (u < order.level3.size() && order.level3[u] == k) ++u;
    mdm.numericid3[k] = static_cast<double>(k + 1);
    for (std::size_t v = 0; v < level3.size(); ++v) {
      double& value = mdm.level3[k * level3.size() + v];
      if (std::string words = onevalue(*level3[v], order, first, order.start[u], value); !words.empty()) return words;
      sums[v].add(value);
    }
  }
  mdm.mean3 = meansof(sums);
  return "";
}

}  // namespace

kdr3_status error(std::string sentence) {
  lasterror = std::move(sentence);
  return KDR3_ERROR;
}

int variable(const kdr3_data& data, int level, const char* name) {
  if (name == nullptr) return 0;
  const std::vector<std::string>& names = data.names[level - 1];
  for (std::size_t v = 1; v < names.size(); ++v)
    if (names[v] == name) return static_cast<int>(v);
  return -1;
}

}  // namespace kdr::library

using namespace kdr;
using namespace kdr::library;

kdr3_data::~kdr3_data() {
  if (mdm.stream != nullptr) std::fclose(mdm.stream);
}

int kdr3_abi(void) { return KDR3_ABI; }
const char* kdr3_version(void) { return kdr::libraryversion; }
const char* kdr3_message(void) { return lasterror.c_str(); }

kdr3_status kdr3_data_make(size_t records, size_t count, const kdr3_column* columns, const kdr3_column* level2id,
                           const kdr3_column* level3id, kdr3_data** result) {
  return guarded([&]() -> kdr3_status {
    if (result == nullptr || level2id == nullptr || (columns == nullptr && count > 0))
      return error("A data set needs its columns, the IDs of level 2, and a place for the handle.");
    const bool twolevel = level3id == nullptr;
    *result = nullptr;
    if (records == 0) return error("The table has no rows.");
    if (records > static_cast<std::size_t>(std::numeric_limits<int>::max()))
      return error("The table has too many rows.");
    if (std::string words = checkcolumns(count, columns); !words.empty()) return error(words);
    Columns levels[3];
    for (std::size_t c = 0; c < count; ++c) levels[columns[c].level - 1].push_back(&columns[c]);
    if (levels[0].empty()) return error("There is no column of level 1.");
    Numbering units3, units2;
    if (twolevel && !levels[2].empty()) return error("A column of level 3 needs the IDs of level 3.");
    // Data of two levels: each level-2 unit is a level-3 unit too.
    if (std::string words = numberids(twolevel ? *level2id : *level3id, records, nullptr, units3); !words.empty())
      return error(words);
    if (std::string words = numberids(*level2id, records, &units3.of, units2); !words.empty()) return error(words);
    const Order order = orderof(units3, units2);

    auto data = std::make_unique<kdr3_data>();
    MdmData& mdm = data->mdm;
    takenames(*data, levels);
    mdm.nvar1 = static_cast<int>(levels[0].size());
    mdm.nvar2 = static_cast<int>(levels[1].size());
    mdm.nvar3 = static_cast<int>(levels[2].size());
    mdm.nunits1 = mdm.numl1rec = static_cast<int>(records);
    mdm.nunits2 = mdm.numl2rec = static_cast<int>(order.level3.size());
    mdm.nunits3 = mdm.numl3rec = static_cast<int>(order.units3);
    mdm.numericids = true;
    mdm.mdmtype = twolevel ? MdmType::twolevel : MdmType::ordinary;
    for (std::size_t u = 0; u + 1 < order.start.size(); ++u)
      mdm.maxnj = std::max(mdm.maxnj, static_cast<int>(order.start[u + 1] - order.start[u]));
    mdm.stream = nameless();
    if (mdm.stream == nullptr) return error("There is no place for a temporary file.");
    if (std::string words = writeblocks(*data, order, levels[0], levels[1]); !words.empty()) return error(words);
    if (std::string words = makelevel3(*data, order, levels[2]); !words.empty()) return error(words);
    if (std::fflush(mdm.stream) != 0 || std::ferror(mdm.stream) != 0)
      return error("The data could not be kept: full disk?");
    *result = data.release();
    return KDR3_OK;
  });
}

kdr3_status kdr3_data_sizes(const kdr3_data* data, size_t sizes[3]) {
  if (data == nullptr || sizes == nullptr) return error("The data set is missing.");
  sizes[0] = static_cast<std::size_t>(data->mdm.numl1rec);
  sizes[1] = static_cast<std::size_t>(data->mdm.numl2rec);
  sizes[2] = data->mdm.twolevel() ? 0 : static_cast<std::size_t>(data->mdm.numl3rec);
  return KDR3_OK;
}

void kdr3_data_free(kdr3_data* data) { delete data; }

kdr3_status kdr3_data_open(const char* path, kdr3_data** result) {
  return guarded([&]() -> kdr3_status {
    if (path == nullptr || result == nullptr) return error("A data set needs its path and a place for the handle.");
    *result = nullptr;
    auto data = std::make_unique<kdr3_data>();
    MdmData& mdm = data->mdm;
    mdm.path = path;
    mdm.stream = std::fopen(path, "rb");
    if (mdm.stream == nullptr) return error("Unable to open " + mdm.path + ".");
    if (const Failure failure = readmdm(mdm)) return error(sentenceof(failure));
    const Array<Name>* names[] = {&mdm.names1, &mdm.names2, &mdm.names3};
    for (std::size_t level = 0; level < 3; ++level) {
      for (const Name& name : *names[level]) data->names[level].push_back(leftname(name));
      data->names[level][0] = "(intercept)";
    }
    *result = data.release();
    return KDR3_OK;
  });
}
