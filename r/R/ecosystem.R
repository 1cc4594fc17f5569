# What other packages ask of a model: generics (broom), emmeans, insight, ggeffects, marginaleffects, DHARMa.

# ---- broom -----------------------------------------------------------------------------------------------------------

tidy.kdr3 <- function(x, effects = c("ran_pars", "fixed"), conf.int = FALSE, conf.level = 0.95, conf.method = "Wald", exponentiate = FALSE,
                      vcov.type = "model", ...) {
  effects <- match.arg(effects, c("ran_pars", "fixed", "ran_vals", "ran_coefs"), several.ok = TRUE)
  intervals <- if (conf.int && any(c("fixed", "ran_pars") %in% effects))
    stats::confint(x, level = conf.level, method = conf.method, vcov. = stats::vcov(x, type = vcov.type))
  parts <- list()
  if ("fixed" %in% effects) {
    table <- coefficienttable(x, stats::vcov(x, type = vcov.type))
    part <- data.frame(effect = "fixed", group = NA_character_, term = rownames(table), estimate = table[, 1L], std.error = table[, 2L],
                       statistic = x$coefficients / table[, 2L], df = ifelse(is.na(x$df), Inf, x$df), p.value = table[, ncol(table)])
    if (conf.int) part[c("conf.low", "conf.high")] <- list(intervals[part$term, 1L], intervals[part$term, 2L])
    if (exponentiate) {
      part$std.error <- part$std.error * exp(part$estimate)
      for (column in intersect(c("estimate", "conf.low", "conf.high"), names(part))) part[[column]] <- exp(part[[column]])
    }
    parts <- c(parts, list(part))
  }
  if ("ran_pars" %in% effects) {
    table <- as.data.frame(VarCorr(x), order = "lower.tri")
    part <- data.frame(effect = "ran_pars", group = table$grp,
                       term = ifelse(is.na(table$var1), "sd__Observation",
                                     ifelse(is.na(table$var2), paste0("sd__", table$var1), paste0("cor__", table$var1, ".", table$var2))),
                       estimate = table$sdcor, std.error = NA_real_, statistic = NA_real_, df = NA_real_, p.value = NA_real_)
    if (conf.int) part[c("conf.low", "conf.high")] <- list(intervals[seq_len(nrow(part)), 1L], intervals[seq_len(nrow(part)), 2L])
    parts <- c(parts, list(part))
  }
  for (kind in intersect(c("ran_vals", "ran_coefs"), effects)) parts <- c(parts, list(tidyeffects(x, kind, conf.int, conf.level)))
  columns <- Reduce(union, lapply(parts, names))
  columns <- intersect(c("effect", "group", "level", "term", "estimate", "std.error", "statistic", "df", "p.value", "conf.low", "conf.high"), columns)
  made <- do.call(rbind, lapply(parts, function(p) {
    for (column in setdiff(columns, names(p))) p[[column]] <- NA
    p[columns]
  }))
  rownames(made) <- NULL
  class(made) <- c(if (requireNamespace("tibble", quietly = TRUE)) c("tbl_df", "tbl"), "data.frame")
  made
}

tidyeffects <- function(x, kind, conf.int, conf.level) {
  table <- if (kind == "ran_vals") as.data.frame(ranef(x)) else {
    do.call(rbind, lapply(names(coef(x)), function(g) {
      t <- coef(x)[[g]]
      do.call(rbind, lapply(names(t), function(n) data.frame(grpvar = g, term = n, grp = rownames(t), condval = t[[n]], condsd = NA_real_)))
    }))
  }
  part <- data.frame(effect = kind, group = as.character(table$grpvar), level = table$grp, term = as.character(table$term), estimate = table$condval,
                     std.error = table$condsd)
  if (conf.int) {
    half <- stats::qnorm((1 + conf.level) / 2) * part$std.error
    part$conf.low <- part$estimate - half
    part$conf.high <- part$estimate + half
  }
  part
}

glance.kdr3 <- function(x, ...) {
  made <- data.frame(nobs = nobs(x), sigma = stats::sigma(x), logLik = as.numeric(stats::logLik(x)), AIC = stats::AIC(x), BIC = stats::BIC(x))
  made[[if (x$options$reml) "REMLcrit" else "deviance"]] <- stats::deviance(x)
  made$df.residual <- stats::df.residual(x)
  class(made) <- c(if (requireNamespace("tibble", quietly = TRUE)) c("tbl_df", "tbl"), "data.frame")
  made
}

