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
  method <- chosen(method, c("Wald", "profile", "boot"), "method")
  checklevel(level)
  unused(..., known = c("oldNames", "signames", "quiet"))
  made <- switch(method, Wald = waldintervals(object, level, vcov.), profile = profileintervals(object, level),
                 boot = stats::confint(bootstrap(object, nsim, seed = seed, threads = threads), level = level, type = match.arg(boot.type)))
  if (missing(parm)) return(made)
  if (identical(parm, "theta_")) parm <- intersect(rownames(made), variancenames(object))
  if (identical(parm, "beta_")) parm <- names(object$coefficients)
  rowsof(made, parm)
}

checklevel <- function(level)
  if (!is.numeric(level) || length(level) != 1L || is.na(level) || level <= 0 || level >= 1)
    refuse("level is a number between 0 and 1, such as 0.95.", class = "kdr3_refused")

# The rows of a table of intervals that are asked for, by their names or numbers.
rowsof <- function(table, parm) {
  unknown <- if (is.character(parm)) setdiff(parm, rownames(table)) else setdiff(abs(parm), seq_len(nrow(table)))
  if (length(unknown) > 0L)
    refuse("There is no interval of ", unknown[1L], ": there are ", paste(rownames(table), collapse = ", "), ".", class = "kdr3_refused")
  table[parm, , drop = FALSE]
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
    these <- elementsof(object, b)
    T <- object$taus[[l]]
    E <- object$tauerrors[[l]]
    for (i in seq_along(these)) for (j in seq(i, length(these))) {
      k <- these[i]
      half <- z * E[k, k] / (2 * T[k, k])
      made <- rbind(made, if (i == j) sqrt(T[k, k]) * exp(c(-half, half)) else c(NA, NA))
    }
  }
  documentcorrelations(object, z, if (hassigma(object)) {
    half <- z * object$sigma2error / (2 * object$sigma2)
    rbind(made, sqrt(object$sigma2) * exp(c(-half, half)))
  } else made)
}

# The places of a block's effects in the matrix of its level, of a multinomial outcome those of all categories.
elementsof <- function(object, b) {
  l <- object$blocklevel[b] - 1L
  n <- length(object$owner[[l]])
  these <- which(object$owner[[l]] == b)
  sets <- if (n > 0L) nrow(object$taus[[l]]) / n else 1
  as.integer(outer(these, (seq_len(sets) - 1L) * n, `+`))
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
    these <- elementsof(object, b)
    matrix <- intervals[[c("tau_pi", "tau_beta")[l]]]$correlation
    order <- object$order$order[[l]]
    place <- inallsets(order, if (length(order) > 0L) nrow(object$taus[[l]]) / length(order) else 1L)[these]
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
  checkcount(nsim, "nsim")
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
  checklevel(level)
  a <- (1 - level) / 2
  q <- t(apply(object$t, 2L, stats::quantile, c(a, 1 - a), na.rm = TRUE, type = 6, names = FALSE))
  made <- if (type == "perc") q else cbind(2 * object$t0 - q[, 2L], 2 * object$t0 - q[, 1L])
  dimnames(made) <- list(colnames(object$t), percents(level))
  if (missing(parm)) made else rowsof(made, parm)
}

print.kdr3_bootstrap <- function(x, ...) {
  cat(if (x$cases) "Bootstrap of units," else "Parametric bootstrap,", x$R, "replicates,", x$failed, "without a fit that converged\n")
  print(cbind(original = x$t0, bias = colMeans(x$t, na.rm = TRUE) - x$t0, `std. error` = apply(x$t, 2L, stats::sd, na.rm = TRUE)))
  invisible(x)
}

# ---- Comparisons -----------------------------------------------------------------------------------------------------

anova.kdr3 <- function(object, ..., refit = TRUE, test = c("mixture", "chisq"), type = "model") {
  test <- chosen(test, c("mixture", "chisq"), "test")
  others <- list(...)
  for (x in others) if (!inherits(x, "kdr3"))
    refuse("anova() compares fits of kdr3(), not an object of class ", class(x)[1L], ".", class = "kdr3_comparison")
  if (length(others) == 0L) return(termtests(object, type))
  names <- c(deparse1(substitute(object)), vapply(as.list(match.call(expand.dots = FALSE)$...), deparse1, ""))
  comparemodels(c(list(object), others), names, refit, test)
}

