#include "estimate/linear/recordstream.h"

#include <cerrno>
#include <cstdio>

namespace kdr {

RecordStream& RecordStream::operator=(RecordStream&& other) noexcept {
  std::swap(settings, other.settings);
  std::swap(width, other.width);
  std::swap(buffer, other.buffer);
  std::swap(first, other.first);
  std::swap(held, other.held);
  std::swap(file, other.file);
  std::swap(problem, other.problem);
  return *this;
}

void RecordStream::fail(Failure failure) {
  if (!problem) problem = std::move(failure);
}

void RecordStream::open(std::size_t doubles, std::size_t records, const StreamSettings& given) {
  *this = RecordStream{};
  width = doubles;
  settings = given;
  if (!settings.inmemory) file = scratchopen();
  if (!settings.inmemory && file == nullptr) fail(notemporaryfile());
  buffer.reset((settings.inmemory ? records : std::max<std::size_t>(1, windowrecords())) * width);
}

std::size_t RecordStream::windowrecords() const {
  return settings.inmemory ? std::numeric_limits<std::size_t>::max() : settings.window / (width * sizeof(double));
}

void RecordStream::goeson() {
  if (!problem && settings.observer != nullptr && settings.observer->givesup()) fail(failed(abandoned));
}

void RecordStream::seek(std::size_t record) {
  if (!problem && fseeko(file.get(), static_cast<off_t>(record * width * sizeof(double)), SEEK_SET) != 0)
    fail(failed(fulldisk));
}

void RecordStream::flush() {
  if (!problem && held != 0 && std::fwrite(buffer.data(), width * sizeof(double), held, file.get()) != held)
    fail(failed(fulldisk));
  first += held;
  held = 0;
}

double* RecordStream::append() {
  if ((held + 1) * width > buffer.size()) {
    if (settings.inmemory) fail(failed(fulldisk));
    flush();
    if (buffer.size() < width) buffer.reset(width);
  }
  double* record = buffer.data() + held++ * width;
  std::fill_n(record, width, 0.0);
  return record;
}

void RecordStream::finish() {
  if (!settings.inmemory) flush();
  first = held = 0;
}

double* RecordStream::load(std::size_t from, std::size_t count) {
  if (problem) return nullptr;
  if (settings.inmemory) return buffer.data() + from * width;
  if (held == count && first == from) return buffer.data();
  if (count * width > buffer.size()) buffer.reset(count * width);
  seek(from);
  const std::size_t bytes = count * width * sizeof(double);
  if (!problem && std::fread(buffer.data(), 1, bytes, file.get()) != bytes) {
    const bool unread = std::ferror(file.get()) != 0;
    Failure failure =
        failedwith(unread ? "Unable to read a temporary file\n" : "A temporary file is damaged: it is cut off.\n");
    if (unread) failure.systemerror = errno;
    fail(std::move(failure));
  }
  if (problem) return nullptr;
  first = from;
  held = count;
  return buffer.data();
}

void RecordStream::save() {
  if (settings.inmemory) return;
  seek(first);
  if (!problem && held != 0 && std::fwrite(buffer.data(), width * sizeof(double), held, file.get()) != held)
    fail(failed(fulldisk));
}

}  // namespace kdr
