#!/usr/bin/env python3
"""Generate sh_direct_bands.inc: the direct spherical-harmonic band routines, bands 0 to 15.

Usage, from the repository root:

    python3 src/sh/gen_sh_bands.py src/sh/sh_direct_bands.inc
    python3 src/sh/gen_sh_bands.py > src/sh/sh_direct_bands.inc

With a path the file is replaced only after every check has passed; without one the text goes
to standard output. The output is deterministic, so regenerating an unchanged script leaves the
committed file byte for byte the same. Needs Python 3 with sympy (Debian: python3-sympy).

The basis is the real orthonormal spherical harmonics with the Condon-Shortley phase:
    Y(l, 0)  = K(l, 0) P(l, 0)(z)
    Y(l, m)  = sqrt(2) K(l, m) cos(m phi) P(l, m)(z)      m > 0
    Y(l, -m) = sqrt(2) K(l, m) sin(m phi) P(l, m)(z)      m > 0
    K(l, m)  = sqrt((2l + 1)/(4 pi) (l - m)!/(l + m)!),
    P(l, m)(z) = (-1)^m (1 - z^2)^(m/2) d^m/dz^m P_l(z).
On the unit sphere (1 - z^2)^(m/2) {cos, sin}(m phi) = {Re, Im}((x + iy)^m), so
    Y(l, +-m) = c(l, m) D(l, m)(z) {Re, Im}((x + iy)^m),   D(l, m) = d^m/dz^m P_l,
with c(l, m) = (-1)^m sqrt(2) K(l, m) (no sqrt(2) for m = 0). D(l, m) has degree l - m and the
parity of l - m, so it is a polynomial in z^2, times z when l - m is odd. Every coefficient of
c(l, m) D(l, m) is formed exactly by sympy, evaluated to 60 significant digits, rounded once to
the nearest double and printed with 17 significant digits, which reads back as that double.

Checks run on every generation; any failure stops the script before it writes anything:
  * every literal reads back as the double it was printed from, and that double is within half
    an ulp of the 60-digit value;
  * band 0 rounded to float has the bits 0x3E906EBB;
  * the constants of bands 1 and 2 (0.4886025119029199, 1.092548430592079, 0.5462742152960395,
    and 0.31539156525252 of 0.31539156525252 (3z^2 - 1)) and the prefactors of Y(3, 1), Y(4, 1)
    and Y(7, 1) (-0.4570457994644657, -0.6690465435572892, -0.0903316075825173) agree with these
    known values to the digits written;
  * the exact folded polynomials agree to 1e-35, at random unit directions, the poles and the
    equator, with an independent evaluation: associated Legendre functions by the standard
    three-term recurrence times K(l, m) and cos/sin(m phi), all in 70-digit arithmetic;
  * the emitted C++ itself, run by Python in double arithmetic (same operations, same order, no
    contraction, so the same rounding as T = double), stays within the first-order rounding
    bound of its Horner sums from that reference, and reproduces the closed forms of bands 1 and 2
    (which fixes the signs, and which slot holds sin and which cos);
  * the emitted code uses only T(double), binary +, - and * and copies: no unary minus on T, no
    compound assignment, no z * z in bands 2 and up.
"""

import math
import os
import random
import re
import struct
import sys

import mpmath
import sympy as sp

MAX_BAND = 15
DIGITS = 60          # significant digits of every folded coefficient before rounding to double
WORK_DPS = 70        # mpmath precision for holding those digits and for the reference
COLUMNS = 100
SCRIPT = "src/sh/gen_sh_bands.py"
OUTPUT = "src/sh/sh_direct_bands.inc"

Z = sp.Symbol("z")


# --- Exact coefficients --------------------------------------------------------------------

