#include "data/mdm.h"

#include <sys/stat.h>

#include <bit>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/formatted.h"

namespace kdr {

namespace {

static_assert(std::endian::native == std::endian::little, "the file's numbers are copied as they stand in memory");
static_assert(sizeof(MdmHeader) == 48 && sizeof(Name) == 13);

constexpr double oldestversion = 5.309;  // at or below it a file has another layout
constexpr double mdmtypesince = 6.295;   // above it the head has the field mdmtype

// A sum of products that stays within the length of a file. No product is formed before it is known to fit.
struct Extent {
  long long used;
  long long limit;
  bool fits = true;

  void add(long long count, long long width) {
    if (!fits || count < 0 || (width > 0 && count > (limit - used) / width)) {
      fits = false;
    } else {
      used += count * width;
    }
  }
};

long long filelength(std::FILE* stream) {
  struct stat status {};
  if (fstat(fileno(stream), &status) != 0 || !S_ISREG(status.st_mode)) return -1;
  return status.st_size;
}

// A reading of the file up to the first thing that is wrong with it. What is read behind that is zero.
struct Reading {
  MdmData& mdm;
  Failure failure;

  void damaged(const char* what) {
    if (!failure) failure = damagedmdm(mdm, what);
  }
  // Up to `bytes` bytes; how many there were.
  std::size_t most(void* destination, std::size_t bytes) {
    const std::size_t got = failure ? 0 : std::fread(destination, 1, bytes, mdm.stream);
    if (got < bytes && !failure && std::ferror(mdm.stream) != 0) {
      failure = failedwith("Unable to read " + mdm.path + "\n");
      failure.systemerror = errno;
    }
    return got;
  }
  void take(void* destination, std::size_t bytes) {
    const std::size_t got = most(destination, bytes);
    if (got == bytes) return;
    std::memset(static_cast<char*>(destination) + got, 0, bytes - got);
    damaged("it is cut off");
  }
};

// Reads magic, version and counts. Returns the head's length.
long long readhead(Reading& reading, MdmHeader& head) {
  char found[mdmmagic.size()];
  if (reading.most(found, sizeof found) != sizeof found || std::string_view(found, sizeof found) != mdmmagic) {
    if (!reading.failure) reading.failure = failedwith(notmdmwords);
    return 0;
  }
  reading.take(&head.version, sizeof head.version);
  const double version = head.version;
  if (!(version > oldestversion) && !reading.failure)
    reading.failure = failedwith("Sorry, you will have to remake this ssm file.\n");
  reading.take(&head.numl1var, 8 * sizeof(int));
  head.mdmtype = 0;
  if (version > mdmtypesince) reading.take(&head.mdmtype, sizeof head.mdmtype);
  reading.take(&head.rawdattype, 2 * sizeof(int));
  return version > mdmtypesince ? 54 : 50;
}

// Of a negated code, too.
RawType rawtypeof(const MdmHeader& head) {
  return static_cast<RawType>(head.rawdattype > 0 ? head.rawdattype : -static_cast<long long>(head.rawdattype));
}

void checkhead(Reading& reading, const MdmHeader& head) {
  if (head.numl1var < 1 || head.numl2var < 0 || head.numl3var < 0)
    reading.damaged("its numbers of variables cannot be");
  if (head.numl3rec < 1 || head.numl2rec < head.numl3rec || head.numl1rec < head.numl2rec)
    reading.damaged("its numbers of records and units do not agree");
  if (head.maxnj < 1 || head.maxnj > head.numl1rec) reading.damaged("its largest unit has an impossible size");
  if (head.mdmtype < 0 || head.mdmtype > 4) reading.damaged("its type is unknown");
  if (static_cast<MdmType>(head.mdmtype) == MdmType::twolevel && (head.numl3var != 0 || head.numl3rec != head.numl2rec))
    reading.damaged("it has two levels, and data of a third one");
  switch (rawtypeof(head)) {
    case RawType::ascii:
    case RawType::systat:
    case RawType::sas:
    case RawType::spss:
    case RawType::stata:
    case RawType::other:
      break;
    default:
      reading.damaged("its raw data type is unknown");
  }
  if (static_cast<long long>(head.numl2var + 1LL) * head.numl1var > INT_MAX)
    reading.damaged("it has too many variables");
}

// Holds the counts against the file's length. The file must have exactly the bytes that its head tells; before the
// width of the file names is known, `namewidth` of -1 asks for no more than room. Gives back where the blocks end.
long long checklength(Reading& reading, const MdmHeader& head, long long headlength, long long length,
                      long long namewidth) {
  const long long ids = static_cast<long long>(idwidth(reading.mdm.numericids));
  Extent extent{headlength, length};
  if (headlength > length) extent.fits = false;
  for (const int nvar : {head.numl1var, head.numl2var, head.numl3var}) {
    extent.add(nvar + 1LL, sizeof(Name));
    extent.add(nvar, sizeof(double));
  }
  extent.add(1, sizeof(int));
  if (namewidth > 0) extent.add(3, namewidth);
  extent.add(head.numl3rec, ids + 8LL * head.numl3var);
  extent.add(head.numl2rec, 4 + 2 * ids + 8LL * head.numl1var + 8LL * head.numl2var);
  extent.add(head.numl1rec, 8LL * head.numl1var);
  if (!extent.fits) reading.damaged("it is cut off");
  return extent.used;
}

// What may stand behind the blocks is the section of long names.
void readtexts(Reading& reading, long long length) {
  MdmData& mdm = reading.mdm;
  mdm.texts = LongTexts{};
  if (reading.failure || mdm.lastblock == length) return;
  constexpr std::size_t marklength = 8;
  std::string section(marklength, '\0');
  if (fseeko(mdm.stream, static_cast<off_t>(mdm.lastblock), SEEK_SET) != 0) return reading.damaged("it is cut off");
  section.resize(reading.most(section.data(), section.size()));
  if (!beginssection(section)) return reading.damaged("it is longer than its head tells");
  section.resize(static_cast<std::size_t>(length - mdm.lastblock));
  reading.take(section.data() + marklength, section.size() - marklength);
  if (!reading.failure && !readsection(section, {mdm.nvar1, mdm.nvar2, mdm.nvar3}, mdm.texts))
    reading.damaged("its section of long names is not whole");
}

void readnames(Reading& reading, Array<Name>& names, int nvar, const char* intercept) {
  const std::size_t slots = static_cast<std::size_t>(nvar) + 1;
  names.reset(slots);
  names[0] = paddedname(intercept);
  reading.take(names.data(), slots * sizeof(Name));
  for (Name& name : names) {
    char& end = name.text[sizeof name.text - 1];
    if (end != '\0') reading.damaged("a variable name has no end");
    end = '\0';
    printable(name.text).copy(name.text, sizeof name.text - 1);
  }
}

void readfilenames(Reading& reading, int width) {
  std::string field(static_cast<std::size_t>(width), '\0');
  for (std::string& fname : reading.mdm.fnames) {
    reading.take(field.data(), field.size());
    const std::size_t end = field.find('\0');
    if (end == std::string::npos) return reading.damaged("a file name has no end");
    fname = field.substr(0, end);
  }
}

void readlevel3table(Reading& reading) {
  MdmData& mdm = reading.mdm;
  const auto rows = static_cast<std::size_t>(mdm.nunits3);
  mdm.textid3.reset(mdm.numericids ? 0 : rows);
  mdm.numericid3.reset(mdm.numericids ? rows : 0);
  if (mdm.numericids) {
    reading.take(mdm.numericid3.data(), rows * sizeof(double));
  } else {
    reading.take(mdm.textid3.data(), rows * sizeof(Name));
    for (const Name& id : mdm.textid3)
      if (std::memchr(id.text, '\0', sizeof id.text) == nullptr) reading.damaged("a level-3 ID has no end");
  }
  mdm.level3.reset(rows * static_cast<std::size_t>(mdm.nvar3));
  reading.take(mdm.level3.data(), mdm.level3.size() * sizeof(double));
}

void takehead(MdmData& mdm, const MdmHeader& head) {
  mdm.nvar1 = head.numl1var;
  mdm.nvar2 = head.numl2var;
  mdm.nvar3 = head.numl3var;
  mdm.nunits1 = mdm.numl1rec = head.numl1rec;
  mdm.nunits2 = mdm.numl2rec = head.numl2rec;
  mdm.nunits3 = mdm.numl3rec = head.numl3rec;
  mdm.l1missing = head.l1missing != 0;
  // Complete data leave nothing to delete at analysis time, whatever the field says.
  mdm.deletednow = head.timeofdeletion != 0 || !mdm.l1missing;
  mdm.mdmtype = static_cast<MdmType>(head.mdmtype);
  mdm.rawdattype = rawtypeof(head);
  mdm.maxnj = head.maxnj;
  mdm.ncol1 = mdm.nvar1 + 1;
  mdm.ncol2 = mdm.nvar2 + 1;
  mdm.ncol3 = mdm.nvar3 + 1;
  mdm.maxbeta = mdm.ncol2 * mdm.nvar1;
}

}  // namespace

bool sameid(const Id& a, const Id& b, bool numeric) {
  return numeric ? a.number == b.number : compareids(a, b, false) == 0;
}

int compareids(const Id& a, const Id& b, bool numeric) {
  if (numeric) return a.number < b.number ? -1 : a.number > b.number ? 1 : 0;
  if (std::memcmp(a.text.text, b.text.text, sizeof a.text.text) == 0) return 0;
  return comparename(a.text, b.text);
}

std::size_t idwidth(bool numeric) { return numeric ? sizeof(double) : sizeof(Name); }

const void* idbytes(const Id& id, bool numeric) {
  if (numeric) return &id.number;
  return id.text.text;
}

Id level3id(const MdmData& mdm, int k) {
  const auto row = static_cast<std::size_t>(k);
  Id id{};
  if (mdm.numericids) {
    id.number = mdm.numericid3[row];
  } else {
    id.text = mdm.textid3[row];
  }
  return id;
}

Failure damagedmdm(const MdmData& mdm, const char* what) {
  return failedwith("The mdm file " + mdm.path + " is damaged: " + what + ".\n");
}

Failure readmdm(MdmData& mdm) {
  Reading reading{mdm, {}};
  const long long length = filelength(mdm.stream);
  if (length < 0 || fseeko(mdm.stream, 0, SEEK_SET) != 0) return failedwith(notmdmwords);
  MdmHeader head{};
  const long long headlength = readhead(reading, head);
  if (reading.failure) return reading.failure;
  mdm.numericids = head.rawdattype < 0;
  checkhead(reading, head);
  if (reading.failure) return reading.failure;
  static_cast<void>(checklength(reading, head, headlength, length, -1));
  if (reading.failure) return reading.failure;
  takehead(mdm, head);

  readnames(reading, mdm.names1, mdm.nvar1, "INTRCPT1");
  readnames(reading, mdm.names2, mdm.nvar2, "INTRCPT2");
  readnames(reading, mdm.names3, mdm.nvar3, "INTRCPT3");
  int namewidth = 0;
  reading.take(&namewidth, sizeof namewidth);
  if (namewidth < 1) reading.damaged("its file names have no room");
  if (reading.failure) return reading.failure;
  mdm.lastblock = checklength(reading, head, headlength, length, namewidth);
  if (reading.failure) return reading.failure;
  readfilenames(reading, namewidth);

  for (auto [means, nvar] : {std::pair{&mdm.mean1, mdm.nvar1}, {&mdm.mean2, mdm.nvar2}, {&mdm.mean3, mdm.nvar3}}) {
    means->reset(static_cast<std::size_t>(nvar));
    reading.take(means->data(), means->size() * sizeof(double));
  }
  readlevel3table(reading);
  mdm.firstblock = ftello(mdm.stream);
  readtexts(reading, length);
  return reading.failure;
}

}  // namespace kdr
