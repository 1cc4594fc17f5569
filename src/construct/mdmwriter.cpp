#include "construct/mdmwriter.h"

#include "core/constants.h"
#include "data/mdm.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/runrecord.h"

namespace kdr {

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
  const int width = maxpath;
  writechk(&width, sizeof width, stream);
  for (const std::string& fname : mdm.fnames) {
    char field[maxpath] = {};
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
  if (run.mdm.texts.any()) {
    const std::string section = textsection(run.mdm.texts);
    writechk(section.data(), section.size(), file.stream);
  }
  // Everything else must have reached the file before the magic makes it one.
  if (std::fflush(file.stream) != 0 || fseeko(file.stream, 0, SEEK_SET) != 0) fail(5);
  writechk(mdmmagic.data(), mdmmagic.size(), file.stream);
  finishresult(file);
}

}  // namespace kdr
