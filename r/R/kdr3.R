# The fit: from the call to the object.

families <- c(gaussian = 0L, bernoulli = 1L, binomial = 2L, poisson = 3L, multinomial = 4L, ordinal = 5L)

# The family of the call as an object of class family, or of a list like it for outcomes with categories.
familyof <- function(family) {
  if (is.character(family) && length(family) == 1L && family %in% c("ordinal", "multinomial"))
    return(structure(list(family = family, link = "logit"), class = "family"))
  if (is.character(family) && length(family) == 1L && family %in% c("gaussian", "binomial", "poisson"))
    family <- get(family, mode = "function", envir = asNamespace("stats"))
  if (is.function(family)) family <- family()
  if (!is.list(family) || is.null(family$family))
    refuse("family is gaussian, binomial, poisson, \"ordinal\" or \"multinomial\"", if (is.character(family)) paste0(", not ", dQuote(family[1L], FALSE)), ".",
           class = "kdr3_family")
  links <- c(gaussian = "identity", binomial = "logit", poisson = "log")
  if (!family$family %in% names(links) || links[[family$family]] != family$link)
    refuse("The family ", family$family, " with the link ", family$link,
           " can't be fitted: gaussian (identity), binomial (logit), poisson (log), \"ordinal\" and \"multinomial\" can.",
           class = "kdr3_family")
  family
}

categorical <- function(family) family$family %in% c("ordinal", "multinomial")

# The outcome as numbers: y, trials or exposure (NULL without), levels of a factor.
outcomeof <- function(frame, family, name) {
  y <- if (attr(attr(frame, "terms"), "response") == 1L) frame[[1L]]  # model.response() would name the values
  weights <- stats::model.weights(frame)
  if (!is.null(weights) && !is.numeric(weights)) refuse("Weights must be numbers.", class = "kdr3_data")
  offset <- tryCatch(stats::model.offset(frame), error = function(e) refuse("An offset must be a number.", class = "kdr3_data"))
  check <- function(ok, ...) if (!ok) refuse("The outcome ", name, " ", ..., class = "kdr3_data")
  if (is.null(y)) refuse("The formula has no outcome.", class = "kdr3_formula")
  if (!is.null(offset) && !all(is.finite(offset))) refuse("The offset has a value that is not finite.", class = "kdr3_data")
  if (categorical(family)) {
    if (!is.factor(y)) y <- factor(y)
    check(!anyNA(y), "is missing in row ", rownames(frame)[which(is.na(y))[1L]], ".")
    if (!is.null(weights)) refuse("Outcomes with categories have no weights.", class = "kdr3_refused")
    if (!is.null(offset)) refuse("Outcomes with categories have no offset.", class = "kdr3_refused")
    check(nlevels(y) > 2L, "has ", nlevels(y), " categories: it needs three or more.")
    return(list(y = as.double(as.integer(y)), levels = levels(y)))
  }
  if (family$family == "binomial") return(binomialoutcome(y, weights, offset, check))
  if (!is.numeric(y) && !is.logical(y) && !inherits(y, c("Date", "POSIXct", "difftime"))) check(FALSE, "is no number but a ", class(y)[1L], ".")
  check(is.null(dim(y)) || ncol(y) == 1L, "is a matrix.")
  y <- as.double(y)
  check(all(is.finite(y)), "has a value that is not finite, in row ", rownames(frame)[which(!is.finite(y))[1L]], ".")
  if (family$family == "poisson") {
    check(all(y >= 0 & y == round(y)), "has values that are no counts.")
    if (!is.null(weights) && any(weights != 1))
      refuse("Counts have no weights: for design weights there are weights1, weights2 and weights3.", class = "kdr3_refused")
    return(list(y = y, counts = if (!is.null(offset)) exp(offset), offset = offset))
  }
  if (!is.null(weights) && !all(is.finite(weights) & weights > 0)) refuse("Weights must be positive.", class = "kdr3_data")
  list(y = y, weights = weights, offset = offset)
}

