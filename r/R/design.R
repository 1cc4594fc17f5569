# From a model frame to the columns and equations of the library.

# ---- Groupings -------------------------------------------------------------------------------------------------------

# A variable as codes from 1 and the labels of its values, in the order that factor() has.
codesof <- function(x) {
  if (is.matrix(x)) refuse("A grouping is one variable, not a matrix.", class = "kdr3_formula")
  if (is.factor(x)) return(list(codes = as.integer(x), labels = levels(x)))
  values <- sort(unique(x))
  list(codes = match(x, values), labels = as.character(values))
}

# The units of a grouping: a code for each record, and labels; the first variable varies slowest.
unitsof <- function(variables, frame) {
  parts <- lapply(variables, function(v) codesof(frame[[deparse1(v)]]))
  codes <- parts[[1L]]$codes
  labels <- parts[[1L]]$labels
  for (part in parts[-1L]) {
    n <- length(part$labels)
    pair <- if (as.double(length(labels)) * n < .Machine$integer.max) (codes - 1L) * n + part$codes else
      (as.double(codes) - 1) * n + part$codes
    seen <- sort(unique(pair))
    labels <- paste(labels[(seen - 1) %/% n + 1], part$labels[(seen - 1) %% n + 1], sep = ":")
    codes <- match(pair, seen)
  }
  used <- which(tabulate(codes, length(labels)) > 0L)
  if (length(used) < length(labels)) {
    codes <- match(codes, used)
    labels <- labels[used]
  }
  list(codes = codes, labels = labels)
}

# The groupings of the random parts, level 2 first, one within the other.
groupingsof <- function(parts, frame) {
  names <- unique(vapply(parts, `[[`, "", "group"))
  groups <- lapply(names, function(name) {
    part <- parts[[match(name, vapply(parts, `[[`, "", "group"))]]
    c(list(name = name), unitsof(part$variables, frame))
  })
  if (length(groups) > 2L)
    refuse("The model has ", length(groups), " groupings (", paste(names, collapse = ", "),
           "): it can have two, one within the other.", class = "kdr3_groupings")
  for (group in groups) {
    if (anyNA(group$codes))
      refuse("The grouping ", group$name, " is missing in row ", rownames(frame)[which(is.na(group$codes))[1L]], ".", class = "kdr3_data")
    if (length(group$labels) < 2L)
      refuse("The grouping ", group$name, " has one unit only.", class = "kdr3_groupings")
  }
  if (length(groups) == 1L) return(list(level2 = groups[[1L]], level3 = NULL))
  groups <- groups[order(-vapply(groups, function(g) length(g$labels), 0L))]
  fine <- groups[[1L]]
  coarse <- groups[[2L]]
  first <- match(seq_along(fine$labels), fine$codes)
  owner <- coarse$codes[first]
  strange <- which(owner[fine$codes] != coarse$codes)
  if (length(strange) > 0L) {
    row <- strange[1L]
    unit <- fine$codes[row]
    refuse("The groupings ", names[1L], " and ", names[2L], " are crossed: ", fine$name, " ", fine$labels[unit],
           " is in ", coarse$name, " ", coarse$labels[owner[unit]], " and in ", coarse$labels[coarse$codes[row]],
           ". Crossed random effects can't be fitted; if labels are used again in each unit, write (effects | ", names[1L], "/",
           names[2L], ").", class = "kdr3_crossed")
  }
  if (length(fine$labels) == length(coarse$labels))
    refuse("The groupings ", fine$name, " and ", coarse$name, " have the same units.", class = "kdr3_groupings")
  list(level2 = c(fine, list(owner = owner)), level3 = coarse)
}

unit3of <- function(groupings) if (is.null(groupings$level3)) NULL else groupings$level3$codes

# The library's order of units: as they first appear, those of level 2 within their level-3 unit.
libraryorder <- function(groupings) {
  order2 <- unique(groupings$level2$codes)
  if (is.null(groupings$level3)) return(list(level2 = order2, level3 = integer()))
  order3 <- unique(groupings$level3$codes)
  list(level2 = order2[order(match(groupings$level2$owner[order2], order3))], level3 = order3)
}

