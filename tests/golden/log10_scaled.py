#!/usr/bin/env python3
"""Writes log10_scaled.txt: the fixed-point logarithm of path evaluation, from tables by decimal arithmetic.

Each line is "x sfIn sfOut result". The values go through every table entry in every tier of precision.
"""
from decimal import Decimal, getcontext, ROUND_HALF_EVEN
from pathlib import Path

getcontext().prec = 60
LN10 = Decimal(10).ln()
C = 1 / LN10 / 2


def nearest(value):
    return int(value.to_integral_value(ROUND_HALF_EVEN))


L, S1, S2, S3 = [], [], [], []
for k in range(256):
    m = 1 + Decimal(k) / 256
    L.append(nearest(m.ln() / LN10 * 2**31))
    S1.append(nearest(C / m * 2**32))
    S2.append(nearest(C / (2 * m**2) * 2**32))
    S3.append(nearest(C / (3 * m**3) * 2**32))
X = {v: nearest(v * Decimal(2).ln() / LN10 * 2**58) for v in range(-31, 62)}


def high(z):
    return z >> 32


def wrapped(value, bits):
    value &= (1 << bits) - 1
    return value - (1 << bits) if value >> (bits - 1) else value


def log10_scaled(x, sf_in, sf_out):
    if x <= 0:
        return 0x1FFFFF
    p = x.bit_length() - 1
    word = (x << ((32 - p) % 32)) & 0xFFFFFFFF
    k, f = word >> 24, word & 0xFFFFFF
    m = L[k]
    if sf_out >= 9:
        m += high(f * S1[k])
    if sf_out >= 18:
        m -= high(high(f * f) * S2[k])
    if sf_out >= 25:
        m += high(high(high(f * f) * f) * S3[k])
    exponent = X[p + sf_in]
    if sf_out < 25:
        y = (m >> 5) + (m >> 4 & 1) + high(exponent)
        return -y >> (26 - sf_out)
    total = (m << 27) + exponent
    if sf_out == 25:
        return high(total) >> 1
    return high(wrapped(total << (sf_out - 26), 64))


def cases():
    tiers = (0, 8, 9, 17, 18, 24, 25, 26, 27, 40)
    for k in range(256):
        for f in (0, 0x3FFFFF, (k * 2654435761) & 0x3FFFFF):
            x = (256 + k) << 22 | f
            for sf_out in tiers:
                yield x, -28, sf_out
    for p in range(31):
        for sf_in in (-31 - p, -28, -24, 0, 61 - p):
            if -31 <= p + sf_in <= 61:
                for x in {1 << p, (1 << p) + (1 << p >> 3), (2 << p) - 1}:
                    for sf_out in (-5, 0, 4, 8, 12, 20, 24, 25, 26, 30):
                        yield x, sf_in, sf_out
    for x in (0, -1, -(2**31)):
        for sf_out in tiers:
            yield x, -24, sf_out


lines = sorted({f"{x} {i} {o} {log10_scaled(x, i, o)}" for x, i, o in cases()})
Path(__file__).with_suffix(".txt").write_text("\n".join(lines) + "\n")
