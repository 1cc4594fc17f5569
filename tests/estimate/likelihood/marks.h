// What an engine tells, a letter for each event.
#pragma once

#include <string>
#include <vector>

#include "estimate/likelihood/engine.h"

namespace marks {

struct Marks {
  std::string letters;
  std::vector<kdr::EngineEvent> events;

  // In the order of EngineEvent::Kind.
  static constexpr const char* alphabet = "b>.*/hfiuplcwm";
  void listen(kdr::EngineSettings& settings) {
    settings.tell = [this](const kdr::EngineEvent& event) {
      letters += alphabet[static_cast<int>(event.kind)];
      events.push_back(event);
    };
  }
  void clear() {
    letters.clear();
    events.clear();
  }
  [[nodiscard]] std::ptrdiff_t count(char letter) const { return std::count(letters.begin(), letters.end(), letter); }
  // Those of the ascent alone.
  [[nodiscard]] std::string steps() const {
    std::string some;
    for (const char letter : letters)
      if (std::string("*/hfi").find(letter) != std::string::npos) some += letter;
    return some;
  }
};

}  // namespace marks
