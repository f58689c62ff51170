#!/usr/bin/env python3
"""Writes real_fft.txt and dct.txt beside this script: transforms of random samples, to 25 digits.

The samples are multiples of 1/1024, exact in every format; the spectra come from the definitions, term by term, in 40
digits (mpmath).
"""
import os
import random

from mpmath import mp, mpf, cos, pi, sin, sqrt, nstr

mp.dps = 40
here = os.path.dirname(os.path.abspath(__file__))


def samples(n, seed):
    source = random.Random(seed)
    return [source.randint(-2048, 2048) for _ in range(n)]


def line(values):
    return " ".join(nstr(v, 25) for v in values)


def packed_spectrum(x):
    """X[0], X[N/2], then real and imaginary part of the bins between them."""
    n = len(x)
    cosines = [cos(2 * pi * k / n) for k in range(n)]
    sines = [sin(2 * pi * k / n) for k in range(n)]
    re = [sum(x[j] * cosines[j * k % n] for j in range(n)) for k in range(n // 2 + 1)]
    im = [-sum(x[j] * sines[j * k % n] for j in range(n)) for k in range(n // 2 + 1)]
    result = [re[0]] + ([re[n // 2]] if n > 1 else [])
    for k in range(1, n // 2):
        result += [re[k], im[k]]
    return result


def dct(x):
    n = len(x)
    cosines = [cos(pi * a / (2 * n)) for a in range(4 * n)]
    y = [sqrt(mpf(2) / n) * sum(x[j] * cosines[k * (2 * j + 1) % (4 * n)] for j in range(n)) for k in range(n)]
    y[0] /= sqrt(mpf(2))
    return y


with open(os.path.join(here, "real_fft.txt"), "w") as f:
    f.write("# order, the samples, the spectrum X[0], X[N/2], re X[1], im X[1], ...; made by transforms.py\n")
    for order in range(9):
        x = [mpf(v) / 1024 for v in samples(2**order, order)]
        f.write(f"{order}\n{line(x)}\n{line(packed_spectrum(x))}\n")

with open(os.path.join(here, "dct.txt"), "w") as f:
    f.write("# length, the values, the orthonormal DCT-II; made by transforms.py\n")
    for n in (1, 2, 3, 4, 5, 8, 13, 17, 20, 24, 26, 32, 40, 64, 100, 128):
        x = [mpf(v) / 1024 for v in samples(n, 1000 + n)]
        f.write(f"{n}\n{line(x)}\n{line(dct(x))}\n")
