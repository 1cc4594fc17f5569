# Errors and warnings of the package, as conditions of classes of their own.

refuse <- function(..., class = NULL, call = NULL) {
  stop(structure(class = c(class, "kdr3_error", "error", "condition"), list(message = paste0(...), call = call)))
}

warn <- function(sentence, class = NULL, call = NULL) {
  warning(structure(class = c(class, "kdr3_warning", "warning", "condition"), list(message = sentence, call = call)))
}

# Words of the library's sentences that mean the program's keywords, in those of kdr3().
words <- c("AUTO in the place of the points finds" = "Without points = the fit finds",
           "One point, AGQ:Y,[0-9]+,1 \\(the Laplace approximation\\), does" = "engine = \"laplace\" does",
           " \\(AGQ:\\)" = "", "^THREADS takes" = "threads takes",
           "Level-([123]) Weights must be positive!" = "weights\\1 must be positive.",
           "Unable to do only level-1 and level-3 weights\\." = "weights1 and weights3 need weights2 between them.")

inwords <- function(sentences) {
  for (pattern in names(words)) sentences <- gsub(pattern, words[[pattern]], sentences)
  trimws(sentences)
}

# The rows of a sentence, which the library counts in the model frame, by their names.
namedrows <- function(sentence, rows) {
  found <- gregexpr("\\brow [0-9]+", sentence)
  regmatches(sentence, found) <- lapply(regmatches(sentence, found), function(r) paste("row", rows[as.integer(substring(r, 5L))]))
  sentence
}

# What a call of the library handed back, or its error; `rows` are the names of the records.
checked <- function(result, rows) {
  if (!is.null(result$error)) refuse(namedrows(inwords(result$error), rows), class = "kdr3_refused")
  result
}
