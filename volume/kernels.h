// Interpolation kernels of the volume operations: tap count, first tap relative to the
// floor of the source position, and the weights for a fraction t in [0, 1).
#pragma once

namespace vlkr::volume {

struct Nearest {
    static constexpr int kTaps = 1;
};

// Weights 1 - t and t, in float.
struct Trilinear {
    static constexpr int kTaps = 2;
    static constexpr int kFirstTap = 0;
    static void weights(float t, float w[2])
    {
        w[0] = 1.0f - t;
        w[1] = t;
    }
};

// Four taps at floor(s) - 1 .. floor(s) + 2 with weights K(1 + t), K(t), K(1 - t), K(2 - t),
// the kernel evaluated in double at the distance of each tap and stored as float.
template <class Kernel>
inline void cubicWeights(float t, float w[4])
{
    const double d = t;
    w[0] = float(Kernel::at(1.0 + d));
    w[1] = float(Kernel::at(d));
    w[2] = float(Kernel::at(1.0 - d));
    w[3] = float(Kernel::at(2.0 - d));
}

// A piecewise cubic on |x| < 1 and 1 <= |x| < 2 (zero beyond), as c3 a^3 + c2 a^2 + c1 a + c0.
struct CubicPieces {
    double inner[4];
    double outer[4];
};

// The B/C family holds its coefficients as the literal decimal values, which differ in the
// last bit from ones derived in floating point from B and C.
inline constexpr CubicPieces kBSpline{{0.5, -1.0, 0.0, 2.0 / 3}, {-1.0 / 6, 1.0, -2.0, 4.0 / 3}};
inline constexpr CubicPieces kCatmullRom{{1.5, -2.5, 0.0, 1.0}, {-0.5, 2.5, -4.0, 2.0}};
inline constexpr CubicPieces kCubicC03{{0.95, -1.7, 0.0, 5.0 / 6},
                                       {-23.0 / 60, 2.0, -3.4, 28.0 / 15}};

// A member of the B/C cubic family, from its coefficients.
template <const CubicPieces& kPieces>
struct Cubic {
    static constexpr int kTaps = 4;
    static constexpr int kFirstTap = -1;
    static double at(double x)
    {
        const double a = x < 0 ? -x : x;
        if (a >= 2) return 0.0;
        const double* c = a < 1 ? kPieces.inner : kPieces.outer;
        return c[0] * (a * a * a) + c[1] * (a * a) + c[2] * a + c[3];
    }
    static void weights(float t, float w[4]) { cubicWeights<Cubic>(t, w); }
};

// The four-point Lagrange cubic, 0.5a^3 - a^2 - 0.5a + 1 and -(1/6)a^3 + a^2 - (11/6)a + 1,
// written as products over its knots: the expanded form leaves about 1e-16 at a = 1, while
// an interpolating kernel must give weights of exactly 0, 1, 0, 0 at t = 0 so that a
// resize by 1 reproduces its source bit for bit.
struct Lagrange4 {
    static constexpr int kTaps = 4;
    static constexpr int kFirstTap = -1;
    static double at(double x)
    {
        const double a = x < 0 ? -x : x;
        if (a >= 2) return 0.0;
        if (a < 1) return 0.5 * (a - 1) * (a + 1) * (a - 2);
        return (a - 1) * (a - 2) * (a - 3) / -6.0;
    }
    static void weights(float t, float w[4]) { cubicWeights<Lagrange4>(t, w); }
};
using BSpline = Cubic<kBSpline>;
using CatmullRom = Cubic<kCatmullRom>;
using CubicC03 = Cubic<kCubicC03>;

}  // namespace vlkr::volume
