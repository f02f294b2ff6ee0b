#!/usr/bin/python3
"""Writes sh/direct_bands.inc, the closed-form routines for the real spherical harmonics.

For each band l = 0..15 the routine directBand<l> evaluates the real orthonormal
harmonics Y(l, m), m = -l..l, of a direction (x, y, z) and stores them at out[l + m].
The Condon-Shortley sign is included, m < 0 is the sine type and m > 0 the cosine type.

Method: with C_m + i S_m = (x + i y)^m, which equals sin^m(theta) (cos m phi + i sin m phi)
on the unit sphere,

    Y(l, +m) = Q_lm(z) C_m,   Y(l, -m) = Q_lm(z) S_m,   Y(l, 0) = Q_l0(z),

where Q_lm(z) = sqrt(2) N_lm (-1)^m d^m/dz^m P_l(z) for m > 0 and Q_l0 = N_l0 P_l(z),
N_lm = sqrt((2l + 1) / (4 pi) (l - m)! / (l + m)!).  Q_lm is a polynomial of degree
l - m holding every other power of z, with all its zeros real and inside (-1, 1).
sympy derives it exactly and the generated code evaluates it as its leading coefficient
times z (for odd degree) times the factors (z^2 - r_k), each number rounded once to the
nearest double.  The factored form costs what a Horner scheme costs, but the monomial
coefficients alternate in sign and grow to 1e5 by band 15, so Horner would lose about
1e-11 to cancellation near the poles, where each factor here loses only its own
rounding.  C_m and S_m come from the recurrence C_m = x C_(m-1) - y S_(m-1),
S_m = x S_(m-1) + y C_(m-1).  Everything runs in double and each result is rounded
to float when it is stored.  Bands 0..2 keep their textbook forms and constants.

Before writing, the script evaluates the same arithmetic with numpy at fixed random
unit directions, the poles and the axes, compares it with scipy's complex harmonics
turned into the real basis, checks bands 0..2 against their known constants, and
exits without writing anything on a mismatch.

Usage: /usr/bin/python3 tools/gen_sh_direct.py sh/direct_bands.inc
"""

import math
import sys

import numpy as np
import scipy.special
import sympy as sp

LMAX = 15
TOLERANCE = 1e-12

# The known constants of bands 0..2, as decimal strings, so a convention slip shows up
# as a disagreement with numbers written down independently of the derivation.
KNOWN = {
    "Y00": "0.28209479177387814",
    "Y1": "0.4886025119029199",
    "Y2xy": "1.0925484305920792",
    "Y20": "0.31539156525252005",
    "Y22": "0.5462742152960396",
}
Y00_FLOAT_BITS = 0x3E906EBB


def legendre_derivative(l, m):
    """Rational coefficients of d^m/dz^m P_l(z) as a dict power -> sympy Rational."""
    z = sp.Symbol("z")
    poly = sp.Poly(sp.diff(sp.legendre(l, z), z, m), z, domain="QQ")
    return {k[0]: sp.Rational(c) for k, c in zip(poly.monoms(), poly.coeffs())}


def exact_coefficients(l, m):
    """Exact coefficients of Q_lm as a dict power -> sympy number."""
    norm = sp.sqrt(sp.Rational(2 * l + 1, 4) / sp.pi * sp.factorial(l - m) / sp.factorial(l + m))
    scale = norm if m == 0 else sp.sqrt(2) * norm * (-1) ** m
    return {k: scale * c for k, c in legendre_derivative(l, m).items()}


def to_double(value):
    """Nearest double to an exact sympy number (50 digits leave no room for double rounding)."""
    return float(str(sp.N(value, 50)))


def literal(value):
    """17 significant digits, which read back as the same double."""
    text = "%.17g" % value
    if not any(c in text for c in ".en"):
        text += ".0"
    assert float(text) == value, text
    return text