binomialoutcome <- function(y, weights, offset, check) {
  levels <- NULL
  if (!is.null(offset) && any(offset != 0))
    refuse("An offset of a binomial outcome can't be fitted: only normal outcomes and counts have one.", class = "kdr3_refused")
  if (is.matrix(y) && ncol(y) == 2L) {
    trials <- as.double(y[, 1L] + y[, 2L])
    y <- as.double(y[, 1L])
    if (!is.null(weights)) refuse("cbind(successes, failures) has its trials: weights can't be given too.", class = "kdr3_refused")
  } else {
    if (is.character(y)) y <- factor(y)
    if (is.factor(y)) {
      levels <- levels(y)
      check(nlevels(y) == 2L, "has ", nlevels(y), " values: a binomial one has two.")
      y <- as.integer(y) - 1L
    }
    y <- as.double(y)
    trials <- if (is.null(weights)) rep(1, length(y)) else as.double(weights)
    y <- y * trials
  }
  check(all(is.finite(y) & is.finite(trials)), "has a value that is not finite.")
  check(all(abs(trials - round(trials)) < 1e-8 & abs(y - round(y)) < 1e-6 & y > -1e-6 & y < trials + 1e-6),
        "is not a number of successes in whole numbers of trials (0 and 1 without weights).")
  check(all(trials > 0.5), "has no trials in a row.")
  list(y = round(y), counts = if (any(round(trials) != 1)) round(trials), levels = levels)
}

# Settings of the library from the arguments of the call.
settingsof <- function(family, reml, ddf, engine, points, control, effects) {
  settings <- numeric()
  if (reml) settings["REML"] <- 1
  settings["DDF"] <- c(counts = 0, satterthwaite = 1, "kenward-roger" = 2)[[ddf]]
  if (family$family %in% c("binomial", "poisson")) settings["FIXSIGMA2"] <- 1  # 0 in control: dispersion of quasi-likelihood
  if (family$family != "gaussian") {
    settings[c("NUMIT", "MACROIT", "AGQIT")] <- c(100, 100, 50)  # the limits that -fit has
    switch(engine,
           quadrature = if (is.null(points) && max(effects) <= 4L) settings["AGQAUTO"] <- 1 else
             settings["AGQ"] <- if (is.null(points)) 1 else points,
           laplace = settings["AGQ"] <- 1,
           laplace6 = settings["LAPLACE"] <- 50)
  }
  control <- unlist(control)
  if (length(control) > 0L) settings[names(control)] <- control
  settings
}

# Keywords that are told by arguments: with control beside them a fit could be another one than its object says.
keywordarguments <- c(REML = "reml =", DDF = "ddf =", AGQ = "engine = \"quadrature\" with points =", AGQAUTO = "engine = \"quadrature\" without points",
               LAPLACE = "engine = \"laplace6\"", DIAGONALIZETAUPI = "|| in the formula", DIAGONALIZETAUBETA = "|| in the formula",
               CR2 = "vcov(type = \"CR2\")", PROFILE = "confint(method = \"profile\")")

# The control argument as numbers named by keywords.
controlof <- function(control) {
  if (length(control) == 0L) return(numeric())
  control <- unlist(control)
  if (is.null(names(control)) || !is.numeric(control) || anyNA(control))
    refuse("control is a list of numbers named by keywords, such as list(NUMIT = 500).", class = "kdr3_refused")
  names(control) <- toupper(names(control))
  taken <- intersect(names(control), names(keywordarguments))
  if (length(taken) > 0L) refuse("control has no ", taken[1L], ": it is told by ", keywordarguments[[taken[1L]]], ".", class = "kdr3_refused")
  if (anyDuplicated(names(control)))
    refuse("control has ", names(control)[duplicated(names(control))][1L], " twice.", class = "kdr3_refused")
  control
}

# One of the choices of an argument.
chosen <- function(value, choices, name) {
  if (identical(value, choices)) return(choices[1L])
  if (!is.character(value) || length(value) != 1L || !value %in% choices)
    refuse(name, " is one of ", paste(dQuote(choices, FALSE), collapse = ", "), if (is.character(value) && length(value) == 1L) paste0(", not ", dQuote(value, FALSE)),
           ".", class = "kdr3_refused")
  value
}

# The engine and its points, and what they don't go with.
engineof <- function(engine, points, family, given) {
  engine <- chosen(engine, c("quadrature", "laplace", "laplace6", "pql"), "engine")
  if (family$family == "gaussian" && (given || !is.null(points)))
    refuse("engine and points are for outcomes that are not normal.", class = "kdr3_refused")
  if (is.null(points)) return(engine)
  if (engine != "quadrature") refuse("points goes with engine = \"quadrature\".", class = "kdr3_refused")
  if (!is.numeric(points) || length(points) != 1L || !points %in% c(1, 3:198))
    refuse("points is a number of quadrature points: 1, or 3 to 198.", class = "kdr3_refused")
  engine
}

