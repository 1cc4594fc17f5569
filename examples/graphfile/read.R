# Reads a graph data file into data frames.
#
#   Rscript read.R GRAPHFILE MDMFILE [nonlinear] [categories] [m=3] [n=7]
#   source("read.R"); tables <- readgraph("graph.bin", "study.mdm")
#
# The file does not say how many units and coefficients it has. The numbers of units stand in the MDM file of the run;
# the numbers of coefficients are inferred from the length of the file and what stands in it, as read.py tells in full.
# Where that leaves a choice, give m and n, the numbers of level-1 and of level-2 coefficients of the model.

readgraph <- function(path, mdm, nonlinear = FALSE, categories = FALSE, m = NULL, n = NULL) {
  bytes <- readBin(path, "raw", file.size(path))
  if (rawToChar(bytes[1:6]) != "GRKDR3") stop(path, " is not a graph data file")
  at <- 6
  ints <- function(n, from = at) readBin(bytes[from + seq_len(4 * n)], "integer", n, 4, endian = "little")
  takeints <- function(n) { x <- ints(n); at <<- at + 4 * n; x }
  doubles <- function(n) {
    x <- if (n > 0) readBin(bytes[at + seq_len(8 * n)], "double", n, 8, endian = "little") else numeric(0)
    at <<- at + 8 * n
    x
  }
  rows <- function(n, names)
    setNames(as.data.frame(matrix(doubles(n * length(names)), n, length(names), byrow = TRUE)), names)
  numbered <- function(prefix, n) if (n > 0) paste0(prefix, seq_len(n)) else character(0)

  at <- 10
  nfix <- takeints(1)
  tables <- list()
  if (nonlinear || categories) for (name in c("unitspecific", "laplace", "quadrature")) tables[[name]] <- doubles(nfix)
  tables$gamma <- doubles(nfix)
  predictors <- integer(3)
  for (level in 1:3) {
    predictors[level] <- count <- takeints(1)
    names <- character(0)
    for (i in seq_len(count)) {
      names <- c(names, trimws(rawToChar(bytes[at + 1:12])))
      at <- at + 13
    }
    tables[[paste0("predictors", level)]] <-
      cbind(data.frame(name = names, mean = doubles(count), deviation = doubles(count)),
            rows(count, paste0("p", 0:100)))
  }

  head <- readBin(mdm, "raw", 54)
  if (rawToChar(head[1:6]) != "MXKDR3") stop(mdm, " is not an MDM file")
  counts <- readBin(head[27:46], "integer", 5, 4, endian = "little")
  units <- c(counts[1], if (counts[5] == 4) 0 else counts[2])  # data of two levels have no level-3 units
  rest <- length(bytes) - at
  found <- NULL  # rows of m, n, p, q, level-2 units with records
  isflags <- function(x) all(x >= 0 & x <= 3)
  most <- if (categories) rest %/% 4 else predictors[1] + 1
  for (M in if (is.null(m)) max(1, predictors[1]):most else m) {
    flags1 <- ints(M)
    if (!isflags(flags1)) break
    least <- if (categories) 1 else max(M, ceiling(nfix / (predictors[3] + 1)))
    if (is.null(n) && least > M * (predictors[2] + 1)) next
    for (N in if (is.null(n)) least:(M * (predictors[2] + 1)) else n) {
      flags2 <- ints(N, at + 4 * M)
      if (!isflags(flags2)) break
      p <- sum(flags1 == 0)
      q <- sum(flags2 == 0)
      left <- rest - 4 * (M + N) - 8 * units[2] * (3 * q + N)
      if (p + q == 0 || left < 0) next
      for (units2 in units[1]:1) {  # units that lost all their records are not in the file
        end <- left - units2 * 8 * (3 * p + M)
        if (if (categories) end == 0
            else end >= 12 && end %% 8 == 4 && ints(1, length(bytes) - end) == end %/% 8)
          found <- rbind(found, c(M, N, p, q, units2))
      }
    }
  }
  if (is.null(found)) stop("no layout fits: the file is of another MDM file or kind of run, or it is damaged")
  variancesfit <- function(x) {
    start <- at
    on.exit(at <<- start)
    at <<- at + 4 * (x[1] + x[2]) + 8 * units[2] * (2 * x[4] + x[2])
    width <- 3 * x[3] + x[1]
    level3 <- doubles(units[2] * x[4])
    level2 <- matrix(doubles(x[5] * width), width)
    all(is.finite(level3), level3 > 0, is.finite(level2), level2[width - x[3] + seq_len(x[3]), ] > 0)
  }
  checks <- list(variancesfit,
                 function(x) predictors[3] > 0 || x[2] == nfix,  # without level-3 predictors or constraints
                 function(x) x[5] == units[1])                   # nothing was deleted
  for (fits in checks) {
    good <- apply(found, 1, fits)
    if (any(good)) found <- found[good, , drop = FALSE]
  }
  if (nrow(found) > 1)
    stop(nrow(found), " layouts fit; give the numbers of coefficients: ",
         paste0("m=", found[, 1], " n=", found[, 2], collapse = " or "))
  m <- found[1]; n <- found[2]; p <- found[3]; q <- found[4]
  tables$fixed1 <- takeints(m)
  tables$fixed2 <- takeints(n)
  tables$level3 <- cbind(rows(units[2], numbered("EB", q)), rows(units[2], numbered("OL", q)),
                         rows(units[2], numbered("FV", n)), rows(units[2], numbered("PV", q)))
  if (units[2] == 0) tables$level3 <- data.frame()
  tables$level2 <- rows(found[5], c(numbered("EB", p), numbered("OL", p), numbered("FV", m), numbered("PV", p)))
  for (level in c("level3", "level2")) {
    ols <- grep("^OL", names(tables[[level]]))
    tables[[level]][ols] <- lapply(tables[[level]][ols], function(x) replace(x, x == -99, NA))
  }
  if (!categories) tables$fitted <- data.frame(FITVAL = doubles(takeints(1)))
  tables
}

if (!interactive() && sys.nframe() == 0) {
  words <- commandArgs(TRUE)
  number <- function(name) {
    word <- grep(paste0("^", name, "="), words, value = TRUE)
    if (length(word)) as.integer(substring(word[1], 3)) else NULL
  }
  tables <- readgraph(words[1], words[2], "nonlinear" %in% words, "categories" %in% words, number("m"), number("n"))
  for (name in names(tables)) {
    table <- tables[[name]]
    cat("\n", name, "\n", sep = "")
    print(if (is.data.frame(table)) head(table[seq_len(min(12, ncol(table)))], 4) else table)
  }
}
