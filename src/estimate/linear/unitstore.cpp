#include "estimate/linear/unitstore.h"

#include <cstring>

#include "kernel/sizes.h"

namespace kdr {

void openstore(UnitStore& store, const StoreLayout& layout) {
  const std::size_t triangle = packedsize(layout.p), p = at(layout.p), nb = at(layout.nb);
  store.p = layout.p;
  store.nb = layout.nb;
  store.atZ1Y = triangle;
  store.atBZ1 = store.atZ1Y + p;
  store.atCinv = store.atBZ1 + nb * p;
  store.atustar = store.atCinv + triangle;

  store.hasid = layout.withid;
  store.numericids = layout.numericids;
  store.nvar2 = layout.nvar2;
  store.atinverse = 1;
  store.atid = store.atinverse + triangle;
  store.atlevel2 = store.atid + (layout.withid ? 2 : 0);

  const std::size_t hot = store.atustar + p, cold = store.atlevel2 + at(layout.nvar2);
  const std::size_t weighted = layout.weighted ? 1 + triangle + nb * p : 0;
  const std::size_t bytes = layout.nunits * (hot + cold + weighted) * sizeof(double);
  const bool inmemory = layout.settings.inmemory || bytes <= layout.settings.budget;
  const StreamSettings settings{inmemory, layout.settings.window, layout.observer};
  store.hot.open(hot, layout.nunits, settings);
  store.cold.open(cold, layout.nunits, settings);
  if (layout.weighted) store.weighted.open(weighted, layout.nunits, settings);
}

void finishstore(UnitStore& store) {
  store.hot.finish();
  store.cold.finish();
  if (store.weighted.isopen()) store.weighted.finish();
}

const Failure& storefailure(const UnitStore& store) {
  for (const RecordStream* stream : {&store.hot, &store.cold})
    if (stream->failure()) return stream->failure();
  return store.weighted.failure();
}

void putid(const UnitStore& store, double* cold, const Id& id) {
  if (!store.hasid) return;
  if (store.numericids) {
    cold[store.atid] = id.number;
  } else {
    std::memcpy(cold + store.atid, id.text.text, sizeof id.text.text);
  }
}

Id getid(const UnitStore& store, const double* cold) {
  Id id{};
  if (store.numericids) {
    id.number = cold[store.atid];
  } else {
    std::memcpy(id.text.text, cold + store.atid, sizeof id.text.text);
  }
  return id;
}

}  // namespace kdr
