#!/usr/bin/env python3
"""Makes the coefficients of vsqlnexp_level.cpp (needs mpmath); run without arguments, it prints them.

Weighted minimax polynomials by Remez's exchange algorithm (E. Remez, "Sur la determination des polynomes
d'approximation de degre donnee", 1934): the weights make the errors relative to the whole function.
"""
import struct
from mpmath import mp, mpf, log1p, exp, sqrt, log, cos, pi, matrix, lu_solve

mp.dps = 50


def rounded(x):
    """x as the nearest float."""
    return struct.unpack("<f", struct.pack("<f", float(x)))[0]


def minimax(function, weight, low, high, degree):
    """The polynomial p (ascending) with the least max |weight * (function - p)|, and that error."""
    count = degree + 2
    points = [(low + high) / 2 - (high - low) / 2 * cos(pi * mpf(i) / (count - 1)) for i in range(count)]
    grid = [low + (high - low) * mpf(i) / 4000 for i in range(4001)]
    for _ in range(20):
        rows = matrix(count, count)
        right = matrix(count, 1)
        for i, x in enumerate(points):
            for j in range(degree + 1):
                rows[i, j] = x**j
            rows[i, degree + 1] = (-1) ** i / weight(x)
            right[i] = function(x)
        solution = lu_solve(rows, right)
        coefficients = [solution[j] for j in range(degree + 1)]

        def error(x):
            return weight(x) * (function(x) - mp.polyval(coefficients[::-1], x))

        errors = [error(x) for x in grid]
        extremes = []  # the largest error of each stretch of one sign
        for x, e in zip(grid, errors):
            if extremes and (e > 0) == (extremes[-1][1] > 0):
                if abs(e) > abs(extremes[-1][1]):
                    extremes[-1] = (x, e)
            else:
                extremes.append((x, e))
        while len(extremes) > count:
            extremes.pop(0 if abs(extremes[0][1]) < abs(extremes[-1][1]) else -1)
        if len(extremes) < count:
            break
        points = [x for x, _ in extremes]
    return coefficients, max(abs(e) for e in errors)


def show(name, coefficients, error):
    print(f"{name}: relative error 2^{float(log(error, 2)):.2f}")
    for j, c in enumerate(coefficients):
        print(f"  x^{j}: {float.hex(rounded(c))}  ({float(c):.10g})")


def near_zero(full, series):
    """full(x), or its power series where the difference in full would cancel."""
    return lambda x: full(x) if abs(x) > mpf(10) ** -6 else mp.polyval(series[::-1], x)


if __name__ == "__main__":
    # ln(1 + f) = f - f^2 / 2 + f^3 * p(f)
    ln_rest = near_zero(lambda f: (log1p(f) - f + f * f / 2) / f**3, [mpf((-1) ** k) / (k + 3) for k in range(8)])
    ln_weight = near_zero(lambda f: f**3 / log1p(f), [mpf(0), mpf(0), mpf(1), mpf(1) / 2])
    for degree in (6, 7, 8):
        weight = lambda f: abs(ln_weight(f)) + mpf(10) ** -12
        show(f"ln, degree {degree}", *minimax(ln_rest, weight, sqrt(mpf(1) / 2) - 1, sqrt(mpf(2)) - 1, degree))
    # e^r = 1 + r + r^2 * q(r)
    exp_rest = near_zero(lambda r: (exp(r) - 1 - r) / r**2, [1 / mp.factorial(k + 2) for k in range(8)])
    sixteenth = log(mpf(2)) / 16 * mpf("1.001")
    for degree in (1, 2):
        weight = lambda r: r**2 / exp(r) + mpf(10) ** -12
        show(f"exp, degree {degree}", *minimax(exp_rest, weight, -sixteenth, sixteenth, degree))
    print("2^(j/8):", ", ".join(float.hex(rounded(mpf(2) ** (mpf(j) / 8))) for j in range(8)))
    high = mp.floor(log(mpf(2)) * 2**13) / 2**13
    print(f"ln 2 = {float.hex(rounded(high))} + {float.hex(rounded(log(mpf(2)) - high))}")
    print(f"1 / ln 2 = {float.hex(rounded(1 / log(mpf(2))))}")
