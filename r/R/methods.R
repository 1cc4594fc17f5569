# What a fit answers.

coef.kdr3 <- function(object, ...) {
  fixed <- fixef(object)
  made <- lapply(ranef(object, condVar = FALSE), function(u) {
    names <- union(names(fixed), colnames(u))
    table <- as.data.frame(matrix(0, nrow(u), length(names), dimnames = list(rownames(u), names)))
    for (name in names(fixed)) table[[name]] <- fixed[[name]]
    for (name in colnames(u)) table[[name]] <- table[[name]] + u[[name]]
    table
  })
  structure(made, class = "coef.kdr3")
}

print.coef.kdr3 <- function(x, ...) {
  print(unclass(x), ...)
  invisible(x)
}

fixef.kdr3 <- function(object, add.dropped = FALSE, ...) {
  if (!add.dropped || length(object$dropped) == 0L) return(object$coefficients)
  full <- stats::setNames(rep(NA_real_, length(object$wholenames)), object$wholenames)
  full[names(object$coefficients)] <- object$coefficients
  full
}

ranef.kdr3 <- function(object, condVar = TRUE, ...) {
  made <- list()
  for (l in 1:2) {
    u <- object$effects[[c("level2", "level3")[l]]]
    if (length(u) == 0L || ncol(u) == 0L) next
    table <- as.data.frame(u, optional = TRUE)
    if (condVar) {
      C <- object$effects[[c("cov2", "cov3")[l]]]
      attr(table, "postVar") <- unname(C)
    }
    made[[object$groups[[l]]$name]] <- table
  }
  structure(made, class = "ranef.kdr3")
}

print.ranef.kdr3 <- function(x, ...) {
  for (name in names(x)) {
    table <- x[[name]]
    attr(table, "postVar") <- NULL
    cat("$", name, "\n", sep = "")
    print(table, ...)
    cat("\n")
  }
  if (!is.null(attr(x[[1L]], "postVar"))) cat("with conditional variances for", paste0("\u201c", names(x), "\u201d", collapse = " "), "\n")
  invisible(x)
}

as.data.frame.ranef.kdr3 <- function(x, ...) {
  rows <- lapply(names(x), function(group) {
    table <- x[[group]]
    C <- attr(table, "postVar")
    do.call(rbind, lapply(seq_along(table), function(j)
      data.frame(grpvar = group, term = names(table)[j], grp = rownames(table), condval = table[[j]],
                 condsd = if (is.null(C)) NA_real_ else sqrt(C[j, j, ]))))
  })
  made <- do.call(rbind, rows)
  made$grpvar <- factor(made$grpvar, unique(made$grpvar))
  made$term <- factor(made$term, unique(made$term))
  made
}

VarCorr.kdr3 <- function(x, sigma = 1, ...) {
  made <- list()
  for (b in seq_along(x$blocks)) {
    l <- x$blocklevel[b] - 1L
    these <- elementsof(x, b)
    if (length(these) == 0L) next
    V <- x$taus[[l]][these, these, drop = FALSE] * sigma^2
    sd <- sqrt(pmax(diag(V), 0))
    names(sd) <- rownames(V)
    C <- V / outer(sd, sd)
    diag(C) <- 1
    made <- c(made, list(structure(V, stddev = sd, correlation = C)))
    names(made)[length(made)] <- x$blocks[[b]]$group
  }
  names(made) <- make.unique(names(made))
  structure(made, sc = stats::sigma(x) * sigma, useSc = hassigma(x) || x$sigma2 != 1, class = "VarCorr.kdr3")
}

hassigma <- function(object) object$family$family == "gaussian"

# What control holds the level-1 variance at, 0 for a free one.
heldsigma <- function(object) {
  held <- unlist(object$options$control)["FIXSIGMA2"]
  if (is.na(held)) if (hassigma(object)) 0 else 1 else unname(held)
}

