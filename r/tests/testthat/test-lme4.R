numbers <- utils::read.csv(testthat::test_path("lme4", "numbers.csv"))

for (name in names(cases)) local({
  case <- cases[[name]]
  test_that(paste("every method says what lme4's does:", name), {
    data <- dataof(case$data)
    call <- list(quote(kdr3), case$formula, quote(data), family = if (is.null(case$family)) quote(gaussian()) else case$family,
                 reml = isTRUE(case$reml), control = list(STOPVAL = 1e-10))
    if (!is.null(case$family)) call$engine <- "laplace"
    if (!is.null(case$weights)) call$weights <- as.name(case$weights)
    m <- eval(as.call(call))
    ours <- suppressMessages(quantities(m, case, data, ngrps = ngrps, isSingular = isSingular, getME = getME, refit = refit))
    theirs <- numbers[numbers$case == name, ]
    expect_equal(length(ours), nrow(theirs))
    off <- abs(unname(ours) - theirs$lme4) / (1 + abs(theirs$lme4))
    expect_true(all(off < 5e-4), info = paste(theirs$quantity[off >= 5e-4], collapse = ", "))
  })
})

test_that("a nested piece of InstEval", {
  skip_if_not_installed("lme4")
  data("InstEval", package = "lme4", envir = environment())
  piece <- InstEval[as.integer(InstEval$s) %% 40 == 0, ]
  m <- kdr3(y ~ service + (1 | dept / d), piece, control = list(STOPVAL = 1e-9, NUMIT = 1000))
  l <- lme4::lmer(y ~ service + (1 | dept / d), piece, REML = FALSE)
  same <- function(ours, theirs) expect_lt(max(abs(ours - theirs)), 5e-4)
  same(as.numeric(logLik(m)), as.numeric(logLik(l)))
  same(fixef(m), fixef(l))
  same(as.data.frame(VarCorr(m))$vcov, as.data.frame(lme4::VarCorr(l))$vcov)
  same(fitted(m), fitted(l))
  same(as.data.frame(ranef(m))$condsd, as.data.frame(lme4::ranef(l))$condsd)
  expect_equal(ngrps(m), ngrps(l))
})

test_that("printed forms are lme4's", {
  m <- kdr3(Reaction ~ Days + (Days | Subject), dataof("sleepstudy"))
  expect_output(print(summary(m)), paste0("Linear mixed model fit by maximum likelihood.*Formula: Reaction ~ Days.*AIC +BIC +logLik.*Scaled residuals",
    ".* Groups   Name        Variance Std.Dev. Corr\n Subject  \\(Intercept\\) 565.*Residual             654.*groups:  Subject, 18.*Correlation of Fixed"))
})
