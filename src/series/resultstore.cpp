#include "series/resultstore.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "core/formatted.h"
#include "data/scratch.h"
#include "kernel/hash.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

constexpr long long headsize = 4 + maxsets;

struct Mark {
  char magic[8];
  std::int32_t q, r, g, fisher, popaverage, reserved;
  std::uint64_t model;
  std::uint64_t checksum;
};
static_assert(sizeof(Mark) == 48);

// Of what stands before it.
std::uint64_t checksum(const Mark& mark) {
  Hash hash;
  hash.add(&mark, offsetof(Mark, checksum));
  return hash.value();
}

Mark markof(const SubrunShape& shape) {
  Mark mark{{'K', 'D', 'R', '3', 'S', 'E', 'T', 'S'},
            shape.q,
            shape.r,
            shape.g,
            shape.fisher ? 1 : 0,
            shape.popaverage ? 1 : 0,
            0,
            shape.model,
            0};
  mark.checksum = checksum(mark);
  return mark;
}

bool iswhole(const Mark& mark) {
  return std::memcmp(mark.magic, "KDR3SETS", 8) == 0 && mark.checksum == checksum(mark);
}

bool readmark(std::FILE* file, long long place, Mark& mark) {
  return place >= headsize && fseeko(file, place, SEEK_SET) == 0 && readchk(&mark, sizeof mark, file) && iswhole(mark);
}

// Calls visit(pointer, bytes) on every field of a record that exists under the shape, in the order of the file.
template <class Record, class Visitor>
void walkrecord(const SubrunShape& shape, Record& record, Visitor visit) {
  const auto value = [&](auto& x) { visit(&x, sizeof x); };
  const auto array = [&](auto& x) { visit(x.data(), x.size() * sizeof(double)); };
  const auto effects = [&](auto& x) {
    array(x.gammahat);
    array(x.vgamma);
    array(x.robust);
  };
  value(record.units2);
  value(record.units3);
  value(record.sigma2);
  value(record.loglik);
  if (shape.fisher) value(record.sigma2variance);
  array(record.taupi);
  array(record.taubeta);
  if (shape.fisher) array(record.taucovariance);
  array(record.reliability2);
  array(record.reliability3);
  effects(record.effects);
  if (shape.fractional) array(record.effects.df);
  value(record.testunits2);
  value(record.testunits3);
  array(record.chisq2);
  array(record.chisq3);
  if (shape.popaverage) effects(record.popaverage);
}

std::string damaged() {
  return formatted("The result store %s is not whole; please begin the series again with -mi0.", storename);
}
std::string foreign() {
  return formatted(
      "The result store %s was left by a series with another model, other categories or other orders; please "
      "begin this series with -mi0, or run it in a folder of its own.",
      storename);
}

// The store, open for writing. What cannot be written is remembered until it is closed.
struct OpenStore {
  std::FILE* file = nullptr;
  bool full = false;

  void write(const void* bytes, std::size_t n) { full = full || (n != 0 && std::fwrite(bytes, n, 1, file) != 1); }
  void writeat(long long place, const void* bytes, std::size_t n) {
    full = full || fseeko(file, place, SEEK_SET) != 0;
    write(bytes, n);
  }
  // Puts what was written on the disk before anything that follows.
  void settle() { full = full || std::fflush(file) != 0 || fsync(fileno(file)) != 0; }
  [[nodiscard]] Failure close() {
    full = std::fclose(file) != 0 || full;
    return full ? failed(fulldisk) : Failure{};
  }
};

Failure cannotopen(const char* what) {
  Failure failure = failedwith(formatted("Unable to open %s for %s\n", storename, what));
  failure.systemerror = errno;
  return failure;
}

Failure open(OpenStore& store, const char* mode) {
  store.file = std::fopen(storename, mode);
  return store.file == nullptr ? cannotopen(mode[0] == 'w' ? "writing" : "reading") : Failure{};
}

std::string checkhead(std::FILE* file, const SubrunShape& shape, StoreHead& head) {
  std::int32_t nsets = 0;
  if (!readchk(&nsets, sizeof nsets, file) || !readchk(head.mistatus, sizeof head.mistatus, file)) return damaged();
  head.nsets = nsets;
  if (nsets < 1 || nsets > maxsets) return damaged();
  for (int i = 0; i < maxsets; ++i)
    if (const char status = head.mistatus[i];
        status != 0 && ((status != setconverged && status != setunconverged) || i >= nsets))
      return damaged();
  const Mark ours = markof(shape);
  const long long place = headsize + head.finished() * recordsize(shape);
  Mark mark{};
  for (const long long candidate : {place, place + recordsize(shape)})
    if (readmark(file, candidate, mark) && mark.checksum == ours.checksum) return {};
  if (fseeko(file, 0, SEEK_END) != 0) return damaged();
  const bool closed = readmark(file, ftello(file) - static_cast<long long>(sizeof mark), mark);
  return closed && mark.checksum != ours.checksum ? foreign() : damaged();
}

}  // namespace

