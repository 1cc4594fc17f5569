#include "construct/readers/sastransport.h"

#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "construct/buildlog.h"
#include "construct/rawvariables.h"
#include "construct/readers/bytereader.h"
#include "core/constants.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/questions.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

constexpr std::size_t cardlength = 80;
constexpr const char* libraryhead = "HEADER RECORD*******LIBRARY HEADER RECORD";
constexpr const char* version8head = "HEADER RECORD*******LIBV8 ";
constexpr const char* dataheads[] = {"HEADER RECORD*******MEMBER  HEADER RECORD!!!!!!!",
                                     "HEADER RECORD*******LIBRARY HEADER RECORD!!!!!!!"};  // of more data in one file
constexpr const char* recordshead = "HEADER RECORD*******OBS";

// The file of one level.
struct SasLevel {
  ByteReader bytes;
  std::size_t descriptorlength = 0;
  Array<int> position;  // of each variable in the record
  Array<unsigned char> record;
  const unsigned char* card = nullptr;  // the one in hand, in the reader's buffer
  std::size_t have = 0, at = 0;         // its bytes, and the next of them
  bool ended = false;                   // no card is left
  bool another = false;                 // because another data set or another library begins
  long long records = 0;                // that were read
};

SasLevel levels[3];

bool startswith(const unsigned char* card, const char* words) {
  return std::memcmp(card, words, std::strlen(words)) == 0;
}

void notransport(int level) {
  std::printf("The level-%d file does not seem to be a %s file!\n", level + 1, "SAS transport");
}

[[noreturn]] void damaged(int level, const char* what) {
  const char* name = raw.level[level].filename.c_str();
  std::printf("%s is cut short or damaged: %s.\n", name, what);
  fail(1, name);
}

// The next bytes of the heads.
const unsigned char* headbytes(int level, std::size_t width) {
  const unsigned char* bytes = takebytes(levels[level].bytes, width);
  if (bytes == nullptr) damaged(level, "its heads are not whole");
  return bytes;
}

// Passes over the first card, which a line feed may end early.
void takefirstcard(int level) {
  ByteReader& bytes = levels[level].bytes;
  std::size_t got = 0;
  const unsigned char* card = peekbytes(bytes, cardlength, got);
  const unsigned char* feed = std::find(card, card + got, '\n');
  if (got < cardlength && feed == card + got) got = 0;  // not whole
  if (got < std::strlen(libraryhead) || !startswith(card, libraryhead)) {
    notransport(level);
    if (got >= std::strlen(version8head) && startswith(card, version8head))
      std::printf("It is one of version 8, which is read with rawdattype:other and the file type /sasx.\n");
    fail(1, raw.level[level].filename.c_str());
  }
  bytes.at += feed == card + got ? got : static_cast<std::size_t>(feed - card) + 1;
}

// The heads of the library and of its first member: settles numvar and the length of a descriptor.
void sashead(int level) {
  LevelSource& source = raw.level[level];
  takefirstcard(level);
  (void)headbytes(level, 2 * cardlength);
  const unsigned char* card = headbytes(level, cardlength);
  const std::string length(reinterpret_cast<const char*>(card) + 75, 3);
  if (length != "136" && length != "140") {
    notransport(level);
    stoprun(100);
  }
  levels[level].descriptorlength = length == "136" ? 136 : 140;
  (void)headbytes(level, 3 * cardlength);
  card = headbytes(level, cardlength);
  source.numvar = std::atoi(std::string(reinterpret_cast<const char*>(card) + 54, 4).c_str());
  if (source.numvar <= 0) damaged(level, "it tells no number of variables");
}

