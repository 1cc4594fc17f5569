// Codes of the command file, of templates and of files, with the words that stand for them: one table serves whoever
// reads the word and whoever writes it.
#pragma once

namespace kdr {

template <class Code>
struct CodeWord {
  Code code;
  const char* word;
};

// The word of a code, empty when the table has none.
template <class Table, class Code>
[[nodiscard]] constexpr const char* wordof(const Table& table, Code code) {
  for (const auto& row : table)
    if (row.code == code) return row.word;
  return "";
}

// The row of a word for which `same(row's word)` holds, or null.
template <class Table, class Same>
[[nodiscard]] constexpr auto* rowof(const Table& table, Same same) {
  for (const auto& row : table)
    if (same(row.word)) return &row;
  return static_cast<decltype(&table[0])>(nullptr);
}

// RESFILTYPE:, by the numbers of the raw formats.
enum class ResidualForm { freeformat = 2, systat = 3, sas = 5, spss = 6, stata = 8 };
inline constexpr CodeWord<ResidualForm> residualforms[] = {{ResidualForm::freeformat, "FREEFORMAT"},
                                                           {ResidualForm::systat, "SYSTAT"},
                                                           {ResidualForm::sas, "SAS"},
                                                           {ResidualForm::spss, "SPSS"},
                                                           {ResidualForm::stata, "STATA"}};

// RESFILOF:. Whose the residual files and the graph data file are: the last engine's that has results, or, as without
// one, those of quasi-likelihood.
enum class ResidualsOf { engine, pql };
inline constexpr CodeWord<ResidualsOf> residualsofwords[] = {{ResidualsOf::engine, "ENGINE"},
                                                             {ResidualsOf::pql, "PQL"}};

// PRINTVARIANCE-COVARIANCE:. `append` puts the blocks of this run behind those that the files hold.
enum class VarianceFiles { none, write, append };
inline constexpr CodeWord<VarianceFiles> varianceletters[] = {{VarianceFiles::write, "Y"},
                                                              {VarianceFiles::append, "A"}};

// LVR-BETA:. The part of a random level-2 coefficient in the latent variable regression.
enum class LatentRole { ignore, outcome, predictor };
inline constexpr CodeWord<LatentRole> roleletters[] = {
    {LatentRole::ignore, "I"}, {LatentRole::outcome, "O"}, {LatentRole::predictor, "P"}};

// The raw data that an MDM file was made from, by the code in its head.
enum class RawType { ascii = 2, systat = 3, sas = 5, spss = 6, stata = 8, other = 9 };

// What the levels of an MDM file mean, by the code in its head: picks the report's symbols. In `twolevel` each level-3
// unit is one level-2 unit and stands for nothing: the model has no level 3.
enum class MdmType { ordinary, measurement, growth, measuredgrowth, twolevel };

}  // namespace kdr
