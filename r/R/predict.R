# Predictions and simulated outcomes.

# Which levels of random effects a prediction has: re.form NULL all, NA or ~0 none, or a formula with some of the bars.
wantedblocks <- function(object, re.form) {
  if (is.null(re.form)) return(seq_along(object$blocks))
  if (!inherits(re.form, "formula")) return(integer())
  bars <- findbars(re.form)
  if (length(bars) == 0L) return(integer())
  wanted <- lapply(randomparts(re.form), function(part) list(group = part$group,
    names = colnames(stats::model.matrix(partterms(stats::as.formula(call("~", part$effects)), attr(object$frame, "terms")), object$frame))))
  which(vapply(object$blocks, function(b) any(vapply(wanted, function(w) w$group == b$group && all(b$names %in% w$names), NA)), NA))
}

# X and the Z of each block of new data, the codes of their units (NA: a new one), and the offset. NULL is the fit's own data.
newdesign <- function(object, newdata, blocks, allow.new.levels, na.action) {
  if (is.null(newdata)) {
    frame <- object$frame
    Z <- lapply(object$blocks[blocks], function(b) stats::model.matrix(b$terms, frame)[, b$columns, drop = FALSE])
    return(list(X = fixedmatrix(object, object$terms, frame), Z = Z, level2 = object$groups$level2$codes,
                level3 = object$groups$level3$codes, offset = stats::model.offset(frame), names = rownames(frame), omitted = object$na.action))
  }
  if (!is.list(newdata)) refuse("newdata is a data frame, not an object of class ", class(newdata)[1L], ".", class = "kdr3_data")
  newdata <- as.data.frame(newdata, optional = TRUE)
  tt <- stats::delete.response(object$terms)
  variables <- names(newdata)
  frameof <- function(tt) {
    absent <- setdiff(all.vars(stats::formula(tt)), c(variables, ls(environment(object$formula), all.names = TRUE)))
    absent <- absent[!vapply(absent, exists, NA, envir = environment(object$formula))]
    if (length(absent) > 0L) refuse("The new data have no column ", absent[1L], ".", class = "kdr3_data")
    tryCatch(stats::model.frame(tt, newdata, na.action = stats::na.pass, xlev = object$xlevels[intersect(names(object$xlevels), variablenames(tt))]),
             error = function(e) refuse(conditionMessage(e), class = "kdr3_data"))
  }
  frame <- frameof(tt)
  X <- fixedmatrix(object, tt, frame)
  Z <- lapply(object$blocks[blocks], function(b) stats::model.matrix(b$terms, frameof(b$terms))[, b$columns, drop = FALSE])
  offset <- stats::model.offset(frame)
  if (!is.null(object$call$offset)) {
    extra <- eval(object$call$offset, newdata, environment(object$formula))
    offset <- if (is.null(offset)) extra else offset + extra
  }
  made <- list(X = X, Z = Z, offset = offset, names = rownames(newdata))
  made$untold <- logical(nrow(X))  # rows that don't say what unit they are of
  for (l in unique(object$blocklevel[blocks])) {
    units <- unitcodes(object, l, newdata, allow.new.levels)
    made[[c("level2", "level3")[l - 1L]]] <- units$codes
    made$untold <- made$untold | units$untold
  }
  # A missing value makes a missing prediction, or leaves the row out.
  bad <- !stats::complete.cases(frame)
  if (any(bad) && !identical(na.action, stats::na.pass)) made$drop <- which(bad)
  made
}

# Codes of the units of new data.
unitcodes <- function(object, level, newdata, allow.new.levels) {
  group <- object$groups[[level - 1L]]
  part <- Filter(function(p) p$group == group$name, object$options$parts)[[1L]]
  values <- lapply(part$variables, function(v) {
    absent <- setdiff(all.vars(v), names(newdata))
    if (length(absent) > 0L) refuse("The new data have no column ", absent[1L], ".", class = "kdr3_data")
    as.character(eval(v, newdata, environment(object$formula)))
  })
  labels <- do.call(paste, c(values, sep = ":"))
  codes <- match(labels, group$labels)
  untold <- Reduce(`|`, lapply(values, is.na))
  unknown <- is.na(codes) & !untold
  if (any(unknown) && !allow.new.levels)
    refuse("The new data have a unit of ", group$name, " that the model doesn't know (", labels[which(unknown)[1L]],
           "): with allow.new.levels = TRUE its random effects are 0.", class = "kdr3_data")
  list(codes = codes, untold = untold)
}

