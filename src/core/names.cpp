#include "core/names.h"

#include <strings.h>

#include <algorithm>
#include <cstring>

namespace kdr {

namespace {

constexpr int columns = 12;

char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

// Within UTF-8: a byte that goes on with the character of the byte before.
bool continues(char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80; }

template <class Slot>
void closeup(Array<Slot>& table, int n, int index) {
  for (int i = index; i + 1 < n; ++i) table[static_cast<std::size_t>(i)] = table[static_cast<std::size_t>(i) + 1];
  Slot& last = table[static_cast<std::size_t>(n) - 1];
  std::memset(last.text, ' ', sizeof last.text - 1);
  last.text[sizeof last.text - 1] = '\0';
}

}  // namespace

void padname(char* buffer, int width) {
  const int length = std::min(width, columns);
  for (int i = 0; i < length; ++i) buffer[i] = buffer[i] == '\0' ? ' ' : upper(buffer[i]);
  std::memset(buffer + length, ' ', static_cast<std::size_t>(columns - length));
  buffer[columns] = '\0';
  int last = length;  // columns up to the last one that is not blank
  while (last > 0 && buffer[last - 1] == ' ') --last;
  if (last == 0 || last == width) return;
  const int shift = width - last;
  std::memmove(buffer + shift, buffer, static_cast<std::size_t>(last));
  std::memset(buffer, ' ', static_cast<std::size_t>(shift));
}

Name paddedname(std::string_view text, int width) {
  Name name;
  std::memset(name.text, ' ', columns);
  name.text[columns] = '\0';
  std::size_t length = std::min<std::size_t>(text.size(), static_cast<std::size_t>(std::min(width, columns)));
  while (length > 0 && length < text.size() && continues(text[length])) --length;
  std::memcpy(name.text, text.data(), length);
  padname(name.text, width);
  return name;
}

std::size_t charactersof(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) { return !continues(c); }));
}

int findname(std::string_view name, const Array<Name>& table, int n) {
  const Name wanted = paddedname(name);
  for (int i = 0; i <= n; ++i)
    if (strncasecmp(wanted.text, table[static_cast<std::size_t>(i)].text, 8) == 0) return i;
  return -1;
}

void leftname(char* buffer) {
  const std::size_t blanks = std::strspn(buffer, " ");
  if (buffer[blanks] == '\0') return;
  std::memmove(buffer, buffer + blanks, std::strlen(buffer + blanks) + 1);
  if (std::strlen(buffer) > 8) buffer[8] = '\0';
}

std::string leftname(const Name& name) {
  Name left = name;
  leftname(left.text);
  std::string text = left.text;
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

int comparename(const Name& a, const Name& b) { return strncasecmp(a.text, b.text, columns); }

bool samename(const Name& a, const Name& b) { return comparename(a, b) == 0; }

void removename(Array<Name>& table, int n, int index) { closeup(table, n, index); }
void removename(Array<Label>& table, int n, int index) { closeup(table, n, index); }

}  // namespace kdr
