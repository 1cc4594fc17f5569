# Methods for generics of packages that may be absent, or of a version without the generic: registered when the package
# is loaded, where the generic exists.
later <- list(
  insight = c("find_formula", "find_random", "find_statistic", "find_parameters", "model_info", "get_data", "get_df", "get_parameters",
              "get_predicted", "get_statistic", "get_varcov", "get_random", "get_sigma", "get_variance", "link_inverse", "link_function",
              "is_mixed_model"),
  performance = c("r2", "model_performance", "check_singularity", "check_convergence", "check_overdispersion"),
  parameters = c("model_parameters", ".extract_random_parameters"),
  ggeffects = "get_predictions",
  marginaleffects = c("get_coef", "set_coef", "get_vcov", "get_predict"),
  DHARMa = c("getSimulations", "getRefit", "getFixedEffects", "getFitted", "getObservedResponse", "getResiduals"))

registerlater <- function(package) {
  register <- function(...) {
    space <- asNamespace(package)
    for (generic in later[[package]])
      if (exists(generic, envir = space, inherits = FALSE))
        registerS3method(generic, "kdr3", get(paste0(generic, ".kdr3"), envir = asNamespace("kdr3")), envir = space)
  }
  if (isNamespaceLoaded(package)) register()
  setHook(packageEvent(package, "onLoad"), register)
}

.onLoad <- function(libname, pkgname) for (package in names(later)) registerlater(package)