# Arguments that a method doesn't have are told, not passed over.
unused <- function(...) {
  names <- setdiff(c(...names(), rep("", ...length() - length(...names()))), "ReForm")
  if (length(names) > 0L)
    warn(paste0("There is no argument ", if (nzchar(names[1L])) names[1L] else "without a name in this place", ": it is passed over."), class = "kdr3_unused")
}

predict.kdr3 <- function(object, newdata = NULL, type = c("link", "response"), re.form = NULL, allow.new.levels = FALSE,
                         se.fit = FALSE, na.action = stats::na.pass, random.only = FALSE, ...) {
  type <- chosen(type, c("link", "response"), "type")
  unused(...)
  if (is.null(re.form) && ...length() > 0L && isTRUE(is.na(list(...)$ReForm))) re.form <- NA
  blocks <- wantedblocks(object, re.form)
  design <- newdesign(object, newdata, blocks, allow.new.levels, na.action)
  n <- nrow(design$X)
  if (length(design$drop) > 0L && identical(na.action, stats::na.omit)) refuse("na.action of predictions is na.pass: the rows keep their places.")
  Z <- list(matrix(0, n, 0L), matrix(0, n, 0L))
  places <- list(integer(), integer())
  for (i in seq_along(blocks)) {
    l <- object$blocklevel[blocks[i]] - 1L
    Z[[l]] <- cbind(Z[[l]], design$Z[[i]])
    places[[l]] <- c(places[[l]], which(object$owner[[l]] == blocks[i]))
  }
  sets <- if (object$family$family == "multinomial") length(object$levels) - 1L else 1L
  effects <- list()
  for (l in 1:2) {
    u <- object$effects[[c("level2", "level3")[l]]]
    all <- as.integer(outer(places[[l]], (seq_len(sets) - 1L) * length(object$owner[[l]]), `+`))
    if (length(all) > 0L) effects[[c("level2", "level3")[l]]] <- u[, all, drop = FALSE]
  }
  model <- object
  if (random.only) model$coefficients[] <- 0
  eta <- linearpredictor(model, design$X, Z[[1L]], Z[[2L]], if (!random.only) design$offset, effects, design$level2, design$level3)
  if (any(design$untold)) if (is.matrix(eta)) eta[design$untold, ] <- NA else eta[design$untold] <- NA
  if (is.matrix(eta)) colnames(eta) <- object$levels[seq_len(ncol(eta))]
  fit <- if (type == "response") inverse(object, eta) else eta
  if (is.matrix(fit)) rownames(fit) <- design$names else names(fit) <- design$names
  if (!se.fit) return(if (is.null(newdata)) padded(object, fit) else fit)
  if (categorical(object$family)) {
    if (length(blocks) > 0L) refuse("Standard errors of predictions of categories are those with re.form = NA.", class = "kdr3_refused")
    se <- categoryerrors(object, design$X, eta, type)
    dimnames(se) <- dimnames(fit)
    made <- list(fit = fit, se.fit = se, residual.scale = stats::sigma(object))
    return(if (is.null(newdata)) lapply(made, function(v) if (length(v) > 1L) padded(object, v) else v) else made)
  }
  variance <- predictionvariance(object, design, Z, places)
  se <- sqrt(pmax(variance, 0))
  if (type == "response") se <- se * abs(object$family$mu.eta(eta))
  names(se) <- design$names
  made <- list(fit = fit, se.fit = se, residual.scale = stats::sigma(object))
  if (is.null(newdata)) lapply(made, function(v) if (length(v) > 1L) padded(object, v) else v) else made
}

