# From the tables that otherfiles.py made: SAS transport, SAS data sets, Stata, SPSS and dBASE files and workbooks of
# the same data.
# Rscript otherfiles.R, in tests/construct/files.
library(haven)
library(foreign)
library(openxlsx)
for (level in 1:3) {
  base <- paste0("sample", level)
  table <- read.csv(paste0(base, ".csv"), stringsAsFactors = FALSE)
  plain <- table
  # Special missing values: .A and .Z of SAS and Stata, -9 declared as missing in SPSS.
  tagged <- table
  declared <- table
  if (level == 1) {
    tagged$AGE <- as.double(tagged$AGE)
    holes <- which(is.na(tagged$AGE))
    tagged$AGE[holes[1:2]] <- tagged_na("a", "z")
    age <- as.double(declared$AGE)
    age[holes[1:2]] <- -99
    declared$AGE <- labelled_spss(age, na_values = -99)
  }
  capitals <- tagged
  if (level == 1) capitals$AGE[holes[1:2]] <- tagged_na("A", "Z")
  write_xpt(capitals, paste0(base, ".xpt"), version = 5, name = toupper(base))
  write_xpt(capitals, paste0(base, "-8.xpt"), version = 8, name = toupper(base))
  suppressWarnings(write_sas(plain, paste0(base, ".sas7bdat")))
  write_dta(tagged, paste0(base, ".dta"), version = 15)
  write_sav(declared, paste0(base, ".sav"), compress = "zsav")
  write.dbf(plain, paste0(base, ".dbf"))
  write.xlsx(plain, paste0(base, "-r.xlsx"))
}
