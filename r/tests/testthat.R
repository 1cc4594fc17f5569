library(testthat)
library(kdr3)
test_check("kdr3")