# A matrix without names of rows, which would go with each of its columns.
plainrows <- function(m) {
  dimnames(m) <- list(NULL, colnames(m))
  m
}

# ---- Random columns --------------------------------------------------------------------------------------------------

# The blocks of random effects of the parts: each a matrix of columns, with the names of its effects and its grouping.
blocksof <- function(parts, frame) {
  blocks <- list()
  for (part in parts) {
    formula <- stats::as.formula(call("~", part$effects), env = globalenv())
    tt <- partterms(formula, attr(frame, "terms"))
    Z <- plainrows(stats::model.matrix(tt, frame))
    checkfinite(Z, frame)
    which <- attr(Z, "assign")
    groups <- if (!part$double) list(seq_len(ncol(Z))) else split(seq_len(ncol(Z)), which)
    if (part$double && any(lengths(groups) > 1L))
      message("(", deparse1(part$effects), " || ", part$group, "): the effects of a factor's columns are correlated with each ",
              "other, those of different terms are not.")
    for (columns in groups)
      blocks <- c(blocks, list(list(group = part$group, Z = Z[, columns, drop = FALSE], terms = tt, columns = columns)))
  }
  blocks
}

# ---- Columns and their levels ----------------------------------------------------------------------------------------

# A store of columns: each is held once, with its level.
columnstore <- function(groupings) {
  store <- new.env(parent = emptyenv())
  store$values <- list()
  store$names <- character()
  store$levels <- integer()
  store$unit2 <- groupings$level2$codes
  store$unit3 <- unit3of(groupings)
  store
}

levelsof <- function(store, columns) .Call(C_kdr3r_levels, columns, store$unit2, store$unit3)

# The number of a column in the store.
stored <- function(store, name, values, level = levelsof(store, list(values))) {
  for (place in which(store$names == name))
    if (store$levels[place] == level && identical(store$values[[place]], values)) return(place)
  place <- length(store$names) + 1L
  store$names[place] <- name
  store$values[[place]] <- values
  store$levels[place] <- level
  place
}

# The columns that a variable has in a term, with their names as model.matrix makes them.
variablecolumns <- function(name, x, full, contrasts) {
  if (is.character(x) || is.logical(x)) x <- factor(x)
  if (is.factor(x)) {
    C <- if (full) diag(nlevels(x)) else contrasts
    if (is.character(C) || is.function(C)) {
      stats::contrasts(x) <- C
      C <- stats::contrasts(x)
    }
    if (full) colnames(C) <- levels(x)
    if (is.null(colnames(C))) colnames(C) <- seq_len(ncol(C))
    columns <- lapply(seq_len(ncol(C)), function(j) as.double(C[as.integer(x), j]))
    names(columns) <- paste0(name, colnames(C))
    return(columns)
  }
  if (!is.matrix(x)) return(stats::setNames(list(as.double(x)), name))
  columns <- lapply(seq_len(ncol(x)), function(j) as.double(x[, j]))
  names(columns) <- paste0(name, if (is.null(colnames(x))) seq_len(ncol(x)) else colnames(x))
  columns
}

# A column of the fixed part as a product of pieces of levels 1, 2 and 3: their numbers in the store, 0 for none.
place <- function(store, name, values, level) {
  at <- c(0L, 0L, 0L)
  at[level] <- stored(store, name, values, level)
  at
}

# The pieces of all columns of X. Products across levels are split, unless a random effect has the whole column.
fixedpieces <- function(store, X, frame, tt, whole) {
  assign <- attr(X, "assign")
  contrasts <- attr(X, "contrasts")
  columns <- lapply(seq_len(ncol(X)), function(j) as.double(X[, j]))
  levels <- levelsof(store, columns)
  pieces <- matrix(0L, ncol(X), 3L)
  for (t in unique(assign)) {
    these <- which(assign == t)
    if (t == 0L) next
    split <- splitterm(store, colnames(X)[these], columns[these], frame, attr(tt, "factors")[, t], contrasts, whole)
    for (i in seq_along(these))
      pieces[these[i], ] <- if (!is.null(split)) split[i, ] else
        place(store, colnames(X)[these[i]], columns[[these[i]]], levels[these[i]])
  }
  pieces
}

