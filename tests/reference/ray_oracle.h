// Ray/triangle crossings in double precision from the mesh's own corners (the Moller-Trumbore
// form), independent of the library's per-triangle records and float arithmetic. Where float
// and double may disagree (near an edge, at a tie, at either end of the accepted range) the
// oracle says the answer is undecided, and tests only check that what the library reports
// there is a real crossing.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "test_mesh.h"

namespace vlkr::reference {

struct Crossing {
    int tri = -1;
    double t = 0, a = 0, b = 0;  // distance, weights of corners A and B
    double margin = 0;           // smallest of the three weights: inside when >= 0
};

struct Answer {
    bool hit = false;
    bool decided = true;
    Crossing crossing;
};

class RayOracle {
public:
    static constexpr double kBand = 1e-4;  // weights and relative distances closer are undecided

    explicit RayOracle(const test::Mesh& mesh) : mesh_(mesh) {}

    // Every crossing of the ray's line with a non-degenerate triangle, in index order.
    std::vector<Crossing> crossings(const float o[3], const float d[3]) const
    {
        std::vector<Crossing> all;
        for (int n = 0; n < mesh_.triangleCount(); ++n) {
            double A[3], B[3], C[3];
            corner(n, 0, A), corner(n, 1, B), corner(n, 2, C);
            double e1[3], e2[3], s[3], dd[3], p[3], q[3];
            for (int k = 0; k < 3; ++k)
                e1[k] = A[k] - C[k], e2[k] = B[k] - C[k], s[k] = o[k] - C[k], dd[k] = d[k];
            cross(dd, e2, p);
            const double det = dot(e1, p);
            if (std::fabs(det) <= 1e-12 * norm(e1) * norm(e2) * norm(dd)) continue;
            cross(s, e1, q);
            Crossing c{n, dot(e2, q) / det, dot(s, p) / det, dot(dd, q) / det};
            c.margin = std::min({c.a, c.b, 1.0 - c.a - c.b});
            all.push_back(c);
        }
        return all;
    }

    // The nearest crossing with lo < t < hi, passing over `skip`; with `first`, the first in
    // index order instead.
    Answer nearest(const float o[3], const float d[3], double lo, double hi,
                   const std::vector<int>& skip = {}, bool first = false) const
    {
        std::vector<Crossing> sure, unsure;
        for (const Crossing& c : crossings(o, d)) {
            if (std::find(skip.begin(), skip.end(), c.tri) != skip.end()) continue;
            const double band = kBand * std::max(1.0, std::fabs(c.t));
            if (c.t <= lo - band || c.t >= hi + band || c.margin < -kBand) continue;
            const bool clear = c.margin >= kBand && c.t > lo + band && c.t < hi - band;
            (clear ? sure : unsure).push_back(c);
        }
        Answer answer;
        for (const Crossing& c : sure)
            if (!answer.hit || (!first && c.t < answer.crossing.t)) answer = {true, true, c};
        // Anything that might come first, or a tie with the answer, leaves it open.
        auto mightPrecede = [&](const Crossing& c) {
            if (!answer.hit) return true;
            if (first) return c.tri < answer.crossing.tri;
            return c.t < answer.crossing.t + kBand * std::max(1.0, std::fabs(c.t));
        };
        for (const Crossing& c : unsure) answer.decided = answer.decided && !mightPrecede(c);
        for (const Crossing& c : sure)
            if (!first && c.tri != answer.crossing.tri && mightPrecede(c)) answer.decided = false;
        return answer;
    }

    // Whether the library's hit on `tri` at distance t with weights p, q is a real crossing.
    bool isCrossing(const float o[3], const float d[3], int tri, double t, double p,
                    double q) const
    {
        for (const Crossing& c : crossings(o, d))
            if (c.tri == tri)
                return c.margin > -kBand && near(c.t, t, 1e-3) && near(c.a, p, 1e-2) &&
                       near(c.b, q, 1e-2);
        return false;
    }

    static bool near(double want, double got, double relative)
    {
        return std::fabs(want - got) <= relative * std::max(1.0, std::fabs(want));
    }

private:
    void corner(int n, int k, double out[3]) const
    {
        const int v = mesh_.triangles[4 * n + k];
        for (int c = 0; c < 3; ++c) out[c] = mesh_.vertices[3 * v + c];
    }
    static void cross(const double a[3], const double b[3], double out[3])
    {
        out[0] = a[1] * b[2] - a[2] * b[1];
        out[1] = a[2] * b[0] - a[0] * b[2];
        out[2] = a[0] * b[1] - a[1] * b[0];
    }
    static double dot(const double a[3], const double b[3])
    {
        return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
    }
    static double norm(const double a[3]) { return std::sqrt(dot(a, a)); }

    const test::Mesh& mesh_;
};

}  // namespace vlkr::reference