// The variables, and the stream to the first record.
void sasvars(int level) {
  LevelSource& source = raw.level[level];
  SasLevel& sas = levels[level];
  const auto count = static_cast<std::size_t>(source.numvar);
  source.vartable.assign(count, RawVariable{});
  sas.position.reset(count);
  std::size_t reclen = 0;
  for (std::size_t v = 0; v < count; ++v) {
    const unsigned char* descriptor = headbytes(level, sas.descriptorlength);
    RawVariable& variable = source.vartable[v];
    const int type = highfirst<std::int16_t>(descriptor);
    variable.text = type == 2;
    variable.width = highfirst<std::int16_t>(descriptor + 4);
    namevariable(variable, std::string_view(reinterpret_cast<const char*>(descriptor) + 8, 8));
    if ((type != 1 && type != 2) || variable.width < 1 || (type == 1 && variable.width > 8))
      damaged(level, "a variable is of no known type or width");
    reclen += static_cast<std::size_t>(variable.width);
    sas.position[v] = highfirst<std::int32_t>(descriptor + 84);
  }
  for (std::size_t v = 0; v < count; ++v)
    if (sas.position[v] < 0 ||
        static_cast<std::size_t>(sas.position[v]) + static_cast<std::size_t>(source.vartable[v].width) > reclen)
      damaged(level, "a variable lies outside the record");
  sas.record.reset(reclen);
  const std::size_t beyond = sas.descriptorlength * count % cardlength;
  if (beyond != 0) (void)headbytes(level, cardlength - beyond);
  const unsigned char* card = takebytes(sas.bytes, cardlength);
  if (card == nullptr || !startswith(card, recordshead)) {
    notransport(level);
    fail(1, source.filename.c_str());
  }
}

// Takes the next card of data. The last one may be short. False when there is none.
bool nextcard(int level) {
  SasLevel& sas = levels[level];
  if (sas.ended) return false;
  sas.card = peekbytes(sas.bytes, cardlength, sas.have);
  sas.bytes.at += sas.have;
  sas.at = 0;
  sas.another = sas.have == cardlength && std::any_of(std::begin(dataheads), std::end(dataheads),
                                                      [&](const char* head) { return startswith(sas.card, head); });
  sas.ended = sas.another || sas.have == 0;
  if (sas.ended) sas.have = 0;
  return !sas.ended;
}

// Fills the record from the cards; returns how many of its bytes were there.
std::size_t fillrecord(int level) {
  SasLevel& sas = levels[level];
  std::size_t filled = 0;
  while (filled < sas.record.size()) {
    if (sas.at == sas.have && !nextcard(level)) break;
    const std::size_t part = std::min(sas.record.size() - filled, sas.have - sas.at);
    std::memcpy(sas.record.data() + filled, sas.card + sas.at, part);
    filled += part;
    sas.at += part;
  }
  return filled;
}

bool isblank(const unsigned char* bytes, std::size_t length) {
  return std::all_of(bytes, bytes + length, [](unsigned char c) { return c == ' '; });
}

// Whether what is left of the data set holds anything but the blanks that fill the last card.
bool restisblank(int level) {
  SasLevel& sas = levels[level];
  do {
    if (!isblank(sas.card + sas.at, sas.have - sas.at)) return false;
  } while (nextcard(level));
  return true;
}

// Tells what the end of the data leaves out. `partial` is true for a record of which only a part is there.
void tellend(int level, bool partial) {
  const SasLevel& sas = levels[level];
  const char* name = raw.level[level].filename.c_str();
  if (partial) {
    countextra();
    logboth("%s ends in the middle of record %lld. That record does not count.\n", name, sas.records + 1);
  } else if (!restisblank(level)) {
    countextra();
    logboth("Record %lld of %s is blank, which ends the data. What stands behind it does not count.\n", sas.records + 1,
            name);
  }
  while (nextcard(level)) continue;
  if (sas.another) {
    countextra();
    logboth("%s holds more than one data set. Only the first one was read.\n", name);
  }
}

Id idof(const RawVariable& variable, const unsigned char* field) {
  Id id{};
  if (run.mdm.numericids) {
    id.number = numericid(ibmdouble(field, variable.width), true);
  } else {
    id.text = textid({reinterpret_cast<const char*>(field), static_cast<std::size_t>(variable.width)});
  }
  return id;
}

// A text between quotes in a SAS job.
std::string quoted(const std::string& text) {
  std::string whole = "'";
  for (const char c : text) whole += c == '\'' ? "''" : std::string(1, c);
  return whole + "'";
}

// The name of the data set that a transport file is made from.
std::string datasetof(const std::string& path) {
  const std::string file = path.substr(path.rfind('/') + 1);
  return file.substr(0, file.find('.'));
}

// Whether a SAS job can name it.
bool issasname(const std::string& name) {
  const auto fits = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; };
  return !name.empty() && name.size() <= 32 && std::isdigit(static_cast<unsigned char>(name[0])) == 0 &&
         std::all_of(name.begin(), name.end(), fits);
}