augment.kdr3 <- function(x, data = NULL, newdata = NULL, ...) {
  if (!is.null(newdata)) {
    made <- as.data.frame(newdata)
    found <- stats::predict(x, newdata, type = if (categorical(x$family)) "response" else "link", allow.new.levels = TRUE)
    if (categorical(x$family)) return(augmentcategories(made, found, x$levels))
    made$.fitted <- unname(found)
    return(made)
  }
  if (is.null(data)) x$na.action <- NULL  # its frame has no rows to be padded
  made <- if (is.null(data)) x$frame else as.data.frame(data)
  if (!is.null(data) && !is.null(x$na.action) && !inherits(x$na.action, "exclude")) made <- made[-x$na.action, , drop = FALSE]
  attr(made, "terms") <- NULL
  if (categorical(x$family)) return(augmentcategories(made, stats::fitted(x), x$levels))
  made$.fitted <- unname(stats::predict(x))
  made$.resid <- unname(stats::residuals(x))
  made$.fixed <- unname(stats::predict(x, re.form = NA))
  if (!hassigma(x)) {
    made$.mu <- unname(stats::fitted(x))
    made$.eta <- made$.fitted
  }
  made
}

# The most probable category, and the probability of each.
augmentcategories <- function(made, probabilities, levels) {
  best <- max.col(ifelse(is.na(probabilities), 0, probabilities), ties.method = "first")
  best[is.na(probabilities[, 1L])] <- NA
  made$.fitted <- factor(levels[best], levels)
  for (category in levels) made[[paste0(".prob.", category)]] <- unname(probabilities[, category])
  made
}

# ---- emmeans ---------------------------------------------------------------------------------------------------------

recover_data.kdr3 <- function(object, data = NULL, ...) {
  call <- object$call
  frame <- if (is.null(data)) rawvariables(object)
  emmeans::recover_data(call, stats::delete.response(object$terms), object$na.action, frame = frame, data = data,
                        pwts = if (hassigma(object)) weights(object), ...)
}

# The frame of the fit where its columns are plain variables; else emmeans has to find the data by the call.
rawvariables <- function(object) {
  if (all(all.vars(stats::delete.response(object$terms)) %in% names(object$frame))) object$frame
}

emm_basis.kdr3 <- function(object, trms, xlev, grid, ..., vcov., vcov.type = "model") {
  m <- stats::model.frame(trms, grid, na.action = stats::na.pass, xlev = xlev)
  X <- stats::model.matrix(trms, m, contrasts.arg = object$contrasts)
  V <- if (missing(vcov.)) stats::vcov(object, type = vcov.type) else emmeans::.my.vcov(object, vcov.)
  if (object$family$family == "multinomial") return(categorybasis(object, X, V))
  bhat <- fixef(object, add.dropped = TRUE)[colnames(X)]
  own <- intersect(colnames(X), names(object$coefficients))  # without thresholds
  V <- V[own, own, drop = FALSE]
  nbasis <- if (length(object$dropped) > 0L) estimability::nonest.basis(qr(stats::model.matrix(object$terms, object$frame, contrasts.arg = object$contrasts))) else
    estimability::all.estble
  misc <- if (hassigma(object)) list() else emmeans::.std.link.labels(object$family, list())
  kept <- !colnames(X) %in% object$dropped
  list(X = X, bhat = unname(bhat), nbasis = nbasis, V = V, dffun = function(k, dfargs) dfargs$find(dfargs$object, k[dfargs$kept]),
       dfargs = list(object = object, kept = kept, find = contrastdf), misc = misc)
}

# Of a multinomial outcome the logit of each category against the last: a factor of the grid named category.
categorybasis <- function(object, X, V) {
  if (length(object$dropped) > 0L) refuse("Multinomial fits with columns that were left out have no reference grid.", class = "kdr3_refused")
  sets <- length(object$levels) - 1L
  list(X = kronecker(diag(sets), X), bhat = unname(object$coefficients), nbasis = estimability::all.estble, V = V,
       dffun = function(k, dfargs) dfargs$find(dfargs$object, k), dfargs = list(object = object, find = contrastdf),
       misc = list(ylevs = list(category = object$levels[seq_len(sets)]), estName = "logit",
                   initMesg = paste("Logits against the category", object$levels[sets + 1L])))
}

