#include <histedit.h>
#include <langinfo.h>
#include <locale.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cwchar>
#include <string_view>

#include "driver/failures.h"
#include "driver/terminal.h"

namespace kdr {

namespace {

constexpr int remembered = 500;  // lines of the history

std::string lastline;  // of the prompt

char* promptof(EditLine*) { return lastline.data(); }

// While a line is edited, the signals of a resized window and of a process that was stopped and goes on break the wait
// for a character.
struct WakingSignals {
  struct sigaction window {
  }, going{};
  WakingSignals() {
    struct sigaction wake {};
    wake.sa_handler = [](int) {};
    sigaction(SIGWINCH, &wake, &window);
    sigaction(SIGCONT, &wake, &going);
  }
  ~WakingSignals() {
    sigaction(SIGWINCH, &window, nullptr);
    sigaction(SIGCONT, &going, nullptr);
  }
  WakingSignals(const WakingSignals&) = delete;
  WakingSignals& operator=(const WakingSignals&) = delete;
};

// Takes the terminal back as it may be after a signal, and shows the line again.
void redraw(EditLine* editor) {
  el_set(editor, EL_PREP_TERM, 0);
  el_set(editor, EL_PREP_TERM, 1);
  el_resize(editor);
  std::fputs("\r", stdout);
  std::fflush(stdout);
  el_set(editor, EL_REFRESH);
}

// The next character of standard input. Where the library's own reader would begin again after a signal, this one
// gives up when the signal asks for the end of the run. 1 for a character, 0 at the end of input, -1 for no more.
int nextcharacter(EditLine* editor, wchar_t* c) {
  std::mbstate_t state{};
  for (;;) {
    if (endrequested()) return -1;
    char byte = 0;
    const ssize_t got = read(STDIN_FILENO, &byte, 1);
    if (got < 0 && errno == EINTR && !endrequested()) {
      redraw(editor);
      continue;
    }
    if (got <= 0) return static_cast<int>(got);
    const std::size_t taken = std::mbrtowc(c, &byte, 1, &state);
    if (taken <= 1) return 1;
    if (taken == static_cast<std::size_t>(-1)) state = {};  // a byte that begins no character is passed over
  }
}

// The editor, made at the first question and kept with its history until the process ends.
struct Editor {
  EditLine* line = el_init("kdr3", stdin, stdout, stderr);
  History* history = history_init();
  HistEvent event{};

  Editor() {
    history_(H_SETSIZE, remembered);
    history_(H_SETUNIQUE, 1);
    if (line == nullptr) return;
    el_set(line, EL_PROMPT, promptof);
    el_set(line, EL_EDITOR, "emacs");
    el_set(line, EL_HIST, ::history, history);
    el_set(line, EL_GETCFN, nextcharacter);
    el_source(line, nullptr);  // the user's own keys
  }
  template <class Argument>
  void history_(int operation, Argument argument) {
    if (history != nullptr) ::history(history, &event, operation, argument);
  }
};

// The user's characters: UTF-8 where the environment tells nothing.
locale_t usercharacters() {
  locale_t characters = newlocale(LC_CTYPE_MASK, "", static_cast<locale_t>(nullptr));
  if (characters == nullptr || std::string_view(nl_langinfo_l(CODESET, characters)) == "ANSI_X3.4-1968")
    characters = newlocale(LC_CTYPE_MASK, "C.UTF-8", characters);
  return characters;
}

// The prompt's last line is the editor's; what stands before it is printed once.
void showprompt(const std::string& prompt) {
  const std::size_t newline = prompt.rfind('\n');
  const std::size_t start = newline == std::string::npos ? 0 : newline + 1;
  std::fwrite(prompt.data(), 1, start, stdout);
  std::fflush(stdout);
  lastline = prompt.substr(start);
}

}  // namespace

bool atterminal() { return isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1; }

bool editline(const std::string& prompt, std::string& line) {
  line.clear();
  if (endrequested()) return false;
  // The user's characters are for the editor alone: all else in the program goes on in the plain locale.
  static const locale_t characters = usercharacters();
  const locale_t plain = uselocale(characters);
  static Editor editor;
  // The terminal is made ready before the question shows, so that an answer that comes at once is the editor's.
  if (editor.line != nullptr) el_set(editor.line, EL_PREP_TERM, 1);
  showprompt(prompt);
  int length = 0;
  const char* typed = nullptr;
  if (editor.line != nullptr) {
    const WakingSignals waking;
    el_resize(editor.line);
    typed = el_gets(editor.line, &length);
  }
  if (typed != nullptr && length > 0) {
    line.assign(typed, static_cast<std::size_t>(length));
    if (line.back() == '\n') line.pop_back();
    if (!line.empty()) editor.history_(H_ENTER, line.c_str());
  } else {
    std::fputs("\n", stdout);  // the prompt that follows begins a line of its own
    std::fflush(stdout);
  }
  uselocale(plain);
  return typed != nullptr && length > 0;
}

}  // namespace kdr