as.data.frame.VarCorr.kdr3 <- function(x, row.names = NULL, optional = FALSE, order = c("cov.last", "lower.tri"), ...) {
  order <- match.arg(order)
  rows <- lapply(names(x), function(group) {
    V <- x[[group]]
    sd <- attr(V, "stddev")
    C <- attr(V, "correlation")
    pairs <- which(lower.tri(V, diag = TRUE), arr.ind = TRUE)
    if (order == "cov.last") pairs <- pairs[order(pairs[, 1L] != pairs[, 2L]), , drop = FALSE]
    same <- pairs[, 1L] == pairs[, 2L]
    data.frame(grp = group, var1 = rownames(V)[pairs[, 2L]], var2 = ifelse(same, NA, rownames(V)[pairs[, 1L]]),
               vcov = V[pairs], sdcor = ifelse(same, sd[pairs[, 1L]], C[pairs]))
  })
  made <- do.call(rbind, rows)
  if (attr(x, "useSc"))
    made <- rbind(made, data.frame(grp = "Residual", var1 = NA, var2 = NA, vcov = attr(x, "sc")^2, sdcor = attr(x, "sc")))
  rownames(made) <- NULL
  made
}

# Rows of a table: variances and standard deviations to common digits, correlations as a lower triangle.
format.VarCorr.kdr3 <- function(x, digits = max(3, getOption("digits") - 2), comp = c("Variance", "Std.Dev."), ...) {
  sizes <- vapply(x, nrow, 0L)
  width <- max(0L, sizes - 1L)
  variances <- c(unlist(lapply(x, function(V) diag(as.matrix(V)))), if (attr(x, "useSc")) attr(x, "sc")^2)
  correlations <- do.call(rbind, lapply(x, function(V) {
    C <- formatC(attr(V, "correlation"), digits = 2L, format = "f")
    C[!lower.tri(C)] <- ""
    cbind(C, matrix("", nrow(C), width + 1L))[, seq_len(width), drop = FALSE]
  }))
  if (attr(x, "useSc")) correlations <- rbind(correlations, rep("", width))
  first <- unlist(lapply(names(x), function(g) c(g, rep("", nrow(x[[g]]) - 1L))))
  table <- cbind(Groups = c(first, if (attr(x, "useSc")) "Residual"),
                 Name = c(unlist(lapply(x, rownames)), if (attr(x, "useSc")) ""),
                 Variance = format(variances, digits = digits), Std.Dev. = format(sqrt(pmax(variances, 0)), digits = digits))
  rownames(table) <- NULL
  table <- table[, c("Groups", "Name", comp), drop = FALSE]
  if (width == 0L) return(table)
  colnames(correlations) <- c("Corr", rep("", width - 1L))
  cbind(table, correlations)
}

printtable <- function(table) {
  text <- rbind(colnames(table), table)
  for (j in seq_len(ncol(text))) text[, j] <- formatC(text[, j], width = -max(nchar(text[, j])))
  cat(paste0(" ", apply(text, 1L, paste, collapse = " ")), sep = "\n")
}

print.VarCorr.kdr3 <- function(x, digits = max(3, getOption("digits") - 2), comp = "Std.Dev.", ...) {
  printtable(format(x, digits = digits, comp = comp))
  invisible(x)
}

vcov.kdr3 <- function(object, type = c("model", "robust", "CR2"), ...) {
  type <- chosen(type, c("model", "robust", "CR2"), "type")
  if (type == "model") return(object$vcov)
  V <- if (type == "robust") object$robust else refitted(object, settings = c(CR2 = 1))$robust
  if (anyNA(V)) refuse("The robust covariance matrix can't be computed: it needs more units of the highest level than fixed effects.", class = "kdr3_refused")
  V
}

# The same model once more, with other settings, hypotheses or outcome. What the first fit warned of is known already.
refitted <- function(object, settings = NULL, hypotheses = NULL, frame = object$frame, bootstrap = NULL) {
  options <- object$options
  options$engine <- object$engine
  options$control <- utils::modifyList(as.list(options$control), as.list(settings))
  suppressMessages(withCallingHandlers(fitframe(frame, options, hypotheses, object$call, bootstrap), kdr3_warning = function(w)
    if (conditionMessage(w) %in% object$warnings) tryInvokeRestart("muffleWarning")))
}

