# Predictors of some models on the raw data, as the graph file has them. Run in this directory:
#   Rscript graphpredictors.R > graphpredictors.txt
# Lines: study, level, name, mean, standard deviation, value at place floor(k N / 100) for k = 0 ... 99, largest value.
data <- function(file, widths, names) setNames(read.fwf(file, widths, stringsAsFactors = FALSE), names)
show <- function(study, level, name, x) {
  percentiles <- c(sort(x)[floor(0:99 * length(x) / 100) + 1], max(x))
  cat(study, level, name, sprintf("%.12g", c(mean(x), sd(x), percentiles)), "\n")
}
# The grand mean is that of all values, the rest that of the records without a missing value.
centered <- function(x, keep = TRUE) (x - mean(x[x != -99]))[keep]
w <- function(n) c(-11, rep(10, n))
for (study in list(c("school-A", "school"), c("missinganalysis-A", "schoolmissing"), c("tiny-T", "tiny"))) {
  path <- function(level) sprintf("%s/level%d.dat", study[2], level)
  small <- study[2] == "tiny"
  d1 <- data(path(1), w(3), c("Y", "X1", "X2"))
  d2 <- data(path(2), w(2), c("Z1", "Z2"))
  keep <- rowSums(d1[, if (small) c("Y", "X1") else names(d1)] == -99) == 0
  for (name in if (small) "X1" else c("X1", "X2")) show(study[1], 1, name, centered(d1[[name]], keep))
  for (name in if (small) "Z1" else c("Z1", "Z2")) show(study[1], 2, name, centered(d2[[name]]))
  if (!small) show(study[1], 3, "Q1", centered(data(path(3), c(-4, 10), "Q1")$Q1))
}
place <- "../../examples/chem97/chem97-"
d1 <- data(paste0(place, "1.dat"), c(-10, 5, 3, 4, 7, 8), c("SCORE", "FEMALE", "AGE", "GCSE", "GCSECNT"))
for (name in c("FEMALE", "GCSECNT")) show("chem97", 1, name, d1[[name]])
show("chem97", 2, "SCHGCSE", centered(data(paste0(place, "2.dat"), c(-10, 8), "S")$S))
show("chem97", 3, "LEAGCSE", centered(data(paste0(place, "3.dat"), c(-4, 8), "L")$L))
