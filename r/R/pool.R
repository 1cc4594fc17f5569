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
    fit <- numbered(i, eval(one, env))
    fit$call <- call
    fit
  })
  pooled(fits, call)
}

# Errors and warnings of the fit of one data set, with its number.
numbered <- function(i, expression) {
  withCallingHandlers(
    tryCatch(expression, kdr3_error = function(e) refuse("Data set ", i, ": ", conditionMessage(e), class = class(e)[1L])),
    kdr3_warning = function(w) {
      warn(paste0("Data set ", i, ": ", conditionMessage(w)), class = class(w)[1L])
      tryInvokeRestart("muffleWarning")
    })
}

# The outcome (or a predictor) of the formula is the first of the plausible values; the others take its place.
fitplausible <- function(call, formula, plausible, env) {
  if (!is.character(plausible) || length(plausible) < 2L) refuse("plausible names the columns of two or more plausible values.", class = "kdr3_refused")
  if (!plausible[1L] %in% all.vars(formula)) refuse("The first plausible value, ", plausible[1L], ", doesn't stand in the formula.", class = "kdr3_refused")
  if (any(plausible[-1L] %in% all.vars(formula))) refuse("Only the first plausible value stands in the formula.", class = "kdr3_refused")
  fits <- lapply(seq_along(plausible), function(i) {
    name <- plausible[i]
    one <- call
    one$plausible <- NULL
    one$formula <- do.call(substitute, list(formula, stats::setNames(list(as.name(name)), plausible[1L])))
    one$formula <- stats::as.formula(one$formula, environment(formula))
    numbered(i, eval(one, env))
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

# Why the fits are of different models, which no average can be of: a sentence, or NULL.
differentmodels <- function(a, b) {
  if (!identical(names(a$coefficients), names(b$coefficients))) return("the fixed effects differ")
  both <- function(x, y) paste(paste(x, collapse = ", "), "and", paste(y, collapse = ", "))
  if (!identical(a$levels, b$levels)) return(paste("the categories of the outcome are", both(a$levels, b$levels)))
  if (!identical(lapply(a$taus, rownames), lapply(b$taus, rownames))) return("the random effects differ")
  for (factor in intersect(names(a$xlevels), variablenames(a$terms)))
    if (!identical(a$xlevels[[factor]], b$xlevels[[factor]]))
      return(paste0("the levels of ", factor, " are ", both(a$xlevels[[factor]], b$xlevels[[factor]])))
  if (!identical(a$contrasts, b$contrasts)) return("the contrasts differ")
  if (a$engine != b$engine) return("the engines differ")
  NULL
}

# What the fits of one model have that their averages should be read with.
tellpooled <- function(fits) {
  n <- vapply(fits, nobs, 0L)
  if (length(unique(n)) > 1L)
    warn(paste0("The fits are of different records: ", paste(n, collapse = ", "), ". Imputed data have the same."), class = "kdr3_fitwarning")
  units <- lapply(fits, function(f) lapply(f$groups, function(g) sort(g$labels)))
  if (!all(vapply(units, identical, NA, units[[1L]])))
    warn("The fits are of different units.", class = "kdr3_fitwarning")
  bases <- vapply(fits, function(f) {
    made <- as.list(attr(f$terms, "predvars"))  # with knots and the like, where a variable is made of all values
    paste(vapply(made[!mapply(identical, made, as.list(attr(f$terms, "variables")))], deparse1, ""), collapse = "; ")
  }, "")
  if (length(unique(bases)) > 1L)
    warn(paste("Terms like poly(), ns() and scale() are made of each data set by itself, so that their effects are of different columns:",
               "give them fixed knots, coefficients or centers."), class = "kdr3_fitwarning")
}

# Within V, between B, total V + (1 + 1/M) B; degrees of freedom (M - 1)(V / T + 1)^2 with T = (1 + 1/M) B, cut to a
# whole number and no more than the mean of those of the data sets.
pooled <- function(fits, call) {
  M <- length(fits)
  names <- names(fits[[1L]]$coefficients)
  for (i in seq_along(fits)[-1L]) {
    why <- differentmodels(fits[[1L]], fits[[i]])
    if (!is.null(why)) refuse("Data sets 1 and ", i, " lead to different models: ", why, ".", class = "kdr3_comparison")
  }
  tellpooled(fits)
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
  most <- vapply(seq_along(names), function(i) mean(vapply(fits, function(f) f$df[[i]], 0)), 0)
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
formula.kdr3_pooled <- function(x, ...) stats::formula(x$fits[[1L]], ...)
terms.kdr3_pooled <- function(x, ...) x$fits[[1L]]$terms
family.kdr3_pooled <- function(object, ...) object$fits[[1L]]$family
ngrps.kdr3_pooled <- function(object, ...) ngrps(object$fits[[1L]])
sigma.kdr3_pooled <- function(object, ...) sqrt(object$sigma2)

vcov.kdr3_pooled <- function(object, type = c("model", "robust", "CR2"), ...) {
  type <- chosen(type, c("model", "robust", "CR2"), "type")
  if (type == "model") return(object$vcov)
  within <- Reduce(`+`, lapply(object$fits, stats::vcov, type = type)) / object$M
  within + (1 + 1 / object$M) * object$between
}

# What has no average: each fit has a likelihood and records of its own.
logLik.kdr3_pooled <- function(object, ...)
  refuse("Averages have no likelihood, nor AIC, BIC or deviance: each of the fits, object$fits, has its own.", class = "kdr3_refused")
deviance.kdr3_pooled <- logLik.kdr3_pooled
df.residual.kdr3_pooled <- function(object, ...) refuse("Averages have degrees of freedom for each effect, object$df.", class = "kdr3_refused")
ownrecords <- function(object, ...) refuse("Averages have no records of their own: each of the fits, object$fits, has its own.", class = "kdr3_refused")
model.frame.kdr3_pooled <- function(formula, ...) ownrecords(formula)
residuals.kdr3_pooled <- model.matrix.kdr3_pooled <- simulate.kdr3_pooled <- ownrecords
drop1.kdr3_pooled <- function(object, ...) refuse("drop1() compares likelihoods, which averages don't have: anova() tests each term.", class = "kdr3_refused")

fitted.kdr3_pooled <- function(object, ...) Reduce(`+`, lapply(object$fits, stats::fitted)) / object$M

# Means of the effects; their variances are those of the fits and between them.
ranef.kdr3_pooled <- function(object, condVar = TRUE, ...) {
  each <- lapply(object$fits, ranef)
  made <- each[[1L]]
  for (g in names(made)) {
    u <- simplify2array(lapply(each, function(e) as.matrix(e[[g]][rownames(made[[g]]), , drop = FALSE])))
    C <- lapply(each, function(e) attr(e[[g]], "postVar")[, , match(rownames(made[[g]]), rownames(e[[g]])), drop = FALSE])
    made[[g]][] <- apply(u, 1:2, mean)
    between <- array(apply(u, 1L, function(x) stats::cov(t(matrix(x, ncol = object$M)))), dim(C[[1L]]))
    attr(made[[g]], "postVar") <- if (condVar) Reduce(`+`, C) / object$M + (1 + 1 / object$M) * between
  }
  made
}

# Means of the fits' predictions; errors by Rubin's rules.
predict.kdr3_pooled <- function(object, newdata = NULL, type = c("link", "response"), se.fit = FALSE, ...) {
  type <- chosen(type, c("link", "response"), "type")
  if (is.null(newdata)) return(if (se.fit) ownrecords(object) else Reduce(`+`, lapply(object$fits, stats::predict, type = type, ...)) / object$M)
  each <- lapply(object$fits, stats::predict, newdata = newdata, type = type, se.fit = se.fit, ...)
  if (!se.fit) return(Reduce(`+`, each) / object$M)
  fit <- Reduce(`+`, lapply(each, `[[`, "fit")) / object$M
  within <- Reduce(`+`, lapply(each, function(e) e$se.fit^2)) / object$M
  between <- Reduce(`+`, lapply(each, function(e) (e$fit - fit)^2)) / (object$M - 1)
  list(fit = fit, se.fit = sqrt(within + (1 + 1 / object$M) * between), residual.scale = stats::sigma(object))
}

# A fit with the averages in the places of its estimates.
averagefit <- function(object) {
  model <- object$fits[[1L]]
  for (part in c("coefficients", "vcov", "robust", "df", "taus", "sigma2")) model[[part]] <- object[[part]]
  model$options$ddf <- "counts"  # those of a contrast are the least of its effects
  model
}

VarCorr.kdr3_pooled <- function(x, sigma = 1, ...) VarCorr(averagefit(x), sigma)
recover_data.kdr3_pooled <- function(object, ...) emmeans::recover_data(averagefit(object), ...)
emm_basis.kdr3_pooled <- function(object, ...) emmeans::emm_basis(averagefit(object), ...)

confint.kdr3_pooled <- function(object, parm, level = 0.95, method = "Wald", vcov. = NULL, ...) {
  chosen(method, "Wald", "method")
  checklevel(level)
  V <- if (is.null(vcov.)) object$vcov else if (is.function(vcov.)) vcov.(object) else vcov.
  half <- stats::qt((1 + level) / 2, object$df) * sqrt(diag(V))
  made <- cbind(object$coefficients - half, object$coefficients + half)
  dimnames(made) <- list(names(object$coefficients), percents(level))
  if (missing(parm)) made else rowsof(made, if (identical(parm, "beta_")) names(object$coefficients) else parm)
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
  if (...length() > 0L) refuse("Averages have no likelihood to compare models by: anova() of one tests each of its terms.", class = "kdr3_comparison")
  model <- object$fits[[1L]]
  which <- setdiff(unique(model$assign), 0L)
  M <- object$M
  rows <- lapply(which, function(t) {
    c <- termcolumns(model, t)
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
