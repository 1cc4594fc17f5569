# Formulas with random parts: (effects | grouping), as lme4 reads them.

isbar <- function(e) is.call(e) && (identical(e[[1L]], quote(`|`)) || identical(e[[1L]], quote(`||`)))
sums <- c("+", "-", "*", ":", "/", "(", "~", "%in%", "^")
issum <- function(e) is.call(e) && is.name(e[[1L]]) && as.character(e[[1L]]) %in% sums

# The bars of a formula, from left to right.
findbars <- function(e) {
  if (isbar(e)) return(list(e))
  if (!issum(e)) return(NULL)
  if (identical(e[[1L]], quote(`~`))) return(findbars(e[[length(e)]]))
  unlist(lapply(as.list(e)[-1L], findbars), recursive = FALSE)
}

# An expression without its bars, NULL where nothing is left.
without <- function(e) {
  if (isbar(e)) return(NULL)
  if (!issum(e)) return(e)
  if (identical(e[[1L]], quote(`(`))) {
    inner <- without(e[[2L]])
    return(if (is.null(inner)) NULL else call("(", inner))
  }
  if (length(e) == 2L) {
    inner <- without(e[[2L]])
    return(if (is.null(inner)) NULL else as.call(list(e[[1L]], inner)))
  }
  left <- without(e[[2L]])
  right <- without(e[[3L]])
  if (is.null(left)) {
    # What is taken away from nothing is taken from the intercept.
    if (identical(e[[1L]], quote(`-`)) && !is.null(right)) return(call("-", right))
    return(right)
  }
  if (is.null(right)) return(left)
  as.call(list(e[[1L]], left, right))
}

# The formula of the fixed part.
nobars <- function(formula) {
  right <- without(formula[[length(formula)]])
  formula[[length(formula)]] <- if (is.null(right)) 1 else right
  formula
}

# a/b is a and b:a, the finer one as lme4 names it.
expandgroup <- function(g) {
  if (is.call(g) && identical(g[[1L]], quote(`(`))) return(expandgroup(g[[2L]]))
  if (is.call(g) && identical(g[[1L]], quote(`/`))) {
    coarse <- expandgroup(g[[2L]])
    return(c(coarse, list(call(":", g[[3L]], coarse[[length(coarse)]]))))
  }
  if (is.call(g) && as.character(g[[1L]])[1L] %in% c("+", "*", "-"))
    refuse("The grouping ", deparse1(g), " has no meaning: write (effects | a/b), or a part for each grouping.",
           class = "kdr3_formula")
  list(g)
}

# The variables whose combinations are the units of a grouping.
groupvariables <- function(g) {
  if (is.call(g) && identical(g[[1L]], quote(`(`))) return(groupvariables(g[[2L]]))
  if (is.call(g) && identical(g[[1L]], quote(`:`))) return(c(groupvariables(g[[2L]]), groupvariables(g[[3L]])))
  list(g)
}

# Random parts in their order: effects (an expression), grouping, and whether the effects of its terms are independent.
randomparts <- function(formula) {
  parts <- list()
  for (bar in findbars(formula)) {
    double <- identical(bar[[1L]], quote(`||`))
    for (g in expandgroup(bar[[3L]])) {
      variables <- groupvariables(g)
      parts <- c(parts, list(list(effects = bar[[2L]], variables = variables, double = double,
                                  group = paste(vapply(variables, deparse1, ""), collapse = ":"))))
    }
  }
  if (length(parts) == 0L)
    refuse("The formula has no random part: write one, such as (1 | school/pupil).", class = "kdr3_formula")
  parts
}

# One formula over all variables, for the model frame.
frameformula <- function(formula, parts) {
  right <- nobars(formula)[[length(formula)]]
  for (part in parts) {
    right <- call("+", right, part$effects)
    for (variable in part$variables) right <- call("+", right, variable)
  }
  formula[[length(formula)]] <- right
  formula
}

variablenames <- function(tt)
  vapply(as.list(attr(tt, "variables"))[-1L], function(v) paste(deparse(v, 500L, backtick = !is.symbol(v)), collapse = " "), "")

# Terms of a part of the model with what the frame of the whole knows of their variables: how to make them of new data.
partterms <- function(formula, whole) {
  tt <- stats::terms(formula)
  place <- match(variablenames(tt), variablenames(whole))
  attr(tt, "predvars") <- as.call(c(quote(list), as.list(attr(whole, "predvars"))[-1L][place]))
  attr(tt, "dataClasses") <- attr(whole, "dataClasses")[place]
  tt
}
