# Predictors of school-A and of Chem97's model 2 on the raw data, as the graph file has them. Run in this directory:
#   Rscript graphpredictors.R > graphpredictors.txt
# Lines: study, level, name, mean, standard deviation, value at place floor(k N / 100) for k = 0 ... 99, largest value.
data <- function(file, widths, names) setNames(read.fwf(file, widths, stringsAsFactors = FALSE), names)
show <- function(study, level, name, x) {
  percentiles <- c(sort(x)[floor(0:99 * length(x) / 100) + 1], max(x))
  cat(study, level, name, sprintf("%.12g", c(mean(x), sd(x), percentiles)), "\n")
}
centered <- function(x) x - mean(x)
w <- function(n) c(-11, rep(10, n))
d1 <- data("school/level1.dat", w(3), c("Y", "X1", "X2"))
d2 <- data("school/level2.dat", w(2), c("Z1", "Z2"))
d3 <- data("school/level3.dat", c(-4, 10), "Q1")
for (name in c("X1", "X2")) show("school-A", 1, name, centered(d1[[name]]))
for (name in c("Z1", "Z2")) show("school-A", 2, name, centered(d2[[name]]))
show("school-A", 3, "Q1", centered(d3$Q1))
place <- "../../examples/chem97/chem97-"
d1 <- data(paste0(place, "1.dat"), c(-10, 5, 3, 4, 7, 8), c("SCORE", "FEMALE", "AGE", "GCSE", "GCSECNT"))
for (name in c("FEMALE", "GCSECNT")) show("chem97", 1, name, d1[[name]])
show("chem97", 2, "SCHGCSE", centered(data(paste0(place, "2.dat"), c(-10, 8), "S")$S))
show("chem97", 3, "LEAGCSE", centered(data(paste0(place, "3.dat"), c(-4, 8), "L")$L))