def band_polynomials(l):
    """For m = 0..l: (m, exact prefactor, primitive integer polynomial, folded coefficients).

    The folded coefficients are those of c(l, m) D(l, m)(z) in powers z^p, z^(p+2), ..., z^(l-m)
    with p = (l - m) mod 2; the prefactor times the primitive polynomial is the same function,
    written for the comments.
    """
    legendre = sp.legendre(l, Z)
    result = []
    for m in range(l + 1):
        d = sp.Poly(sp.expand(sp.diff(legendre, Z, m)), Z)
        k = sp.sqrt(sp.Rational(2 * l + 1) / (4 * sp.pi)
                    * sp.factorial(l - m) / sp.factorial(l + m))
        c = (-1) ** m * (sp.sqrt(2) if m > 0 else 1) * k
        parity = (l - m) % 2
        folded = [c * d.coeff_monomial(Z ** e) for e in range(parity, l - m + 1, 2)]
        assert all(v != 0 for v in folded), (l, m)
        # Every other coefficient of D(l, m) is zero: the parity that lets us use zz.
        assert all(d.coeff_monomial(Z ** e) == 0 for e in range(1 - parity, l - m + 1, 2)), (l, m)
        content, primitive = d.primitive()
        if primitive.LC() < 0:
            content, primitive = -content, -primitive
        result.append((m, c * content, primitive, folded))
    return result


def nearest_double(value):
    """The double nearest to an exact sympy constant, and the constant to DIGITS digits."""
    text = str(sp.N(value, DIGITS))
    hi = mpmath.mpf(text)
    d = float(text)          # Python rounds a decimal string correctly to the nearest double
    assert abs(mpmath.mpf(d) - hi) <= mpmath.mpf(math.ulp(d)) / 2, text
    return d, hi


def literal(d):
    """d with 17 significant digits, which read back as d; trailing zeros kept."""
    text = "%.17g" % d
    assert "e" not in text and "." in text, text     # every constant here is irrational
    digits = len(text.replace("-", "").replace(".", "").lstrip("0"))
    text += "0" * (17 - digits)
    assert float(text) == d, (text, d)
    return text


# --- C++ text -------------------------------------------------------------------------------

def horner(coeffs):
    """c0 + zz * (c1 + zz * (c2 ...)): the constant term outermost, the highest power innermost."""
    head = "T(%s)" % literal(coeffs[0])
    if len(coeffs) == 1:
        return head
    tail = horner(coeffs[1:])
    if len(coeffs) > 2:
        tail = "(" + tail + ")"
    return head + " + zz * " + tail


def wrap(first_prefix, rest_prefix, segments):
    """Pack segments into lines of at most COLUMNS; continuation lines start with rest_prefix."""
    lines, line = [], first_prefix + segments[0]
    for segment in segments[1:]:
        if len(line) + 1 + len(segment) > COLUMNS:
            lines.append(line.rstrip())
            line = rest_prefix + segment
        else:
            line += ("" if line.endswith(" ") else " ") + segment
    lines.append(line)
    for ln in lines:
        assert len(ln) <= COLUMNS, ln
    return lines


def terms(text):
    """Split an expression before each binary + or -, the only places it may break."""
    return re.split(r" (?=[+-] )", text)


def poly_text(primitive):
    terms = []
    for (e,), coeff in sorted(primitive.terms(), key=lambda t: -t[0][0]):
        mag = abs(coeff)
        if e == 0:
            body = str(mag)
        else:
            power = "z" if e == 1 else "z^%d" % e
            body = power if mag == 1 else "%d*%s" % (mag, power)
        if not terms:
            terms.append(body if coeff > 0 else "-" + body)
        else:
            terms.append(("+ " if coeff > 0 else "- ") + body)
    return " ".join(terms)