# Standard errors by the delta method, a column for each category. With eta_s the linear predictors (multinomial: of each
# category but the last; ordinal: x b + threshold_s, F its distribution function, F_0 = 0 and F_K = 1):
#
#   dP_k / d eta_s = P_k (1{k = s} - P_s)        dP_k / d eta_s = f_k 1{k = s} - f_(k-1) 1{k - 1 = s}
categoryerrors <- function(object, X, eta, type) {
  g <- ncol(X)
  sets <- ncol(eta)
  multinomial <- object$family$family == "multinomial"
  # d eta_s / d b, rows of the records.
  slope <- function(s) {
    made <- matrix(0, nrow(X), length(object$coefficients))
    made[, if (multinomial) (s - 1L) * g + seq_len(g) else seq_len(g)] <- X
    if (!multinomial && s > 1L) made[, g + s - 1L] <- 1
    made
  }
  errors <- function(gradient) sqrt(pmax(rowSums((gradient %*% object$vcov) * gradient), 0))
  n <- nrow(X)
  if (type == "link") return(matrix(vapply(seq_len(sets), function(s) errors(slope(s)), numeric(n)), n))
  P <- inverse(object, eta)
  f <- stats::dlogis(eta)
  change <- function(k, s) if (multinomial) P[, k] * ((k == s) - P[, s]) else f[, s] * ((k == s) - (k - 1L == s))
  matrix(vapply(seq_len(sets + 1L), function(k) errors(Reduce(`+`, lapply(seq_len(sets), function(s) change(k, s) * slope(s)))), numeric(n)), n)
}

# Variance of the error of a prediction, the estimates of the variances taken as known. With the effects u that the
# estimates b give, u = K (y - X b), the error is (x - z K X)(b^ - b) + z (u^(b) - u): two parts that are independent.
# Units that the model doesn't know have the variances of the random effects.
predictionvariance <- function(object, design, Z, places) {
  X <- design$X
  if (ncol(Z[[1L]]) + ncol(Z[[2L]]) == 0L) return(rowSums((X %*% object$vcov) * X))
  if (any(startsWith(names(object$frame), "(weights")))
    refuse("Models with design weights have standard errors of predictions with re.form = NA only.", class = "kdr3_refused")
  own <- ownarguments(object)
  found <- .Call(C_kdr3r_effects, own)
  if (!is.null(found$error)) refuse(found$error)
  variance <- numeric(nrow(X))
  units <- list(design$level2, design$level3)
  for (l in 1:2) {
    if (ncol(Z[[l]]) == 0L) next
    unit <- units[[l]]
    T <- object$taus[[l]][places[[l]], places[[l]], drop = FALSE]
    C <- covariancesof(found, object)[[l]][places[[l]], places[[l]], , drop = FALSE]
    known <- !is.na(unit)
    variance[!known] <- variance[!known] + rowSums((Z[[l]][!known, , drop = FALSE] %*% T) * Z[[l]][!known, , drop = FALSE])
    for (i in seq_along(places[[l]])) {
      for (j in seq_along(places[[l]]))
        variance[known] <- variance[known] + Z[[l]][known, i] * Z[[l]][known, j] * C[i, j, ][unit[known]]
      for (m in seq_len(ncol(X))) {
        K <- found[[c("x2", "x3")[l]]][[m]][, places[[l]][i]]
        X[known, m] <- X[known, m] - Z[[l]][known, i] * K[unit[known]]
      }
    }
  }
  both <- ncol(Z[[1L]]) > 0L && ncol(Z[[2L]]) > 0L
  if (both) {
    C <- covariancesof(found, object)[[3L]][places[[1L]], places[[2L]], , drop = FALSE]
    known <- !is.na(units[[1L]]) & !is.na(units[[2L]])
    for (i in seq_along(places[[1L]])) for (j in seq_along(places[[2L]]))
      variance[known] <- variance[known] + 2 * Z[[1L]][known, i] * Z[[2L]][known, j] * C[i, j, ][units[[1L]][known]]
  }
  variance + rowSums((X %*% object$vcov) * X)
}

# Covariances of the effects of level 2, of level 3, and of both, about their modes.
covariancesof <- function(found, object) {
  n <- vapply(object$taus, nrow, 0L)
  cube <- function(v, i, j, units) array(v, c(n[[i]], n[[j]], units))
  units <- c(lengths(list(object$groups$level2$labels, object$groups$level3$labels)))
  list(cube(found$cov2, 1L, 1L, units[[1L]]), cube(found$cov3, 2L, 2L, if (n[[2L]] > 0L) units[[2L]] else 0L),
       cube(found$cov23, 1L, 2L, units[[1L]]))
}

