"""The mean response over normal random effects, by adaptive integration, for tests/estimate/quasi/family_test.cpp.

    marginalresponse.py     lines of eta, variance of the random effects of the record, mean probability
"""
import numpy as np
from scipy import integrate

for eta in (-2.0, 0.5, 1.0, 3.0):
    for variance in (0.25, 1.0, 2.0, 4.0):
        root = variance ** 0.5
        mean = integrate.quad(lambda z: np.exp(-z * z / 2) / np.sqrt(2 * np.pi) / (1 + np.exp(-eta - root * z)), -12, 12,
                              epsabs=1e-13, limit=400)[0]
        print("{%.1f, %.2f, %.10f}," % (eta, variance, mean))