sigma.kdr3 <- function(object, ...) sqrt(object$sigma2)  # held at 1 unless the outcome is normal or control frees it

# Fixed effects, free elements of the covariance matrices, and the level-1 variance where it is free.
parameters <- function(object) object$parameters

# A weighted likelihood of an engine is none to compare models by: without df there are neither AIC nor BIC of it.
logLik.kdr3 <- function(object, ...)
  structure(if (is.null(object$loglik) || is.nan(object$loglik)) NA_real_ else object$loglik, nobs = nobs(object), nall = nobs(object),
            df = if (isweighted(object) && !hassigma(object)) NA_integer_ else parameters(object), class = "logLik")

deviance.kdr3 <- function(object, ...) -2 * as.numeric(stats::logLik(object))
nobs.kdr3 <- function(object, ...) nrow(object$frame)
df.residual.kdr3 <- function(object, ...) nobs(object) - parameters(object)
family.kdr3 <- function(object, ...) object$family
terms.kdr3 <- function(x, ...) x$terms
weights.kdr3 <- function(object, ...) {
  w <- stats::model.weights(object$frame)
  if (is.null(w) && object$family$family == "binomial") w <- outcomeof(object$frame, object$family, "")$counts  # as lme4's
  if (is.null(w)) rep(1, nobs(object)) else w
}

formula.kdr3 <- function(x, fixed.only = FALSE, random.only = FALSE, ...) {
  if (fixed.only) return(nobars(x$formula))
  if (random.only) return(stats::as.formula(paste("~", paste0("(", vapply(findbars(x$formula), deparse1, ""), ")", collapse = " + ")),
                                            environment(x$formula)))
  x$formula
}

model.frame.kdr3 <- function(formula, fixed.only = FALSE, ...) {
  if (!fixed.only) return(formula$frame)
  frame <- formula$frame[intersect(c(variablenames(formula$terms)), names(formula$frame))]
  attr(frame, "terms") <- formula$terms
  frame
}

model.matrix.kdr3 <- function(object, type = c("fixed", "random"), ...) {
  if (match.arg(type) == "random") {
    Z <- lapply(object$blocks, function(b) stats::model.matrix(b$terms, object$frame)[, b$columns, drop = FALSE])
    return(stats::setNames(Z, vapply(object$blocks, `[[`, "", "group")))
  }
  fixedmatrix(object, object$terms, object$frame)
}

# X of a frame, without the columns that the fit left out.
fixedmatrix <- function(object, tt, frame) {
  X <- stats::model.matrix(tt, frame, contrasts.arg = object$contrasts)
  assign <- attr(X, "assign")
  contrasts <- attr(X, "contrasts")
  kept <- !colnames(X) %in% object$dropped
  if (!all(kept)) {
    X <- X[, kept, drop = FALSE]
    attr(X, "assign") <- assign[kept]
    attr(X, "contrasts") <- contrasts
  }
  X
}

inverse <- function(object, eta) {
  type <- object$family$family
  if (type == "multinomial") {
    e <- exp(cbind(eta, 0) - pmax(do.call(pmax, as.data.frame(eta)), 0))
    return(structure(e / rowSums(e), dimnames = list(NULL, object$levels)))
  }
  if (type == "ordinal") {
    cumulative <- cbind(stats::plogis(eta), 1)
    return(structure(cumulative - cbind(0, cumulative[, -ncol(cumulative)]), dimnames = list(NULL, object$levels)))
  }
  object$family$linkinv(eta)
}

padded <- function(object, values) if (is.null(object$na.action)) values else stats::napredict(object$na.action, values)

fitted.kdr3 <- function(object, ...) {
  mu <- inverse(object, object$eta)
  if (is.matrix(mu)) rownames(mu) <- rownames(object$frame) else names(mu) <- rownames(object$frame)
  padded(object, mu)
}

