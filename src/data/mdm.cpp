#include "data/mdm.h"

#include <sys/stat.h>

#include <bit>
#include <climits>
#include <cstring>
#include <string>

#include "construct/onefile.h"
#include "core/formatted.h"
#include "data/resultfile.h"
#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

static_assert(std::endian::native == std::endian::little, "the file's numbers are copied as they stand in memory");
static_assert(sizeof(MdmHeader) == 48 && sizeof(Name) == 13);

constexpr double oldestversion = 5.309;  // at or below it a file has another layout
constexpr double mdmtypesince = 6.295;   // above it the head has the field mdmtype
constexpr int fnamelen = maxpath;

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

std::size_t readmost(void* destination, std::size_t bytes) {
  return readupto(destination, bytes, run.mdm.stream, run.files.mdmfile);
}

void take(void* destination, std::size_t bytes) {
  if (readmost(destination, bytes) != bytes) damagedmdm("it is cut off");
}

[[noreturn]] void notmdm() {
  const std::string& path = run.files.mdmfile;
  if (typeofextension(path) != nullptr)
    std::printf("%s is raw data: kdr3 -from %s -level3 COLUMN -level2 COLUMN makes an MDM file of it.\n", path.c_str(),
                path.c_str());
  stopwith("Not a valid mdm file.\n");
}

// Reads magic, version and counts. Returns the head's length.
long long readhead(MdmHeader& head) {
  char found[mdmmagic.size()];
  if (readmost(found, sizeof found) != sizeof found || std::string_view(found, sizeof found) != mdmmagic) notmdm();
  take(&head.version, sizeof head.version);
  const double version = head.version;
  if (!(version > oldestversion)) stopwith("Sorry, you will have to remake this ssm file.\n");
  take(&head.numl1var, 8 * sizeof(int));
  head.mdmtype = 0;
  if (version > mdmtypesince) take(&head.mdmtype, sizeof head.mdmtype);
  take(&head.rawdattype, 2 * sizeof(int));
  return version > mdmtypesince ? 54 : 50;
}

// Of a negated code, too.
RawType rawtypeof(const MdmHeader& head) {
  return static_cast<RawType>(head.rawdattype > 0 ? head.rawdattype : -static_cast<long long>(head.rawdattype));
}

void checkhead(const MdmHeader& head) {
  if (head.numl1var < 1 || head.numl2var < 0 || head.numl3var < 0) damagedmdm("its numbers of variables cannot be");
  if (head.numl3rec < 1 || head.numl2rec < head.numl3rec || head.numl1rec < head.numl2rec)
    damagedmdm("its numbers of records and units do not agree");
  if (head.maxnj < 1 || head.maxnj > head.numl1rec) damagedmdm("its largest unit has an impossible size");
  if (head.mdmtype < 0 || head.mdmtype > 3) damagedmdm("its type is unknown");
  switch (rawtypeof(head)) {
    case RawType::ascii:
    case RawType::systat:
    case RawType::sas:
    case RawType::spss:
    case RawType::stata:
    case RawType::other:
      break;
    default:
      damagedmdm("its raw data type is unknown");
  }
  if (static_cast<long long>(head.numl2var + 1LL) * head.numl1var > INT_MAX) damagedmdm("it has too many variables");
}

// Holds the counts against the file's length. The file must have exactly the bytes that its head tells; before the
// width of the file names is known, `namewidth` of -1 asks for no more than room.
void checklength(const MdmHeader& head, long long headlength, long long length, long long namewidth) {
  const long long ids = static_cast<long long>(idwidth());
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
  if (!extent.fits) damagedmdm("it is cut off");
  if (namewidth >= 0 && extent.used != length) damagedmdm("it is longer than its head tells");
}

void readnames(Array<Name>& names, int nvar, const char* intercept) {
  const std::size_t slots = static_cast<std::size_t>(nvar) + 1;
  names.reset(slots);
  names[0] = paddedname(intercept);
  take(names.data(), slots * sizeof(Name));
  for (Name& name : names) {
    if (name.text[sizeof name.text - 1] != '\0') damagedmdm("a variable name has no end");
    printable(name.text).copy(name.text, sizeof name.text - 1);
  }
}

void readfilenames(int width) {
  std::string field(static_cast<std::size_t>(width), '\0');
  for (std::string& fname : run.mdm.fnames) {
    take(field.data(), field.size());
    const std::size_t end = field.find('\0');
    if (end == std::string::npos) damagedmdm("a file name has no end");
    fname = field.substr(0, end);
  }
}

