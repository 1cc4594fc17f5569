// The lines of a command file, one at a time.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace kdr {

struct LineReader {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream{nullptr, std::fclose};
  std::string line;    // the line in hand, without its end and the blanks before it
  std::string before;  // the line before it
  int number = 0;      // of the line in hand, from 1
  bool held = false;   // the line in hand is to be read again
};

// Takes the next line in hand; false at the end of the file. A line of more than 16383 characters comes in pieces; a
// zero byte ends the text of its line.
bool nextline(LineReader& lines);
// Gives the line in hand back: nextline will return it again.
void holdline(LineReader& lines);

}  // namespace kdr
