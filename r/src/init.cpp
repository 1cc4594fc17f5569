// The routines that R calls.
#include <R_ext/Rdynload.h>

#include <csetjmp>

#include "glue.h"
#include "kdr3/kdr3.h"

SEXP element(SEXP list, const char* name) {
  SEXP names = Rf_getAttrib(list, R_NamesSymbol);
  for (R_xlen_t i = 0; i < Rf_xlength(names); ++i)
    if (std::string(CHAR(STRING_ELT(names, i))) == name) return VECTOR_ELT(list, i);
  return R_NilValue;
}

bool leaving(SEXP token) {
  std::jmp_buf here;  // R's frames alone are between
  if (setjmp(here) != 0) return true;
  R_UnwindProtect(
      [](void*) {
        R_CheckUserInterrupt();
        return R_NilValue;
      },
      nullptr,
      [](void* place, Rboolean jumps) {
        if (jumps) std::longjmp(*static_cast<std::jmp_buf*>(place), 1);
      },
      &here, token);
  return false;
}

extern "C" {

SEXP kdr3r_version() { return Rf_mkString(kdr3_version()); }

void R_init_kdr3(DllInfo* library) {
  static const R_CallMethodDef calls[] = {{"kdr3r_fit", reinterpret_cast<DL_FUNC>(&kdr3r_fit), 1},
                                          {"kdr3r_levels", reinterpret_cast<DL_FUNC>(&kdr3r_levels), 3},
                                          {"kdr3r_predict", reinterpret_cast<DL_FUNC>(&kdr3r_predict), 5},
                                          {"kdr3r_version", reinterpret_cast<DL_FUNC>(&kdr3r_version), 0},
                                          {nullptr, nullptr, 0}};
  R_registerRoutines(library, nullptr, calls, nullptr, nullptr);
  R_useDynamicSymbols(library, FALSE);
  R_forceSymbols(library, TRUE);
}
}
