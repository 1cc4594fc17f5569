// From a formula and a file of raw data to an MDM file and a command file.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "document/json.h"

namespace kdr {

struct FormulaPlan;

// What stands on the command line. Empty texts were not given.
struct FitRequest {
  std::string formula, file;
  std::string stem;  // of the files that are written
  std::string family, trials, exposure, engine, points;
  std::string weights[3];  // columns of the design weights of each level
  std::vector<double> missing;
  std::vector<std::string> keywords;                     // "NAME:value"
  bool robust = false;                                   // the console shows robust standard errors
  std::string page;                                      // program that makes the page; empty: none is wanted
  bool keepdata = false;                                 // for predictions
  std::function<void(const FormulaPlan& plan)> planned;  // may be empty; is told before anything is written
};

// A fixed effect as the formula names it, by its place in the model.
struct FitNames {
  std::string name;
  std::string variable1, variable2, variable3;  // names in the MDM file; INTRCPT1 and its like for none
};

// What prepared the run, for the words at its end.
struct PreparedFit {
  FitRequest request;
  std::vector<FitNames> fixed;
  std::map<std::string, std::string> names;  // what the variables of the MDM file are in the formula
  std::string grouping2, grouping3;          // the units of the two levels; of level 3 none in a model of two levels
  Json coding;                               // the member of the results document
  std::shared_ptr<const FormulaPlan> plan;   // where the data are kept, with
  std::vector<std::string> pieces[3];        // what its pieces are called in the MDM file
  std::vector<char> kept;                    // [record] it has all that the model needs
  [[nodiscard]] std::string path(const char* extension) const { return request.stem + extension; }
};

// Reads formula and file, writes STEM.mdm and STEM.kdr, and names them as the files of the run. Until both can be
// written nothing is. Stops with code 100 and a sentence where that cannot be done.
[[nodiscard]] PreparedFit preparefit(FitRequest request);
// The same up to the writing: stops, with the same words, where preparefit would.
void checkfit(FitRequest request);

}  // namespace kdr