# Degrees of freedom of one contrast: by the method of the fit, with counts the least of the effects in it.
contrastdf <- function(object, k) {
  if (object$options$ddf != "counts") {
    df <- refitted(object, hypotheses = list(matrix(k, 1L)))$hypotheses[3L, 1L]
    return(if (is.na(df)) Inf else df)
  }
  df <- object$df[which(abs(k) > 1e-12)]
  if (length(df) == 0L || anyNA(df)) Inf else min(df)
}

# ---- insight ---------------------------------------------------------------------------------------------------------

find_formula.kdr3 <- function(x, verbose = TRUE, ...) {
  random <- lapply(x$options$parts, function(p) {
    effects <- deparse1(p$effects)
    stats::as.formula(paste("~", effects, "|", p$group), globalenv())
  })
  made <- list(conditional = nobars(x$formula), random = if (length(random) == 1L) random[[1L]] else random)
  structure(made, class = c("insight_formula", "list"))
}

find_random.kdr3 <- function(x, split_nested = FALSE, flatten = FALSE, ...) {
  names <- names(ngrps(x))
  if (split_nested) names <- unique(unlist(strsplit(names, ":", fixed = TRUE)))
  if (flatten) names else list(random = names)
}

find_statistic.kdr3 <- function(x, ...) "t-statistic"
is_mixed_model.kdr3 <- function(x) TRUE
link_inverse.kdr3 <- function(x, ...) if (categorical(x$family)) stats::plogis else x$family$linkinv
link_function.kdr3 <- function(x, ...) if (categorical(x$family)) stats::qlogis else x$family$linkfun

model_info.kdr3 <- function(x, verbose = TRUE, ...) {
  type <- x$family$family
  outcome <- outcomeof(x$frame, x$family, "")
  trials <- type == "binomial" && !is.null(outcome$counts)
  list(is_binomial = type == "binomial", is_bernoulli = type == "binomial" && !trials, is_count = type == "poisson", is_poisson = type == "poisson",
       is_negbin = FALSE, is_beta = FALSE, is_betabinomial = FALSE, is_orderedbeta = FALSE, is_dirichlet = FALSE, is_exponential = FALSE,
       is_logit = type %in% c("binomial", "ordinal", "multinomial"), is_probit = FALSE, is_censored = FALSE, is_truncated = FALSE, is_survival = FALSE,
       is_linear = type == "gaussian", is_tweedie = FALSE, is_zeroinf = FALSE, is_zero_inflated = FALSE, is_dispersion = FALSE, is_hurdle = FALSE,
       is_ordinal = type == "ordinal", is_cumulative = type == "ordinal", is_multinomial = type == "multinomial", is_categorical = type == "multinomial",
       is_mixed = TRUE, is_multivariate = FALSE, is_trial = trials, is_bayesian = FALSE, is_gam = FALSE, is_anova = FALSE, is_timeseries = FALSE,
       is_ttest = FALSE, is_correlation = FALSE, is_onewaytest = FALSE, is_chi2test = FALSE, is_ranktest = FALSE, is_levenetest = FALSE,
       is_variancetest = FALSE, is_xtab = FALSE, is_proptest = FALSE, is_binomtest = FALSE, is_ftest = FALSE, is_meta = FALSE, is_wiener = FALSE,
       is_rtchoice = FALSE, is_mixture = FALSE, link_function = x$family$link, family = type, n_obs = nobs(x), n_grouplevels = ngrps(x))
}

get_data.kdr3 <- function(x, ...) {
  frame <- x$frame
  attr(frame, "terms") <- NULL
  data <- tryCatch(eval(x$call$data, environment(x$formula)), error = function(e) NULL)
  if (!is.data.frame(data)) return(frame)
  wanted <- intersect(all.vars(x$formula), names(data))
  data <- as.data.frame(data)[wanted]
  if (nrow(data) != nrow(frame)) data <- if (all(rownames(frame) %in% rownames(data))) data[rownames(frame), , drop = FALSE] else frame
  data
}

