# Random effects by lme4: glmer (Laplace), random intercepts of both levels, Poisson.
#   python3 posteriormoments.py glmer poisson11 && Rscript posteriorsglmer.R > posteriorsglmer.out
library(lme4)
d <- read.csv("poisson11.csv")
m <- glmer(y ~ z + w + x + (1 | k/j), data = d, family = poisson, control = glmerControl(optimizer = "bobyqa"))
cat(sprintf("# lme4 %s\n", packageVersion("lme4")))
v <- ranef(m)$k
for (k in rownames(v)) cat(sprintf("v %s %.6f\n", k, v[k, 1]))
u <- ranef(m)[["j:k"]]
for (key in rownames(u)) { ids <- strsplit(key, ":")[[1]]; cat(sprintf("u %s %s %.6f\n", ids[2], ids[1], u[key, 1])) }
