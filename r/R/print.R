# What is printed, in the form that lme4's users know.

headline <- function(object) {
  family <- object$family
  estimator <- if (hassigma(object)) (if (object$options$reml) "REML" else "maximum likelihood") else
    switch(object$engine, quadrature = if (identical(pointsof(object), 1L)) "maximum likelihood (Laplace approximation)" else
                                 paste0("maximum likelihood (adaptive quadrature, ", pointsof(object), " points)"),
           laplace = "maximum likelihood (Laplace approximation)", laplace6 = "maximum likelihood (Laplace approximation of order 6)",
           pql = "quasi-likelihood (PQL)")
  kind <- if (hassigma(object)) "Linear mixed model" else "Generalized linear mixed model"
  cat(kind, " fit by ", estimator, " ['kdr3']\n", sep = "")
  if (!hassigma(object)) cat(" Family:", family$family, " ( ", family$link, " )\n")
  cat("Formula: ", deparse1(object$formula), "\n", sep = "")
  if (object$family$family == "ordinal")
    cat("Levels: ", paste(object$levels, collapse = " < "), "; a positive effect means lower ones\n", sep = "")
  if (object$family$family == "binomial" && length(object$levels) == 2L)
    cat("Event: ", object$levels[2L], " (not ", object$levels[1L], ")\n", sep = "")
  if (object$family$family == "multinomial")
    cat("Reference: ", object$levels[length(object$levels)], "\n", sep = "")
  if (!is.null(object$call$data)) cat("   Data: ", deparse1(object$call$data), "\n", sep = "")
  if (!is.null(object$call$subset)) cat(" Subset:", deparse1(object$call$subset), "\n")
  weights <- intersect(c("weights", "weights1", "weights2", "weights3"), names(object$call))
  if (length(weights) > 0L) cat("Weights: ", paste(weights, "=", vapply(weights, function(w) deparse1(object$call[[w]]), ""), collapse = ", "), "\n", sep = "")
  if (isweighted(object)) cat("Standard errors are those of the weighted sandwich\n")
}

# The last phase of a kind in the results document, NULL without one.
documented <- function(object, phase) {
  phases <- jsonlite::fromJSON(object$document, simplifyVector = FALSE)$phases
  for (p in rev(phases)) if (p$phase %in% phase) return(p)
  NULL
}

lastphase <- function(object) documented(object, c("final", "quadrature", "laplace6", "pql"))
pointsof <- function(object) if (!hassigma(object)) documented(object, "quadrature")$points

fitline <- function(object) {
  if (hassigma(object) && object$options$reml) {
    cat("REML criterion at convergence:", format(round(stats::deviance(object), 4L), nsmall = 4L), "\n")
    return(invisible())
  }
  ll <- stats::logLik(object)
  if (is.na(ll)) return(invisible())
  values <- c(AIC = stats::AIC(object), BIC = stats::BIC(object), logLik = as.numeric(ll), deviance = stats::deviance(object),
              df.resid = stats::df.residual(object))
  text <- c(formatC(values[1:4], digits = 1L, format = "f"), format(values[[5L]]))
  names(text) <- names(values)
  print(text, quote = FALSE)
}

sizesline <- function(object) {
  n <- ngrps(object)
  cat("Number of obs: ", nobs(object), ", groups:  ", paste(names(n), n, sep = ", ", collapse = "; "), "\n", sep = "")
}

print.kdr3 <- function(x, digits = max(3, getOption("digits") - 3), ...) {
  headline(x)
  fitline(x)
  cat("Random effects:\n")
  print(VarCorr(x), digits = digits)
  sizesline(x)
  cat("Fixed Effects:\n")
  print.default(format(fixef(x), digits = digits), print.gap = 2L, quote = FALSE)
  endline(x)
  invisible(x)
}

endline <- function(object) {
  if (length(object$dropped) > 0L)
    cat("fit warnings:\nfixed-effect model matrix is rank deficient so dropping", length(object$dropped), "columns / coefficients\n")
  if (isSingular(object)) cat("A variance is 0, or a correlation 1 or -1 (singular fit)\n")
  for (w in object$warnings) cat(w, "\n")
}

# Estimates with their tests; the p values are those of t with the degrees of freedom of the fit.
coefficienttable <- function(object, vcov = object$vcov) {
  b <- object$coefficients
  se <- sqrt(diag(vcov))
  t <- b / se
  df <- object$df
  df[is.na(df)] <- Inf
  infinite <- all(is.infinite(df))
  table <- cbind(Estimate = b, `Std. Error` = se, df = df, `t value` = t, `Pr(>|t|)` = 2 * stats::pt(-abs(t), df))
  if (infinite) {
    table <- table[, -3L, drop = FALSE]
    colnames(table)[3:4] <- c("z value", "Pr(>|z|)")
  }
  table
}

summary.kdr3 <- function(object, correlation = length(object$coefficients) <= 12L, type = "model", ...) {
  V <- stats::vcov(object, type = type)
  structure(list(object = object, coefficients = coefficienttable(object, V), varcor = VarCorr(object), vcov = V, type = type,
                 residuals = if (!categorical(object$family)) stats::quantile(plainresiduals(object, "pearson") / stats::sigma(object)),
                 ngrps = ngrps(object), logLik = stats::logLik(object), sigma = stats::sigma(object), correlation = correlation,
                 AICtab = c(AIC = stats::AIC(object), BIC = stats::BIC(object), logLik = as.numeric(stats::logLik(object)),
                            deviance = stats::deviance(object), df.resid = stats::df.residual(object))),
            class = "summary.kdr3")
}

coef.summary.kdr3 <- function(object, ...) object$coefficients

print.summary.kdr3 <- function(x, digits = max(3, getOption("digits") - 3), signif.stars = FALSE, correlation = x$correlation, ...) {
  object <- x$object
  headline(object)
  cat("\n")
  fitline(object)
  if (!is.null(x$residuals)) {
    cat("\nScaled residuals: \n")
    q <- x$residuals
    names(q) <- c("Min", "1Q", "Median", "3Q", "Max")
    print(zapsmall(q, digits + 1L), digits = digits)
  }
  cat("\nRandom effects:\n")
  printtable(format(x$varcor, digits = digits))
  sizesline(object)
  cat("\nFixed effects", if (x$type != "model") " (robust standard errors)", ":\n", sep = "")
  stats::printCoefmat(x$coefficients, digits = digits, signif.stars = signif.stars, tst.ind = match(c("t value", "z value"), colnames(x$coefficients), 0L)[1L] + 0L,
                      cs.ind = 1:2, P.values = TRUE, has.Pvalue = TRUE, zap.ind = integer())
  if (correlation && nrow(x$coefficients) > 1L) {
    cat("\nCorrelation of Fixed Effects:\n")
    C <- stats::cov2cor(x$vcov)
    names <- abbreviate(rownames(C), 6L)
    text <- matrix(formatC(C, digits = 3L, format = "f"), nrow(C), dimnames = list(rownames(C), names))
    text[!lower.tri(text)] <- ""
    print(text[-1L, -ncol(text), drop = FALSE], quote = FALSE, right = TRUE)
  }
  endline(object)
  invisible(x)
}
