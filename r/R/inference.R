# Intervals, bootstrap, comparisons and tests.

# Names of variances and correlations in intervals, as lme4 has them without old names.
variancenames <- function(object) {
  made <- character()
  varcor <- VarCorr(object)
  for (group in names(varcor)) {
    names <- rownames(varcor[[group]])
    pairs <- which(lower.tri(diag(length(names)), diag = TRUE), arr.ind = TRUE)
    made <- c(made, ifelse(pairs[, 1L] == pairs[, 2L], paste0("sd_", names[pairs[, 1L]], "|", group),
                           paste0("cor_", names[pairs[, 1L]], ".", names[pairs[, 2L]], "|", group)))
  }
  c(made, if (hassigma(object)) "sigma")
}

# Standard deviations, correlations and sigma in the order of the names, from taus and sigma^2.
variancevalues <- function(object, taus = object$taus, sigma2 = object$sigma2) {
  object$taus <- taus
  object$sigma2 <- sigma2
  values <- unlist(lapply(VarCorr(object), function(V) {
    C <- attr(V, "correlation")
    diag(C) <- attr(V, "stddev")
    C[lower.tri(C, diag = TRUE)]
  }), use.names = FALSE)
  c(values, if (hassigma(object)) sqrt(sigma2))
}

confint.kdr3 <- function(object, parm, level = 0.95, method = c("Wald", "profile", "boot"), vcov. = NULL, nsim = 1000, seed = NULL,
                         boot.type = c("perc", "basic"), threads = NULL, ...) {
  method <- match.arg(method)
  made <- switch(method, Wald = waldintervals(object, level, vcov.), profile = profileintervals(object, level),
                 boot = stats::confint(bootstrap(object, nsim, seed = seed, threads = threads), level = level, type = match.arg(boot.type)))
  if (missing(parm)) return(made)
  if (identical(parm, "theta_")) parm <- intersect(rownames(made), variancenames(object))
  if (identical(parm, "beta_")) parm <- names(object$coefficients)
  made[parm, , drop = FALSE]
}

percents <- function(level) paste(format(100 * c((1 - level) / 2, (1 + level) / 2), trim = TRUE, digits = 3), "%")

# By standard errors: effects with the quantile of t of their degrees of freedom, standard deviations on the log scale,
# correlations by the inverse hyperbolic tangent.
waldintervals <- function(object, level, vcov.) {
  V <- if (is.null(vcov.)) object$vcov else if (is.function(vcov.)) vcov.(object) else vcov.
  df <- ifelse(is.na(object$df), Inf, object$df)
  half <- stats::qt((1 + level) / 2, df) * sqrt(diag(V))
  fixed <- cbind(object$coefficients - half, object$coefficients + half)
  rows <- rbind(variancewald(object, stats::qnorm((1 + level) / 2)), fixed)
  dimnames(rows) <- list(c(variancenames(object), names(object$coefficients)), percents(level))
  rows
}

variancewald <- function(object, z) {
  made <- NULL
  for (b in seq_along(object$blocks)) {
    l <- object$blocklevel[b] - 1L
    these <- which(object$owner[[l]] == b)
    if (length(these) == 0L || object$family$family == "multinomial") next
    T <- object$taus[[l]][these, these, drop = FALSE]
    E <- object$tauerrors[[l]][these, these, drop = FALSE]
    for (i in seq_along(these)) for (j in seq(i, length(these))) {
      if (i == j) {
        half <- z * E[i, i] / (2 * T[i, i])
        made <- rbind(made, sqrt(T[i, i]) * exp(c(-half, half)))
      } else {
        made <- rbind(made, c(NA, NA))
      }
    }
  }
  if (object$family$family == "multinomial") made <- matrix(NA_real_, length(variancenames(object)), 2L)
  documentcorrelations(object, z, if (hassigma(object)) {
    half <- z * object$sigma2error / (2 * object$sigma2)
    rbind(made, sqrt(object$sigma2) * exp(c(-half, half)))
  } else made)
}