# Names of the library's columns: its sentences have them, so they are those of the user as far as they differ.
columnnames <- function(names) enc2utf8(make.unique(names, sep = "#"))

# What the library is told of a design: a list as kdr3r_fit reads it.
specof <- function(design, outcome, family, weights, settings, categories, outcomename) {
  normal <- family$family == "gaussian"
  y <- outcome$y
  roots <- NULL
  if (normal && !is.null(outcome$offset)) y <- y - outcome$offset
  if (normal && !is.null(outcome$weights)) {
    roots <- sqrt(outcome$weights)
    y <- y * roots
  }
  made <- librarycolumns(design, roots)
  columns <- list(y)
  levels <- 1L
  counts <- NULL
  if (!is.null(outcome$counts)) {
    columns <- c(columns, list(outcome$counts))
    levels <- c(levels, 1L)
    counts <- "(trials)"
  }
  weightnames <- vector("list", 3L)
  weightlabels <- character()
  for (l in seq_along(weights)) if (!is.null(weights[[l]])) {
    columns <- c(columns, list(as.double(weights[[l]])))
    levels <- c(levels, l)
    weightlabels <- c(weightlabels, weightnames[[l]] <- paste0("(weights", l, ")"))
  }
  shift <- length(columns)
  shifted <- function(m) {
    m[m > 0L] <- m[m > 0L] + shift
    m
  }
  equations <- equationsof(shifted(made$pieces), shifted(made$random[[1L]]), shifted(made$random[[2L]]),
                           !is.null(design$groupings$level3))
  # Only one of two equal places can be a fixed effect of its own.
  if (anyDuplicated(made$pieces))
    refuse("Two columns of the fixed part are the same one.", class = "kdr3_formula")
  columns <- c(columns, made$values)
  names(columns) <- columnnames(c(outcomename, if (!is.null(counts)) "(trials)", weightlabels, made$names))
  order <- list(equations$random2, equations$random3)
  held <- lapply(1:2, function(l) heldelements(design$owner[[l]], order[[l]]))
  for (l in 1:2) if (!is.null(held[[l]]) && !anyDuplicated(design$owner[[l]])) {
    settings[c("DIAGONALIZETAUPI", "DIAGONALIZETAUBETA")[l]] <- 1
    held[l] <- list(NULL)
  }
  type <- family$family
  if (type == "binomial" && is.null(counts)) type <- "bernoulli"
  integers <- function(m) matrix(as.integer(m), ncol = 3L)
  spec <- list(columns = columns, levels = as.integer(c(levels, made$levels)), id2 = design$groupings$level2$codes,
               id3 = unit3of(design$groupings), counts = counts, family = families[[type]], categories = categories,
               level1 = integers(equations$level1), level2 = integers(equations$level2), level3 = integers(equations$level3),
               settings = settings, weights = weightnames, held2 = held[[1L]], held3 = held[[2L]],
               hypotheses = NULL)
  list(spec = spec, fixed = equations$fixed, order = order)
}

# ---- The object ------------------------------------------------------------------------------------------------------

square <- function(values, names) {
  n <- length(names)
  matrix(values, n, n, dimnames = list(names, names))
}

# Fits the model of a frame. `options`: parts, fixed, family, reml, ddf, engine, points, control, contrasts; `bootstrap`:
# replicates, seed, cases of one that follows.
fitframe <- function(frame, options, hypotheses = NULL, call = NULL, bootstrap = NULL) {
  outcome <- outcomeof(frame, options$family, deparse1(options$formula[[2L]]))
  design <- designof(frame, options$parts, options$fixed, options$contrasts)
  categories <- if (categorical(options$family)) length(outcome$levels) else 0L
  weights <- designweights(frame, design)
  engine <- options$engine
  if (options$family$family != "gaussian" && engine != "pql") {
    partly <- any(vapply(design$owner, function(o) length(unique(o)) > 1L && anyDuplicated(o) > 0L, NA))
    if (partly) {
      warn("Estimated by quasi-likelihood: models with random parts that are independent in part have no engine.", class = "kdr3_engine")
      engine <- "pql"
    }
  }
  sizes <- vapply(design$random, nrow, 0L)
  if (options$family$family != "gaussian" && engine == "quadrature" && is.null(options$points) && max(sizes) > 4L)
    message("More than four random effects at a level: the likelihood is the Laplace approximation, unless points = tells more.")
  settings <- settingsof(options$family, options$reml, options$ddf, engine, options$points, options$control, sizes)
  told <- specof(design, outcome, options$family, weights, settings, categories, deparse1(options$formula[[2L]]))
  told$spec$hypotheses <- hypothesesof(hypotheses, told$fixed)
  told$spec$bootstrap <- bootstrap
  result <- .Call(C_kdr3r_fit, told$spec)
  checked(result, rownames(frame))
  result$warnings <- unique(ownnames(sub("^WARNING: ", "", result$warnings), told, colnames(design$X), if (categorical(options$family)) outcome$levels))
  object <- objectof(result, told, design, outcome, frame, options, engine)
  object$call <- call
  for (sentence in result$warnings) warn(sentence, class = "kdr3_fitwarning")
  object
}

