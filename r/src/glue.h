// What the files of this folder share: R objects in, plain C++ in between, R objects out.
//
// No C++ object with a destructor may be alive where R could jump out of C++. So each call reads its arguments, works
// in a block without R, and keeps what it made in an external pointer, which R frees, before it allocates results.
#pragma once

#define R_NO_REMAP
#include <R.h>
#include <Rinternals.h>

#include <exception>
#include <string>

// The element of a list by its name, R_NilValue where there is none.
SEXP element(SEXP list, const char* name);

// An object that R owns: freed by the garbage collector, also when R jumps.
template <class T>
T* owned(SEXP& holder) {
  holder = PROTECT(R_MakeExternalPtr(nullptr, R_NilValue, R_NilValue));
  R_RegisterCFinalizerEx(
      holder,
      [](SEXP pointer) {
        delete static_cast<T*>(R_ExternalPtrAddr(pointer));
        R_ClearExternalPtr(pointer);
      },
      TRUE);
  T* made = new T;
  R_SetExternalPtrAddr(holder, made);
  return made;
}

// Runs `work`, which doesn't call R; the sentence of what it throws, "" without.
template <class Work>
std::string sentenceof(Work&& work) {
  try {
    work();
  } catch (const std::bad_alloc&) {
    return "Out of memory.";
  } catch (const std::exception& thrown) {
    return thrown.what();
  }
  return "";
}

// Whether R wants to leave, by an interrupt or an error as of a time limit; asked in R's thread only. It is held back,
// with its handlers as they were found, and goes on by R_ContinueUnwind(token) when no C++ object is alive.
bool leaving(SEXP token);

extern "C" {
SEXP kdr3r_fit(SEXP spec);
SEXP kdr3r_levels(SEXP columns, SEXP unit2, SEXP unit3);
SEXP kdr3r_predict(SEXP fitted, SEXP own, SEXP rows, SEXP what, SEXP columns);
SEXP kdr3r_version();
}
