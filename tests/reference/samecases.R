# The models of samecases.txt through the R package, beside samecases.out: the same 12 digits. The last one may be one unit
# off, since the columns are R's own: scale() and poly() round their sums otherwise than the program's. One line is: the
# variance of scale(ses), 0.0409854118339498 in R and 0.0409854118339502 in C, on both sides of a half of the last digit.
#   Rscript samecases.R [library of R]        in this folder
place <- commandArgs(TRUE)
suppressMessages(if (length(place)) library(kdr3, lib.loc = place[1]) else library(kdr3))
digits <- function(x) trimws(formatC(x, digits = 12, format = "g"))
lines <- character()
say <- function(...) lines <<- c(lines, paste0(...))
families <- list(binomial = binomial(), poisson = poisson(), ordinal = "ordinal", multinomial = "multinomial")
for (line in readLines("samecases.txt")) {
  if (startsWith(line, "#")) next
  words <- strsplit(line, "\t")[[1]]
  given <- strsplit(words[-(1:3)], "=")
  given <- setNames(vapply(given, `[`, "", 2), vapply(given, `[`, "", 1))
  options <- list(as.formula(words[3]), data = read.csv(file.path("formulas", words[2]), na.strings = c("", "NA")))
  if ("family" %in% names(given)) options$family <- families[[given[["family"]]]]
  if ("engine" %in% names(given)) options$engine <- given[["engine"]]
  if ("points" %in% names(given)) options$points <- as.integer(given[["points"]])
  if ("REML" %in% names(given)) options$reml <- TRUE
  if ("DDF" %in% names(given)) options$ddf <- c("counts", "satterthwaite", "kenward-roger")[1 + as.integer(given[["DDF"]])]
  m <- suppressMessages(suppressWarnings(do.call(kdr3, options)))
  groups <- rev(sort(kdr3::ngrps(m)))  # level 2 has the more units
  say(words[1])
  say("records ", nobs(m), " units ", groups[1], " ", if (length(groups) > 1) groups[2] else 0)
  if (!is.na(logLik(m))) say("loglikelihood ", digits(as.numeric(logLik(m))))
  b <- fixef(m)
  if ("multinomial" %in% given) {  # "level:name" is name[1] of the first level
    level <- sub(":.*", "", names(b))
    names(b) <- paste0(sub("^[^:]*:", "", names(b)), "[", match(level, unique(level)), "]")
  }
  for (i in seq_along(b)) say(names(b)[i], " ", digits(b[[i]]), " ", digits(diag(as.matrix(vcov(m)))[[i]]))
  parts <- VarCorr(m)
  for (level in seq_along(groups)) {
    blocks <- lapply(parts[sub("\\.[0-9]+$", "", names(parts)) == names(groups)[level]], as.matrix)  # of (x || g) several
    n <- sum(vapply(blocks, nrow, 0L))
    tau <- matrix(0, n, n)
    at <- 0
    for (block in blocks) {
      tau[at + seq_len(nrow(block)), at + seq_len(nrow(block))] <- block
      at <- at + nrow(block)
    }
    for (i in seq_len(n)) for (j in seq_len(i)) say("level", level + 1, " ", i, " ", j, " ", digits(tau[i, j]))
  }
  say("sigma2 ", digits(sigma(m)^2))
}
wanted <- readLines("samecases.out")
alike <- function(a, b) {
  a <- strsplit(a, " ")[[1]]
  b <- strsplit(b, " ")[[1]]
  if (length(a) != length(b)) return(FALSE)
  x <- suppressWarnings(as.numeric(a))
  y <- suppressWarnings(as.numeric(b))
  unit <- 10^(floor(log10(pmax(abs(x), abs(y), 1e-300))) - 11)
  all(ifelse(is.na(x) | is.na(y), a == b, abs(x - y) <= 1.01 * unit))
}
if (length(lines) != length(wanted)) writeLines(lines)
stopifnot(length(lines) == length(wanted))
wrong <- which(!mapply(alike, lines, wanted))
for (i in wrong) cat("R has ", lines[i], "\nand C ", wanted[i], "\n", sep = "")
cat(length(lines), "lines,", sum(lines != wanted), "not the same text,", length(wrong), "wrong\n")
quit(status = length(wrong) > 0)