# Sentences of the library name effects in capitals, cut to eight letters, with their places in the equations, and
# categories by numbers: "separation by A_RATHER: ... The coefficient of A_RATHER (G100, category 2)".
ownnames <- function(sentences, told, names, levels) {
  spec <- told$spec
  count <- function(owner) stats::ave(seq_along(owner), owner, FUN = seq_along) - 1L
  codes <- paste0(spec$level2[, 1L], count(spec$level2[, 1L]))
  codes <- if (nrow(spec$level3) > 0L) paste0("G", codes[spec$level3[, 1L] + 1L], count(spec$level3[, 1L])) else paste0("G", codes, "0")
  if (length(codes) != length(names) || any(nchar(codes) != 4L)) return(inwords(sentences))
  names <- names[told$fixed]
  for (i in seq_along(codes)) {
    pattern <- paste0("(?s)(?:the )?(\\S+) \\(", codes[i], "(?:, (category \\d+))?\\)")
    for (s in grep(pattern, sentences, perl = TRUE)) {
      found <- regmatches(sentences[s], regexec(pattern, sentences[s], perl = TRUE))[[1L]]
      own <- if (nzchar(found[3L])) paste0(names[i], " (", found[3L], ")") else names[i]
      sentences[s] <- sub(found[1L], own, sentences[s], fixed = TRUE)
      sentences[s] <- sub(paste0("by ", found[2L], ":"), paste0("by ", names[i], ":"), sentences[s], fixed = TRUE)
    }
  }
  sentences <- inwords(sentences)
  for (k in seq_along(levels)) sentences <- gsub(paste0("(category|category than) ", k, "\\b"), paste0("\\1 \u201c", levels[k], "\u201d"), sentences)
  sentences
}

# Contrasts, a row for each one, in the order of the library's fixed effects.
hypothesesof <- function(hypotheses, fixed)
  lapply(hypotheses, function(L) {
    L <- if (is.matrix(L)) L else matrix(L, 1L)
    t(L[, fixed, drop = FALSE])
  })

designweights <- function(frame, design) {
  weights <- lapply(paste0("(weights", 1:3, ")"), function(name) frame[[name]])
  if (is.null(design$groupings$level3) && !is.null(weights[[3L]]))
    refuse("weights3 are of level 3, and the model has two levels.", class = "kdr3_refused")
  for (w in weights) if (!is.null(w) && (!is.numeric(w) || any(!is.finite(w) | w <= 0)))
    refuse("Design weights must be positive numbers.", class = "kdr3_data")
  weights
}

