"""The report reader on hand-made pieces of a report."""
import unittest
import report

SAMPLE = '''
 sigma^2 =      5.00000

\f STARTING VALUES
 ---------------
 sigma^2(0) =      2.50000

tau(pi)(0)
 INTRCPT1,P0      1.00000      0.10000
       X1,P1      0.10000      0.50000

The value of the log-likelihood function at iteration 1 = -2.801000E+003
\f******* ITERATION 17 *******

Iterations stopped due to small change in likelihood function

 sigma^2 =      2.21451
 Standard error of sigma^2 =      0.09123

tau(pi)
 INTRCPT1,P0      1.52430     -0.19330
       X1,P1     -0.19330      0.72666

Standard errors of tau(pi)
 INTRCPT1,P0      0.22222      0.11111
       X1,P1      0.11111      0.10101

tau(pi) (as correlations)
 INTRCPT1,P0   1.000 -0.184
       X1,P1  -0.184  1.000

 ----------------------------------------------------
  Random level-1 coefficient   Reliability estimate
 ----------------------------------------------------
  INTRCPT1, P0                        0.825
        X1, P1                        0.640
 ----------------------------------------------------

Note: The reliability estimates reported above are based on only 155 of 159
units that had sufficient data for computation.  Fixed effects and variance
components are based on all the data.

tau(beta)
 INTRCPT1           X1    
 INTRCPT2,B00 INTRCPT2,B10
    0.80430      0.12900  
    0.12900      0.29046  

tau(beta) (as correlations)
 INTRCPT1/INTRCPT2,B00   1.000  0.267
       X1/INTRCPT2,B10   0.267  1.000

 ----------------------------------------------------
  Random level-2 coefficient   Reliability estimate
 ----------------------------------------------------
  INTRCPT1/INTRCPT2, B00               0.655
        X1/INTRCPT2, B10               0.541
 ----------------------------------------------------

The value of the log-likelihood function at iteration 17 = -2.798912E+003
\f The outcome variable is        Y

 Final estimation of fixed effects:
 ----------------------------------------------------------------------------
                                       Standard             Approx.
    Fixed Effect         Coefficient   Error      T-ratio   d.f.     P-value
 ----------------------------------------------------------------------------
 For       INTRCPT1, P0
    For INTRCPT2, B00
      INTRCPT3, G000      4.332087    0.208695     20.758       26    0.000
            Q1, G001      0.955796    0.264860      3.609       26    0.001
    For       Z1, B01
      INTRCPT3, G010*    -0.361585    0.115287     -3.136      155    0.002#
 For       X1 slope, P1
    For INTRCPT2, B10
      INTRCPT3, G100      0.570781    0.000000      0.000 Unable to compute
 ----------------------------------------------------------------------------
 The "*" gammas have been constrained. See the table on page 1.

 The outcome variable is        Y

 Final estimation of fixed effects
 (with robust standard errors)
 ----------------------------------------------------------------------------
                                       Standard             Approx.
    Fixed Effect         Coefficient   Error      T-ratio   d.f.     P-value
 ----------------------------------------------------------------------------
 For       INTRCPT1, P0
    For INTRCPT2, B00
      INTRCPT3, G000      4.332087    0.111111     38.989       26    0.000
 ----------------------------------------------------------------------------
\f                Results of General Linear Hypothesis Testing
 -----------------------------------------------------------------------------
                            Coefficients      Contrast
 -----------------------------------------------------------------------------
 For       INTRCPT1, P0
    For INTRCPT2, B00
         INTRCPT3, G000        4.332087      1.000     0.000
               Q1, G001        0.955796      0.000    -1.000
 -----------------------------------------------------------------------------
 Estimate                                  4.33209  -0.95580
 Standard Error of estimate                0.20870   0.26486

Chi-square statistic = 433.123456
Degrees of freedom   = 2
P-value              = 0.000000


 Final estimation of level-1 and level-2 variance components:
 ------------------------------------------------------------------------------
 Random Effect           Standard      Variance     df    Chi-square   P-value
                         Deviation     Component
 ------------------------------------------------------------------------------
 INTRCPT1,       r0      1.23462       1.52430     125     812.12345    0.000
       X1 slope, r1      0.85244       0.72666     126     100.12345    >.500
  level-1,       e       1.48812       2.21451
 ------------------------------------------------------------------------------


 Final estimation of level-3 variance components:
 ------------------------------------------------------------------------------
 Random Effect           Standard      Variance     df    Chi-square   P-value
                         Deviation     Component
 ------------------------------------------------------------------------------
INTRCPT1/INTRCPT2, u00     0.89683       0.80430    26      77.12345    0.000
      X1/INTRCPT2, u10     0.53894       0.29046    too few df to compute
 ------------------------------------------------------------------------------


 Statistics for the current model
 --------------------------------------------------
 Deviance                       = 5597.823879
 Number of estimated parameters = 15

 Model comparison test
 -----------------------------------
 Chi-square statistic   =     13.64570
 Degrees of freedom     =      2
 P-value                =      <0.001
'''


