# Imputed data sets and plausible values: fits to each, pooled by Rubin's rules.

fitimputed <- function(call, data, env) {
  if (inherits(data, "mids")) {
    if (!requireNamespace("mice", quietly = TRUE)) refuse("An object of class mids needs the package mice.", class = "kdr3_refused")
    data <- mice::complete(data, "all")
  }
  if (length(data) < 2L) refuse("A list of imputed data sets has two or more.", class = "kdr3_refused")
  fits <- lapply(seq_along(data), function(i) {
    one <- call
    one$data <- data[[i]]
    fit <- tryCatch(eval(one, env), kdr3_error = function(e) refuse("Data set ", i, ": ", conditionMessage(e), class = class(e)))
    fit$call <- call
    fit
  })
  pooled(fits, call)
}

# The outcome (or a predictor) of the formula is the first of the plausible values; the others take its place.
fitplausible <- function(call, formula, plausible, env) {
  if (!is.character(plausible) || length(plausible) < 2L) refuse("plausible names the columns of two or more plausible values.", class = "kdr3_refused")
  if (!plausible[1L] %in% all.vars(formula)) refuse("The first plausible value, ", plausible[1L], ", doesn't stand in the formula.", class = "kdr3_refused")
  if (any(plausible[-1L] %in% all.vars(formula))) refuse("Only the first plausible value stands in the formula.", class = "kdr3_refused")
  fits <- lapply(plausible, function(name) {
    one <- call
    one$plausible <- NULL
    one$formula <- do.call(substitute, list(formula, stats::setNames(list(as.name(name)), plausible[1L])))
    one$formula <- stats::as.formula(one$formula, environment(formula))
    eval(one, env)
  })
  names <- names(fits[[1L]]$coefficients)
  fits <- lapply(fits, function(f) renamed(f, names))
  pooled(fits, call)
}

renamed <- function(fit, names) {
  if (length(fit$coefficients) != length(names)) refuse("The fits to the plausible values have different fixed effects.", class = "kdr3_refused")
  names(fit$coefficients) <- names
  dimnames(fit$vcov) <- dimnames(fit$robust) <- list(names, names)
  fit
}

# Within V, between B, total V + (1 + 1/M) B; degrees of freedom (M - 1)(V / T + 1)^2 with T = (1 + 1/M) B, cut to a
# whole number and no more than those of the complete data.
pooled <- function(fits, call) {
  M <- length(fits)
  names <- names(fits[[1L]]$coefficients)
  for (f in fits) if (!identical(names(f$coefficients), names)) refuse("The fits have different fixed effects.", class = "kdr3_refused")
  b <- vapply(fits, function(f) f$coefficients, numeric(length(names)))
  b <- matrix(b, length(names), M)
  between <- stats::cov(t(b)) * (1 + 1 / M)
  rule <- function(which) {
    within <- Reduce(`+`, lapply(fits, `[[`, which)) / M
    total <- within + between
    dimnames(total) <- list(names, names)
    list(total = total, within = within)
  }
  model <- rule("vcov")
  V <- diag(model$within)
  T <- diag(between)
  free <- ifelse(T > 0, (M - 1) * (V / T + 1)^2, Inf)
  most <- vapply(seq_along(names), function(i) max(vapply(fits, function(f) f$df[[i]], 0)), 0)
  most[is.na(most)] <- Inf
  r <- T / V
  structure(list(coefficients = stats::setNames(rowMeans(b), names), vcov = model$total, robust = rule("robust")$total,
                 within = model$within, between = between / (1 + 1 / M), df = stats::setNames(pmin(floor(free), most), names),
                 fmi = stats::setNames(ifelse(T > 0, (r + 2 / (free + 3)) / (r + 1), 0), names),
                 taus = lapply(1:2, function(l) Reduce(`+`, lapply(fits, function(f) f$taus[[l]])) / M),
                 sigma2 = mean(vapply(fits, `[[`, 0, "sigma2")), fits = fits, M = M, call = call), class = "kdr3_pooled")
}

coef.kdr3_pooled <- function(object, ...) object$coefficients
fixef.kdr3_pooled <- function(object, ...) object$coefficients
nobs.kdr3_pooled <- function(object, ...) nobs(object$fits[[1L]])
sigma.kdr3_pooled <- function(object, ...) sqrt(object$sigma2)
vcov.kdr3_pooled <- function(object, type = c("model", "robust"), ...) if (match.arg(type) == "model") object$vcov else object$robust
VarCorr.kdr3_pooled <- function(x, sigma = 1, ...) {
  model <- x$fits[[1L]]
  model$taus <- x$taus
  model$sigma2 <- x$sigma2
  VarCorr(model, sigma)
}

confint.kdr3_pooled <- function(object, parm, level = 0.95, ...) {
  half <- stats::qt((1 + level) / 2, object$df) * sqrt(diag(object$vcov))
  made <- cbind(object$coefficients - half, object$coefficients + half)
  dimnames(made) <- list(names(object$coefficients), percents(level))
  if (missing(parm)) made else made[parm, , drop = FALSE]
}

summary.kdr3_pooled <- function(object, ...) {
  table <- coefficienttable(object)
  cbind(table, fmi = object$fmi)
}

print.kdr3_pooled <- function(x, digits = max(3, getOption("digits") - 3), ...) {
  cat("Averages of", x$M, "fits ['kdr3'], by Rubin's rules\nFormula:", deparse1(x$fits[[1L]]$formula), "\nRandom effects:\n")
  print(VarCorr(x), digits = digits)
  sizesline(x$fits[[1L]])
  cat("Fixed effects:\n")
  print(summary(x), digits = digits)
  invisible(x)
}

# Wald tests of the terms, pooled after Li, Raghunathan and Rubin (1991).
anova.kdr3_pooled <- function(object, ...) {
  model <- object$fits[[1L]]
  which <- setdiff(unique(model$assign), 0L)
  M <- object$M
  rows <- lapply(which, function(t) {
    c <- base::which(model$assign == t)
    k <- length(c)
    U <- object$within[c, c, drop = FALSE]
    e <- object$coefficients[c]
    r <- (1 + 1 / M) * sum(diag(object$between[c, c, drop = FALSE] %*% solve(U))) / k
    D <- drop(crossprod(e, solve(U, e))) / (k * (1 + r))
    a <- k * (M - 1)
    df2 <- if (r == 0) Inf else if (a > 4) 4 + (a - 4) * (1 + (1 - 2 / a) / r)^2 else a * (1 + 1 / k) * (1 + 1 / r)^2 / 2
    data.frame(NumDF = k, DenDF = df2, `F value` = D, `Pr(>F)` = stats::pf(D, k, df2, lower.tail = FALSE), check.names = FALSE)
  })
  table <- do.call(rbind, rows)
  rownames(table) <- attr(model$terms, "term.labels")[which]
  structure(table, heading = "Pooled Wald tests of terms\n", class = c("anova", "data.frame"))
}

tidy.kdr3_pooled <- function(x, conf.int = FALSE, conf.level = 0.95, ...) {
  table <- coefficienttable(x)
  made <- data.frame(term = rownames(table), estimate = table[, 1L], std.error = table[, 2L], statistic = x$coefficients / table[, 2L],
                     df = x$df, p.value = table[, ncol(table)], fmi = x$fmi, row.names = NULL)
  if (conf.int) {
    interval <- stats::confint(x, level = conf.level)
    made$conf.low <- interval[, 1L]
    made$conf.high <- interval[, 2L]
  }
  made
}

glance.kdr3_pooled <- function(x, ...) data.frame(nimp = x$M, nobs = nobs(x), sigma = stats::sigma(x))
