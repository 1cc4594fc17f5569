# What the residual files of the two models in examples/chem97 hold, by lmer(REML = FALSE). Run in this directory:
#   Rscript chem97residuals.R
# writes chem97/residuals.txt: per model and level the sum of every column, then every 500th record, every 50th level-2
# unit and every 10th level-3 unit: number, then the values in the order of the file (level-2 OL: in units where X'X has
# a condition that every program accepts).
suppressMessages(library(lme4))
data <- function(level, widths, names) {
  file <- sprintf("../../examples/chem97/chem97-%d.dat", level)
  setNames(read.fwf(file, widths, stringsAsFactors = FALSE), names)
}
d1 <- data(1, c(4, -1, 5, 5, 3, 4, 7, 8), c("lea", "sch", "SCORE", "FEMALE", "AGE", "GCSE", "gcsecnt"))
d2 <- data(2, c(4, -1, 5, 8, 5), c("lea", "sch", "SCHGCSE", "SCHSIZE"))
d3 <- data(3, c(4, 8, 5), c("lea", "LEAGCSE", "LEANSCH"))
d2$S <- d2$SCHGCSE - mean(d2$SCHGCSE)
d3$L <- d3$LEAGCSE - mean(d3$LEAGCSE)
d1$school <- match(paste(d1$lea, d1$sch), paste(d2$lea, d2$sch))
d1$authority <- match(d1$lea, d3$lea)
d1$S <- d2$S[d1$school]
d1$L <- d3$L[d1$authority]
lea2 <- match(d2$lea, d3$lea)
lower <- function(m) m[upper.tri(m, TRUE)]  # of a symmetric matrix: the lower triangle by rows
out <- file("chem97/residuals.txt", "w")
put <- function(model, level, table, every) {
  line <- function(what, x) writeLines(paste(c(model, level, what, ifelse(is.na(x), "NA", sprintf("%.9g", x))),
                                             collapse = " "), out)
  line("sum", colSums(table))
  for (i in seq(1, nrow(table), every)) line(i, table[i, ])
}
models <- list(
  model1 = SCORE ~ gcsecnt + (1 | school) + (1 | authority),
  model2 = SCORE ~ L + S + FEMALE + gcsecnt + gcsecnt:S + (1 + gcsecnt | school) + (1 | authority))
for (name in names(models)) {
  m <- lmer(models[[name]], d1, REML = FALSE,
            control = lmerControl(optimizer = "bobyqa", optCtrl = list(rhoend = 1e-10, maxfun = 1e5)))
  b <- fixef(m)
  r <- ranef(m, condVar = TRUE)
  places <- function(x) order(as.integer(rownames(x)))
  u <- as.matrix(r$school[places(r$school), , drop = FALSE])
  v <- r$authority[places(r$authority), 1]
  PV2 <- t(apply(attr(r$school, "postVar")[, , places(r$school), drop = FALSE], 3, lower))
  if (ncol(u) == 1) PV2 <- t(PV2)
  PV3 <- attr(r$authority, "postVar")[1, 1, places(r$authority)]
  # The variables of the model come behind the rest.
  second <- function(d) as.matrix(d[, if (name == "model2") "S" else NULL, drop = FALSE])
  third <- function(d) as.matrix(d[, if (name == "model2") "L" else NULL, drop = FALSE])
  fitted <- fitted(m)
  put(name, 1, cbind(d1$SCORE - fitted, fitted, sigma(m), d1$SCORE, second(d1), third(d1)), 500)

  random <- if (name == "model1") 1 else c(1, 3)  # level-1 coefficients with a residual at level 2
  FV3 <- if (name == "model1") outer(rep(1, nrow(d3)), b)
         else cbind(b[1] + b["L"] * d3$L, b["S"], b["FEMALE"], b["gcsecnt"], b["S:gcsecnt"])
  EC3 <- FV3
  EC3[, 1] <- EC3[, 1] + v
  E <- EC3[lea2, ]
  FV2 <- if (name == "model1") E else cbind(E[, 1] + E[, 2] * d2$S, E[, 3], E[, 4] + E[, 5] * d2$S)
  EC2 <- FV2
  EC2[, random] <- EC2[, random] + u
  # Least squares: of a school by itself; of an authority with the covariance of its records given v.
  fixed <- predict(m, re.form = NA)
  rest <- d1$SCORE - fixed
  X <- cbind(1, d1$gcsecnt)[, seq_len(ncol(u)), drop = FALSE]
  OL2 <- matrix(NA, nrow(d2), ncol(u))
  bySchool <- split(seq_len(nrow(d1)), d1$school)
  Tau <- as.matrix(VarCorr(m)$school)
  top <- bottom <- rep(0, nrow(d3))
  for (j in seq_along(bySchool)) {
    i <- bySchool[[j]]
    x <- X[i, , drop = FALSE]
    xx <- crossprod(x)
    if (length(i) >= ncol(x) && rcond(xx) > 1e-4) OL2[j, ] <- solve(xx, crossprod(x, rest[i] - v[d1$authority[i]]))
    w <- solve(x %*% Tau %*% t(x) + sigma(m)^2 * diag(length(i)), cbind(1, rest[i]))
    k <- lea2[j]
    bottom[k] <- bottom[k] + sum(w[, 1])
    top[k] <- top[k] + sum(w[, 2])
  }
  put(name, 2, cbind(tabulate(d1$school), u, OL2, FV2, EC2, PV2, second(d2), third(d3)[lea2, ]), 50)
  put(name, 3, cbind(tabulate(lea2), v, top / bottom, FV3, EC3, PV3, third(d3)), 10)
}
close(out)
