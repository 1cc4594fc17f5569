#include "construct/readers/stlayer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kdr {

namespace {

StVariable& variableof(StHandle handle, int v) { return handle->variables[static_cast<std::size_t>(v)]; }

const StBackend* findbackend(int format) {
  for (const StBackend& backend : stbackends())
    if (static_cast<int>(backend.format) == format) return &backend;
  return nullptr;
}

}  // namespace

bool ST_CanRead(int format) { return findbackend(format) != nullptr; }

StHandle ST_OpenEnvironment() { return new StFile; }

int ST_OpenInputFile(StHandle handle, int format, const char* path) {
  if (handle->backend != nullptr) return -3;
  struct stat status {};
  if (stat(path, &status) != 0) return errno == ENOENT || errno == ENOTDIR ? -1 : -2;
  const StBackend* backend = findbackend(format);
  if (!S_ISREG(status.st_mode) || access(path, R_OK) != 0 || backend == nullptr) return -2;
  handle->backend = backend;
  handle->path = path;
  return 0;
}

int ST_ReadDict(StHandle handle) {
  if (!handle->backend->dictionary(*handle)) return -1;
  return static_cast<int>(handle->variables.size());
}

void ST_SelectAllVars(StHandle handle) {
  for (StVariable& variable : handle->variables) variable.selected = true;
}

void ST_SelectVar(StHandle handle, int v) { variableof(handle, v).selected = true; }

// Every backend begins when its first record is asked for.
void ST_InitReadOnly(StHandle) {}

int ST_GetVarType(StHandle handle, int v) { return variableof(handle, v).numeric ? 1 : 2; }
const char* ST_GetVarName(StHandle handle, int v) { return variableof(handle, v).name.c_str(); }
const char* ST_WhyText(StHandle handle, int v) { return variableof(handle, v).why.c_str(); }
void ST_ReadAsText(StHandle handle, int v) { variableof(handle, v).numeric = false; }
int ST_GetVarPrintWidth(StHandle handle, int v) { return variableof(handle, v).width; }
int ST_ReadRecord(StHandle handle) { return handle->backend->record(*handle) ? 0 : 1; }

int ST_GetVarData(StHandle handle, int v, StValue* value, int* second) {
  const auto i = static_cast<std::size_t>(v);
  *second = 0;
  if (!variableof(handle, v).numeric) {
    value->text = &handle->texts[i];
    return 0;
  }
  if (handle->numbers[i] == missingcode) return 1;
  value->number = &handle->numbers[i];
  return 0;
}

std::string ST_Labels(StHandle handle, int v) {
  const std::string& name = variableof(handle, v).labels;
  for (const StLabels& list : handle->labels)
    if (!name.empty() && list.name == name) return list.text;
  return name.empty() ? "" : "yes";
}

ValueLabels ST_ValueLabels(StHandle handle, int v) {
  const std::string& name = variableof(handle, v).labels;
  for (const StLabels& list : handle->labels)
    if (!name.empty() && list.name == name) return list.values;
  return {};
}

const char* ST_GetVarLabel(StHandle handle, int v) { return variableof(handle, v).title.c_str(); }

const char* ST_Trouble(StHandle handle) { return handle->trouble.c_str(); }
const char* ST_Remark(StHandle handle) { return handle->remark.c_str(); }

void ST_CloseFiles(StHandle handle) {
  if (handle == nullptr) return;
  if (handle->state != nullptr) handle->backend->close(*handle);
  delete handle;
}

void makevariables(StFile& file, std::size_t count) {
  file.variables.assign(count, StVariable{});
  file.numbers.reset(count);
  file.texts.assign(count, std::string());
}

void nameit(StVariable& variable, std::string_view name) {
  constexpr std::size_t longest = 4096;
  variable.name = name.substr(0, longest);
}

std::string_view sttext(std::string_view text) {
  text = text.substr(0, text.find_last_not_of(std::string_view(" \0", 2)) + 1);
  return text.substr(0, ST_LongestText + 1);
}

double stnumber(double value) { return std::isfinite(value) ? value : missingcode; }

bool missingfield(std::string_view field) { return field.empty() || field == "NA"; }

bool fieldnumber(std::string_view field, double& value) {
  char text[longestnumber + 1];
  if (field.empty() || field.size() > longestnumber || field.find_first_not_of("+-.0123456789eE") != field.npos)
    return false;
  // The quick conversion knows no leading plus and gives none for numbers too small to hold in full.
  const char* behind = field.data() + field.size();
  if (const auto [at, error] = std::from_chars(field.data(), behind, value); at == behind && error == std::errc{})
    return true;
  field.copy(text, field.size());
  text[field.size()] = '\0';
  char* end = nullptr;
  value = std::strtod(text, &end);
  return *end == '\0' && std::isfinite(value);
}

}  // namespace kdr
