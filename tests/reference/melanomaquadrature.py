"""The melanoma example by densequadrature.py: points, estimates, standard errors, log-likelihood, largest gradient.

  melanomaquadrature.py > melanomaquadrature.out
"""
import os
import numpy as np
import densequadrature as dense

lines = list(open(os.path.dirname(os.path.abspath(__file__)) + '/../../examples/melanoma/melanoma-1.dat'))
column = lambda first, end: np.array([float(x[first:end]) for x in lines])
one = np.ones((len(lines), 1))
for points in ((11, 11), (21, 21)):
    data = dense.Data('exposure', column(0, 2).astype(int), column(2, 5).astype(int), column(5, 10), column(10, 20),
                      np.hstack([one, column(20, 29)[:, None]]), one, one)
    theta, best, gradient = dense.maximise(data, np.array([0.048, 0.13, -0.1, -0.03]), points, 1e-3)
    print(points, np.round(theta, 5), np.round(dense.standarderrors(data, theta, points), 5), '%.4f %.1e' % (best, gradient))
