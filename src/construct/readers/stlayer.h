// The inside of the layer: what a library's side has to supply.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "construct/readers/st.h"
#include "core/constants.h"
#include "kernel/array.h"

namespace kdr {

struct StVariable {
  std::string name;
  bool numeric = false;
  bool selected = false;
  int width = 0;       // characters of a text
  std::string why;     // where the first text stands that makes the variable one
  std::string labels;  // name of the list of labels that its values have, or nothing
  std::string title;   // what the file says of it, or nothing
};

struct StLabels {
  std::string name;  // of the list
  std::string text;  // "1 = low, 2 = high"
  ValueLabels values;
};

struct StBackend;

struct StFile {
  const StBackend* backend = nullptr;
  std::string path;
  std::vector<StVariable> variables;
  Array<double> numbers;           // the record in hand, [v]; missingcode for a missing number
  std::vector<std::string> texts;  // likewise
  std::vector<StLabels> labels;
  std::string trouble;
  std::string remark;
  void* state = nullptr;  // the backend's own
};

// One library's side of one format.
struct StBackend {
  StFormat format;
  // Opens file.path and fills file.variables. False, with file.trouble set, when that cannot be done.
  bool (*dictionary)(StFile& file);
  // Puts the selected variables of the next record into file.numbers and file.texts. False at the end of the data.
  bool (*record)(StFile& file);
  // Frees file.state, which is not null.
  void (*close)(StFile& file);
};

// The formats that this build can read.
[[nodiscard]] std::span<const StBackend> stbackends();

bool readstatdictionary(StFile& file);
bool readstatrecord(StFile& file);
void readstatclose(StFile& file);
bool csvdictionary(StFile& file);
bool csvrecord(StFile& file);
void csvclose(StFile& file);
bool exceldictionary(StFile& file);
bool excelrecord(StFile& file);
void excelclose(StFile& file);
bool dbasedictionary(StFile& file);
bool dbaserecord(StFile& file);
void dbaseclose(StFile& file);

// Helpers of the backends.

// Room for `count` variables and their values.
void makevariables(StFile& file, std::size_t count);
void nameit(StVariable& variable, std::string_view name);
// The text as the layer gives it: without the blanks and zeros behind it, and cut where it is too long.
[[nodiscard]] std::string_view sttext(std::string_view text);
// An infinite number or none at all is a missing value.
[[nodiscard]] double stnumber(double value);

// A field of a table of texts. Empty and "NA" are missing.
[[nodiscard]] bool missingfield(std::string_view field);
inline constexpr std::size_t longestnumber = 63;  // characters
// The number that the whole field states in decimal notation; false when it states none that a double can hold.
[[nodiscard]] bool fieldnumber(std::string_view field, double& value);

}  // namespace kdr