def factored(l, m):
    """Q_lm as K * z^parity * prod (t - r_k) with t = z^2, all numbers rounded once to double.

    The roots r_k are the squares of the positive zeros of Q_lm, which are real, simple and
    inside (-1, 1); they are sorted so the output does not depend on the root finder.
    """
    t = sp.Symbol("t")
    exact = exact_coefficients(l, m)
    parity = (l - m) % 2
    top = exact[l - m]
    lead = to_double(top)
    # The root finder works on the rational polynomial, so it sees exact numbers and returns
    # the same digits every time.
    rational = legendre_derivative(l, m)
    ratios = {k: c / rational[l - m] for k, c in rational.items()}
    monic = sp.Poly(sum(c * t ** ((k - parity) // 2) for k, c in ratios.items()), t, domain="QQ")
    roots = []
    if monic.degree() > 0:
        for r in monic.nroots(n=50, maxsteps=500):
            re, im = sp.re(r), sp.im(r)
            if abs(im) > sp.Float("1e-40") or not 0 < re < 1:
                fail(["Q(%d, %d) has a root %s outside (0, 1) in z^2" % (l, m, r)])
            roots.append(float(str(sp.N(re, 50))))
    # Each rounded root must have the exact zero between its two neighbouring doubles.
    def at(u):
        return sum(c * u ** ((k - parity) // 2) for k, c in ratios.items())
    for r in roots:
        below, above = (sp.Rational(*math.nextafter(r, d).as_integer_ratio()) for d in (0, 2))
        if at(below) * at(above) > 0:
            fail(["Q(%d, %d): %r is more than one double away from a zero" % (l, m, r)])
    return lead, sorted(roots), parity


def factored_lines(name, lead, roots, parity, width=100):
    """The declaration of one factored polynomial, wrapped after a factor past the width."""
    terms = [literal(lead)] + (["zd"] if parity else [])
    terms += ["(t - %s)" % literal(r) for r in roots]
    lines, line = [], "    const double %s = %s" % (name, terms[0])
    for term in terms[1:]:
        if len(line) + len(term) + 5 > width:
            lines.append(line + " *")
            line = "        " + term
        else:
            line += " * " + term
    return lines + [line + ";"]


def factored_eval(lead, roots, parity, zd):
    """Same operations in the same order as factored_lines emits them."""
    t = zd * zd
    value = np.full_like(zd, lead)
    if parity:
        value = value * zd
    for r in roots:
        value = value * (t - r)
    return value


# --- the three textbook bands ------------------------------------------------------------

def low_band_constants():
    """Constants of bands 0..2: the known values, checked against the derivation.

    The known values are the ones these bands have always been written with; one of them
    (Y20) is the double just above the nearest one, so each is allowed up to one unit in
    the last place from the exact value rather than required to be the nearest double.
    """
    exact = {
        "Y00": exact_coefficients(0, 0)[0],
        "Y1": -exact_coefficients(1, 1)[0],        # Q_11 = -K, Y(1, 0) = K z
        "Y2xy": -exact_coefficients(2, 1)[1],      # Q_21 = -K z, Y(2, -2) = K x y
        "Y20": exact_coefficients(2, 0)[2] / 3,    # Q_20 = K (3 z^2 - 1)
        "Y22": exact_coefficients(2, 2)[0],        # Q_22 = K
    }
    problems = []
    if (sp.simplify(exact_coefficients(1, 0)[1] - exact["Y1"]) != 0
            or sp.simplify(exact["Y2xy"] - 2 * exact["Y22"]) != 0
            or sp.simplify(exact_coefficients(2, 0)[0] + exact["Y20"]) != 0):
        problems.append("bands 1..2 do not share their constants as the closed forms assume")
    known = {name: float(text) for name, text in KNOWN.items()}
    for name, value in known.items():
        off = abs(sp.N(sp.Float(value, 60) - exact[name], 50))
        if off >= math.ulp(value):
            problems.append("%s: known %s is %.3g from the exact %s"
                            % (name, KNOWN[name], float(off), sp.N(exact[name], 25)))
    bits = int(np.float32(known["Y00"]).view(np.uint32))
    if bits != Y00_FLOAT_BITS:
        problems.append("Y00 as a float is 0x%08X, expected 0x%08X" % (bits, Y00_FLOAT_BITS))
    if problems:
        fail(problems)
    return known


def low_band_eval(l, k, x, y, z, single):
    """Bands 0..2 as emitted; single=True rounds the float sub-expressions like the C++."""
    f = np.float32 if single else np.float64
    xf, yf, zf = f(x), f(y), f(z)
    xd, yd, zd = (np.asarray(v, dtype=np.float64) for v in (xf, yf, zf))
    if l == 0:
        return [np.full_like(xd, k["Y00"])]
    if l == 1:
        return [-k["Y1"] * yd, k["Y1"] * zd, -k["Y1"] * xd]
    z2 = np.asarray(zf * zf, dtype=np.float64)
    x2my2 = np.asarray(xf * xf - yf * yf, dtype=np.float64)
    return [k["Y2xy"] * xd * yd, -k["Y2xy"] * yd * zd, k["Y20"] * (3.0 * z2 - 1.0),
            -k["Y2xy"] * xd * zd, k["Y22"] * x2my2]


def low_band_text(l, k):
    if l == 0:
        return ["    // The constant band does not depend on the direction.",
                "    static_cast<void>(x);",
                "    static_cast<void>(y);",
                "    static_cast<void>(z);",
                "    out[0] = static_cast<float>(%s);" % literal(k["Y00"])]
    if l == 1:
        return ["    const double xd = x, yd = y, zd = z;",
                "    out[0] = static_cast<float>(%s * yd);" % literal(-k["Y1"]),
                "    out[1] = static_cast<float>(%s * zd);" % literal(k["Y1"]),
                "    out[2] = static_cast<float>(%s * xd);" % literal(-k["Y1"])]
    return ["    const double xd = x, yd = y, zd = z;",
            "    // The squares and their difference are formed in float, then widened.",
            "    const double z2 = static_cast<double>(z * z);",
            "    const double x2my2 = static_cast<double>(x * x - y * y);",
            "    out[0] = static_cast<float>(%s * xd * yd);" % literal(k["Y2xy"]),
            "    out[1] = static_cast<float>(%s * yd * zd);" % literal(-k["Y2xy"]),
            "    out[2] = static_cast<float>(%s * (3.0 * z2 - 1.0));" % literal(k["Y20"]),
            "    out[3] = static_cast<float>(%s * xd * zd);" % literal(-k["Y2xy"]),
            "    out[4] = static_cast<float>(%s * x2my2);" % literal(k["Y22"])]


# --- the general bands -------------------------------------------------------------------

def general_band_text(l, coeffs):
    lines = ["    const double xd = x, yd = y, zd = z;",
             "    const double t = zd * zd;",
             "    // c<m> + i s<m> = (x + i y)^m, which carries the sin^m(theta) of the band.",
             "    const double c1 = xd, s1 = yd;"]
    for m in range(2, l + 1):
        lines.append("    const double c%d = xd * c%d - yd * s%d, s%d = xd * s%d + yd * c%d;"
                     % (m, m - 1, m - 1, m, m - 1, m - 1))
    lines.append("    // p<m> is the normalised Legendre factor divided by sin^m(theta), "
                 "as a product over its zeros.")
    for m in range(l + 1):
        lines += factored_lines("p%d" % m, *coeffs[m])
    for m in range(-l, l + 1):
        if m == 0:
            value = "p0"
        else:
            value = "p%d * %s%d" % (abs(m), "s" if m < 0 else "c", abs(m))
        lines.append("    out[%d] = static_cast<float>(%s);" % (l + m, value))
    return lines


def general_band_eval(l, coeffs, x, y, z, single):
    if single:
        x, y, z = (np.asarray(np.float32(v), dtype=np.float64) for v in (x, y, z))
    c, s = [None, x], [None, y]
    for m in range(2, l + 1):
        c.append(x * c[m - 1] - y * s[m - 1])
        s.append(x * s[m - 1] + y * c[m - 1])
    p = [factored_eval(*coeffs[m], z) for m in range(l + 1)]
    return [p[-m] * s[-m] if m < 0 else (p[0] if m == 0 else p[m] * c[m])
            for m in range(-l, l + 1)]


def build():
    """Constants and coefficients of every band."""
    k = low_band_constants()
    coeffs = {l: [factored(l, m) for m in range(l + 1)] for l in range(3, LMAX + 1)}
    return k, coeffs


def evaluate(l, k, coeffs, x, y, z, single=False):
    """Values of band l as the generated routine computes them, in double before the store."""
    if l <= 2:
        return low_band_eval(l, k, x, y, z, single)
    return general_band_eval(l, coeffs[l], x, y, z, single)


# --- verification ------------------------------------------------------------------------

def reference(l, x, y, z):
    """scipy's complex harmonics (Condon-Shortley included) turned into the real basis."""
    polar = np.arccos(np.clip(z, -1.0, 1.0))
    azimuth = np.arctan2(y, x)
    out = []
    for m in range(-l, l + 1):
        a = abs(m)
        if hasattr(scipy.special, "sph_harm_y"):
            ylm = scipy.special.sph_harm_y(l, a, polar, azimuth)
        else:
            ylm = scipy.special.sph_harm(a, l, azimuth, polar)
        if m == 0:
            out.append(ylm.real)
        else:
            out.append(np.sqrt(2.0) * (ylm.imag if m < 0 else ylm.real))
    return out


def directions():
    rng = np.random.default_rng(20240611)
    v = rng.normal(size=(200, 3))
    v /= np.linalg.norm(v, axis=1)[:, None]
    axes = np.array([[1, 0, 0], [-1, 0, 0], [0, 1, 0], [0, -1, 0], [0, 0, 1], [0, 0, -1]], float)
    diag = np.array([[1, 1, 1], [-1, 1, -1], [1, -1, 0], [0, 1, -1]], float)
    diag /= np.linalg.norm(diag, axis=1)[:, None]
    v = np.vstack([v, axes, diag])
    return v[:, 0], v[:, 1], v[:, 2]


def fail(problems):
    sys.stderr.write("gen_sh_direct: verification failed, nothing written:\n")
    for p in problems[:40]:
        sys.stderr.write("  %s\n" % p)
    sys.exit(1)


def verify(k, coeffs):
    x, y, z = directions()
    problems = []
    worst = 0.0
    for l in range(LMAX + 1):
        ours = evaluate(l, k, coeffs, x, y, z)
        theirs = reference(l, x, y, z)
        for m in range(-l, l + 1):
            err = np.abs(ours[l + m] - theirs[l + m]) / np.maximum(1.0, np.abs(theirs[l + m]))
            worst = max(worst, float(err.max()))
            if err.max() > TOLERANCE:
                i = int(err.argmax())
                problems.append("Y(%d, %d) at (%r, %r, %r): %r, reference %r"
                                % (l, m, x[i], y[i], z[i], ours[l + m][i], theirs[l + m][i]))
    # Bands 0..2 once more, written straight from their known forms.
    n = [float(KNOWN[key]) for key in ("Y00", "Y1", "Y2xy", "Y20", "Y22")]
    table = [[np.full_like(x, n[0])],
             [-n[1] * y, n[1] * z, -n[1] * x],
             [n[2] * x * y, -n[2] * y * z, n[3] * (3 * z * z - 1), -n[2] * x * z,
              n[4] * (x * x - y * y)]]
    for l in range(3):
        ours = evaluate(l, k, coeffs, x, y, z)
        for m in range(-l, l + 1):
            if np.abs(ours[l + m] - table[l][l + m]).max() > TOLERANCE:
                problems.append("Y(%d, %d) differs from its known form" % (l, m))
    if problems:
        fail(problems)
    return worst, len(x)


# --- output ------------------------------------------------------------------------------

def render(k, coeffs):
    lines = ["// Generated by tools/gen_sh_direct.py; do not edit by hand, rerun the script.",
             "// Closed forms of the real orthonormal harmonics band by band; band l writes",
             "// Y(l, m) for m = -l..l to out[l + m].  Products are formed in double from the",
             "// float inputs and each value is rounded to float once, when it is stored.",
             ""]
    for l in range(LMAX + 1):
        lines.append("inline void directBand%d(float x, float y, float z, float* out) noexcept {"
                     % l)
        lines += low_band_text(l, k) if l <= 2 else general_band_text(l, coeffs[l])
        lines += ["}", ""]
    lines.append("using DirectBandFn = void (*)(float, float, float, float*) noexcept;")
    lines.append("constexpr DirectBandFn kDirectBands[%d] = {" % (LMAX + 1))
    for first in range(0, LMAX + 1, 4):
        group = ", ".join("directBand%d" % l for l in range(first, min(first + 4, LMAX + 1)))
        lines.append("    " + group + (",", "};")[first + 4 > LMAX])
    return "\n".join(lines) + "\n"


def main(argv):
    if len(argv) != 2:
        sys.stderr.write("usage: %s OUTPUT\n" % argv[0])
        return 2
    k, coeffs = build()
    worst, count = verify(k, coeffs)
    text = render(k, coeffs)
    with open(argv[1], "w", newline="\n") as f:
        f.write(text)
    print("gen_sh_direct: bands 0..%d agree with the reference at %d directions "
          "(worst %.2e); wrote %s" % (LMAX, count, worst, argv[1]))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