# Correlations need the covariances of the variances, which the results document has used: its intervals at 95%, put to
# another level on the scale of the inverse hyperbolic tangent.
documentcorrelations <- function(object, z, rows) {
  names <- variancenames(object)
  if (!any(startsWith(names, "cor_"))) return(rows)
  phase <- documented(object, c("final", "quadrature", "laplace6", "pql"))
  intervals <- phase$variance_intervals
  if (is.null(intervals)) return(rows)
  row <- 0L
  for (b in seq_along(object$blocks)) {
    l <- object$blocklevel[b] - 1L
    these <- which(object$owner[[l]] == b)
    matrix <- intervals[[c("tau_pi", "tau_beta")[l]]]$correlation
    place <- object$order$order[[l]][these]
    for (i in seq_along(these)) for (j in seq(i, length(these))) {
      row <- row + 1L
      if (i == j || is.null(matrix)) next
      bounds <- unlist(matrix[[place[j]]][[place[i]]])
      if (length(bounds) != 2L) next
      middle <- mean(atanh(bounds))
      half <- diff(atanh(bounds)) / 2 * z / stats::qnorm(0.975)
      rows[row, ] <- tanh(middle + c(-half, half))
    }
  }
  rows
}

# By the profile of the likelihood, which the library computes at 95%.
profileintervals <- function(object, level) {
  if (!isTRUE(all.equal(level, 0.95))) refuse("Intervals by the profile are of 95%.", class = "kdr3_refused")
  again <- refitted(object, settings = c(PROFILE = 1))
  found <- documented(again, c("final", "quadrature", "laplace6"))$profile_intervals
  if (is.null(found)) refuse("This model has no intervals by the profile of the likelihood: method \"Wald\" or \"boot\" has.", class = "kdr3_refused")
  pair <- function(p) if (length(unlist(p)) == 2L) unlist(p) else {
    p <- lapply(p, function(x) if (is.null(x)) NA_real_ else x)
    if (length(p) == 2L) unlist(p) else c(NA_real_, NA_real_)
  }
  rows <- NULL
  for (b in seq_along(object$blocks)) {
    l <- object$blocklevel[b] - 1L
    these <- which(object$owner[[l]] == b)
    place <- object$order$order[[l]][these]
    tau <- found[[c("tau_pi", "tau_beta")[l]]]
    for (i in seq_along(these)) for (j in seq(i, length(these)))
      rows <- rbind(rows, pair(if (i == j) tau$standard_deviation[[place[i]]] else tau$correlation[[place[j]]][[place[i]]]))
  }
  if (hassigma(object)) rows <- rbind(rows, sqrt(pair(found$sigma2)))
  effects <- found$fixed_effects
  back <- integer()
  back[object$order$fixed] <- seq_along(object$order$fixed)
  rows <- rbind(rows, do.call(rbind, lapply(back, function(i) if (is.null(effects)) c(NA, NA) else pair(effects[[i]]))))
  dimnames(rows) <- list(c(variancenames(object), names(object$coefficients)), percents(level))
  rows
}

# ---- Bootstrap -------------------------------------------------------------------------------------------------------

# The library's: replicates in threads, each started from the fit.
bootstrap <- function(object, nsim = 1000, seed = NULL, cases = FALSE, threads = NULL, ...) {
  if (!inherits(object, "kdr3")) refuse("bootstrap() needs a fit of kdr3().", class = "kdr3_refused")
  if (categorical(object$family) && !cases)
    refuse("Outcomes with categories have a bootstrap of whole units alone: bootstrap(object, cases = TRUE).", class = "kdr3_refused")
  if (is.null(seed)) seed <- sample.int(.Machine$integer.max, 1L)
  if (is.null(threads)) threads <- getOption("mc.cores", 0)  # 0: one for each core
  fit <- refitted(object, settings = c(THREADS = threads), bootstrap = list(replicates = as.integer(nsim), seed = as.double(seed), cases = isTRUE(cases)))
  rows <- t(apply(fit$replicates, 1L, replicaterow, object = fit))
  colnames(rows) <- c(variancenames(fit), names(fit$coefficients))
  structure(list(t0 = stats::setNames(c(variancevalues(fit), fit$coefficients), colnames(rows)), t = rows, R = nsim, seed = seed, cases = isTRUE(cases),
                 failed = sum(is.na(rows[, ncol(rows)])), call = match.call()), class = c("kdr3_bootstrap", "boot"))
}

# A row of the library, fixed effects, lower triangles of both taus, sigma^2, as standard deviations, correlations, sigma
# and the coefficients of the object.
replicaterow <- function(row, object) {
  at <- length(object$coefficients)
  taus <- object$taus
  for (l in 1:2) {
    n <- nrow(taus[[l]])
    m <- matrix(0, n, n)
    m[upper.tri(m, diag = TRUE)] <- row[at + seq_len(n * (n + 1) / 2)]  # by columns as the lower one by rows
    m[lower.tri(m)] <- t(m)[lower.tri(m)]
    place <- object$order$order[[l]]
    place <- inallsets(place, if (length(place) > 0L) n / length(place) else 1L)
    taus[[l]][] <- m[place, place]
    at <- at + n * (n + 1) / 2
  }
  c(suppressWarnings(variancevalues(object, taus, row[at + 1])), row[object$order$coefficients])
}

