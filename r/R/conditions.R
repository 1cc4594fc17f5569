# Errors, warnings and interrupts of the package, as conditions of classes of their own.

refuse <- function(..., class = NULL, call = NULL) {
  stop(structure(class = c(class, "kdr3_error", "error", "condition"), list(message = paste0(...), call = call)))
}

warn <- function(sentence, class = NULL, call = NULL) {
  warning(structure(class = c(class, "kdr3_warning", "warning", "condition"), list(message = sentence, call = call)))
}

# The interrupt that the library was asked to stop by, told again to whoever handles it; else back to the prompt.
interrupted <- function() {
  condition <- structure(class = c("interrupt", "condition"), list(message = "", call = NULL))
  signalCondition(condition)
  invokeRestart("abort")
}

# What a call of the library handed back, or its error or interrupt.
checked <- function(result) {
  if (isTRUE(result$interrupted)) interrupted()
  if (!is.null(result$error)) refuse(result$error, class = "kdr3_refused")
  result
}
