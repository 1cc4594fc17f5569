# Five imputations of a part of the chem97 example with values removed, by mice (Debian package r-cran-mice).
#
#   Rscript imputations.R <folder of the example> <level1.dat> <level2.dat> <level3.dat>
#
# 40 authorities with up to 5 schools of up to 12 students each. A quarter of the scores and a fifth of the earlier
# attainments go missing, more often where the other of the two is low. level1.dat holds LEA, SCHOOL, FEMALE, and the
# five completed columns of SCORE and of GCSECNT; the other files the rows of the schools and authorities kept.
suppressMessages(library(mice))
arguments <- commandArgs(TRUE)
set.seed(97)

level1 <- read.table(file.path(arguments[1], "chem97-1.dat"),
                     col.names = c("lea", "school", "score", "female", "age", "gcse", "gcsecnt"))
level2 <- read.table(file.path(arguments[1], "chem97-2.dat"), col.names = c("lea", "school", "schgcse", "schsize"))
level3 <- read.table(file.path(arguments[1], "chem97-3.dat"), col.names = c("lea", "leagcse", "leanschool"))

leas <- sort(sample(level3$lea, 40))
schools <- unlist(lapply(leas, function(k) head(level2$school[level2$lea == k & level2$schsize >= 6], 5)))
students <- unlist(lapply(schools, function(j) head(which(level1$school == j), 12)))
data <- level1[students, ]

data$score[runif(nrow(data)) < 0.5 * plogis(-data$gcsecnt)] <- NA
observed <- !is.na(data$score)
data$gcsecnt[observed & runif(nrow(data)) < 0.5 * plogis((4 - data$score) / 3)] <- NA

imputed <- mice(data[, c("score", "female", "age", "gcsecnt")], m = 5, maxit = 5, method = "norm", printFlag = FALSE)
column <- function(name) sapply(1:5, function(m) mice::complete(imputed, m)[[name]])
score <- column("score")
gcsecnt <- column("gcsecnt")

writeLines(paste0(sprintf("%4d %5d%3d", data$lea, data$school, data$female),
                  apply(score, 1, function(x) paste(sprintf("%8.3f", x), collapse = "")),
                  apply(gcsecnt, 1, function(x) paste(sprintf("%8.4f", x), collapse = ""))), arguments[2])
kept2 <- level2[level2$school %in% data$school, ]
writeLines(sprintf("%4d %5d%8.4f", kept2$lea, kept2$school, kept2$schgcse), arguments[3])
kept3 <- level3[level3$lea %in% data$lea, ]
writeLines(sprintf("%4d%8.4f", kept3$lea, kept3$leagcse), arguments[4])
cat(nrow(data), "students,", nrow(kept2), "schools,", nrow(kept3), "authorities;", sum(is.na(data$score)), "scores and",
    sum(is.na(data$gcsecnt)), "attainments imputed\n")
