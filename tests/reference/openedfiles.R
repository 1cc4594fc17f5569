# Opens the residual files of school-A as other software does and prints, column by column, what it finds:
#   Rscript openedfiles.R DIRECTORY > openedfiles.txt && /usr/bin/python3 openedfiles.py DIRECTORY >> openedfiles.txt
# with a directory that `../endtoend/residuals_test.py PROGRAM DIRECTORY` has filled. Lines: reader, kind of identifiers,
# level, column, its type, number of missing values, sum (of texts: number of different ones). Needs haven and foreign.
place <- commandArgs(TRUE)[1]
free <- function(path) {
  heads <- if (grepl("1.dat", path, fixed = TRUE)) 1 else 2
  names <- unlist(strsplit(paste(readLines(path, heads), collapse = ""), ","))
  setNames(read.csv(path, header = FALSE, skip = heads, na.strings = ".", strip.white = TRUE), trimws(names))
}
readers <- list(
  haven_sav = function(d, level) haven::read_sav(sprintf("%s/resfil%d.sav", d, level)),
  haven_dta = function(d, level) haven::read_dta(sprintf("%s/resfil%d.dta", d, level)),
  foreign_sav = function(d, level) foreign::read.spss(sprintf("%s/resfil%d.sav", d, level), to.data.frame = TRUE,
                                                      use.value.labels = FALSE, stringsAsFactors = FALSE),
  foreign_dta = function(d, level) foreign::read.dta(sprintf("%s/resfil%d.dta", d, level)),
  free = function(d, level) free(sprintf("%s/resfil%d.dat", d, level)))
for (reader in names(readers)) for (ids in c("text", "numeric")) for (level in 1:3) {
  table <- suppressWarnings(readers[[reader]](file.path(place, ids), level))
  for (name in names(table)) {
    x <- table[[name]]
    text <- is.character(x)
    cat(reader, ids, level, name, if (text) "text" else "number", sum(is.na(x)),
        if (text) length(unique(trimws(x))) else format(sum(as.numeric(x), na.rm = TRUE), digits = 9), "\n")
  }
}