get_df.kdr3 <- function(x, type = "residual", ...) {
  if (identical(type, "residual")) return(stats::df.residual(x))
  if (identical(type, "model")) return(parameters(x))
  if (identical(type, "normal")) return(Inf)
  unname(ifelse(is.na(x$df), Inf, x$df))
}

get_parameters.kdr3 <- function(x, effects = c("fixed", "random", "all"), ...) {
  if (match.arg(effects) == "random") return(lapply(ranef(x), function(u) u))
  data.frame(Parameter = names(x$coefficients), Estimate = unname(x$coefficients))
}

find_parameters.kdr3 <- function(x, effects = c("all", "fixed", "random"), flatten = FALSE, ...) {
  effects <- match.arg(effects)
  made <- list(conditional = names(x$coefficients), random = lapply(ranef(x), names))
  made <- switch(effects, fixed = made["conditional"], random = made["random"], all = made)
  if (flatten) unlist(made, use.names = FALSE) else made
}

get_statistic.kdr3 <- function(x, ...)
  structure(data.frame(Parameter = names(x$coefficients), Statistic = unname(x$coefficients / sqrt(diag(x$vcov)))), statistic = "t-statistic")

get_varcov.kdr3 <- function(x, ..., vcov = NULL) {
  if (is.matrix(vcov)) return(vcov)
  if (is.character(vcov)) return(stats::vcov(x, type = if (vcov %in% c("CR2")) "CR2" else "robust"))
  x$vcov
}

get_random.kdr3 <- function(x, ...) as.data.frame(groupfactors(x), optional = TRUE)
get_sigma.kdr3 <- function(x, ...) structure(stats::sigma(x), class = c("insight_aux", "numeric"))

# Variances of the parts of the model on the scale of the link: what icc() and r2() are made of. The variance of the
# distribution is pi^2 / 3 of logits, log(1 + 1 / mean) of counts.
get_variance.kdr3 <- function(x, component = c("all", "fixed", "random", "residual", "distribution", "dispersion", "intercept", "slope", "rho01", "rho00"),
                              ...) {
  component <- match.arg(component)
  if (x$family$family == "multinomial") {
    warn("A multinomial outcome has a predictor for each category, and no one share of its variance.", class = "kdr3_refused")
    return(NULL)
  }
  X <- model.matrix(x)
  fixed <- stats::var(drop(X %*% x$coefficients[seq_len(ncol(X))]))
  Z <- model.matrix(x, "random")
  varcor <- VarCorr(x)
  blocks <- which(vapply(x$blocks, function(b) length(b$names) > 0L, NA))
  random <- sum(vapply(seq_along(varcor), function(i) {
    z <- Z[[blocks[i]]]
    mean(rowSums((z %*% unclass(varcor[[i]])[, , drop = FALSE]) * z))
  }, 0))
  type <- x$family$family
  mean <- if (type == "poisson") exp(base::mean(drop(X %*% x$coefficients)) + random / 2)
  distribution <- switch(type, gaussian = stats::sigma(x)^2, poisson = log1p(1 / mean), pi^2 / 3)
  dispersion <- 0
  diagonal <- function(V) stats::setNames(diag(as.matrix(V)), rownames(V))
  pick <- function(rule) {
    values <- lapply(names(varcor), function(g) {
      v <- diagonal(varcor[[g]])
      v <- v[rule(names(v))]
      if (length(v) > 0L) stats::setNames(v, if (identical(rule, isintercept)) sub("\\.[0-9]+$", "", g) else paste(sub("\\.[0-9]+$", "", g), names(v), sep = "."))
    })
    unlist(values)
  }
  isintercept <- function(n) n == "(Intercept)"
  isslope <- function(n) n != "(Intercept)"
  environment(isintercept) <- environment(isslope) <- baseenv()
  rho <- unlist(lapply(names(varcor), function(g) {
    C <- attr(varcor[[g]], "correlation")
    if (nrow(C) < 2L || rownames(C)[1L] != "(Intercept)") return(NULL)
    stats::setNames(C[-1L, 1L], rep(g, nrow(C) - 1L))
  }))
  slopes <- pick(isslope)
  made <- list(var.fixed = fixed, var.random = random, var.residual = distribution + dispersion, var.distribution = distribution,
               var.dispersion = dispersion, var.intercept = pick(isintercept), var.slope = slopes, cor.slope_intercept = rho)
  made <- Filter(Negate(is.null), made)
  switch(component, all = made, fixed = made["var.fixed"], random = made["var.random"], residual = made["var.residual"],
         distribution = made["var.distribution"], dispersion = made["var.dispersion"], intercept = made["var.intercept"],
         slope = made["var.slope"], rho01 = made["cor.slope_intercept"], NULL)
}

