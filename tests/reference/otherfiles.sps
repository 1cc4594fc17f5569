* SPSS portable files of the same data: pspp otherfiles.sps, in tests/construct/files.
GET FILE='sample1.sav'.
EXPORT OUTFILE='sample1.por'.
GET FILE='sample2.sav'.
EXPORT OUTFILE='sample2.por'.
GET FILE='sample3.sav'.
EXPORT OUTFILE='sample3.por'.