def emit_band(l):
    params = ("x", "y", "z", "zz")
    used = {"x": l >= 1, "y": l >= 1, "z": l >= 1, "zz": l >= 2}
    signature = [("const T& %s," % p) if used[p] else ("[[maybe_unused]] const T& %s," % p)
                 for p in params] + ["T* out)"]
    opening = "inline void evalDirectBand%d(" % l
    lines = ["template <class T>"]
    lines += wrap(opening, " " * len(opening), signature)
    lines.append("{")
    re_name = {1: "x"}
    im_name = {1: "y"}
    for m in range(2, l + 1):
        a, b = re_name[m - 1], im_name[m - 1]
        lines.append("    const T a%d = x * %s - y * %s;" % (m, a, b))
        lines.append("    const T b%d = x * %s + y * %s;" % (m, b, a))
        re_name[m], im_name[m] = "a%d" % m, "b%d" % m
    exact, printed = {}, {}
    for m, prefactor, primitive, folded in band_polynomials(l):
        doubles = []
        for v in folded:
            d, hi = nearest_double(v)
            doubles.append(d)
            exact.setdefault(m, []).append(hi)
        printed[m] = doubles
        odd = (l - m) % 2 == 1
        poly = poly_text(primitive)
        pre = sp.sstr(prefactor)
        if poly == "1":
            closed = pre
        elif poly == "z":
            closed = pre + " * z"
        else:
            closed = "%s * (%s)" % (pre, poly)
        if m == 0:
            comment = "Y(%d, 0) = %s" % (l, closed)
        else:
            comment = "Y(%d, +-%d) = %s * {%s, %s}" % (l, m, closed, re_name[m], im_name[m])
        lines += wrap("    // ", "    //     ", terms(comment))
        q = horner(doubles)
        if odd:
            q = ("(%s) * z" % q) if len(doubles) > 1 else ("%s * z" % q)
        if m == 0:
            lines += wrap("    out[%d] = " % l, "        ", terms(q + ";"))
        elif len(doubles) == 1 and not odd:
            lines.append("    out[%d] = %s * %s;" % (l + m, q, re_name[m]))
            lines.append("    out[%d] = %s * %s;" % (l - m, q, im_name[m]))
        else:
            lines += wrap("    const T q%d = " % m, "        ", terms(q + ";"))
            lines.append("    out[%d] = q%d * %s;" % (l + m, m, re_name[m]))
            lines.append("    out[%d] = q%d * %s;" % (l - m, m, im_name[m]))
    lines.append("}")
    return lines, exact, printed


HEADER = """\
// Generated by {script}; do not edit. Regenerate from the repository root with
//     python3 {script} {output}
//
// Direct evaluation of the real orthonormal spherical harmonics with the Condon-Shortley phase,
// bands 0 to {maxband}. On the unit sphere
//     Y(l, +-m) = c(l, m) D(l, m)(z) {{Re, Im}}((x + iy)^m),   D(l, m) = d^m/dz^m P_l(z),
//     c(l, m) = (-1)^m sqrt(2) K(l, m) (no sqrt(2) for m = 0),
//     K(l, m) = sqrt((2l + 1)/(4 pi) (l - m)!/(l + m)!).
// D(l, m) has the parity of l - m, so it runs by Horner's rule in zz = z^2, times z when l - m
// is odd. Each constant is c(l, m) times a coefficient of D(l, m), formed exactly and rounded
// once to the nearest double; the comment above each polynomial gives its closed form.
// a_m + i b_m = (x + iy)^m by a_(m+1) = x a_m - y b_m, b_(m+1) = x b_m + y a_m, a_1 = x, b_1 = y.
// Off the unit sphere the functions are these polynomials as they stand; nothing normalises.
//
// T is double or a SIMD wrapper. The code needs only T(double), binary +, - and * on T, and
// copies; signs live in the constants. Every sum and product is evaluated in the order written
// (the build forbids contraction), so each lane of a wrapper matches the double routine bit for
// bit. zz comes from the caller, who may form it in another precision; bands 2 and up use it
// wherever z^2 appears and never z * z.
//
// Band l writes the 2l + 1 values m = -l .. l to out[0 .. 2l]. Include inside namespace
// vekr::sh, after the headers that define T.
"""


def generate():
    out = [HEADER.format(script=SCRIPT, output=OUTPUT, maxband=MAX_BAND)]
    exact, printed = {}, {}
    for l in range(MAX_BAND + 1):
        lines, exact[l], printed[l] = emit_band(l)
        out.append("\n".join(lines) + "\n")
    return "\n".join(out), exact, printed


# --- Checks -----------------------------------------------------------------------------------

