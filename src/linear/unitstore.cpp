#include "linear/unitstore.h"

#include <algorithm>
#include <cstring>

#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

std::size_t unitstorebudget = std::size_t{256} << 20;
std::size_t unitwindowbytes = std::size_t{16} << 20;

namespace {

void openstream(RecordStream& stream, std::size_t nunits, bool resident) {
  stream.resident = resident;
  stream.first = stream.held = 0;
  if (resident) {
    stream.buffer.reset(nunits * stream.stride);
  } else {
    stream.file = scratchopen();
    stream.buffer.reset(std::max<std::size_t>(1, unitwindowbytes / (stream.stride * sizeof(double))) * stream.stride);
  }
}

void seekrecord(RecordStream& stream, std::size_t record) {
  if (fseeko(stream.file, static_cast<off_t>(record * stream.stride * sizeof(double)), SEEK_SET) != 0) fail(5);
}

// Appending: sends the full buffer to the file.
void flushappended(RecordStream& stream) {
  writechk(stream.buffer.data(), stream.held * stream.stride * sizeof(double), stream.file);
  stream.first += stream.held;
  stream.held = 0;
}

}  // namespace

void openstore(UnitStore& store, int p, int nb, std::size_t nunits, int nvar2, bool withid, bool withlevel2,
               bool weighted) {
  store.p = p;
  store.nb = nb;
  store.nunits = nunits;
  const std::size_t triangle = packedsize(p);
  store.atZ1Y = triangle;
  store.atBZ1 = store.atZ1Y + static_cast<std::size_t>(p);
  store.atCinv = store.atBZ1 + static_cast<std::size_t>(nb) * static_cast<std::size_t>(p);
  store.atustar = store.atCinv + triangle;
  store.hot.stride = store.atustar + static_cast<std::size_t>(p);

  store.hasid = withid;
  store.haslevel2 = withlevel2;
  store.atinverse = 1;
  store.atid = store.atinverse + triangle;
  store.atlevel2 = store.atid + (withid ? 2 : 0);
  store.cold.stride = store.atlevel2 + (withlevel2 ? static_cast<std::size_t>(nvar2) : 0);

  store.weighted.stride = 1 + triangle + static_cast<std::size_t>(nb) * static_cast<std::size_t>(p);

  const std::size_t doubles = store.hot.stride + store.cold.stride + (weighted ? store.weighted.stride : 0);
  const std::size_t bytes = nunits * doubles * sizeof(double);
  const bool resident = run.id.inmemory || bytes <= unitstorebudget;
  openstream(store.hot, nunits, resident);
  openstream(store.cold, nunits, resident);
  if (weighted) openstream(store.weighted, nunits, resident);
}

double* appendrecord(RecordStream& stream) {
  if ((stream.held + 1) * stream.stride > stream.buffer.size()) flushappended(stream);
  double* record = stream.buffer.data() + stream.held++ * stream.stride;
  std::fill_n(record, stream.stride, 0.0);
  return record;
}

void closestore(UnitStore& store, const Array<int>& n2of) {
  std::size_t limit = store.nunits;
  for (RecordStream* stream : {&store.hot, &store.cold, &store.weighted})
    if (stream->file != nullptr) {
      flushappended(*stream);
      stream->first = stream->held = 0;
      limit = std::min(limit, unitwindowbytes / (stream->stride * sizeof(double)));
    }

  // Whole level-3 units, as many as fit, at least one.
  store.windows.reset(n2of.size());
  std::size_t used = 0;
  UnitWindow window{0, 0, 0, 0};
  for (std::size_t k = 0; k < n2of.size(); ++k) {
    const auto units = static_cast<std::size_t>(n2of[k]);
    if (window.k1 > window.k0 && window.count + units > limit) {
      store.windows[used++] = window;
      window = {window.k1, window.k1, window.first + window.count, 0};
    }
    ++window.k1;
    window.count += units;
  }
  if (window.k1 > window.k0) store.windows[used++] = window;
  store.windows.resize(used);
}

void freestore(UnitStore& store) {
  for (RecordStream* stream : {&store.hot, &store.cold, &store.weighted}) {
    scratchclose(stream->file);
    *stream = RecordStream{};
  }
}

double* loadwindow(RecordStream& stream, const UnitWindow& window) {
  if (stream.resident) return stream.buffer.data() + window.first * stream.stride;
  if (stream.held == window.count && stream.first == window.first) return stream.buffer.data();
  if (window.count * stream.stride > stream.buffer.size()) stream.buffer.reset(window.count * stream.stride);
  seekrecord(stream, window.first);
  if (!readchk(stream.buffer.data(), window.count * stream.stride * sizeof(double), stream.file)) fail(5);
  stream.first = window.first;
  stream.held = window.count;
  return stream.buffer.data();
}

void savewindow(RecordStream& stream, const UnitWindow& window) {
  if (stream.resident) return;
  seekrecord(stream, window.first);
  writechk(stream.buffer.data(), window.count * stream.stride * sizeof(double), stream.file);
}

void putid(const UnitStore& store, double* cold, const Id& id) {
  if (!store.hasid) return;
  if (run.mdm.numericids) {
    cold[store.atid] = id.number;
  } else {
    std::memcpy(cold + store.atid, id.text.text, sizeof id.text.text);
  }
}

Id getid(const UnitStore& store, const double* cold) {
  Id id{};
  if (run.mdm.numericids) {
    id.number = cold[store.atid];
  } else {
    std::memcpy(id.text.text, cold + store.atid, sizeof id.text.text);
  }
  return id;
}

}  // namespace kdr