# Why the likelihoods of two models say nothing about each other: a sentence, or NULL.
incomparable <- function(a, b) {
  if (nobs(a) != nobs(b)) return(paste0("The models were fitted to different numbers of records: ", nobs(a), " and ", nobs(b), "."))
  if (a$family$family != b$family$family) return("The models are of different families.")
  one <- responseof(a)
  other <- responseof(b)
  if (!identical(one$levels, other$levels) || !isTRUE(all.equal(one$y, other$y))) return("The models have different outcomes.")
  for (what in c("counts", "weights", "offset"))
    if (!isTRUE(all.equal(one[[what]], other[[what]], check.attributes = FALSE)))
      return(paste0("The models have different ", c(counts = "trials or exposures", weights = "weights", offset = "offsets")[[what]], "."))
  for (name in setdiff(intersect(names(a$frame), names(b$frame)), "(weights)"))
    if (!samevalues(a$frame[[name]], b$frame[[name]])) return(paste0("The models rest on other data: ", name, " is not the same."))
  if (isweighted(a) || isweighted(b)) return("The likelihood is weighted, and twice its difference has no chi-square distribution.")
  if (anyNA(c(stats::logLik(a), stats::logLik(b)))) return("Quasi-likelihood has no likelihood to compare models by.")
  if (likelihoodof(a) != likelihoodof(b))
    return(paste0("The likelihoods are of two kinds: ", likelihoodof(a), " and ", likelihoodof(b), "."))
  if (!identical(heldsigma(a), heldsigma(b))) return("The level-1 variance is held in one of the models, or at two values.")
  NULL
}

samevalues <- function(a, b) {
  if (is.factor(a) || is.character(a)) return(identical(as.character(a), as.character(b)))
  isTRUE(all.equal(a, b, check.attributes = FALSE))
}

isweighted <- function(object) any(startsWith(names(object$frame), "(weights") & names(object$frame) != "(weights)")

# Of which likelihood the estimates are the maximum.
likelihoodof <- function(object) {
  if (hassigma(object)) return("that of a linear model")
  points <- pointsof(object)
  if (object$engine == "laplace6") "the Laplace approximation of order 6" else if (identical(points, 1L)) "the Laplace approximation" else
    if (identical(points, 0L)) "quadrature with fixed nodes" else "quadrature"
}

isreached <- function(object) {
  phase <- lastphase(object)
  isTRUE(object$converged) && !isFALSE(phase$converged) && !isTRUE(phase$ending %in% c("limit", "keyboard", "separation", "lost"))
}

# The effects that vary with their unit, and the pairs of them whose covariance is free. Groupings of two models are the
# same where their units are, whatever they are called.
randomof <- function(object, groups) {
  effects <- pairs <- character()
  for (block in Filter(function(b) length(b$names) > 0L, object$blocks)) {
    codes <- Find(function(g) identical(g$name, block$group), object$groups)$codes
    at <- which(vapply(groups, identical, NA, match(codes, unique(codes))))[1L]
    names <- paste(block$names, at, sep = "|")
    effects <- c(effects, names)
    pairs <- c(pairs, outer(names, names, paste))
  }
  list(effects = effects, pairs = pairs)
}

# Whether the columns of X give those of Z.
spans <- function(X, Z) {
  if (all(colnames(Z) %in% colnames(X))) return(TRUE)
  left <- qr.resid(qr(X), Z)
  all(sqrt(colSums(left^2)) <= 1e-8 * sqrt(colSums(Z^2)))
}

# What the larger of two models has more: the number of random effects, or why there is no test of it (a sentence).
nesting <- function(small, large, names) {
  groups <- unlist(lapply(list(small, large), function(m) lapply(Filter(Negate(is.null), unname(m$groups)), function(g) match(g$codes, unique(g$codes)))),
                   recursive = FALSE)
  s <- randomof(small, groups)
  l <- randomof(large, groups)
  if (parameters(small) == parameters(large)) return(paste0(names[1L], " and ", names[2L], " have the same number of parameters: no test."))
  if (!spans(model.matrix(large), model.matrix(small)) || !all(s$effects %in% l$effects) || !all(s$pairs %in% l$pairs))
    return(paste0(names[1L], " is no part of ", names[2L], ": no test."))
  gain <- 2 * (as.numeric(stats::logLik(large)) - as.numeric(stats::logLik(small)))
  if (gain < -1e-7 * abs(2 * as.numeric(stats::logLik(large))))
    return(paste0(names[2L], " has more parameters and fits worse, so that one of them is not at its maximum: no test."))
  sets <- if (large$family$family == "multinomial") length(large$levels) - 1L else 1L
  length(setdiff(l$effects, s$effects)) * sets
}

