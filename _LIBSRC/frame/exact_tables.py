#!/usr/bin/env python3
"""Writes the tables of the fixed-point logarithm and of the fixed exponential, exact to the last bit.

    python3 _LIBSRC/frame/exact_tables.py            (the standard library is all it needs)
    python3 _LIBSRC/frame/exact_tables.py --check    (says whether the headers are what it would write)

Each entry is the nearest integer, or the floor, of its rule in 60 decimal digits. The headers are
constants of the program's image: nothing is computed when the library is loaded.
"""
import sys
from decimal import ROUND_FLOOR, ROUND_HALF_EVEN, Decimal, getcontext
from pathlib import Path

getcontext().prec = 60
LIBRARY = Path(__file__).resolve().parent.parent
LN10 = Decimal(10).ln()


def nearest(value):
    return int(value.to_integral_value(ROUND_HALF_EVEN))


def floor(value):
    return int(value.to_integral_value(ROUND_FLOOR))


def rows(values, per_line, suffix):
    cells = [f"{value}{suffix}" for value in values]
    for start in range(0, len(cells), per_line):
        yield "    " + ", ".join(cells[start : start + per_line]) + ","


def array(comment, declaration, values, per_line=8, suffix="u"):
    return [f"// {comment}", f"constexpr {declaration}[{len(values)}] = {{"] + list(rows(values, per_line, suffix)) + ["};", ""]


def log10_table():
    c = 1 / LN10 / 2
    m = [1 + Decimal(k) / 256 for k in range(256)]
    word = "std::uint32_t "
    lines = []
    lines += array("log10(m) * 2^31", word + "logarithm", [nearest(x.ln() / LN10 * 2**31) for x in m])
    lines += array("c/m * 2^32, c = log10(e)/2", word + "first", [nearest(c / x * 2**32) for x in m])
    lines += array("c/(2 m^2) * 2^32", word + "second", [nearest(c / (2 * x**2) * 2**32) for x in m])
    lines += array("c/(3 m^3) * 2^32", word + "third", [nearest(c / (3 * x**3) * 2**32) for x in m])
    lines += ["constexpr int lowestExponent = -31, highestExponent = 61;", ""]
    exponents = [nearest(v * Decimal(2).ln() / LN10 * 2**58) for v in range(-31, 62)]
    lines += array("v * log10(2) * 2^58, v from lowestExponent to highestExponent",
                   "std::int64_t exponent", exponents, 4, "")
    return ("models/log10_fixed_table.h", "ktl::log10_table",
            "For the leading bits m = 1 + k/256 of a mantissa: its logarithm, and the factors of the\n"
            "// Taylor series around it; and the logarithms of powers of two.", lines)


def exponential_table():
    word = "std::uint32_t "
    lines = ["constexpr int deepest = 22; // integer exponents below -22 give 0, above 21 saturate", ""]
    lines += array("floor(1024 * e^(i/1024))", word + "expFrac",
                   [floor(1024 * (Decimal(i) / 1024).exp()) for i in range(1024)])
    negative = [0] + [floor(Decimal(n).exp() * 2**31) for n in range(-22, 0)]
    lines += array("floor(e^n * 2^31) for n of -22 to -1 at [n + 23]; the entry before them, for all\n"
                   "// that lies below, is 0, and so is the first, which makes everything below e^-21 vanish",
                   word + "expNeg", negative)
    positive = [nearest(Decimal(n).exp() * 2**21) for n in range(22)]
    lines += array("e^n * 2^21, rounded to nearest, in two words: what lies above bit 21 ...",
                   word + "expPosHigh", [value >> 21 for value in positive])
    lines += array("... and the low 21 bits", word + "expPosLow", [value & 0x1FFFFF for value in positive])
    return ("mixtures/exponential_fixed_table.h", "ktl::exponential_table",
            "Powers of e by whole exponents, and by 1024ths of one.", lines)


def text(namespace, opening, lines):
    head = ["// Made by frame/exact_tables.py; change that and not this.", "//", f"// {opening}", "#pragma once",
            "", "#include <cstdint>", "", f"namespace {namespace} {{", "// clang-format off", ""]
    return "\n".join(head + lines + ["// clang-format on", f"}} // namespace {namespace}", ""])


stale = False
for name, namespace, opening, lines in (log10_table(), exponential_table()):
    path, content = LIBRARY / name, text(namespace, opening, lines)
    if sys.argv[1:] == ["--check"]:
        if not path.exists() or path.read_text() != content:
            print(f"{name} is not what exact_tables.py writes")
            stale = True
    else:
        path.write_text(content)
sys.exit(stale)