# The pieces of the columns of one term, NULL where it is of one level or a whole column is wanted.
splitterm <- function(store, names, columns, frame, code, contrasts, whole) {
  variables <- names(code)[code > 0]
  if (length(variables) < 2L || any(names %in% whole)) return(NULL)
  parts <- lapply(variables, function(v) variablecolumns(v, frame[[v]], code[[v]] == 2, contrasts[[v]]))
  levels <- lapply(parts, function(p) levelsof(store, p))
  if (length(unique(unlist(levels))) < 2L) return(NULL)
  grid <- do.call(expand.grid, lapply(parts, seq_along))
  made <- matrix(0L, length(columns), 3L)
  for (row in seq_len(nrow(grid))) {
    chosen <- unlist(grid[row, ])
    level <- mapply(`[`, levels, chosen)
    at <- match(paste(mapply(function(p, k) names(p)[k], parts, chosen), collapse = ":"), names)
    if (is.na(at)) next  # a column that was left out
    product <- 1
    for (l in sort(unique(level))) {
      members <- which(level == l)
      values <- Reduce(`*`, Map(function(p, k) p[[k]], parts[members], chosen[members]))
      product <- product * values
      made[at, l] <- stored(store, paste(mapply(function(p, k) names(p)[k], parts[members], chosen[members]), collapse = ":"),
                            values, l)
    }
    if (!isTRUE(all.equal(product, columns[[at]], tolerance = 1e-12))) return(NULL)
  }
  if (any(rowSums(made) == 0L)) return(NULL)
  made
}

# The pieces of levels 1 and 2 that a random effect belongs to.
randompieces <- function(store, name, values, group, level) {
  if (name == "(Intercept)") return(c(0L, 0L))
  own <- levelsof(store, list(values))
  if (own >= level)
    refuse("The effect of ", name, " can't vary over units of ", group, ": ", name, " doesn't vary within any of them.",
           class = "kdr3_formula")
  place(store, name, values, own)[1:2]
}

# ---- Equations -------------------------------------------------------------------------------------------------------

# The tree of coefficients of levels 1 and 2 from the pieces of fixed and random effects; `fixed` is the place of each
# column of X in the library's order, `random2` and `random3` that of each random effect.
equationsof <- function(fixed, random2, random3, threelevels) {
  level1 <- sort(unique(c(fixed[, 1L], random2[, 1L], random3[, 1L])))
  pairs <- unique(rbind(fixed[, 1:2, drop = FALSE], random3))
  pairs <- pairs[order(pairs[, 1L], pairs[, 2L]), , drop = FALSE]
  key <- function(m) paste(m[, 1L], m[, 2L])
  list(level1 = cbind(0L, level1, as.integer(level1 %in% random2[, 1L])),
       level2 = cbind(match(pairs[, 1L], level1) - 1L, pairs[, 2L], as.integer(key(pairs) %in% key(random3))),
       level3 = if (threelevels) cbind(match(key(fixed), key(pairs)) - 1L, fixed[, 3L], 0L) else
         matrix(0L, 0L, 3L),
       fixed = order(fixed[, 1L], fixed[, 2L], fixed[, 3L]),
       random2 = match(random2[, 1L], sort(unique(random2[, 1L]))),
       random3 = match(key(random3), key(pairs)[key(pairs) %in% key(random3)]))
}

# Elements of a tau that are held at 0, in the library's order: those of effects of different blocks.
heldelements <- function(block, place) {
  n <- length(block)
  if (length(unique(block)) < 2L) return(NULL)
  held <- matrix(0, n, n)
  held[outer(block, block, `==`)] <- NaN
  made <- matrix(0, n, n)
  made[place, place] <- held
  made
}