objectof <- function(result, told, design, outcome, frame, options, engine) {
  family <- options$family
  names <- coefficientnames(result, told, design, family, outcome)
  order <- names$order
  g <- length(names$names)
  V <- matrix(result$covariance, g, g, byrow = TRUE)[order, order, drop = FALSE]
  R <- matrix(result$robust, g, g, byrow = TRUE)[order, order, drop = FALSE]
  dimnames(V) <- dimnames(R) <- list(names$names, names$names)
  taus <- tausof(result, told, design, family, outcome)
  object <- list(coefficients = stats::setNames(result$estimates[order], names$names), vcov = V, robust = R,
                 df = stats::setNames(result$df[order], names$names), taus = taus$taus, tauerrors = taus$errors,
                 sigma2 = result$sigma2, sigma2error = result$sigma2error, loglik = result$loglikelihood,
                 parameters = result$parameters, converged = result$converged, iterations = result$iterations, warnings = result$warnings,
                 document = result$document, hypotheses = matrix(result$tests, 4L),
                 formula = options$formula, frame = frame, options = options, family = family, engine = engine,
                 terms = design$terms, contrasts = attr(design$X, "contrasts"), xlevels = xlevelsof(frame),
                 assign = attr(design$X, "assign"), dropped = design$dropped, wholenames = design$wholenames,
                 groups = groupsof(design), blocks = lapply(design$blocks, function(b) list(group = b$group, terms = b$terms,
                   columns = b$columns, names = colnames(b$Z))),
                 blocklevel = design$level, owner = design$owner, levels = outcome$levels,
                 order = told, na.action = attr(frame, "na.action"))
  object$order$spec <- NULL
  object$order$coefficients <- order
  if (length(result$replicates) > 0L)
    object$replicates <- matrix(result$replicates, ncol = g + sum(vapply(taus$taus, function(T) nrow(T) * (nrow(T) + 1) / 2, 0)) + 1, byrow = TRUE)
  object$joint <- result$joint
  object$designweights <- ownweights(result, object$groups)
  object$equations <- told$spec[c("level1", "level2", "level3")]
  if (family$family == "gaussian" && !is.null(outcome$weights)) object$loglik <- object$loglik + sum(log(outcome$weights)) / 2
  class(object) <- c("kdr3", "elm")  # insight lets models through by lists of classes; this one has no methods, and statistics of t
  object$effects <- effectsof(object, result, design, outcome)
  object$eta <- object$effects$eta
  object$effects$eta <- NULL
  object
}

# Names of the coefficients in the order of the object, and where the library has them.
coefficientnames <- function(result, told, design, family, outcome) {
  names <- colnames(design$X)
  order <- integer()
  order[told$fixed] <- seq_along(told$fixed)
  if (!categorical(family)) return(list(names = names, order = order))
  library <- result$names
  if (family$family == "multinomial") {
    sets <- length(outcome$levels) - 1L
    return(list(names = paste0(rep(outcome$levels[seq_len(sets)], each = length(names)), ":", rep(names, sets)),
                order = as.integer(outer(order, (seq_len(sets) - 1L) * length(names), `+`))))
  }
  thresholds <- seq(length(names) + 1L, length(library))  # behind all columns
  rest <- setdiff(seq_along(library), thresholds)
  list(names = c(names, library[thresholds]), order = c(rest[order], thresholds))
}

# The places of the effects of all sets that a multinomial outcome has, one behind the other.
inallsets <- function(place, sets) as.integer(outer(place, (seq_len(sets) - 1L) * length(place), `+`))

# Covariances of the random effects, in the order of the design's blocks, and their standard errors.
tausof <- function(result, told, design, family, outcome) {
  sets <- if (family$family == "multinomial") length(outcome$levels) - 1L else 1L
  made <- list(taus = list(), errors = list())
  for (l in 1:2) {
    names <- unlist(lapply(design$blocks[design$level == l + 1L], function(b) colnames(b$Z)))
    n <- length(names)
    place <- inallsets(told$order[[l]], sets)
    if (sets > 1L && n > 0L) {
      names <- paste0(rep(outcome$levels[seq_len(sets)], each = n), ":", rep(names, sets))
    }
    values <- list(list(result$taupi, result$taubeta)[[l]], list(result$taupierrors, result$taubetaerrors)[[l]])
    matrices <- lapply(values, function(v) {
      m <- matrix(v, length(names), length(names))[place, place, drop = FALSE]
      dimnames(m) <- list(names, names)
      m
    })
    made$taus[[l]] <- matrices[[1L]]
    made$errors[[l]] <- matrices[[2L]]
  }
  made
}

groupsof <- function(design) {
  g <- design$groupings
  list(level2 = g$level2, level3 = g$level3)
}

xlevelsof <- function(frame) {
  levels <- list()
  for (name in names(frame)) {
    x <- frame[[name]]
    if (is.factor(x)) levels[[name]] <- levels(x) else if (is.character(x)) levels[[name]] <- sort(unique(x))
  }
  levels
}

# A root of a covariance matrix: L L' = T.
rootof <- function(T) {
  if (nrow(T) == 0L) return(T)
  e <- eigen(T, symmetric = TRUE)
  e$vectors %*% diag(sqrt(pmax(e$values, 0)), nrow(T))
}

