# Reads a graph data file into data frames.
#
#   Rscript read.R GRAPHFILE MDMFILE
#   source("read.R"); tables <- readgraph("graph.bin", "study.mdm")
#
# The file does not say how many units and coefficients it has. The numbers of units stand in the MDM file of the run;
# the numbers of coefficients are the only ones with which the file's length and its last count agree.

readgraph <- function(path, mdm, nonlinear = FALSE) {
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
  rows <- function(n, names) setNames(as.data.frame(matrix(doubles(n * length(names)), n, byrow = TRUE)), names)
  numbered <- function(prefix, n) if (n > 0) paste0(prefix, seq_len(n)) else character(0)

  at <- 10
  nfix <- takeints(1)
  tables <- list()
  if (nonlinear) for (name in c("unitspecific", "laplace", "quadrature")) tables[[name]] <- doubles(nfix)
  tables$gamma <- doubles(nfix)
  for (level in 1:3) {
    count <- takeints(1)
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
  units <- readBin(head[27:34], "integer", 2, 4, endian = "little")
  shape <- NULL
  rest <- length(bytes) - at
  for (m in 1:(rest %/% 4)) {
    flags1 <- ints(m)
    if (any(flags1 < 0 | flags1 > 3)) break
    for (n in m:(rest %/% 4 - m)) {
      flags2 <- ints(n, at + 4 * m)
      if (any(flags2 < 0 | flags2 > 3)) break
      p <- sum(flags1 == 0)
      q <- sum(flags2 == 0)
      left <- rest - 4 * (m + n) - 8 * units[2] * (3 * q + n)
      if (p == 0 || q == 0 || left < 0) next
      for (units2 in units[1]:1) {  # units that lost all their records are not in the file
        end <- left - units2 * 8 * (3 * p + m)
        if (end >= 12 && (end - 4) %% 8 == 0 && ints(1, length(bytes) - end) == (end - 4) / 8)
          shape <- rbind(shape, c(m, n, p, q, units2))
      }
    }
  }
  if (is.null(shape) || nrow(shape) != 1) stop("the file belongs to another MDM file or is damaged")
  m <- shape[1]; n <- shape[2]; p <- shape[3]; q <- shape[4]
  tables$fixed1 <- takeints(m)
  tables$fixed2 <- takeints(n)
  tables$level3 <- cbind(rows(units[2], numbered("EB", q)), rows(units[2], numbered("OL", q)),
                         rows(units[2], numbered("FV", n)), rows(units[2], numbered("PV", q)))
  tables$level2 <- rows(shape[5], c(numbered("EB", p), numbered("OL", p), numbered("FV", m), numbered("PV", p)))
  for (level in c("level3", "level2")) {
    ols <- grep("^OL", names(tables[[level]]))
    tables[[level]][ols] <- lapply(tables[[level]][ols], function(x) replace(x, x == -99, NA))
  }
  count <- takeints(1)
  tables$fitted <- data.frame(FITVAL = doubles(count))
  tables
}

if (!interactive() && length(commandArgs(TRUE)) == 2) {
  tables <- readgraph(commandArgs(TRUE)[1], commandArgs(TRUE)[2])
  for (name in names(tables)) {
    cat("\n", name, "\n", sep = "")
    print(if (is.data.frame(tables[[name]])) head(tables[[name]][seq_len(min(12, ncol(tables[[name]])))], 4) else tables[[name]])
  }
}