# Predictions and their intervals, on the scale of the outcome or of the link. Those of the fit's own records have the
# random effects in them, so that errors made of them are those of the fit; those of other data have to ask for them.
get_predicted.kdr3 <- function(x, data = NULL, predict = "expectation", ci = 0.95, include_random = "default", verbose = TRUE, ...) {
  if (categorical(x$family)) refuse("Predictions of categories are those of predict(type = \"response\").", class = "kdr3_refused")
  link <- identical(predict, "link")
  with <- if (identical(include_random, "default")) is.null(data) else isTRUE(include_random)
  found <- stats::predict(x, data, type = "link", re.form = if (with) NULL else NA, allow.new.levels = TRUE, se.fit = TRUE)
  back <- if (link) identity else link_inverse.kdr3(x)
  z <- stats::qnorm((1 + (if (is.null(ci)) 0.95 else ci)) / 2)
  bounds <- data.frame(Row = seq_along(found$fit), SE = unname(found$se.fit), CI_low = unname(back(found$fit - z * found$se.fit)),
                       CI_high = unname(back(found$fit + z * found$se.fit)))
  structure(unname(back(found$fit)), ci_data = bounds[-1L], data = data, class = c("get_predicted", "numeric"))
}

# The table of a mixed model, fixed effects and variances, which the package makes of what insight tells.
model_parameters.kdr3 <- function(model, ci_method = "residual", ...) {
  mixed <- utils::getS3method("model_parameters", "merMod", optional = TRUE, envir = asNamespace("parameters"))
  if (is.null(mixed)) return(NextMethod())
  class(model) <- c("elm", class(model))  # by the first class insight knows that its statistics are t
  mixed(model, ci_method = ci_method, ...)
}

.extract_random_parameters.kdr3 <- function(model, ci = 0.95, effects = "random", ...) {
  table <- as.data.frame(ranef(model))
  made <- data.frame(Parameter = as.character(table$term), Level = as.character(table$grp), Coefficient = table$condval, SE = table$condsd)
  for (level in ci) {
    half <- stats::qnorm((1 + level) / 2) * made$SE
    made[paste0(c("CI_low", "CI_high"), if (length(ci) > 1L) paste0("_", level))] <- list(made$Coefficient - half, made$Coefficient + half)
  }
  if (effects != "random") made[c("t", "df_error", "p")] <- NA
  cbind(made, Effects = "random", Group = as.character(table$grpvar))
}

check_singularity.kdr3 <- function(x, tolerance = 1e-05, ...) isSingular(x, tol = tolerance)
check_convergence.kdr3 <- function(x, tolerance = 0.001, ...) isreached(x)

check_overdispersion.kdr3 <- function(x, ...) utils::getS3method("check_overdispersion", "merMod", envir = asNamespace("performance"))(x, ...)

# Nakagawa's R2 from get_variance().
r2.kdr3 <- function(model, ...) performance::r2_nakagawa(model, ...)

model_performance.kdr3 <- function(model, metrics = "all", verbose = TRUE, ...) {
  shares <- suppressWarnings(performance::r2_nakagawa(model))
  icc <- suppressWarnings(performance::icc(model))
  made <- data.frame(AIC = stats::AIC(model), AICc = performance::performance_aicc(model), BIC = stats::BIC(model))
  if (is.list(shares)) made[c("R2_conditional", "R2_marginal")] <- list(unname(shares$R2_conditional), unname(shares$R2_marginal))
  if (is.list(icc)) made$ICC <- icc$ICC_adjusted
  if (!categorical(model$family)) made$RMSE <- sqrt(mean(stats::residuals(model, type = "response")^2))
  made$Sigma <- stats::sigma(model)
  class(made) <- c("performance_model", "data.frame")
  made
}

# ---- ggeffects, marginaleffects, DHARMa ------------------------------------------------------------------------------