// The job that makes the transport file `path` from the data set of the same name in the same folder.
void writejob(std::FILE* out, const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const bool local = slash == std::string::npos;
  const std::string folder = local ? "\".\"" : quoted(path.substr(0, std::max<std::size_t>(slash, 1)));
  std::fprintf(out, "libname tranfile sasv5xpt %s;\n", quoted(path[0] == '/' ? path : "./" + path).c_str());
  std::fprintf(out, "libname fileout %s;\n", folder.c_str());
  std::fprintf(out, "proc copy in=fileout out=tranfile;\nselect %s;\nrun;\n", datasetof(path).c_str());
}

bool exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

}  // namespace

double ibmdouble(const unsigned char* field, int width) {
  std::uint64_t bits = 0;
  if (width == 8) {
    bits = highfirst<std::uint64_t>(field);
  } else {
    for (int i = 0; i < 8; ++i) bits = bits << 8U | (i < width ? field[i] : 0U);
  }
  std::uint64_t fraction = bits & 0x00FFFFFFFFFFFFFFU;
  if (fraction == 0) return bits == 0 ? 0.0 : missingcode;
  // value = 0.fraction * 16^(exponent - 64), with 56 bits of fraction: fraction * 2^(4 exponent - 312), which a double
  // always holds
  const std::uint64_t exponent = bits >> 56U & 0x7FU;
  const int surplus = std::max(0, 64 - std::countl_zero(fraction) - 53);
  fraction = fraction >> surplus << surplus;
  constexpr std::uint64_t one = 1023;  // the exponent field of the double 1.0
  const double magnitude = static_cast<double>(fraction) * std::bit_cast<double>((one + 4 * exponent - 312) << 52U);
  return bits >> 63U != 0 ? -magnitude : magnitude;
}

bool sasconvert(const std::string& path) {
  constexpr const char* job = "xyzzy.sas";
  constexpr const char* log = "xyzzy.log";
  const std::size_t at = path.rfind(".ssp");
  if (at == std::string::npos) return false;
  const std::string dataset = std::string(path).replace(at, 4, ".ssd");
  if (!exists(dataset)) return false;
  std::printf("I don't see %s, but I do see %s.\n", path.c_str(), dataset.c_str());
  if (askyesno("Would you like me to convert it to a transport file?") == 0) return false;
  for (const char* own : {job, log})
    if (exists(own)) {
      std::printf("The SAS job would overwrite %s. Please rename it.\n", own);
      return false;
    }
  if (!issasname(datasetof(path))) {
    std::printf("%s is no name that a SAS job can have for a data set.\n", datasetof(path).c_str());
    return false;
  }
  std::printf("Give me a moment to run the SAS job...\n");
  std::fflush(stdout);
  std::FILE* out = openfile(job, "wx");
  run.files.unfinished.emplace_back(job);
  writejob(out, path);
  closechk(out);
  // Whether the job succeeded shows in the file that it makes.
  [[maybe_unused]] const int status = std::system("sas xyzzy.sas");
  std::remove(job);
  std::erase(run.files.unfinished, job);
  if (!exists(path)) return false;
  std::printf("Please keep %s around if you want to do a non-linear run.\n", path.c_str());
  std::remove(log);
  return true;
}

void opensas(int level) {
  LevelSource& source = raw.level[level];
  levels[level] = SasLevel{};
  source.stream = startbytes(levels[level].bytes, source.filename);
  sashead(level);
  sasvars(level);
}

int sasrecord(int level, double* values, Id* id3, Id* id2) {
  SasLevel& sas = levels[level];
  const LevelSource& source = raw.level[level];
  const std::size_t filled = fillrecord(level);
  const bool blank = isblank(sas.record.data(), filled);
  if (filled < sas.record.size() || blank) {
    tellend(level, !blank);
    sas.ended = true;
    sas.at = sas.have;
    return 1;
  }
  ++sas.records;
  for (std::size_t v = 0; v < source.vartable.size(); ++v) {
    const RawVariable& variable = source.vartable[v];
    if (variable.mark == unwanted) continue;
    const unsigned char* field = sas.record.data() + sas.position[v];
    if (variable.mark == level3idmark) {
      *id3 = idof(variable, field);
    } else if (variable.mark == level2idmark) {
      if (id2 != nullptr) *id2 = idof(variable, field);
    } else {
      *values++ = ibmdouble(field, variable.width);
    }
  }
  return 0;
}

void closesas(int level) {
  closestream(level);
  levels[level] = SasLevel{};
}

}  // namespace kdr