# The design of the fit's own data with what the modes are computed from; x asks for the effects of each column of X.
ownarguments <- function(object) {
  X <- fixedmatrix(object, object$terms, object$frame)
  Z <- lapply(object$blocks, function(b) stats::model.matrix(b$terms, object$frame)[, b$columns, drop = FALSE])
  design <- list(X = X, level = object$blocklevel, blocks = lapply(Z, function(z) list(Z = z)))
  outcome <- outcomeof(object$frame, object$family, "")
  eta <- drop(X %*% object$coefficients)
  if (!is.null(outcome$offset)) eta <- eta + outcome$offset
  storage.mode(X) <- "double"
  modelarguments(object, design, outcome, eta, X)
}

# Outcomes drawn from the model: linear predictors with new random effects, or those of the fit.
simulate.kdr3 <- function(object, nsim = 1, seed = NULL, use.u = FALSE, re.form = if (use.u) NULL else NA, ...) {
  if (!exists(".Random.seed", envir = globalenv())) stats::runif(1)
  if (is.null(seed)) {
    state <- get(".Random.seed", envir = globalenv())
  } else {
    before <- get(".Random.seed", envir = globalenv())
    on.exit(assign(".Random.seed", before, envir = globalenv()))
    set.seed(seed)
    state <- structure(seed, kind = as.list(RNGkind()))
  }
  y <- simulated(object, nsim, !is.null(re.form))
  columns <- lapply(seq_len(nsim), function(s) asresponse(object, y[, s]))
  rows <- stats::setNames(seq_len(nobs(object)), rownames(object$frame))
  if (!is.null(object$na.action)) rows <- stats::naresid(object$na.action, rows)
  if (anyNA(rows)) columns <- lapply(columns, function(c) if (is.matrix(c)) c[rows, ] else c[rows])
  made <- structure(columns, names = paste0("sim_", seq_len(nsim)), row.names = names(rows), class = "data.frame")
  attr(made, "seed") <- state
  made
}

# A matrix of outcomes, successes for trials, codes for categories.
simulated <- function(object, nsim, fresh = TRUE) {
  n <- nobs(object)
  type <- object$family$family
  outcome <- outcomeof(object$frame, object$family, "")
  X <- fixedmatrix(object, object$terms, object$frame)
  Z <- lapply(object$blocks, function(b) stats::model.matrix(b$terms, object$frame)[, b$columns, drop = FALSE])
  design <- list(X = X, level = object$blocklevel, blocks = lapply(Z, function(z) list(Z = z)))
  Z <- list(Zof(design, 2L), Zof(design, 3L))
  roots <- lapply(object$taus, rootof)
  sd <- if (hassigma(object)) stats::sigma(object) / (if (is.null(outcome$weights)) 1 else sqrt(outcome$weights))
  trials <- if (is.null(outcome$counts)) 1 else outcome$counts
  y <- vapply(seq_len(nsim), function(s) {
    effects <- list()
    for (l in 1:2) {
      units <- length(object$groups[[l]]$labels)
      k <- nrow(roots[[l]])
      effects[[c("level2", "level3")[l]]] <- if (!fresh) object$effects[[c("level2", "level3")[l]]] else
        matrix(stats::rnorm(units * k), units, k) %*% t(roots[[l]])
    }
    eta <- linearpredictor(object, X, Z[[1L]], Z[[2L]], outcome$offset, effects, object$groups$level2$codes, object$groups$level3$codes)
    mu <- inverse(object, eta)
    as.double(switch(type, gaussian = stats::rnorm(n, mu, sd), binomial = stats::rbinom(n, trials, mu), poisson = stats::rpois(n, mu),
           {
             draw <- stats::runif(n)
             1 + rowSums(draw > t(apply(mu, 1L, cumsum))[, -ncol(mu), drop = FALSE])
           }))
  }, numeric(n))
  matrix(y, n, nsim)
}

# Drawn numbers in the form of the model's outcome.
asresponse <- function(object, y) {
  given <- stats::model.response(object$frame)
  if (is.matrix(given) && ncol(given) == 2L) {
    made <- cbind(y, rowSums(given) - y)
    colnames(made) <- colnames(given)
    return(made)
  }
  if (!is.null(object$levels)) return(factor(object$levels[if (object$family$family == "binomial") y + 1 else y], object$levels))
  if (object$family$family == "binomial") {
    trials <- outcomeof(object$frame, object$family, "")$counts
    return(if (is.logical(given)) y == 1 else if (is.null(trials)) y else y / trials)
  }
  y
}
