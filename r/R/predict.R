# Predictions and simulated outcomes.

# Which effects of each block a prediction has: re.form NULL all, NA or ~0 none, or a formula with bars of effects that are
# in the model. A list with TRUE and FALSE for the effects of each block.
wantedeffects <- function(object, re.form) {
  every <- function(value) lapply(object$blocks, function(b) rep(value, length(b$names)))
  if (is.null(re.form)) return(every(TRUE))
  if (!inherits(re.form, "formula")) {
    if (length(re.form) != 1L || !is.na(re.form)) refuse("re.form is NULL, NA, ~0 or a formula with some of the model's random parts.", class = "kdr3_refused")
    return(every(FALSE))
  }
  if (length(findbars(re.form)) == 0L) return(every(FALSE))
  wanted <- lapply(randomparts(re.form), function(part) {
    of <- which(vapply(object$blocks, function(b) b$group == part$group, NA))
    tt <- tryCatch(partterms(stats::as.formula(call("~", part$effects)), attr(object$frame, "terms")), error = function(e) NULL)
    effects <- tryCatch(colnames(stats::model.matrix(tt, object$frame)), error = function(e) deparse1(part$effects))
    strange <- setdiff(effects, unlist(lapply(object$blocks[of], `[[`, "names")))
    if (length(strange) > 0L)
      refuse("re.form has an effect that the model hasn't: ", strange[1L], " over ", part$group, ".", class = "kdr3_refused")
    list(group = part$group, effects = effects)
  })
  lapply(object$blocks, function(b) b$names %in% unlist(lapply(wanted, function(w) if (w$group == b$group) w$effects)))
}

# Numbers in the place of a factor, or texts in that of numbers, would make other columns.
checkkinds <- function(classes, frame) {
  kinds <- c(numeric = "numbers", factor = "a factor", ordered = "a factor", character = "a factor", logical = "truths")
  for (name in intersect(names(classes), names(frame))) {
    was <- kinds[classes[[name]]]
    now <- kinds[stats::.MFclass(frame[[name]])]
    if (!is.na(was) && !is.na(now) && was != now)
      refuse(name, " was fitted as ", was, ", and is ", now, " in the new data.", class = "kdr3_data")
  }
}

