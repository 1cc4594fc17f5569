"""The Stata files by pandas; see openedfiles.R."""
import sys
import pandas

for ids in ('text', 'numeric'):
    for level in (1, 2, 3):
        table = pandas.read_stata('%s/%s/resfil%d.dta' % (sys.argv[1], ids, level))
        for name in table:
            x = table[name]
            text = x.dtype == object
            print('pandas_dta', ids, level, name, 'text' if text else 'number', int(x.isna().sum()),
                  x.str.strip().nunique() if text else '%.9g' % x.sum())