# Columns that others give already.
deficient <- function(X) {
  if (ncol(X) == 0L) return(integer())
  q <- qr(X, tol = 1e-7)
  if (q$rank == ncol(X)) integer() else sort(q$pivot[-seq_len(q$rank)])
}

checkfinite <- function(columns, frame) {
  for (j in seq_len(ncol(columns)))
    if (!all(is.finite(columns[, j])))
      refuse("The column ", colnames(columns)[j], " of the model has a value that is not finite, in row ",
             rownames(frame)[which(!is.finite(columns[, j]))[1L]], ".", class = "kdr3_data")
}

# The design: X of full rank, groupings, blocks of random effects, and what the library is told of them.
designof <- function(frame, parts, fixedformula, contrasts, roots = NULL) {
  groupings <- groupingsof(parts, frame)
  tt <- partterms(fixedformula, attr(frame, "terms"))
  X <- plainrows(stats::model.matrix(tt, frame, contrasts.arg = contrasts))
  checkfinite(X, frame)
  if (ncol(X) == 0L) refuse("The fixed part of the model is empty.", class = "kdr3_formula")
  dropped <- deficient(X)
  kept <- setdiff(seq_len(ncol(X)), dropped)
  if (length(dropped) > 0L)
    message("fixed-effect model matrix is rank deficient so dropping ", length(dropped), " column",
            if (length(dropped) > 1L) "s", " / coefficient", if (length(dropped) > 1L) "s")
  wholenames <- colnames(X)
  assign <- attr(X, "assign")
  used <- attr(X, "contrasts")
  if (length(dropped) > 0L) X <- X[, kept, drop = FALSE]
  attr(X, "assign") <- assign[kept]
  attr(X, "contrasts") <- used
  blocks <- blocksof(parts, frame)
  level <- vapply(blocks, function(b) if (b$group == groupings$level2$name) 2L else 3L, 0L)
  blocks <- blocks[order(level)]
  level <- sort(level)
  store <- columnstore(groupings)
  whole <- unlist(lapply(blocks, function(b) colnames(b$Z)))
  pieces <- fixedpieces(store, X, frame, tt, whole)
  random <- list(matrix(0L, 0L, 2L), matrix(0L, 0L, 2L))
  owner <- list(integer(), integer())
  for (b in seq_along(blocks))
    for (j in seq_len(ncol(blocks[[b]]$Z))) {
      l <- level[b] - 1L
      at <- randompieces(store, colnames(blocks[[b]]$Z)[j], as.double(blocks[[b]]$Z[, j]), blocks[[b]]$group, level[b])
      if (any(random[[l]][, 1L] == at[1L] & random[[l]][, 2L] == at[2L]))
        refuse("The effect ", colnames(blocks[[b]]$Z)[j], " varies twice over ", blocks[[b]]$group, ".", class = "kdr3_formula")
      random[[l]] <- rbind(random[[l]], at)
      owner[[l]] <- c(owner[[l]], b)
    }
  list(X = X, dropped = wholenames[dropped], wholenames = wholenames, wholeassign = assign, terms = tt,
       groupings = groupings, blocks = blocks, level = level, owner = owner, store = store, pieces = pieces, random = random)
}

# The columns of the library's data: level-1 columns times the roots of weights, the intercept too.
librarycolumns <- function(design, roots) {
  store <- design$store
  pieces <- design$pieces
  random <- design$random
  if (!is.null(roots)) {
    for (c in which(store$levels == 1L)) store$values[[c]] <- store$values[[c]] * roots
    intercept <- stored(store, "(root of the weight)", roots, 1L)
    pieces[pieces[, 1L] == 0L, 1L] <- intercept
    for (l in 1:2) random[[l]][random[[l]][, 1L] == 0L, 1L] <- intercept
  }
  list(values = store$values, names = store$names, levels = store$levels, pieces = pieces, random = random)
}
