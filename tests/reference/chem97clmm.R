# The ordinal model in examples/chem97 by ordinal::clmm (Laplace), with the time that it took:
#   Rscript chem97clmm.R > chem97clmm.out
# clmm has logit P(y <= c) = theta_c - x'b; here it is g + x'd + delta_c: g = theta_1, d = -b, delta_c = theta_c - theta_1.
library(ordinal)
d <- read.table("../../examples/chem97/chem97-1.dat",
                col.names = c("lea", "school", "score", "female", "age", "gcse", "gcsecnt"))
d$score <- factor(d$score)
d$lea <- factor(d$lea)
d$school <- factor(d$school)
time <- system.time(m <- clmm(score ~ female + gcsecnt + (1 | lea) + (1 | school), data = d))[["elapsed"]]
b <- coef(m)
V <- vcov(m)[1:7, 1:7]
A <- matrix(0, 7, 7)
A[1, 1] <- 1
A[2, 6] <- A[3, 7] <- -1
for (i in 2:5) A[2 + i, c(1, i)] <- c(-1, 1)
se <- sqrt(diag(A %*% V %*% t(A)))
names <- c("INTRCPT1", "FEMALE", "GCSECNT", "THOLD2", "THOLD3", "THOLD4", "THOLD5")
for (i in 1:7) cat(sprintf("gamma %s %.6f se %.6f\n", names[i], (A %*% b)[i], se[i]))
cat(sprintf("tau school %.6f\ntau lea %.6f\nseconds %.1f\n", VarCorr(m)$school[1], VarCorr(m)$lea[1], time))