confint.kdr3_bootstrap <- function(object, parm, level = 0.95, type = c("perc", "basic"), ...) {
  type <- match.arg(type)
  a <- (1 - level) / 2
  q <- t(apply(object$t, 2L, stats::quantile, c(a, 1 - a), na.rm = TRUE, type = 6, names = FALSE))
  made <- if (type == "perc") q else cbind(2 * object$t0 - q[, 2L], 2 * object$t0 - q[, 1L])
  dimnames(made) <- list(colnames(object$t), percents(level))
  if (missing(parm)) made else made[parm, , drop = FALSE]
}

print.kdr3_bootstrap <- function(x, ...) {
  cat(if (x$cases) "Bootstrap of units," else "Parametric bootstrap,", x$R, "replicates,", x$failed, "without a fit that converged\n")
  print(cbind(original = x$t0, bias = colMeans(x$t, na.rm = TRUE) - x$t0, `std. error` = apply(x$t, 2L, stats::sd, na.rm = TRUE)))
  invisible(x)
}

# ---- Comparisons -----------------------------------------------------------------------------------------------------

anova.kdr3 <- function(object, ..., refit = TRUE, test = c("mixture", "chisq"), type = "model") {
  others <- Filter(function(x) inherits(x, "kdr3"), list(...))
  if (length(others) == 0L) return(termtests(object, type))
  test <- match.arg(test)
  names <- vapply(as.list(match.call(expand.dots = FALSE)$...), deparse1, "")[vapply(list(...), inherits, NA, "kdr3")]
  comparemodels(c(list(object), others), c(deparse1(substitute(object)), names), refit, test)
}

# The effects that vary, by grouping.
randomnames <- function(object) {
  made <- lapply(object$blocks, function(b) if (length(b$names) > 0L) paste(b$names, b$group, sep = "|"))
  unlist(made)
}

comparemodels <- function(models, names, refit, test) {
  for (m in models[-1L]) {
    if (nobs(m) != nobs(models[[1L]]))
      refuse("The models were fitted to different numbers of records: ", nobs(models[[1L]]), " and ", nobs(m), ".", class = "kdr3_comparison")
    if (m$family$family != models[[1L]]$family$family) refuse("The models are of different families.", class = "kdr3_comparison")
    if (!isTRUE(all.equal(responseof(m)$y, responseof(models[[1L]])$y))) refuse("The models have different outcomes.", class = "kdr3_comparison")
  }
  restricted <- vapply(models, function(m) m$options$reml, NA)
  fixed <- vapply(models, function(m) paste(sort(names(m$coefficients)), collapse = " "), "")
  if (any(restricted) && (length(unique(fixed)) > 1L || !all(restricted))) {
    if (!refit) refuse("Restricted likelihoods of models with different fixed effects can't be compared.", class = "kdr3_comparison")
    message("refitting model(s) with ML (instead of REML)")
    models[restricted] <- lapply(models[restricted], function(m) {
      m$options$reml <- FALSE
      m$options$ddf <- "counts"
      refitted(m)
    })
  }
  order <- order(vapply(models, parameters, 0L))
  models <- models[order]
  names <- make.unique(names[order])
  ll <- lapply(models, stats::logLik)
  if (anyNA(unlist(ll))) refuse("Quasi-likelihood has no likelihood to compare models by.", class = "kdr3_comparison")
  values <- vapply(ll, as.numeric, 0)
  df <- vapply(models, parameters, 0L)
  gain <- c(NA, pmax(2 * diff(values), 0))
  more <- c(NA, diff(df))
  p <- ifelse(more > 0, stats::pchisq(gain, more, lower.tail = FALSE), NA)
  mixed <- character()
  for (i in seq_along(models)[-1L]) {
    weights <- mixture(models[[i - 1L]], models[[i]])
    if (test == "chisq" || is.null(weights)) next
    p[i] <- sum(weights$weight * vapply(weights$df, function(d) if (d == 0) as.numeric(gain[i] <= 0) else stats::pchisq(gain[i], d, lower.tail = FALSE), 0))
    mixed <- c(mixed, paste0(names[i], ": P of the half-and-half mixture of chi-squares with ", weights$df[1L], " and ", weights$df[2L],
                             " degrees of freedom (a variance is tested)"))
  }
  table <- data.frame(npar = df, AIC = vapply(models, stats::AIC, 0), BIC = vapply(models, stats::BIC, 0), logLik = values,
                      deviance = -2 * values, Chisq = gain, Df = more, `Pr(>Chisq)` = p, row.names = names, check.names = FALSE)
  heading <- c(paste0("Data: ", deparse1(models[[1L]]$call$data)), "Models:",
               paste0(names, ": ", vapply(models, function(m) deparse1(m$formula), "")), mixed)
  structure(table, heading = heading, class = c("anova", "data.frame"))
}