void readlevel3table() {
  MdmData& mdm = run.mdm;
  const auto rows = static_cast<std::size_t>(mdm.nunits3);
  mdm.textid3.reset(mdm.numericids ? 0 : rows);
  mdm.numericid3.reset(mdm.numericids ? rows : 0);
  if (mdm.numericids) {
    take(mdm.numericid3.data(), rows * sizeof(double));
  } else {
    take(mdm.textid3.data(), rows * sizeof(Name));
    for (const Name& id : mdm.textid3)
      if (std::memchr(id.text, '\0', sizeof id.text) == nullptr) damagedmdm("a level-3 ID has no end");
  }
  mdm.level3.reset(rows * static_cast<std::size_t>(mdm.nvar3));
  take(mdm.level3.data(), mdm.level3.size() * sizeof(double));
}

void takehead(const MdmHeader& head) {
  MdmData& mdm = run.mdm;
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

bool sameid(const Id& a, const Id& b) { return run.mdm.numericids ? a.number == b.number : compareids(a, b) == 0; }

int compareids(const Id& a, const Id& b) {
  if (run.mdm.numericids) return a.number < b.number ? -1 : a.number > b.number ? 1 : 0;
  if (std::memcmp(a.text.text, b.text.text, sizeof a.text.text) == 0) return 0;
  return comparename(a.text, b.text);
}

std::size_t idwidth() { return run.mdm.numericids ? sizeof(double) : sizeof(Name); }

const void* idbytes(const Id& id) {
  if (run.mdm.numericids) return &id.number;
  return id.text.text;
}

Id level3id(int k) {
  const auto row = static_cast<std::size_t>(k);
  Id id{};
  if (run.mdm.numericids) {
    id.number = run.mdm.numericid3[row];
  } else {
    id.text = run.mdm.textid3[row];
  }
  return id;
}

void damagedmdm(const char* what) { stopwith("The mdm file %s is damaged: %s.\n", run.files.mdmfile.c_str(), what); }

void readmdm() {
  MdmData& mdm = run.mdm;
  const long long length = filelength(mdm.stream);
  if (length < 0 || fseeko(mdm.stream, 0, SEEK_SET) != 0) notmdm();
  MdmHeader head{};
  const long long headlength = readhead(head);
  mdm.numericids = head.rawdattype < 0;
  checkhead(head);
  checklength(head, headlength, length, -1);
  takehead(head);

  readnames(mdm.names1, mdm.nvar1, "INTRCPT1");
  readnames(mdm.names2, mdm.nvar2, "INTRCPT2");
  readnames(mdm.names3, mdm.nvar3, "INTRCPT3");
  int namewidth = 0;
  take(&namewidth, sizeof namewidth);
  if (namewidth < 1) damagedmdm("its file names have no room");
  checklength(head, headlength, length, namewidth);
  readfilenames(namewidth);

  for (auto [means, nvar] : {std::pair{&mdm.mean1, mdm.nvar1}, {&mdm.mean2, mdm.nvar2}, {&mdm.mean3, mdm.nvar3}}) {
    means->reset(static_cast<std::size_t>(nvar));
    take(means->data(), means->size() * sizeof(double));
  }
  readlevel3table();
  mdm.firstblock = ftello(mdm.stream);
}

void writemdmtables(std::FILE* stream) {
  const MdmData& mdm = run.mdm;
  const MdmHeader head{fileversion,
                       mdm.nvar1,
                       mdm.nvar2,
                       mdm.nvar3,
                       mdm.nunits1,
                       mdm.nunits2,
                       mdm.nunits3,
                       mdm.l1missing ? 1 : 0,
                       mdm.deletednow,
                       static_cast<int>(mdm.mdmtype),
                       (mdm.numericids ? -1 : 1) * static_cast<int>(mdm.rawdattype),
                       mdm.maxnj};
  const char nomagic[mdmmagic.size()] = {};
  writechk(nomagic, sizeof nomagic, stream);
  writechk(&head, sizeof head, stream);
  for (const Array<Name>* names : {&mdm.names1, &mdm.names2, &mdm.names3})
    writechk(names->data(), names->size() * sizeof(Name), stream);
  writechk(&fnamelen, sizeof fnamelen, stream);
  for (const std::string& fname : mdm.fnames) {
    char field[fnamelen] = {};
    fname.copy(field, sizeof field - 1);
    writechk(field, sizeof field, stream);
  }
  for (const Array<double>* means : {&mdm.mean1, &mdm.mean2, &mdm.mean3})
    writechk(means->data(), means->size() * sizeof(double), stream);
  writechk(mdm.textid3.data(), mdm.textid3.size() * sizeof(Name), stream);
  writechk(mdm.numericid3.data(), mdm.numericid3.size() * sizeof(double), stream);
  writechk(mdm.level3.data(), mdm.level3.size() * sizeof(double), stream);
}

void finishmdm(ResultFile& file) {
  // Everything else must have reached the file before the magic makes it one.
  if (std::fflush(file.stream) != 0 || fseeko(file.stream, 0, SEEK_SET) != 0) fail(5);
  writechk(mdmmagic.data(), mdmmagic.size(), file.stream);
  finishresult(file);
}

}  // namespace kdr
