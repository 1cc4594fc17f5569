#include "driver/failures.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <mutex>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "core/failuretable.h"
#include "core/formatted.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"

namespace kdr {

StopHooks stophooks;
void (*endprocess)(int code) = nullptr;

namespace {

// The words of the table hold at most one "%s" a line, so this is the one place that formats by a table entry.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void printfailure(const FailureRow& failure, const char* text) {
  const char* argument = failure.namesmodule ? module : text;
  for (const char* line : failure.lines) {
    if (line == nullptr) break;
    if (failure.target == FailureRow::Target::console) {
      std::printf(line, argument);
    } else {
      if (failure.code != 2) reportbreak();  // failure 2 stands on the line it finds
      report(line, argument);
    }
    argument = text;
  }
  if (failure.target != FailureRow::Target::report) return;
  reportbreak();
  if (!reportisstdout()) std::printf("The run has stopped. The end of %s tells why.\n", run.files.outfile.c_str());
}
#pragma GCC diagnostic pop

// Threads of an engine may fail at once: the first one ends the process, the others wait for the end.
std::recursive_mutex stopper;
std::size_t nextstep = 0;

void waitabit() {
  if (run.id.waitseconds < 0) return;
  std::fflush(stdout);
  const std::time_t start = std::time(nullptr);
  while (std::time(nullptr) - start <= run.id.waitseconds) {
    std::timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::timespec rest{0, 1000000000L - now.tv_nsec};
    nanosleep(&rest, nullptr);
  }
}

void closefailedreport() {
  if (run.report.stream == nullptr || run.model.outcome.linear()) return;
  cutreport();
  reporthtml("</body></html>\n");
}

// Removes an unfinished file; one in a folder that lets none go is emptied.
void discard(const std::string& path) {
  if (std::remove(path.c_str()) != 0) std::ignore = truncate(path.c_str(), 0);
}

// Texts of the user's files stand in messages: they must not talk to the terminal.
std::string printablelines(std::string_view text) {
  std::string shown = printable(text);
  for (std::size_t i = 0; i < text.size(); ++i)
    if (text[i] == '\n') shown[i] = '\n';
  return shown;
}

using Step = void (*)(int code);
constexpr Step steps[] = {
    [](int code) {
      if (code != 0 && stophooks.tellfit != nullptr) stophooks.tellfit();
    },
    [](int code) {
      if (code != 0) closefailedreport();
    },
    [](int) {
      std::FILE* report = std::exchange(run.report.stream, nullptr);
      if (report != nullptr && !reportisstdout()) std::fclose(report);
    },
    [](int code) {
      if (run.series.mimode && stophooks.closeseries != nullptr) stophooks.closeseries(code);
    },
    [](int code) {
      if (stophooks.closelog != nullptr) stophooks.closelog(code);
    },
    [](int) {
      for (const std::string& name : run.files.unfinished) discard(name);
      run.files.unfinished.clear();
    },
    [](int) {
      if (endprocess == nullptr) waitabit();
    },
};

}  // namespace

void stoprun(int code) {
  stopper.lock();
  // A failure inside the stop sequence does not start it again: it goes on with the step behind.
  while (nextstep < std::size(steps)) steps[nextstep++](code);
  const bool told = std::ferror(stdout) == 0 && std::fflush(stdout) == 0;
  std::fflush(nullptr);
  if (endprocess != nullptr) {
    nextstep = 0;
    stopper.unlock();
    endprocess(code);
  }
  // What standard output did not take is lost: the run did not do all that it was asked.
  std::_Exit(code == 0 && !told ? 5 : code);
}

void fail(int code, const char* text) {
  // Memory that has run out is told without any.
  const std::string shown = *text == '\0' ? std::string() : printablelines(text);
  if (code == 0 || code == 100) {
    if (*text != '\0') std::printf("%s\n", shown.c_str());
    stoprun(code);
  }
  for (const FailureRow& failure : failures)
    if (failure.code == code) {
      printfailure(failure, shown.c_str());
      stoprun(code);
    }
  std::printf("Bad exit code %d\n", code);
  stoprun(code);
}

void tell(const Failure& failure) {
  if (failure.systemerror != 0) {
    errno = failure.systemerror;
    std::perror(failure.row == notemporary ? "tmpfile" : "");
  }
  report("%s", failure.reportwords.c_str());
  for (const std::string& line : failure.reportlines) reportline("%s", line.c_str());
  if (failure.row == abandoned) checksignals();
  std::printf("%s", printablelines(failure.consolewords).c_str());
  if (failure.row != ownwords) fail(failure.row, failure.argument.c_str());
  stoprun(ownwords);
}

