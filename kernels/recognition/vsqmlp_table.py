#!/usr/bin/env python3
"""Fits the piecewise polynomials of the logistic sigmoid, and prints vsqmlp_table.h.

    python3 kernels/vsqmlp_table.py > kernels/vsqmlp_table.h      (the standard library is all it needs)

Row k stands for the unit interval to the left of -k: with u = x + k from -1 to 0 it is a polynomial of degree 7 whose
coefficients are floats. A row is fitted by least squares of the relative error over Chebyshev points; then the
coefficients become floats one by one, the constant first, and those that are left are fitted again each time, so that
they make up for what the rounding took. Four rows are settled figures and are taken as they stand. Every row is
measured over its interval, and the program fails when one is off by more than the bound.

That is kSigmoidRows. kFineSigmoidRows are the rows of the first intervals again, with doubles for coefficients: results
of the fixed-point form must be those of the formula, and the finer the rows, the fewer results they leave in doubt.
"""
import struct
import sys
from decimal import Decimal, getcontext
from math import cos, pi

getcontext().prec = 60
ROWS, TERMS, POINTS, MEASURED = 78, 8, 24, 400
BOUND = Decimal("2.4e-7")  # leaves room below 3e-7 for the rounding of a result to float
FINE_ROWS, FINE_BOUND = 16, Decimal("5e-9")

# u^7, u^6, u^5, u^4, u^3, u^2, u, 1
SETTLED = {
    0: "-5.3516436e-05 3.2629713e-04 2.3881204e-03 1.5209372e-04 -2.0792527e-02 5.3791505e-06 0.25000027 0.5",
    1: "8.1314567e-05 3.0207130e-04 -5.2012852e-04 -5.1960503e-03 -5.9015267e-03 4.5426972e-02 0.19661184 0.26894143",
    2: "-1.7438293e-05 -1.7880078e-04 -7.4488611e-04 -8.7478309e-04 6.4732209e-03 3.9981008e-02 0.10499357 0.11920292",
    77: "4.3324183e-38 4.5971733e-37 2.9842154e-36 1.5087225e-35 6.0414389e-35 1.8125643e-34 3.6251405e-34 3.6251410e-34",
}


def as_float(x):
    """The float next to x, exactly."""
    return Decimal(struct.unpack("<f", struct.pack("<f", float(x)))[0])


def as_double(x):
    """The double next to x, exactly."""
    return Decimal(float(x))


def sigmoid(x):
    return 1 / (1 + (-x).exp())


def solve(matrix, right):
    """Gaussian elimination with pivots."""
    n = len(right)
    rows = [matrix[i][:] + [right[i]] for i in range(n)]
    for i in range(n):
        pivot = max(range(i, n), key=lambda r: abs(rows[r][i]))
        rows[i], rows[pivot] = rows[pivot], rows[i]
        for r in range(i + 1, n):
            factor = rows[r][i] / rows[i][i]
            rows[r] = [a - factor * b for a, b in zip(rows[r], rows[i])]
    result = [Decimal(0)] * n
    for i in reversed(range(n)):
        result[i] = (rows[i][n] - sum(rows[i][j] * result[j] for j in range(i + 1, n))) / rows[i][i]
    return result


def fit_rest(points, values, known):
    """The coefficients of u^len(known) and up that go best with the lower ones."""
    first = len(known)
    basis = [[u**p / v for p in range(TERMS)] for u, v in zip(points, values)]
    rest = [1 - sum(k * b for k, b in zip(known, row)) for row in basis]
    size = range(first, TERMS)
    matrix = [[sum(row[i] * row[j] for row in basis) for j in size] for i in size]
    return solve(matrix, [sum(row[i] * r for row, r in zip(basis, rest)) for i in size])


def fitted_row(k, rounded):
    points = [Decimal(-0.5 - 0.5 * cos(pi * (i + 0.5) / POINTS)) for i in range(POINTS)]
    values = [sigmoid(u - k) for u in points]
    known = []
    while len(known) < TERMS:
        known.append(rounded(fit_rest(points, values, known)[0]))
    return known[::-1]


def worst_error(k, row):
    worst = Decimal(0)
    for i in range(MEASURED + 1):
        u = -Decimal(i) / MEASURED
        value = Decimal(0)
        for coefficient in row:
            value = value * u + coefficient
        worst = max(worst, abs(value / sigmoid(u - k) - 1))
    return worst


HEAD = """// The logistic sigmoid in pieces. Made by vsqmlp_table.py; change that and not this.
#pragma once

namespace vsq {

// Row k: the unit interval to the left of -k. With u = x + k, -1 < u <= 0, and the row's a0 a1 a2 a3 b0 b1 b2 b3,
//     (((b0 u + b1) u + b2) u + b3) + u^4 (((a0 u + a1) u + a2) u + a3)
// is 1 / (1 + exp(-x)) within a relative error of %s.
// clang-format off
constexpr int sigmoidRows = %d;
constexpr float kSigmoidRows[sigmoidRows][8] = {"""
MIDDLE = """};

// The first rows with doubles for coefficients: within a relative error of fineSigmoidError.
constexpr int fineSigmoidRows = %d;
constexpr double fineSigmoidError = %s;
constexpr double kFineSigmoidRows[fineSigmoidRows][8] = {"""
TAIL = """};
// clang-format on

} // namespace vsq"""


def table(rows, bound, printed, row_of):
    """The lines of a table and its largest error."""
    lines, worst = [], Decimal(0)
    for k in range(rows):
        row = row_of(k)
        error = worst_error(k, row)
        worst = max(worst, error)
        print(f"row {k}: {float(error):.2e}", file=sys.stderr)
        lines.append("    {" + ", ".join(printed(float(c)) for c in row) + "},")
    if worst > bound:
        sys.exit(f"relative error {float(worst):.3e}")
    return "\n".join(lines), worst


if __name__ == "__main__":
    coarse, error = table(
        ROWS,
        BOUND,
        lambda c: f"{c:.9g}f",
        lambda k: [as_float(Decimal(t)) for t in SETTLED[k].split()] if k in SETTLED else fitted_row(k, as_float),
    )
    fine, _ = table(FINE_ROWS, FINE_BOUND, lambda c: f"{c:.17g}", lambda k: fitted_row(k, as_double))
    print(HEAD % (f"{float(error):.2g}", ROWS), coarse, MIDDLE % (FINE_ROWS, FINE_BOUND), fine, TAIL, sep="\n")