# The outcome as the model has it: proportions for trials.
responseof <- function(object, frame = object$frame) {
  outcome <- outcomeof(frame, object$family, deparse1(object$formula[[2L]]))
  if (object$family$family == "binomial" && !is.null(outcome$counts)) outcome$y <- outcome$y / outcome$counts
  outcome
}

plainresiduals <- function(object, type) {
  outcome <- responseof(object)
  mu <- inverse(object, object$eta)
  if (categorical(object$family)) {
    r <- outer(outcome$y, seq_along(object$levels), `==`) - mu
    return(switch(type, response = r, pearson = r / sqrt(mu * (1 - mu)),
                  refuse("Residuals of outcomes with categories are \"response\" or \"pearson\", a column for each category.", class = "kdr3_refused")))
  }
  weight <- if (hassigma(object)) outcome$weights else if (object$family$family == "binomial") outcome$counts
  if (is.null(weight)) weight <- 1
  r <- outcome$y - mu
  switch(type, response = r, pearson = r * sqrt(weight / object$family$variance(mu)),
         working = r / object$family$mu.eta(object$family$linkfun(mu)),
         deviance = sign(r) * sqrt(pmax(object$family$dev.resids(outcome$y, mu, rep_len(weight, length(mu))), 0)))
}

# Of outcomes with categories a matrix: 1 in the column of the record's category, less the probabilities.
residuals.kdr3 <- function(object, type = c("response", "pearson", "working", "deviance"), scaled = FALSE, ...) {
  type <- if (missing(type) && !hassigma(object) && !categorical(object$family)) "deviance" else
    chosen(type, c("response", "pearson", "working", "deviance"), "type")
  unused(..., known = "verbose")
  r <- plainresiduals(object, type)
  if (scaled) r <- r / stats::sigma(object)
  if (is.matrix(r)) rownames(r) <- rownames(object$frame) else names(r) <- rownames(object$frame)
  if (is.null(object$na.action)) r else stats::naresid(object$na.action, r)
}

update.kdr3 <- function(object, formula., ..., evaluate = TRUE) {
  call <- object$call
  extras <- match.call(expand.dots = FALSE)$...
  if (!missing(formula.)) call$formula <- stats::update.formula(object$formula, formula.)
  for (name in names(extras)) call[[name]] <- extras[[name]]
  if (!evaluate) return(call)
  # The data may stand where the formula was written, as in a function that is left.
  caller <- parent.frame()
  known <- function(environment) all(vapply(all.vars(call$data), exists, NA, envir = environment))
  if (known(caller) || !known(environment(object$formula))) eval(call, caller) else eval(call, environment(object$formula))
}

# Generics of their own, which know lme4's objects too.
ngrps <- function(object, ...) UseMethod("ngrps")
getME <- function(object, name, ...) UseMethod("getME")
refit <- function(object, newresp, ...) UseMethod("refit")
isSingular <- function(x, ...) UseMethod("isSingular")
# From the user's environment: here the generic would find these defaults once more.
tolme4 <- function(name, ...) {
  if (!requireNamespace("lme4", quietly = TRUE)) refuse(name, "() knows fits of this package, and with lme4 installed of that one.")
  do.call(getExportedValue("lme4", name), list(...), envir = globalenv(), quote = TRUE)
}
ngrps.default <- function(object, ...) tolme4("ngrps", object, ...)
getME.default <- function(object, name, ...) tolme4("getME", object, name, ...)
refit.default <- function(object, newresp, ...) tolme4("refit", object, newresp, ...)
isSingular.default <- function(x, ...) tolme4("isSingular", x, ...)

ngrps.kdr3 <- function(object, ...) {
  groups <- Filter(Negate(is.null), object$groups)
  stats::setNames(vapply(groups, function(g) length(g$labels), 0L), vapply(groups, `[[`, "", "name"))
}

