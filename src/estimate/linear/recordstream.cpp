#include "estimate/linear/recordstream.h"

#include <cstdio>

namespace kdr {

RecordStream& RecordStream::operator=(RecordStream&& other) noexcept {
  std::swap(width, other.width);
  std::swap(windowbytes, other.windowbytes);
  std::swap(resident, other.resident);
  std::swap(buffer, other.buffer);
  std::swap(first, other.first);
  std::swap(held, other.held);
  std::swap(file, other.file);
  return *this;
}

void RecordStream::open(std::size_t doubles, std::size_t records, bool inmemory, std::size_t window) {
  *this = RecordStream{};
  width = doubles;
  windowbytes = window;
  resident = inmemory;
  if (!resident) file = scratchopen();
  buffer.reset((resident ? records : std::max<std::size_t>(1, windowrecords())) * width);
}

std::size_t RecordStream::windowrecords() const {
  return resident ? std::numeric_limits<std::size_t>::max() : windowbytes / (width * sizeof(double));
}

void RecordStream::seek(std::size_t record) {
  if (fseeko(file, static_cast<off_t>(record * width * sizeof(double)), SEEK_SET) != 0) fail(5);
}

void RecordStream::flush() {
  writechk(buffer.data(), held * width * sizeof(double), file);
  first += held;
  held = 0;
}

double* RecordStream::append() {
  if ((held + 1) * width > buffer.size()) {
    if (resident) fail(5);
    flush();
  }
  double* record = buffer.data() + held++ * width;
  std::fill_n(record, width, 0.0);
  return record;
}

void RecordStream::finish() {
  if (!resident) flush();
  first = held = 0;
}

double* RecordStream::load(std::size_t from, std::size_t count) {
  if (resident) return buffer.data() + from * width;
  if (held == count && first == from) return buffer.data();
  if (count * width > buffer.size()) buffer.reset(count * width);
  seek(from);
  const std::size_t bytes = count * width * sizeof(double);
  if (readupto(buffer.data(), bytes, file, "a temporary file") != bytes)
    stopwith("A temporary file is damaged: it is cut off.\n");
  first = from;
  held = count;
  return buffer.data();
}

void RecordStream::save() {
  if (resident) return;
  seek(first);
  writechk(buffer.data(), held * width * sizeof(double), file);
}

}  // namespace kdr