int StoreHead::finished() const {
  return maxsets - static_cast<int>(std::count(mistatus, mistatus + maxsets, char{0}));
}

long long recordsize(const SubrunShape& shape) {
  const auto doubles = [](auto n) { return static_cast<long long>(n) * static_cast<long long>(sizeof(double)); };
  const std::size_t effects = at(shape.g) + 2 * square(shape.g);
  return 4 * 4 + doubles(2 + (shape.fisher ? 1 + square(shape.tauorder()) : 0)) +
         doubles(square(shape.q) + square(shape.r) + 2 * at(shape.q) + 2 * at(shape.r)) +
         doubles(shape.popaverage ? 2 * effects : effects) + doubles(shape.fractional ? at(shape.g) : 0);
}

bool unusable(const Failure& failure) { return failure.row == ownwords && failure.systemerror == 0; }

Failure createstore(const SubrunShape& shape) {
  OpenStore store;
  if (Failure failure = open(store, "wb")) return failure;
  const std::int32_t nsets = 1;
  const StoreHead head;
  const Mark mark = markof(shape);
  store.write(&nsets, sizeof nsets);
  store.write(head.mistatus, sizeof head.mistatus);
  store.write(&mark, sizeof mark);
  store.settle();
  return store.close();
}

Failure nostore() {
  return failedwith(formatted("There is no result store %s in this folder: a series begins with -mi0.\n", storename));
}

Failure readstore(const SubrunShape& shape, StoreHead& head, std::vector<SubrunRecord>* records) {
  std::FILE* file = std::fopen(storename, "rb");
  if (file == nullptr && errno != ENOENT) return cannotopen("reading");
  if (file == nullptr) return nostore();
  std::string problem = checkhead(file, shape, head);
  if (problem.empty() && records != nullptr) {
    records->clear();
    bool whole = fseeko(file, headsize, SEEK_SET) == 0;
    for (int i = head.finished(); whole && i > 0; --i) {
      records->push_back(emptyrecord(shape));
      walkrecord(shape, records->back(), [&](void* bytes, std::size_t n) { whole = whole && readchk(bytes, n, file); });
    }
    if (!whole) problem = damaged();
  }
  Failure failure;
  if (!problem.empty()) {
    failure = failedwith(problem + "\n");
    if (std::ferror(file) != 0) {
      failure.systemerror = errno;
      failure.consolewords = formatted("Unable to read %s\n", storename);
    }
  }
  std::fclose(file);
  return failure;
}

Failure joinstore(const SubrunShape& shape, int index, StoreHead& head) {
  if (index < 0 || index >= maxsets)
    return failedwith(formatted("A series has at most %d data sets, -mi0 to -mi%d.\n", maxsets, maxsets - 1));
  if (Failure failure = readstore(shape, head, nullptr)) return failure;
  if (head.mistatus[index] != 0)
    return failedwith(formatted("Data set %d of this series (-mi%d) has finished already.\n", index + 1, index));
  head.nsets = std::max(head.nsets, index + 1);
  OpenStore store;
  if (Failure failure = open(store, "r+b")) return failure;
  const std::int32_t nsets = head.nsets;
  store.writeat(0, &nsets, sizeof nsets);
  store.settle();
  return store.close();
}

Failure appendrecord(const SubrunShape& shape, int index, const SubrunRecord& record, bool converged) {
  StoreHead head;
  if (Failure failure = readstore(shape, head, nullptr)) return failure;
  OpenStore store;
  if (Failure failure = open(store, "r+b")) return failure;
  const long long place = headsize + head.finished() * recordsize(shape);
  const Mark mark = markof(shape);
  store.writeat(place + recordsize(shape), &mark, sizeof mark);
  store.settle();
  store.full = store.full || fseeko(store.file, place, SEEK_SET) != 0;
  walkrecord(shape, record, [&](const void* bytes, std::size_t n) { store.write(bytes, n); });
  store.settle();
  const char finished = converged ? setconverged : setunconverged;
  if (!store.full) store.writeat(4 + index, &finished, sizeof finished);
  store.settle();
  return store.close();
}

void removestore() { std::remove(storename); }

}  // namespace kdr
