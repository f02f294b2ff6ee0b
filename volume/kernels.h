// Interpolation kernels of the volume operations: tap count, first tap relative to the
// floor of the source position, and the weights for a fraction t in [0, 1).
#pragma once

#include <emmintrin.h>

namespace vlkr::volume {

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

// Four taps at floor(s) - 1 .. floor(s) + 2 with weights K(1 + t), K(t), K(1 - t), K(2 - t):
// Kernel::piece(a) evaluated in double at the distance a = |x| < 2 of each tap (K = 0 from
// a = 2 on) and stored as float.
template <class Kernel>
struct FourTapCubic {
    static constexpr int kTaps = 4;
    static constexpr int kFirstTap = -1;
    // K at two distances x in two double lanes: both pieces evaluated, the one for |x|
    // chosen, zero from |x| = 2 on.
    static __m128d at(__m128d x)
    {
        const __m128d a = _mm_andnot_pd(_mm_set1_pd(-0.0), x);
        const __m128d inner = _mm_cmplt_pd(a, _mm_set1_pd(1.0));
        const __m128d value =
            _mm_or_pd(_mm_and_pd(inner, Kernel::inner(a)), _mm_andnot_pd(inner, Kernel::outer(a)));
        return _mm_and_pd(_mm_cmplt_pd(a, _mm_set1_pd(2.0)), value);
    }
    static void weights(double t, double w[4])
    {
        if (t > 0 && t < 1) {
            // Strictly inside the unit interval each tap's piece is known: the middle taps
            // lie within 1, the outer ones between 1 and 2. Same values, half the work.
            double in[2], out[2];
            _mm_storeu_pd(in, Kernel::inner(_mm_setr_pd(t, 1.0 - t)));
            _mm_storeu_pd(out, Kernel::outer(_mm_setr_pd(1.0 + t, 2.0 - t)));
            w[0] = out[0], w[1] = in[0], w[2] = in[1], w[3] = out[1];
            return;
        }
        _mm_storeu_pd(w, at(_mm_setr_pd(1.0 + t, t)));
        _mm_storeu_pd(w + 2, at(_mm_setr_pd(1.0 - t, 2.0 - t)));
    }
    // The weights of a float fraction, kept as floats.
    static void weights(float t, float w[4])
    {
        double d[4];
        weights(double(t), d);
        for (int k = 0; k < 4; ++k) w[k] = float(d[k]);
    }
};

// Two double lanes of one value; the pieces below use the compiler's lane-wise operators.
inline __m128d lanes(double v) { return _mm_set1_pd(v); }

// A piecewise cubic on a < 1 and 1 <= a < 2, as c3 a^3 + c2 a^2 + c1 a + c0.
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
struct Cubic : FourTapCubic<Cubic<kPieces>> {
    static __m128d polynomial(const double* c, __m128d a)
    {
        return lanes(c[0]) * (a * a * a) + lanes(c[1]) * (a * a) + lanes(c[2]) * a + lanes(c[3]);
    }
    static __m128d inner(__m128d a) { return polynomial(kPieces.inner, a); }
    static __m128d outer(__m128d a) { return polynomial(kPieces.outer, a); }
};

// The four-point Lagrange cubic, 0.5a^3 - a^2 - 0.5a + 1 and -(1/6)a^3 + a^2 - (11/6)a + 1,
// written as products over its knots: the expanded form leaves about 1e-16 at a = 1, while
// an interpolating kernel must give weights of exactly 0, 1, 0, 0 at t = 0 so that a
// resize by 1 reproduces its source bit for bit.
struct Lagrange4 : FourTapCubic<Lagrange4> {
    static __m128d inner(__m128d a)
    {
        return lanes(0.5) * (a - lanes(1)) * (a + lanes(1)) * (a - lanes(2));
    }
    static __m128d outer(__m128d a)
    {
        return (a - lanes(1)) * (a - lanes(2)) * (a - lanes(3)) / lanes(-6.0);
    }
};

using BSpline = Cubic<kBSpline>;
using CatmullRom = Cubic<kCatmullRom>;
using CubicC03 = Cubic<kCubicC03>;

}  // namespace vlkr::volume