# One more random effect, with its covariances: half chi-square with them less one, half with all. More fixed effects
# add to both. NULL where the models differ otherwise.
mixture <- function(small, large) {
  more <- setdiff(randomnames(large), randomnames(small))
  if (length(more) != 1L || length(setdiff(randomnames(small), randomnames(large))) > 0L) return(NULL)
  if (!all(names(small$coefficients) %in% names(large$coefficients))) return(NULL)
  df <- parameters(large) - parameters(small)
  list(df = c(df - 1L, df), weight = c(0.5, 0.5))
}

# Wald tests of the terms of one model: F where there are denominator degrees of freedom, else chi-square.
termtests <- function(object, type = "model") {
  assign <- object$assign
  labels <- attr(object$terms, "term.labels")
  which <- setdiff(unique(assign), 0L)
  columns <- lapply(which, function(t) base::which(assign == t))
  names <- labels[which]
  V <- stats::vcov(object, type = type)
  sets <- if (object$family$family == "multinomial") length(object$levels) - 1L else 1L
  g <- length(assign)
  columns <- lapply(columns, function(c) as.integer(outer(c, (seq_len(sets) - 1L) * g, `+`)))
  wald <- vapply(columns, function(c) drop(crossprod(object$coefficients[c], solve(V[c, c, drop = FALSE], object$coefficients[c]))), 0)
  k <- lengths(columns)
  if (object$options$ddf != "counts" && type == "model" && length(columns) > 0L) {
    L <- lapply(columns, function(c) diag(length(object$coefficients))[c, , drop = FALSE])
    tests <- refitted(object, hypotheses = L)$hypotheses
    table <- data.frame(NumDF = k, DenDF = ifelse(is.na(tests[3L, ]), Inf, tests[3L, ]), `F value` = tests[1L, ] / k, `Pr(>F)` = tests[4L, ],
                        row.names = names, check.names = FALSE)
    return(structure(table, heading = paste0("Wald tests of terms (", object$options$ddf, ")\n"), class = c("anova", "data.frame")))
  }
  table <- data.frame(Chisq = wald, Df = k, `Pr(>Chisq)` = stats::pchisq(wald, k, lower.tail = FALSE), row.names = names, check.names = FALSE)
  structure(table, heading = "Wald tests of terms\n", class = c("anova", "data.frame"))
}

drop1.kdr3 <- function(object, scope, test = c("none", "Chisq"), ...) {
  test <- match.arg(test)
  if (object$options$reml) refuse("drop1() compares likelihoods: fit with reml = FALSE.", class = "kdr3_comparison")
  fixed <- stats::terms(nobars(object$formula))
  scope <- if (missing(scope)) stats::drop.scope(fixed) else if (is.character(scope)) scope else attr(stats::terms(stats::update.formula(fixed, scope)), "term.labels")
  smaller <- lapply(scope, function(term) {
    model <- object
    model$options$formula <- stats::update.formula(object$formula, stats::as.formula(paste("~ . -", term)))
    model$options$fixed <- nobars(model$options$formula)
    model$options$parts <- randomparts(model$options$formula)
    suppressMessages(refitted(model))
  })
  all <- c(list(object), smaller)
  ll <- vapply(all, function(m) as.numeric(stats::logLik(m)), 0)
  df <- vapply(all, parameters, 0L)
  table <- data.frame(npar = c(NA, df[1L] - df[-1L]), AIC = vapply(all, stats::AIC, 0), row.names = c("<none>", scope))
  if (test == "Chisq") {
    table$LRT <- c(NA, pmax(2 * (ll[1L] - ll[-1L]), 0))
    table[["Pr(Chi)"]] <- stats::pchisq(table$LRT, table$npar, lower.tail = FALSE)
  }
  structure(table, heading = c("Single term deletions", "\nModel:", deparse1(object$formula)), class = c("anova", "data.frame"))
}
