dataof <- function(name) {
  file <- testthat::test_path("lme4", paste0(name, ".csv"))
  factors <- list(sleepstudy = "Subject", Pastes = c("batch", "cask", "sample"), cbpp = c("herd", "period"),
                  grouseticks = c("INDEX", "BROOD", "YEAR", "LOCATION"))[[name]]
  data <- utils::read.csv(file)
  data[factors] <- lapply(data[factors], factor)
  data
}

# A made study of three levels: 12 schools of 2 to 5 pupils with 3 to 6 records, rows in no order.
madestudy <- function(seed = 8) {
  set.seed(seed)
  pupils <- data.frame(school = rep(1:12, times = rep(2:5, 3)))
  pupils$pupil <- stats::ave(pupils$school, pupils$school, FUN = seq_along)
  d <- pupils[rep(seq_len(nrow(pupils)), times = sample(3:6, nrow(pupils), TRUE)), ]
  d$x <- round(stats::rnorm(nrow(d)), 2)
  unit <- paste(d$school, d$pupil)
  d$w <- round(stats::rnorm(99), 2)[match(unit, unique(unit))]
  d$z <- round(stats::rnorm(12), 2)[d$school]
  d$f <- factor(sample(c("a", "b", "c"), nrow(d), TRUE))
  u <- stats::rnorm(99, 0, .8)[match(unit, unique(unit))]
  d$y <- round(1 + d$x * (.5 + stats::rnorm(12, 0, .5)[d$school]) + .3 * d$w + stats::rnorm(12)[d$school] + u + stats::rnorm(nrow(d)), 3)
  d <- d[sample(nrow(d)), ]
  rownames(d) <- NULL
  d
}

rscript <- function(...) system2(file.path(R.home("bin"), "Rscript"), c("--vanilla", "-e", shQuote(paste(...))), stdout = TRUE, stderr = TRUE)