class ReaderTest(unittest.TestCase):
    r = report.Report(SAMPLE)

    def test_variances(self):
        r = self.r
        self.assertEqual((r.sigma2, r.startsigma2, r.sesigma2), (2.21451, 2.5, 0.09123))
        self.assertEqual(r.taupi, [[1.5243, -0.1933], [-0.1933, 0.72666]])
        self.assertEqual(r.starttaupi, [[1.0, 0.1], [0.1, 0.5]])
        self.assertEqual(r.setaupi[1], [0.11111, 0.10101])
        self.assertEqual(r.corrtaupi[0], [1.0, -0.184])
        self.assertEqual(r.taubeta, [[0.8043, 0.129], [0.129, 0.29046]])
        self.assertEqual(r.corrtaubeta[1], [0.267, 1.0])
        self.assertEqual(r.reliabilities, {2: [0.825, 0.64], 3: [0.655, 0.541]})
        self.assertEqual(r.notes, [('reliability estimates', 155, 159)])

    def test_fixed_effects(self):
        rows = self.r.fixed['final'].rows
        self.assertEqual([x.label for x in rows], ['INTRCPT3, G000', 'Q1, G001', 'INTRCPT3, G010', 'INTRCPT3, G100'])
        self.assertEqual(rows[2], report.FixedRow('INTRCPT3, G010', 'INTRCPT1, P0', 'Z1, B01', True, -0.361585, 0.115287,
                                                  -3.136, 155, 0.002, True))
        self.assertEqual((rows[3].level1, rows[3].df, rows[3].p), ('X1 slope, P1', None, None))
        self.assertEqual(self.r.fixed['robust'].rows[0].se, 0.111111)

    def test_components(self):
        two, three = self.r.components[2], self.r.components[3]
        self.assertEqual(two[0], report.ComponentRow('INTRCPT1', 'r0', 1.23462, 1.5243, 125, 812.12345, 0.0))
        self.assertEqual(two[1], report.ComponentRow('X1', 'r1', 0.85244, 0.72666, 126, 100.12345, 0.5))
        self.assertEqual(three[1], report.ComponentRow('X1/INTRCPT2', 'u10', 0.53894, 0.29046, None, None, None))
        self.assertEqual(self.r.componentsigma2, 2.21451)

    def test_statistics(self):
        r = self.r
        self.assertEqual((r.deviance, r.parameters, r.iterations, r.stopped), (5597.823879, 15, 17, 'converged'))
        self.assertEqual(r.comparison, (13.6457, 2, 0.001))
        self.assertEqual(r.logliks, {1: -2801.0, 17: -2798.912})
        self.assertEqual(r.tests[0].estimates, [4.33209, -0.9558])
        self.assertEqual((r.tests[0].statistic, r.tests[0].df, r.tests[0].rows[1]), (433.123456, 2, (0.955796, [0.0, -1.0])))


NONLINEAR = '''
\fRESULTS FOR LINEAR MODEL WITH THE IDENTITY LINK FUNCTION

 sigma^2 =      0.24000

\fRESULTS FOR NON-LINEAR MODEL WITH THE LOGIT LINK FUNCTION:
  Unit-Specific Model, PQL Estimation - (macro iteration 9)

 sigma^2 =      1.00000

 Final estimation of fixed effects: (Unit-specific model)
 ----------------------------------------------------------------------------
                                       Standard             Approx.
    Fixed Effect         Coefficient   Error      T-ratio   d.f.     P-value
 ----------------------------------------------------------------------------
For Category 1
 For       INTRCPT1, P0
    For INTRCPT2, B00
      INTRCPT3, G000      0.311100    0.211100      1.474       24    0.153
 For       THOLD2,
              d(2)        1.500000    0.100000     15.000     1000    0.000
 ----------------------------------------------------------------------------

 ----------------------------------------------------------------------
                                         Odds           Confidence
    Fixed Effect         Coefficient     Ratio          Interval
 ----------------------------------------------------------------------
For Category 1
 For       INTRCPT1, P0
    For INTRCPT2, B00
      INTRCPT3, G000       0.311100       1.364925     (0.883,2.110)
      INTRCPT3, G010      -0.311100       0.732641    Unable to compute
 ----------------------------------------------------------------------

tau(pi)
 INTRCPT1,P0(1   )      1.00000      0.10000
 INTRCPT1,P0(2.5)      0.10000      0.50000


RESULTS FOR POPULATION-AVERAGE MODEL

 sigma^2 =      1.00000
'''


class NonlinearTest(unittest.TestCase):
    def test_sections(self):
        sections = report.splitsections(NONLINEAR)
        self.assertEqual([(k, r.sigma2) for k, r in sections.items()],
                         [('linear', 0.24), ('unit-specific', 1.0), ('population-average', 1.0)])
        r = sections['unit-specific']
        self.assertEqual([(x.label, x.level1) for x in r.fixed['final'].rows],
                         [('INTRCPT3, G000', 'INTRCPT1, P0'), ('d(2)', 'THOLD2,')])
        self.assertEqual(r.ratios['final'], [report.RatioRow('INTRCPT3, G000', 0.3111, 1.364925, 0.883, 2.11),
                                             report.RatioRow('INTRCPT3, G010', -0.3111, 0.732641, None, None)])
        self.assertEqual(r.taupi, [[1.0, 0.1], [0.1, 0.5]])

    def test_twice(self):
        with self.assertRaises(ValueError):
            report.splitsections(NONLINEAR + NONLINEAR)


if __name__ == '__main__':
    unittest.main(argv=['report_test'])
