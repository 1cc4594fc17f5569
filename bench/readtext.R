# Seconds that R's readers take for the fixed-format text of simulate.py: usage Rscript readtext.R FILE
# read_fwf (readr) splits the columns; fread (data.table) only takes the lines.
a <- commandArgs(TRUE)
timed <- function(package, read) {
  if (!requireNamespace(package, quietly = TRUE)) return("-")
  sprintf("%.2f", system.time(read())[["elapsed"]])
}
cat(timed("readr", function() {
  readr::read_fwf(a[1], readr::fwf_widths(c(8, 8, rep(9, 10))), col_types = readr::cols(.default = "d"), progress = FALSE)
}), timed("data.table", function() data.table::fread(a[1], sep = "\n", header = FALSE, nThread = 1)), "\n")