# X and the Z of each block of new data, the codes of their units (NA: a new one), and the offset. NULL is the fit's own data.
newdesign <- function(object, newdata, blocks, allow.new.levels, na.action, units = TRUE) {
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
    frame <- tryCatch(stats::model.frame(tt, newdata, na.action = stats::na.pass, xlev = object$xlevels[intersect(names(object$xlevels), variablenames(tt))]),
             error = function(e) refuse(conditionMessage(e), class = "kdr3_data"))
    checkkinds(attr(tt, "dataClasses"), frame)
    frame
  }
  frame <- frameof(tt)
  X <- fixedmatrix(object, tt, frame)
  Z <- lapply(object$blocks[blocks], function(b) stats::model.matrix(b$terms, frameof(b$terms))[, b$columns, drop = FALSE])
  offset <- stats::model.offset(frame)
  if (!is.null(object$call$offset)) {
    extra <- tryCatch(eval(object$call$offset, newdata, environment(object$formula)), error = function(e)
      refuse("The new data don't give the offset: ", conditionMessage(e), ".", class = "kdr3_data"))
    if (length(extra) != nrow(newdata)) refuse("The offset has ", length(extra), " values, and the new data ", nrow(newdata), " rows.", class = "kdr3_data")
    offset <- if (is.null(offset)) extra else offset + extra
  }
  made <- list(X = X, Z = Z, offset = offset, names = rownames(newdata))
  made$untold <- logical(nrow(X))  # rows that don't say what unit they are of
  for (l in if (units) unique(object$blocklevel[blocks])) {
    found <- unitcodes(object, l, newdata, allow.new.levels)
    made[[c("level2", "level3")[l - 1L]]] <- found$codes
    made$untold <- made$untold | found$untold
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

checkcount <- function(n, name)
  if (!is.numeric(n) || length(n) != 1L || is.na(n) || n < 1 || n != round(n) || n > .Machine$integer.max)
    refuse(name, " is a whole number of 1 or more.", class = "kdr3_refused")

# Arguments that a method doesn't have are told, not passed over; `known` are those of lme4 that mean nothing here.
unused <- function(..., known = character()) {
  names <- setdiff(c(...names(), rep("", ...length() - length(...names()))), known)
  if (length(names) > 0L)
    warn(paste0("There is no argument ", if (nzchar(names[1L])) names[1L] else "without a name in this place", ": it is passed over."), class = "kdr3_unused")
}

predict.kdr3 <- function(object, newdata = NULL, type = c("link", "response", "average"), re.form = NULL, allow.new.levels = FALSE,
                         se.fit = FALSE, na.action = stats::na.pass, random.only = FALSE, ...) {
  type <- chosen(type, c("link", "response", "average"), "type")
  unused(..., known = "ReForm")
  if (is.null(re.form) && ...length() > 0L && isTRUE(is.na(list(...)$ReForm))) re.form <- NA
  average <- type == "average"
  wanted <- wantedeffects(object, if (!average) re.form)
  blocks <- which(vapply(wanted, any, NA))
  design <- newdesign(object, newdata, blocks, allow.new.levels, na.action, units = !average)
  if (length(design$drop) > 0L && identical(na.action, stats::na.fail)) refuse("The new data have missing values.", class = "kdr3_data")
  if (random.only && (se.fit || average)) refuse("random.only has no standard errors, and no average.", class = "kdr3_refused")
  left <- setdiff(seq_len(nrow(design$X)), if (identical(na.action, stats::na.omit)) design$drop)
  Z <- list()
  for (l in 1:2) Z[[l]] <- matrix(0, nrow(design$X), length(object$owner[[l]]))  # 0 of the effects that are left out
  for (i in seq_along(blocks)) {
    l <- object$blocklevel[blocks[i]] - 1L
    own <- wanted[[blocks[i]]]
    Z[[l]][, which(object$owner[[l]] == blocks[i])[own]] <- design$Z[[i]][, own]
  }
  shaped <- function(v) {
    if (any(design$untold)) if (is.matrix(v)) v[design$untold, ] <- NA else v[design$untold] <- NA
    if (is.matrix(v)) dimnames(v) <- list(design$names, object$levels[seq_len(ncol(v))]) else names(v) <- design$names
    if (is.null(newdata)) padded(object, v) else if (is.matrix(v)) v[left, , drop = FALSE] else v[left]
  }
  found <- if (se.fit || average) libraryprediction(object, design, Z, type, !average && length(blocks) > 0L)
  fit <- if (average) found$values else {
    model <- object
    if (random.only) model$coefficients[] <- 0
    eta <- linearpredictor(model, design$X, Z[[1L]], Z[[2L]], if (!random.only) design$offset, object$effects, design$level2, design$level3)
    if (type == "response") inverse(object, eta) else eta
  }
  if (!se.fit) return(shaped(fit))
  list(fit = shaped(fit), se.fit = shaped(found$errors), residual.scale = stats::sigma(object))
}

# Predictions of the library with their standard errors by the delta method, the program's own of -predict: they allow for
# the random effects being known by their data alone, and for the fixed effects in them being estimates. A unit that the
# model doesn't know has the variances of its effects in its error; type "average" is the mean over those of all units.
libraryprediction <- function(object, design, Z, type, units) {
  what <- if (type == "average") 2L else (if (units) 3L else 0L) + (type == "response")
  columns <- if (!categorical(object$family)) 1L else length(object$levels) - (what %in% c(0L, 3L))
  found <- .Call(C_kdr3r_predict, fittedarguments(object, units), if (units) ownrows(object),
                 rowsarguments(design$X, Z, design$offset, if (units) design$level2, if (units) design$level3), what, as.integer(columns))
  if (!is.null(found$error)) refuse(found$error, class = "kdr3_refused")
  lapply(found[c("values", "errors")], function(v) if (columns > 1L) matrix(v, ncol = columns, byrow = TRUE) else v)
}

# The fit as the library takes it, matrices row by row.
fittedarguments <- function(object, units) {
  e <- object$effects
  three <- !is.null(object$groups$level3)
  type <- object$family$family
  if (type == "binomial" && is.null(outcomeof(object$frame, object$family, "")$counts)) type <- "bernoulli"
  number <- function(v) if (length(v) > 0L) as.double(v)
  random3 <- nrow(object$taus[[2L]])
  list(family = families[[type]], categories = if (categorical(object$family)) length(object$levels) else 0L,
       fixed = as.double(object$coefficients), random2 = nrow(object$taus[[1L]]), random3 = random3,
       taupi = number(object$taus[[1L]]), taubeta = number(object$taus[[2L]]), sigma2 = object$sigma2,
       covariance = number(object$vcov), joint = number(jointof(object)), units2 = length(object$groups$level2$labels),
       units3 = if (three) length(object$groups$level3$labels) else 0L,
       level2 = if (units) number(t(e$level2)), level3 = if (units) number(t(e$level3)),
       variances2 = if (units) number(e$cov2), variances3 = if (units) number(e$cov3),
       covariances = if (units && !is.null(e$cov23)) number(aperm(e$cov23, c(2L, 1L, 3L))),
       weights1 = object$designweights$weights1, weights2 = object$designweights$weights2, weights3 = number(object$designweights$weights3))
}

# The covariance of all parameters in the order of the object, NULL without one: lower triangles of both taus by rows, then
# the fixed effects.
jointof <- function(object) {
  if (length(object$joint) == 0L || anyNA(object$joint)) return(NULL)
  at <- 0L
  order <- integer()
  for (l in 1:2) {
    n <- nrow(object$taus[[l]])
    place <- object$order$order[[l]]
    place <- inallsets(place, if (length(place) > 0L) n / length(place) else 1L)
    for (i in seq_len(n)) for (j in seq_len(i)) {
      high <- max(place[i], place[j])
      order <- c(order, at + high * (high - 1L) / 2L + min(place[i], place[j]))
    }
    at <- at + n * (n + 1L) / 2L
  }
  order <- c(order, at + object$order$coefficients)
  matrix(object$joint, length(order))[order, order]
}

rowsarguments <- function(X, Z, offset, level2, level3, outcome = NULL, counts = NULL) {
  rows <- function(m) if (ncol(m) > 0L) as.double(t(m))
  list(records = nrow(X), fixed = rows(X), random2 = rows(Z[[1L]]), random3 = rows(Z[[2L]]), offset = if (!is.null(offset)) as.double(offset),
       unit2 = level2, unit3 = level3, outcome = outcome, counts = counts)
}

# The records of the fit; those of a weighted normal outcome times the roots of their weights.
ownrows <- function(object) {
  outcome <- outcomeof(object$frame, object$family, "")
  design <- owndesign(object)
  root <- if (hassigma(object) && !is.null(outcome$weights)) sqrt(outcome$weights) else 1
  rowsarguments(design$X * root, list(Zof(design, 2L) * root, Zof(design, 3L) * root), if (!is.null(outcome$offset)) outcome$offset * root,
                object$groups$level2$codes, object$groups$level3$codes, (outcome$y - categorical(object$family)) * root,
                if (object$family$family == "binomial" && !is.null(outcome$counts)) as.double(outcome$counts))
}

# The design of the fit's own data.
owndesign <- function(object) {
  Z <- lapply(object$blocks, function(b) stats::model.matrix(b$terms, object$frame)[, b$columns, drop = FALSE])
  list(X = fixedmatrix(object, object$terms, object$frame), level = object$blocklevel, blocks = lapply(Z, function(z) list(Z = z)))
}

# Outcomes drawn from the model: linear predictors with new random effects, or those of the fit.
simulate.kdr3 <- function(object, nsim = 1, seed = NULL, use.u = FALSE, re.form = if (use.u) NULL else NA, ...) {
  checkcount(nsim, "nsim")
  unused(..., known = "verbose")
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
  design <- owndesign(object)
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
    eta <- linearpredictor(object, design$X, Z[[1L]], Z[[2L]], outcome$offset, effects, object$groups$level2$codes, object$groups$level3$codes)
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