comparemodels <- function(models, names, refit, test) {
  for (m in models[-1L]) {
    why <- incomparable(models[[1L]], m)
    if (!is.null(why)) refuse(why, class = "kdr3_comparison")
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
  for (i in seq_along(models)) if (!isreached(models[[i]]))
    refuse(names[i], " did not converge, or failed its check: its likelihood is no maximum.", class = "kdr3_comparison")
  order <- order(vapply(models, parameters, 0L))
  models <- models[order]
  names <- make.unique(names[order])
  values <- vapply(models, function(m) as.numeric(stats::logLik(m)), 0)
  df <- vapply(models, parameters, 0L)
  gain <- more <- p <- rep(NA_real_, length(models))
  notes <- character()
  for (i in seq_along(models)[-1L]) {
    extra <- nesting(models[[i - 1L]], models[[i]], names[c(i - 1L, i)])
    if (is.character(extra)) {
      notes <- c(notes, extra)
      next
    }
    gain[i] <- max(2 * (values[i] - values[i - 1L]), 0)
    more[i] <- df[i] - df[i - 1L]
    p[i] <- stats::pchisq(gain[i], more[i], lower.tail = FALSE)
    if (test == "chisq" || extra == 0L) next
    if (extra == 1L) {
      p[i] <- if (gain[i] == 0) 1 else (p[i] + if (more[i] > 1) stats::pchisq(gain[i], more[i] - 1, lower.tail = FALSE) else 0) / 2
      notes <- c(notes, paste0(names[i], ": P of the half-and-half mixture of chi-squares with ", more[i] - 1, " and ", more[i],
                               " degrees of freedom (a variance is tested)"))
    } else {
      notes <- c(notes, paste0(names[i], " has ", extra, " random effects more, whose variances are 0 in ", names[i - 1L],
                               ", at the edge of what is possible: P is too large."))
    }
  }
  points <- unique(unlist(lapply(models, pointsof)))
  if (length(points) > 1L) notes <- c(notes, paste0("The likelihoods rest on ", paste(points, collapse = " and "), " quadrature points."))
  table <- data.frame(npar = df, AIC = vapply(models, stats::AIC, 0), BIC = vapply(models, stats::BIC, 0), logLik = values,
                      deviance = -2 * values, Chisq = gain, Df = more, `Pr(>Chisq)` = p, row.names = names, check.names = FALSE)
  heading <- c(paste0("Data: ", deparse1(models[[1L]]$call$data)), "Models:",
               paste0(names, ": ", vapply(models, function(m) deparse1(m$formula), "")), notes)
  structure(table, heading = heading, class = c("anova", "data.frame"))
}

# The coefficients of a term, of a multinomial outcome those of all categories.
termcolumns <- function(object, term) {
  sets <- if (object$family$family == "multinomial") length(object$levels) - 1L else 1L
  as.integer(outer(which(object$assign == term), (seq_len(sets) - 1L) * length(object$assign), `+`))
}

# Wald tests of the terms of one model: F where there are denominator degrees of freedom, else chi-square.
termtests <- function(object, type = "model") {
  assign <- object$assign
  labels <- attr(object$terms, "term.labels")
  which <- setdiff(unique(assign), 0L)
  columns <- lapply(which, function(t) termcolumns(object, t))
  names <- labels[which]
  V <- stats::vcov(object, type = type)
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
  why <- incomparable(object, object)
  if (!is.null(why)) refuse(why, class = "kdr3_comparison")
  fixed <- stats::terms(nobars(object$formula))
  scope <- if (missing(scope)) stats::drop.scope(fixed) else if (is.character(scope)) scope else attr(stats::terms(stats::update.formula(fixed, scope)), "term.labels")
  strange <- setdiff(scope, attr(fixed, "term.labels"))
  if (length(strange) > 0L) refuse("The model has no term ", strange[1L], " to be dropped.", class = "kdr3_refused")
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