# Z of a level, its blocks side by side.
Zof <- function(design, level) {
  blocks <- lapply(design$blocks[design$level == level], `[[`, "Z")
  if (length(blocks) == 0L) return(matrix(0, nrow(design$X), 0L))
  Z <- if (length(blocks) == 1L) blocks[[1L]] else do.call(cbind, blocks)
  if (!is.double(Z)) storage.mode(Z) <- "double"
  Z
}

# Design weights of the records and the units of both levels as the fit had them, in R's order; NULL without any.
ownweights <- function(result, groups) {
  if (length(result$weights1) == 0L) return(NULL)
  units <- libraryorder(groups)
  at <- list(order(match(groups$level2$codes, units$level2)), units$level2, units$level3)
  Map(function(w, place) replace(w, place, w), result[c("weights1", "weights2", "weights3")], at)
}

# Random effects by unit, their conditional covariances, and the linear predictor with them: modes, of quadrature the means
# that the library has integrated.
effectsof <- function(object, result, design, outcome) {
  units <- libraryorder(object$groups)
  made <- list()
  for (l in 1:2) {
    names <- rownames(object$taus[[l]])
    labels <- object$groups[[l]]$labels
    n <- length(names)
    place <- object$order$order[[l]]
    place <- inallsets(place, if (length(place) > 0L) n / length(place) else 1L)
    values <- list(result$level2, result$level3)[[l]]
    covariances <- list(result$variances2, result$variances3)[[l]]
    u <- matrix(NA_real_, length(labels), n, dimnames = list(labels, names))
    C <- array(NA_real_, c(n, n, length(labels)), list(names, names, labels))
    if (n > 0L && length(values) == n * length(units[[l]])) {
      u[units[[l]], ] <- matrix(values, ncol = n, byrow = TRUE)[, place, drop = FALSE]
      C[, , units[[l]]] <- array(covariances, c(n, n, length(units[[l]])))[place, place, , drop = FALSE]
    }
    made[[c("level2", "level3")[l]]] <- u
    made[[c("cov2", "cov3")[l]]] <- C
    if (l == 1L) place2 <- place
  }
  # Of each unit of level 2 with that of level 3 that it is in; the library has them row by row, and of engines alone.
  if (length(result$covariances) > 0L && !anyNA(result$covariances)) {
    n <- vapply(object$taus, nrow, 0L)
    C <- array(NA_real_, c(n, length(units$level2)))
    C[, , units$level2] <- aperm(array(result$covariances, c(n[[2L]], n[[1L]], length(units$level2))), c(2L, 1L, 3L))[place2, place, , drop = FALSE]
    made$cov23 <- C
  }
  made$eta <- linearpredictor(object, design$X, Zof(design, 2L), Zof(design, 3L), outcome$offset, made,
                              object$groups$level2$codes, object$groups$level3$codes)
  made
}

# X b + Z2 u + Z3 v, a column for each category of a multinomial outcome but the last, for each but the last of an
# ordinal one its threshold added.
linearpredictor <- function(object, X, Z2, Z3, offset, effects, unit2, unit3) {
  beta <- object$coefficients
  sets <- if (object$family$family == "multinomial") length(object$levels) - 1L else 1L
  g <- ncol(X)
  eta <- vapply(seq_len(sets), function(s) {
    e <- drop(X %*% beta[(s - 1L) * g + seq_len(g)])
    if (!is.null(offset)) e <- e + offset
    e + contribution(Z2, effects$level2, unit2, s) + contribution(Z3, effects$level3, unit3, s)
  }, numeric(nrow(X)))
  if (sets == 1L) eta <- eta[seq_len(nrow(X))] else eta <- matrix(eta, nrow(X))
  if (object$family$family == "ordinal") eta <- outer(eta, c(0, beta[-seq_len(g)]), `+`)
  eta
}

contribution <- function(Z, u, unit, set = 1L) {
  n <- ncol(Z)
  if (n == 0L || is.null(u) || ncol(u) == 0L || is.null(unit)) return(0)
  known <- unname(u)[unit, (set - 1L) * n + seq_len(n), drop = FALSE]
  if (anyNA(known)) known[is.na(known)] <- 0
  rowSums(Z * known)
}

