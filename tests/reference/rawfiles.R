# The raw data files of tests/construct/files: the first 300 candidates of examples/chem97 with their schools and
# authorities, written by the packages foreign and haven. Run from the root of the repository.
#
# IDs stand there as numbers (LEA, SCHOOL) and as texts (LEAT, SCHOOLT). GAP is SCORE with holes: records 7, 14, ...
# are missing, records 11, 22, ... have a missing code of the package's own where the format has one (Stata's .a, 99 in
# the list of an SPSS variable).
library(foreign)
library(haven)

read <- function(level, names) {
  data <- read.table(sprintf("examples/chem97/chem97-%d.dat", level))
  setNames(data, names)
}
# Texts of Stata files are compared as they stand, so they need their zeros; those of SPSS files count from the right.
texts <- function(data, form = "%05d") {
  data$LEAT <- sprintf(form, data$LEA)
  if (!is.null(data$SCHOOL)) data$SCHOOLT <- sprintf(form, data$SCHOOL)
  data
}
l1 <- read(1, c("LEA", "SCHOOL", "SCORE", "FEMALE", "AGE", "GCSE", "GCSECNT"))[1:300, ]
l2 <- read(2, c("LEA", "SCHOOL", "SCHGCSE", "SCHSIZE"))
l3 <- read(3, c("LEA", "LEAGCSE", "LEANSCH"))
l2 <- l2[l2$SCHOOL %in% l1$SCHOOL, ]
l3 <- l3[l3$LEA %in% l1$LEA, ]

record <- seq_len(nrow(l1))
plain <- as.numeric(replace(l1$SCORE, record %% 7 == 0 | record %% 11 == 0, NA))
own <- function(code) ifelse(record %% 7 == 0, NA, ifelse(record %% 11 == 0, code, as.numeric(l1$SCORE)))

place <- function(name, level) {
  sprintf("tests/construct/files/%s-%d.%s", name, level, if (grepl("^sav", name)) "sav" else "dta")
}
labelled1 <- function(data, gap, form = "%05d") {
  data$GAP <- gap
  attr(data$SCORE, "label") <- "points for the A-level chemistry grade, 0 (fail) to 10 (A)"
  data$FEMALE <- labelled(as.numeric(data$FEMALE), c(boy = 0, girl = 1))
  texts(data, form)
}
for (version in c(6, 7, 8, 10)) {
  name <- sprintf("foreign%d", version)
  first <- texts(cbind(l1, GAP = plain))
  write.dta(first, place(name, 1), version = version)
  write.dta(texts(l2), place(name, 2), version = version)
  write.dta(texts(l3), place(name, 3), version = version)
}
for (version in c(8, 10, 12)) {
  name <- sprintf("haven%d", version)
  write_dta(labelled1(l1, own(tagged_na("a"))), place(name, 1), version = version)
  write_dta(texts(l2), place(name, 2), version = version)
  write_dta(texts(l3), place(name, 3), version = version)
}
for (form in c("byte", "none")) {
  name <- paste0("sav", form)
  gap <- labelled_spss(own(99), na_values = c(99, 98))
  first <- labelled1(l1, gap, "%d")
  first$AVERYLONGNAMEOFAVARIABLE <- "a text that takes more slots than two of them"
  first <- first[c("LEA", "SCHOOL", "LEAT", "SCHOOLT", "AVERYLONGNAMEOFAVARIABLE", "SCORE", "FEMALE", "AGE", "GCSE",
                   "GCSECNT", "GAP")]
  write_sav(first, place(name, 1), compress = form)
  write_sav(texts(l2, "%d"), place(name, 2), compress = form)
  write_sav(texts(l3, "%d"), place(name, 3), compress = form)
}