def reference_band(l, x, y, z):
    """Y(l, -l..l) in mpmath: Legendre recurrence, K(l, m), cos/sin(m phi).

    sin(theta) is taken as hypot(x, y) rather than sqrt(1 - z^2), so that for a direction that
    is unit only to rounding the reference is the same function the polynomials compute.
    """
    s = mpmath.sqrt(x * x + y * y)
    phi = mpmath.atan2(y, x)
    values = [None] * (2 * l + 1)
    for m in range(l + 1):
        # P(m, m) = (-1)^m (2m - 1)!! sin^m(theta), then upwards in l.
        pmm = mpmath.mpf(1)
        for i in range(1, m + 1):
            pmm *= -(2 * i - 1)
        pmm *= s ** m
        p_prev, p = pmm, z * (2 * m + 1) * pmm
        if l == m:
            p = pmm
        else:
            for n in range(m + 2, l + 1):
                p_prev, p = p, ((2 * n - 1) * z * p - (n + m - 1) * p_prev) / (n - m)
        k = mpmath.sqrt(mpmath.mpf(2 * l + 1) / (4 * mpmath.pi)
                        * mpmath.factorial(l - m) / mpmath.factorial(l + m))
        if m == 0:
            values[l] = k * p
        else:
            values[l + m] = mpmath.sqrt(2) * k * mpmath.cos(m * phi) * p
            values[l - m] = mpmath.sqrt(2) * k * mpmath.sin(m * phi) * p
    return values


def folded_band(l, coeffs, x, y, z):
    """The exact folded polynomials (60-digit coefficients) in mpmath, not the emitted code."""
    zz = z * z
    values = [None] * (2 * l + 1)
    w = mpmath.mpc(x, y)
    for m in range(l + 1):
        q = mpmath.mpf(0)
        for c in reversed(coeffs[m]):
            q = q * zz + c
        if (l - m) % 2:
            q *= z
        if m == 0:
            values[l] = q
        else:
            power = w ** m
            values[l + m] = q * power.real
            values[l - m] = q * power.imag
    return values


def compile_emitted(text):
    """Turn each emitted band routine into a Python function running the same statements."""
    functions = {}
    pattern = re.compile(r"inline void evalDirectBand(\d+)\([^)]*\)\n\{\n(.*?)\n\}", re.S)
    for match in pattern.finditer(text):
        l = int(match.group(1))
        code = "\n".join(ln for ln in match.group(2).split("\n")
                         if not ln.lstrip().startswith("//"))
        statements = [s.strip() for s in " ".join(code.split()).split(";") if s.strip()]
        for s in statements:
            # Only the operations the T wrapper provides.
            assert "+=" not in s and "-=" not in s and "*=" not in s, s
            assert not re.search(r"(^|[=(*+-]\s*)-\s*[a-z]", s), "unary minus on T: " + s
            assert not re.search(r"(^|[=(*+-]\s*)-\s*T\(", s), "unary minus on T: " + s
            if l >= 2:
                assert not re.search(r"\bz \* z\b", s), s
        body = "\n".join("    " + s.replace("const T ", "") for s in statements)
        source = "def band(x, y, z, zz, out):\n" + body + "\n"
        scope = {"T": float}
        exec(source, scope)
        functions[l] = scope["band"]
    assert sorted(functions) == list(range(MAX_BAND + 1))
    return functions


def within_digits(value, known):
    """value agrees with a decimal constant to the digits the constant shows."""
    digits = len(re.sub(r"[^0-9]", "", known.lstrip("-0.")))
    exponent = math.floor(math.log10(abs(float(known))))
    half_unit = 0.5 * 10.0 ** (exponent - digits + 1)
    return abs(value - float(known)) <= half_unit + math.ulp(value)