# Predictions over a grid with their intervals, as ggeffects' own methods lay them out.
get_predictions.kdr3 <- function(model, data_grid = NULL, ci.lvl = 0.95, linv = NULL, type = "fixed", ...) {
  more <- list(...)
  grid <- if (!is.null(data_grid)) data_grid else more$fitfram
  if (is.null(linv)) linv <- link_inverse.kdr3(model)
  if (categorical(model$family)) return(categorygrid(model, grid, ci.lvl))
  found <- stats::predict(model, grid, type = "link", re.form = NA, se.fit = TRUE)
  grid$predicted <- linv(unname(found$fit))
  level <- if (is.null(ci.lvl) || is.na(ci.lvl)) 0 else ci.lvl
  if (level > 0) {
    z <- stats::qnorm((1 + level) / 2)
    variance <- found$se.fit^2 + if (identical(type, "random") || identical(type, "re")) get_variance.kdr3(model)$var.random + if (hassigma(model)) model$sigma2 else 0 else 0
    grid$conf.low <- linv(unname(found$fit - z * sqrt(variance)))
    grid$conf.high <- linv(unname(found$fit + z * sqrt(variance)))
  }
  attr(grid, "std.error") <- unname(found$se.fit)
  attr(grid, "prediction.interval") <- identical(type, "random")
  grid
}

# A row of the grid for each category, intervals on the scale of the logit.
categorygrid <- function(model, grid, ci.lvl) {
  found <- stats::predict(model, grid, type = "response", re.form = NA, se.fit = TRUE)
  made <- do.call(rbind, lapply(model$levels, function(category) cbind(grid, response.level = category)))
  p <- as.numeric(found$fit)
  se <- as.numeric(found$se.fit) / (p * (1 - p))
  made$predicted <- p
  z <- if (is.null(ci.lvl) || is.na(ci.lvl)) NA else stats::qnorm((1 + ci.lvl) / 2)
  made$conf.low <- stats::plogis(stats::qlogis(p) - z * se)
  made$conf.high <- stats::plogis(stats::qlogis(p) + z * se)
  attr(made, "std.error") <- se
  made
}

get_coef.kdr3 <- function(model, ...) model$coefficients
set_coef.kdr3 <- function(model, coefs, ...) {
  model$coefficients[] <- coefs
  model
}
get_vcov.kdr3 <- function(model, vcov = NULL, ...) {
  if (is.matrix(vcov)) return(vcov)
  if (is.function(vcov)) return(vcov(model))
  if (is.character(vcov)) return(stats::vcov(model, type = if (vcov == "CR2") "CR2" else "robust"))
  if (isFALSE(vcov)) return(NULL)
  model$vcov
}
get_predict.kdr3 <- function(model, newdata = NULL, type = "response", ...) {
  arguments <- list(...)
  re.form <- if ("re.form" %in% names(arguments)) arguments$re.form else NULL
  fit <- stats::predict(model, newdata, type = type, re.form = re.form, allow.new.levels = TRUE)
  rowid <- if ("rowid" %in% names(newdata)) newdata$rowid else seq_len(NROW(fit))
  if (is.matrix(fit))
    return(data.frame(rowid = rep(rowid, ncol(fit)), group = rep(colnames(fit), each = nrow(fit)), estimate = as.numeric(fit)))
  data.frame(rowid = rowid, estimate = unname(fit))
}

getSimulations.kdr3 <- function(object, nsim = 1, type = c("normal", "refit"), ...) {
  type <- match.arg(type)
  y <- simulated(object, nsim)
  if (type == "normal") return(y)
  lapply(seq_len(nsim), function(s) asresponse(object, y[, s]))
}
getRefit.kdr3 <- function(object, newresp, ...) refit(object, newresp)
getFixedEffects.kdr3 <- function(object, ...) object$coefficients
getFitted.kdr3 <- function(object, ...) {
  outcome <- outcomeof(object$frame, object$family, "")
  mu <- unname(stats::predict(object, type = "response", re.form = NA))
  if (object$family$family == "binomial" && !is.null(outcome$counts)) mu * outcome$counts else mu
}
getObservedResponse.kdr3 <- function(object, ...) outcomeof(object$frame, object$family, "")$y
getResiduals.kdr3 <- function(object, ...) unname(stats::residuals(object, type = "response"))