kdr3 <- function(formula, data = NULL, family = stats::gaussian(), reml = FALSE, ddf = c("counts", "satterthwaite", "kenward-roger"),
                 engine = c("quadrature", "laplace", "laplace6", "pql"), points = NULL, weights, offset, subset, na.action,
                 weights1, weights2, weights3, contrasts = NULL, plausible = NULL, control = list(), ...) {
  call <- match.call()
  if (...length() > 0L) refuse("kdr3() has no argument ", paste(c(...names(), "without a name")[1L], collapse = ""), ".", class = "kdr3_refused")
  if (missing(formula) || !inherits(formula, "formula") || length(formula) != 3L)
    refuse("A formula is needed, such as score ~ year + (year | school/pupil).", class = "kdr3_formula")
  if (inherits(data, "mids") || (is.list(data) && !is.data.frame(data) && length(data) > 0L && all(vapply(data, is.data.frame, NA))))
    return(fitimputed(call, data, parent.frame()))
  if (is.list(data) && !is.data.frame(data) && length(data) == 0L) refuse("data is an empty list.", class = "kdr3_data")
  if (!is.null(plausible)) return(fitplausible(call, formula, plausible, parent.frame()))
  family <- familyof(family)
  ddf <- chosen(ddf, c("counts", "satterthwaite", "kenward-roger"), "ddf")
  engine <- engineof(engine, points, family, !missing(engine))
  if (!isTRUE(reml) && !isFALSE(reml)) refuse("reml is TRUE or FALSE.", class = "kdr3_refused")
  control <- controlof(control)
  parts <- randomparts(formula)
  frame <- frameof(call, formula, parts, parent.frame())
  if (family$family == "ordinal" && is.character(frame[[1L]]))
    warn(paste0("The categories of ", deparse1(formula[[2L]]), " are texts, in the order of the alphabet: ",
                paste(levels(factor(frame[[1L]])), collapse = " < "), ". factor(levels =) gives them another order."), class = "kdr3_fitwarning")
  options <- list(formula = formula, parts = parts, fixed = nobars(formula), family = family, reml = reml, ddf = ddf,
                  engine = engine, points = points, control = control, contrasts = contrasts)
  if (options$reml && family$family != "gaussian") refuse("Restricted likelihood is for normal outcomes.", class = "kdr3_refused")
  if (ddf != "counts" && family$family != "gaussian") refuse("Degrees of freedom by ", ddf, " are for normal outcomes.", class = "kdr3_refused")
  fitframe(frame, options, call = call)
}

# The model frame over all variables of the formula.
frameof <- function(call, formula, parts, env) {
  arguments <- match(c("data", "subset", "na.action", "weights", "offset", "weights1", "weights2", "weights3"), names(call), 0L)
  wanted <- call[c(1L, arguments)]
  whole <- frameformula(formula, parts)
  environment(whole) <- environment(formula)
  if ("." %in% all.vars(whole)) refuse("The formula has a dot: write the names of the predictors.", class = "kdr3_formula")
  wanted$formula <- whole
  wanted$drop.unused.levels <- TRUE
  wanted[[1L]] <- quote(stats::model.frame)
  frame <- tryCatch(eval(wanted, env), error = function(e) {
    if (inherits(e, "kdr3_error")) stop(e)
    refuse(frametrouble(conditionMessage(e), call, whole, env), class = "kdr3_data")
  })
  # Their bits read as doubles would be other numbers.
  for (column in which(vapply(frame, inherits, NA, "integer64"))) frame[[column]] <- as.double(frame[[column]])
  if (nrow(frame) == 0L) refuse(norows(call, whole, env), class = "kdr3_data")
  frame
}

# The sentence for a model frame that R couldn't make: it names the column, and what might have been meant.
frametrouble <- function(message, call, formula, env) {
  data <- tryCatch(eval(call$data, env), error = function(e) NULL)
  for (name in all.vars(formula))
    if (is.data.frame(data) && !name %in% names(data) && !exists(name, envir = environment(formula))) {
      near <- names(data)[which(utils::adist(name, names(data), ignore.case = TRUE) <= max(1, nchar(name) %/% 4))]
      return(paste0("The data have no column ", name, ".", if (length(near) > 0L) paste0(" Is ", near[1L], " meant?")))
    }
  paste0("The model frame can't be made: ", message)
}

norows <- function(call, formula, env) {
  data <- tryCatch(eval(call$data, env), error = function(e) NULL)
  empty <- Filter(function(name) is.data.frame(data) && name %in% names(data) && nrow(data) > 0L && all(is.na(data[[name]])), all.vars(formula))
  if (length(empty) > 0L) paste0("All values of ", empty[1L], " are missing.") else "No row of the data has all variables of the model."
}