def check(text, exact, printed):
    """exact: the 60-digit folded coefficients; printed: the doubles the literals stand for."""
    # Band 0: 1/(2 sqrt(pi)), and its float rounding.
    assert abs(exact[0][0][0] - 1 / (2 * mpmath.sqrt(mpmath.pi))) < mpmath.mpf(10) ** -45
    assert struct.unpack("<I", struct.pack("<f", printed[0][0][0]))[0] == 0x3E906EBB

    # Known constants of bands 1 and 2, and unfolded prefactors of three higher functions.
    d = lambda l, m, i: printed[l][m][i]
    assert within_digits(d(1, 0, 0), "0.4886025119029199")
    assert within_digits(-d(1, 1, 0), "0.4886025119029199")
    assert within_digits(-d(2, 1, 0), "1.092548430592079")
    assert within_digits(-d(2, 0, 0), "0.31539156525252")
    assert within_digits(d(2, 0, 1) / 3, "0.31539156525252")
    assert within_digits(d(2, 2, 0), "0.5462742152960395")
    quoted = {(3, 1): "-0.4570457994644657", (4, 1): "-0.6690465435572892",
              (7, 1): "-0.0903316075825173"}
    for (l, m), value in quoted.items():
        prefactor = float(band_polynomials(l)[m][1])
        assert within_digits(prefactor, value), (l, m, prefactor)

    # Random unit directions (as doubles, so unit only to rounding), the poles and the equator.
    rng = random.Random(20240611)
    directions = [(0.0, 0.0, 1.0), (0.0, 0.0, -1.0), (1.0, 0.0, 0.0), (0.0, -1.0, 0.0)]
    while len(directions) < 16:
        v = [rng.gauss(0, 1) for _ in range(3)]
        n = math.sqrt(sum(c * c for c in v))
        directions.append(tuple(c / n for c in v))
    emitted = compile_emitted(text)
    u = 2.0 ** -53

    for x, y, z in directions:
        hx, hy, hz = (mpmath.mpf(c) for c in (x, y, z))
        for l in range(MAX_BAND + 1):
            ref = reference_band(l, hx, hy, hz)
            exact_vals = folded_band(l, exact[l], hx, hy, hz)
            for i in range(2 * l + 1):
                assert abs(exact_vals[i] - ref[i]) < mpmath.mpf(10) ** -35, (l, i - l, x, y, z)
            out = [None] * (2 * l + 1)
            emitted[l](x, y, z, z * z, out)
            for m in range(l + 1):
                # First-order rounding bound of the double code: Horner over n steps in zz
                # (itself rounded), the factor z, (x + iy)^m by m - 1 complex products, and the
                # final product; all relative to the sum of the magnitudes of the terms.
                coeffs = printed[l][m]
                n = len(coeffs) - 1
                terms_sum = (sum(abs(c) * (z * z) ** k for k, c in enumerate(coeffs))
                             * abs(z) ** ((l - m) % 2) * (abs(x) + abs(y)) ** m)
                bound = (3 * n + 2 * m + 4) * u * terms_sum
                for i in ([l] if m == 0 else [l + m, l - m]):
                    err = abs(out[i] - float(ref[i]))
                    assert err <= bound + u * abs(float(ref[i])), (l, i - l, x, y, z, err, bound)

    # The closed forms of bands 1 and 2 at a generic direction, through the emitted code; these fix
    # which slot holds sin (m < 0) and the sign of each function.
    x, y, z = directions[-1]
    k1, k2, k20, k22 = 0.4886025119029199, 1.092548430592079, 0.31539156525252, 0.5462742152960395
    rows = {1: [-k1 * y, k1 * z, -k1 * x],
            2: [k2 * x * y, -k2 * y * z, k20 * (3 * z * z - 1), -k2 * x * z, k22 * (x * x - y * y)]}
    for l, expected in rows.items():
        out = [None] * (2 * l + 1)
        emitted[l](x, y, z, z * z, out)
        for i, e in enumerate(expected):
            assert abs(out[i] - e) < 1e-14, (l, i - l, out[i], e)


def main(argv):
    if len(argv) > 2:
        sys.stderr.write("usage: gen_sh_bands.py [output.inc]\n")
        return 2
    mpmath.mp.dps = WORK_DPS
    text, exact, printed = generate()
    check(text, exact, printed)
    if len(argv) == 2:
        path = argv[1]
        tmp = path + ".tmp"
        with open(tmp, "w", encoding="ascii", newline="\n") as f:
            f.write(text)
        os.replace(tmp, path)
    else:
        sys.stdout.write(text)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