isSingular.kdr3 <- function(x, tol = 1e-4, ...) {
  any(vapply(VarCorr(x), function(V) {
    sd <- attr(V, "stddev")
    if (any(sd == 0)) return(TRUE)
    e <- eigen(attr(V, "correlation"), symmetric = TRUE, only.values = TRUE)$values
    min(e) < tol * max(e) || any(sd^2 < tol^2 * attr(VarCorr(x), "sc")^2)
  }, NA))
}

getME.kdr3 <- function(object, name = c("X", "y", "mu", "beta", "fixef", "theta", "flist", "cnms", "n_rtrms", "is_REML", "REML",
                                        "offset", "Gp", "Zt", "Z", "mmList", "sigma", "N", "n", "p", "q", "lower"), ...) {
  if (length(name) > 1L) return(stats::setNames(lapply(name, function(n) getME(object, n)), name))
  switch(name, X = model.matrix(object), y = responseof(object)$y, mu = inverse(object, object$eta),
         beta = unname(object$coefficients), fixef = object$coefficients,
         theta = unlist(lapply(VarCorr(object), function(V) {
           L <- t(qr.R(qr(t(rootof(unclass(V) / stats::sigma(object)^2)))))  # lower triangle, at the edge too
           L <- L %*% diag(ifelse(diag(L) < 0, -1, 1), nrow(L))
           L[lower.tri(L, diag = TRUE)]
         })), lower = unlist(lapply(VarCorr(object), function(V) {
           L <- matrix(-Inf, nrow(V), nrow(V))
           diag(L) <- 0
           L[lower.tri(L, diag = TRUE)]
         })), flist = groupfactors(object), cnms = lapply(VarCorr(object), rownames), n_rtrms = length(object$blocks),
         is_REML = object$options$reml, REML = object$options$reml, sigma = stats::sigma(object),
         offset = {
           o <- stats::model.offset(object$frame)
           if (is.null(o)) rep(0, nobs(object)) else o
         },
         mmList = model.matrix(object, "random"), N = nobs(object), n = nobs(object), p = length(object$coefficients),
         q = sum(lengths(object$effects[c("level2", "level3")])),
         Z = sparse(object), Zt = t(sparse(object)),
         Gp = cumsum(c(0L, vapply(object$blocks, function(b) length(b$columns), 0L) * ngrps(object)[vapply(object$blocks, `[[`, "", "group")])),
         refuse("getME() of this package has no ", name, ".", class = "kdr3_refused"))
}

# The grouping factors.
groupfactors <- function(object) {
  groups <- Filter(Negate(is.null), object$groups)
  stats::setNames(lapply(groups, function(g) factor(g$codes, seq_along(g$labels), g$labels)), vapply(groups, `[[`, "", "name"))
}

# Z of all blocks as a plain matrix, block by block, unit by unit.
sparse <- function(object) {
  Z <- model.matrix(object, "random")
  factors <- groupfactors(object)
  do.call(cbind, lapply(seq_along(Z), function(b) {
    f <- as.integer(factors[[names(Z)[b]]])
    n <- nlevels(factors[[names(Z)[b]]])
    k <- ncol(Z[[b]])
    made <- matrix(0, nrow(Z[[b]]), n * k)
    for (j in seq_len(k)) made[cbind(seq_along(f), (f - 1L) * k + j)] <- Z[[b]][, j]
    made
  }))
}

# The frame with another outcome.
withresponse <- function(object, newresp) {
  if (is.data.frame(newresp)) newresp <- newresp[[1L]]
  frame <- object$frame
  if (!is.null(object$na.action) && NROW(newresp) == NROW(frame) + length(object$na.action))
    newresp <- if (is.matrix(newresp)) newresp[-object$na.action, , drop = FALSE] else newresp[-object$na.action]
  if (NROW(newresp) != NROW(frame)) refuse("The new outcome has ", NROW(newresp), " values, and the model ", NROW(frame), ".", class = "kdr3_data")
  frame[[1L]] <- newresp
  frame
}

refit.kdr3 <- function(object, newresp = NULL, ...)
  refitted(object, frame = if (is.null(newresp)) object$frame else withresponse(object, newresp))
