// The routines that R calls.
#include <R_ext/Rdynload.h>

#include <cstdio>

#include "glue.h"
#include "kdr3/kdr3.h"

SEXP element(SEXP list, const char* name) {
  SEXP names = Rf_getAttrib(list, R_NamesSymbol);
  for (R_xlen_t i = 0; i < Rf_xlength(names); ++i)
    if (std::string(CHAR(STRING_ELT(names, i))) == name) return VECTOR_ELT(list, i);
  return R_NilValue;
}

// R_ToplevelExec keeps jumps out of C++, but what it catches ends a session that has no user, so that errors are taken
// by a handler inside of it.
Stop stopwanted() {
  struct Caught {
    bool stopped = false;
    char sentence[1024] = "";
  } caught;
  const auto ask = [](void* place) {
    const char* classes[] = {"interrupt", "error"};
    SEXP conditions = PROTECT(Rf_allocVector(STRSXP, 2));
    for (int i = 0; i < 2; ++i) SET_STRING_ELT(conditions, i, Rf_mkChar(classes[i]));
    R_tryCatch(
        [](void*) {
          R_CheckUserInterrupt();
          return R_NilValue;
        },
        nullptr, conditions,
        [](SEXP condition, void* found) {
          Caught& told = *static_cast<Caught*>(found);
          told.stopped = true;
          SEXP message = element(condition, "message");
          if (Rf_inherits(condition, "error") && Rf_isString(message) && Rf_length(message) == 1)
            std::snprintf(told.sentence, sizeof told.sentence, "%s", CHAR(STRING_ELT(message, 0)));
          return R_NilValue;
        },
        place, nullptr, nullptr);
    UNPROTECT(1);
  };
  const bool jumped = R_ToplevelExec(ask, &caught) == FALSE;
  return {jumped || caught.stopped, caught.sentence};
}

extern "C" {

SEXP kdr3r_version() { return Rf_mkString(kdr3_version()); }

void R_init_kdr3(DllInfo* library) {
  static const R_CallMethodDef calls[] = {{"kdr3r_fit", reinterpret_cast<DL_FUNC>(&kdr3r_fit), 1},
                                          {"kdr3r_levels", reinterpret_cast<DL_FUNC>(&kdr3r_levels), 3},
                                          {"kdr3r_effects", reinterpret_cast<DL_FUNC>(&kdr3r_effects), 1},
                                          {"kdr3r_predict", reinterpret_cast<DL_FUNC>(&kdr3r_predict), 5},
                                          {"kdr3r_version", reinterpret_cast<DL_FUNC>(&kdr3r_version), 0},
                                          {nullptr, nullptr, 0}};
  R_registerRoutines(library, nullptr, calls, nullptr, nullptr);
  R_useDynamicSymbols(library, FALSE);
  R_forceSymbols(library, TRUE);
}
}
