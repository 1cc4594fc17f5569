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

test_that("printed forms are lme4's", {
  m <- kdr3(Reaction ~ Days + (Days | Subject), dataof("sleepstudy"))
  expect_output(print(summary(m)), paste0("Linear mixed model fit by maximum likelihood.*Formula: Reaction ~ Days.*AIC +BIC +logLik.*Scaled residuals",
    ".* Groups   Name        Variance Std.Dev. Corr\n Subject  \\(Intercept\\) 565.*Residual             654.*groups:  Subject, 18.*Correlation of Fixed"))
})
