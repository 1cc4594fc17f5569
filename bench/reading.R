# The R side of reading.py:
#   Rscript reading.R write FOLDER LEVEL ROWS NAME...   files of the packages' formats from FOLDER/table-LEVEL.raw
#   Rscript reading.R read PACKAGE FILE                 prints the seconds that the package takes to read the file
a <- commandArgs(TRUE)

write <- function(folder, level, rows, names) {
  library(haven)
  n <- as.integer(rows)
  source <- file(sprintf("%s/table-%s.raw", folder, level), "rb")
  d <- lapply(names, function(name) {
    x <- readBin(source, "double", n)
    x[is.nan(x)] <- NA
    if (name %in% c("ID3", "ID2", sprintf("V%d", 13:18))) as.integer(x) else x
  })
  close(source)
  d <- as.data.frame(setNames(d, names))
  place <- function(name, extension) sprintf("%s/%s-%s.%s", folder, name, level, extension)
  write_sav(d, place("savplain", "sav"), compress = "none")
  write_sav(d, place("savbyte", "sav"), compress = "byte")
  write_sav(d, place("savzlib", "zsav"), compress = "zsav")
  write_dta(d, place("stata12", "dta"), version = 12)
  write_dta(d, place("stata14", "dta"), version = 14)
  write_xpt(d, place("transport", "xpt"), version = 5, name = "STUDY")
  suppressWarnings(write_sas(d, place("sas7", "sas7bdat")))
}

readers <- list(
  haven = function(path) switch(tools::file_ext(path), sav = , zsav = haven::read_sav(path), dta = haven::read_dta(path),
                                xpt = haven::read_xpt(path), sas7bdat = haven::read_sas(path)),
  foreign = function(path) switch(tools::file_ext(path), dta = foreign::read.dta(path),
                                  sys = foreign::read.systat(path), dbf = foreign::read.dbf(path)),
  readr = function(path) switch(tools::file_ext(path),
    csv = readr::read_csv(path, show_col_types = FALSE, progress = FALSE),
    dat = readr::read_fwf(path, readr::fwf_widths(c(8, 8, rep(9, 18))), readr::cols(.default = "d"), progress = FALSE)),
  data.table = function(path) data.table::fread(path)
)

if (a[1] == "write") {
  write(a[2], a[3], a[4], a[-(1:4)])
} else {
  read <- readers[[a[2]]]
  loadNamespace(a[2])
  cat(sprintf("%.3f\n", system.time(d <- read(a[3]))[["elapsed"]]))
}