void stopif(const Failure& failure) {
  if (failure) tell(failure);
}

void notconverged(const std::string& words) {
  run.id.unconverged = run.id.passunconverged = true;
  std::printf("%s", words.c_str());
}

void endrun() { stoprun(run.id.strict && run.id.unconverged ? unconvergedcode : 0); }

void stopwith(const char* format, ...) {
  std::va_list arguments, again;
  va_start(arguments, format);
  va_copy(again, arguments);
  std::string words(static_cast<std::size_t>(std::max(0, std::vsnprintf(nullptr, 0, format, arguments))) + 1, '\0');
  va_end(arguments);
  std::vsnprintf(words.data(), words.size(), format, again);
  va_end(again);
  words.pop_back();
  std::printf("%s", printablelines(words).c_str());
  stoprun(100);
}

// Signals.

namespace {

constexpr int ending[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};
volatile std::sig_atomic_t pendingsignal = 0;
volatile std::sig_atomic_t holding = 0;
volatile std::sig_atomic_t interruptmark = 0;
int holds = 0;  // of holdinterrupts that wait for their releaseinterrupts

void onsignal(int signal) {
  if (signal == SIGINT && holding) {
    holding = 0;
    interruptmark = 1;
  } else {
    pendingsignal = signal;
  }
}

const char* floatingpointwords(int kind) {
  switch (kind) {
    case FPE_FLTINV:
      return "Invalid floating point number encountered by program.";
    case FPE_FLTDIV:
    case FPE_INTDIV:
      return "Attempted division by zero encountered by program.";
    case FPE_FLTOVF:
    case FPE_INTOVF:
      return "Program encountered floating point overflow.";
    case FPE_FLTRES:
      return "Inexact floating point result encountered by program.";
    case FPE_FLTSUB:
      return "Program attempted to execute unemulated floating point function.";
    default:
      return "";
  }
}

// A trapped instruction cannot be resumed, so this one handler stops the run from within.
void onfloatingpoint(int, siginfo_t* info, void*) {
  if (info->si_code == FPE_FLTUND) return;
  std::printf("\nError:%s\nNo sense in going on.\n", floatingpointwords(info->si_code));
  stoprun(100);
}

}  // namespace

void installhandlers() {
  struct sigaction action {};
  action.sa_handler = onsignal;
  // A write that waits, as for a pager, goes on behind the signal: what it was to write would be lost. Only a read that
  // waits is broken (BreakableReads).
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  // A write to a pipe that nobody reads any more ends the run quietly; one beyond the size that a file may have fails
  // as on a full disk.
  sigaction(SIGPIPE, &action, nullptr);
  std::signal(SIGXFSZ, SIG_IGN);
  for (const int signal : ending) sigaction(signal, &action, nullptr);
  struct sigaction trap {};
  trap.sa_sigaction = onfloatingpoint;
  trap.sa_flags = SA_SIGINFO;
  sigemptyset(&trap.sa_mask);
  sigaction(SIGFPE, &trap, nullptr);
}

namespace {

void setrestart(int flag) {
  for (const int signal : ending) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler != onsignal) continue;
    action.sa_flags = flag;
    sigaction(signal, &action, nullptr);
  }
}

}  // namespace

BreakableReads::BreakableReads() { setrestart(0); }
BreakableReads::~BreakableReads() { setrestart(SA_RESTART); }

bool endrequested() { return pendingsignal != 0; }

void checksignals() {
  if (pendingsignal == 0) return;
  switch (pendingsignal) {
    case SIGINT:
      fail(100, "Program interrupted by Ctrl-C");
    case SIGPIPE:
      stoprun(5);
    case SIGQUIT:
      fail(100, "Program interrupted by Ctrl-Break");
    default:
      fail(100, "Program interrupted by termination request");
  }
}

void holdinterrupts() {
  if (holds++ == 0) rearminterrupts();
}
void releaseinterrupts() {
  if (--holds == 0) holding = 0;
}
void rearminterrupts() {
  interruptmark = 0;
  holding = 1;
}
bool interrupted() { return interruptmark != 0; }

}  // namespace kdr
