// K-d tree construction: the one-leaf tree and the surface-area-heuristic build.
#include "kdtree_build.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <type_traits>
#include <utility>

#include "build_memory.h"
#include "frame/unaligned.h"
#include "kdtree_node.h"

namespace vlkr::raytrace {
namespace {

constexpr double kMinExtent = 9.999999747378752e-06;    // axes this thin are not split
constexpr double kThresholdScale = 0.5057569742202759;  // leaf threshold per unit of quality
constexpr double kFacePreference = 0.699999988079071;   // discount for empty or flat cuts
constexpr double kEmptyFraction = 0.1;  // empty space worth cutting, as a share of the extent
constexpr double kTinyFaceArea = 1e-9;  // below this the side-face term h is 0
constexpr double kNoCost = 1.7976931348623157e308;
constexpr std::size_t kBulkSortAbove = 320;    // longer candidate lists use the radix sort
constexpr std::size_t kInsertionSortMax = 16;  // and lists this short an insertion sort
// The list arena asked for, in multiples of the root's lists: on the benchmark scenes the
// stack of pending children with a node's scratch peaks at 3.1 to 4.1.
constexpr std::size_t kListArenaRoots = 6;
// How many thresholds a split must save over its leaf; see worthSplitting.
constexpr double kTraversalShare = 3.0;

// The fixed term of the build's size formula: the builder's state and two 16 MB blocks, each
// charged with its block header.
constexpr std::uint32_t kFixedBudgetBytes = kBuilderStateBytes + 2 * kGranuleCharge;
static_assert(kFixedBudgetBytes == 33554912, "the size formula's fixed term is 33,554,912 bytes");

// A triangle's share of a node: its number and its bounds clipped to the node.
constexpr std::uint32_t kRefBytesPerTriangle = 36;
constexpr std::uint32_t kNodeBytesPerVertex = 48;

struct Ref {
    int tri;
    float lo[3];
    float hi[3];
    int unused;
};
static_assert(sizeof(Ref) == 32, "refs pack a 16 MB chunk exactly");

struct Box {
    float lo[3];
    float hi[3];
};

// One entry of the sorted candidate lists: a position with the triangle it bounds, side by
// side so that handing entries on moves one 8-byte record.
struct Event {
    float pos;
    int tri;
};

// Candidate runs hold bare positions (sorted per node) or events (kept sorted); these read
// and write the position of either.
inline float posOf(float p) { return p; }
inline float posOf(const Event& e) { return e.pos; }
inline void setPos(float& p, float v) { p = v; }
inline void setPos(Event& e, float v) { e.pos = v; }

// The cheapest plane found on one axis, or over all axes.
struct Split {
    double recorded = kNoCost;  // (a + b) times the cost: the surface-area cost of the split
    float pos = 0.0f;
    int axis = -1;
    bool flatsLow = false;  // triangles flat in the plane go below it
    bool valid() const { return axis >= 0; }
};

// ---------------------------------------------------------------------------------------
// Geometry helpers

// The float next to x towards +inf (dir = 1) or -inf (dir = -1), as std::nextafter gives it
// for a number, without the library call.
inline float nextFloat(float x, int dir)
{
    std::int32_t bits;
    std::memcpy(&bits, &x, 4);
    if (x == 0.0f)
        bits = dir > 0 ? 1 : std::int32_t(0x80000001u);
    else
        bits += (x > 0.0f) == (dir > 0) ? 1 : -1;
    std::memcpy(&x, &bits, 4);
    return x;
}

// Bounds of the triangle clipped to `box`, computed in double and rounded outward to float.
// False when nothing of the triangle lies inside the box.
bool clipTriangle(const double corner[3][3], const Box& box, float lo[3], float hi[3])
{
    constexpr int kMaxVerts = 9;
    double poly[2][kMaxVerts][3];
    int count = 3, cur = 0;
    std::memcpy(poly[0], corner, sizeof(double) * 9);
    for (int axis = 0; axis < 3; ++axis) {
        for (int side = 0; side < 2; ++side) {
            const double plane = side == 0 ? box.lo[axis] : box.hi[axis];
            const double sign = side == 0 ? 1.0 : -1.0;  // inside: sign * (x - plane) >= 0
            const double(*in)[3] = poly[cur];
            // The same test as sign * (x - plane) >= 0 below, without the multiply.
            bool allInside = true;
            for (int i = 0; i < count; ++i) {
                const double d = in[i][axis] - plane;
                allInside = allInside && (side == 0 ? d >= 0 : d <= 0);
            }
            if (allInside) continue;  // most planes cut nothing
            double(*out)[3] = poly[cur ^ 1];
            int n = 0;
            for (int i = 0; i < count; ++i) {
                const double* a = in[i];
                const double* b = in[i + 1 < count ? i + 1 : 0];
                const double da = sign * (a[axis] - plane), db = sign * (b[axis] - plane);
                if (da >= 0) std::memcpy(out[n++], a, sizeof(double) * 3);
                if ((da >= 0) != (db >= 0)) {
                    const double t = da / (da - db);
                    for (int k = 0; k < 3; ++k) out[n][k] = a[k] + t * (b[k] - a[k]);
                    out[n][axis] = plane;  // exactly on the plane, whatever t rounded to
                    ++n;
                }
            }
            count = n;
            cur ^= 1;
            if (count == 0) return false;
        }
    }
    const double(*p)[3] = poly[cur];
    for (int k = 0; k < 3; ++k) {
        double l = p[0][k], h = p[0][k];
        for (int i = 1; i < count; ++i) {
            l = std::min(l, p[i][k]);
            h = std::max(h, p[i][k]);
        }
        float fl = static_cast<float>(l), fh = static_cast<float>(h);
        if (fl > l) fl = nextFloat(fl, -1);
        if (fh < h) fh = nextFloat(fh, 1);
        lo[k] = std::max(fl, box.lo[k]);
        hi[k] = std::min(fh, box.hi[k]);
        if (lo[k] > hi[k]) return false;
    }
    return true;
}

void loadCorners(const float* vertices, const int* triangles, int t, double corner[3][3])
{
    for (int c = 0; c < 3; ++c) {
        const float* v = vertices + 3 * std::ptrdiff_t(loadUnaligned(triangles + 4 * t + c));
        for (int k = 0; k < 3; ++k) corner[c][k] = loadUnaligned(v + k);
    }
}

// Triangles whose normal is exactly zero can never be hit and are left out of the tree.
bool isDegenerate(const double c[3][3])
{
    double e1[3], e2[3];
    for (int k = 0; k < 3; ++k) {
        e1[k] = c[0][k] - c[2][k];
        e2[k] = c[1][k] - c[2][k];
    }
    return e1[1] * e2[2] - e1[2] * e2[1] == 0.0 && e1[2] * e2[0] - e1[0] * e2[2] == 0.0 &&
           e1[0] * e2[1] - e1[1] * e2[0] == 0.0;
}

// ---------------------------------------------------------------------------------------
// Sorting of candidate positions

inline std::uint32_t sortKey(float f)
{
    std::uint32_t u;
    std::memcpy(&u, &f, 4);
    return u ^ ((u >> 31) ? 0xFFFFFFFFu : 0x80000000u);
}

inline float keyValue(std::uint32_t k)
{
    const std::uint32_t u = k ^ ((k >> 31) ? 0x80000000u : 0xFFFFFFFFu);
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}

// Whether a comes before b in key order: by value, and -0 before +0, so that the lowest and
// highest bound of a node never depend on the order its references are visited in. A NaN
// comes before nothing and nothing comes before it.
inline bool keyBelow(float a, float b)
{
    return a < b || (a == b && std::signbit(a) && !std::signbit(b));
}

constexpr std::uint32_t kLastKey = 0xFFFFFFFFu;  // a NaN's key, after every number's

// The radix sort takes 8-bit digits, or 11-bit ones for lists this long, where three passes
// over the list save more than the larger histograms cost.
constexpr std::size_t kWideDigitsAbove = 1u << 16;

// Byte-wise or 11-bit-wise LSD radix sort by key; returns true when the result ended up in the
// spare buffer. A digit that is the same in every key, as most are in the small boxes deep in
// the tree, needs no pass.
template <int kBits, class Elem>
bool radixByKey(Elem* list, Elem* spare, std::size_t n)
{
    constexpr int kPasses = (32 + kBits - 1) / kBits;
    constexpr std::uint32_t kDigits = 1u << kBits;
    std::uint32_t hist[kPasses][kDigits] = {};
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint32_t k = sortKey(posOf(list[i]));
        for (int pass = 0; pass < kPasses; ++pass)
            ++hist[pass][(k >> (kBits * pass)) & (kDigits - 1)];
    }
    Elem* src = list;
    Elem* dst = spare;
    bool inSpare = false;
    for (int pass = 0; pass < kPasses; ++pass) {
        std::uint32_t* h = hist[pass];
        const int shift = kBits * pass;
        if (h[(sortKey(posOf(src[0])) >> shift) & (kDigits - 1)] == n) continue;
        std::uint32_t sum = 0;
        for (std::uint32_t d = 0; d < kDigits; ++d) {
            const std::uint32_t count = h[d];
            h[d] = sum;
            sum += count;
        }
        for (std::size_t i = 0; i < n; ++i)
            dst[h[(sortKey(posOf(src[i])) >> shift) & (kDigits - 1)]++] = src[i];
        std::swap(src, dst);
        inSpare = !inSpare;
    }
    return inSpare;
}

/*
 * Sorts n positions, or events by their positions, ascending by key. Both methods give the
 * key order, -0 before +0, whatever order the entries came in. Returns true when the result
 * ended up in the spare buffer instead of in place, which only the radix sort that long lists
 * take does.
 */
template <class Elem>
bool sortByKey(Elem* list, Elem* spare, std::size_t n)
{
    if (n <= kInsertionSortMax) {
        for (std::size_t i = 1; i < n; ++i) {
            const Elem e = list[i];
            const std::uint32_t key = sortKey(posOf(e));
            std::size_t j = i;
            for (; j > 0 && sortKey(posOf(list[j - 1])) > key; --j) list[j] = list[j - 1];
            list[j] = e;
        }
        return false;
    }
    if (n <= kBulkSortAbove) {
        // Sort the keys, with the triangle numbers in their low halves when they come along.
        constexpr bool kCarry = std::is_same_v<Elem, Event>;
        using Packed = std::conditional_t<kCarry, std::uint64_t, std::uint32_t>;
        constexpr int kShift = kCarry ? 32 : 0;
        Packed packed[kBulkSortAbove];
        for (std::size_t i = 0; i < n; ++i) {
            packed[i] = Packed(sortKey(posOf(list[i]))) << kShift;
            if constexpr (kCarry) packed[i] |= static_cast<std::uint32_t>(list[i].tri);
        }
        std::sort(packed, packed + n);
        for (std::size_t i = 0; i < n; ++i) {
            setPos(list[i], keyValue(static_cast<std::uint32_t>(packed[i] >> kShift)));
            if constexpr (kCarry)
                list[i].tri = static_cast<int>(static_cast<std::uint32_t>(packed[i]));
        }
        return false;
    }
    return n > kWideDigitsAbove ? radixByKey<11>(list, spare, n) : radixByKey<8>(list, spare, n);
}

// ---------------------------------------------------------------------------------------
// The plane search on one axis

// What costing a plane on one axis needs to know of the node.
struct AxisFrame {
    double lo, hi, extent;  // the node's span on the axis
    double ea, eb;          // its extents on the other two axes
    double h;               // the side-face term: cross-section area over half its perimeter
    std::size_t n;          // the node's reference count
    double nf;              // the count as the costs use it, rounded through float
};

// Fills the frame of `axis`; false when the node is too thin on it to split.
bool frameAxis(int axis, const Box& box, std::size_t n, AxisFrame& ax)
{
    ax.lo = box.lo[axis];
    ax.hi = box.hi[axis];
    ax.extent = ax.hi - ax.lo;
    if (!(ax.extent > kMinExtent)) return false;
    const int a1 = (axis + 1) % 3, a2 = (axis + 2) % 3;
    ax.ea = double(box.hi[a1]) - box.lo[a1];
    ax.eb = double(box.hi[a2]) - box.lo[a2];
    const double ab = ax.ea * ax.eb;
    ax.h = ab < kTinyFaceArea ? 0.0 : ab / (ax.ea + ax.eb);
    ax.n = n;
    ax.nf = double(float(n));
    return true;
}

// The candidate planes of one axis: both bounds of every reference with extent on it, the
// position of every reference flat in it, and the lowest and highest bound of all. Each list
// has room for one more entry, the sweep's end marker.
template <class Elem>
struct Candidates {
    Elem* starts;
    Elem* ends;
    Elem* flats;
    Elem* spare;  // the radix sort's second buffer
    std::size_t ns = 0, nflat = 0;
    float lowest = INFINITY, highest = -INFINITY;
    bool sorted = false;

    void widen(float l, float u)
    {
        if (keyBelow(l, lowest)) lowest = l;
        if (keyBelow(highest, u)) highest = u;
    }
};

// The cost of cutting off the empty space below the lowest or above the highest bound,
// whichever is cheaper, with the cut's position in `cut`; kNoCost when neither slab is more
// than a tenth of the node.
template <class Elem>
double emptySpaceCost(const AxisFrame& ax, const Candidates<Elem>& c, Split& cut)
{
    const double lo = ax.lo, hi = ax.hi, extent = ax.extent, h = ax.h, nf = ax.nf;
    double emptyCost = kNoCost;
    if (c.lowest - lo > kEmptyFraction * extent) {
        emptyCost = nf * ((hi - c.lowest) + h);
        cut.pos = c.lowest;
        cut.flatsLow = false;
    }
    if (hi - c.highest > kEmptyFraction * extent) {
        const double above = nf * ((c.highest - lo) + h);
        if (above < emptyCost) {
            emptyCost = above;
            cut.pos = c.highest;
            cut.flatsLow = true;
        }
    }
    return emptyCost;
}

// Sorts the three lists ascending, each sort taking the buffer the one before left free.
template <class Elem>
void sortCandidates(Candidates<Elem>& c)
{
    const std::pair<Elem**, std::size_t> lists[] = {
        {&c.starts, c.ns}, {&c.ends, c.ns}, {&c.flats, c.nflat}};
    for (const auto& [list, n] : lists)
        if (sortByKey(*list, c.spare, n)) std::swap(*list, c.spare);
}

// The cheapest plane of one axis so far, by its cost before the (a + b) factor; it writes the
// plane's position and side for flats into the axis's Split.
class CheapestPlane {
   public:
    CheapestPlane(const AxisFrame& ax, Split& out) noexcept : ax_(ax), out_(out) {}

    void consider(double cost, float pos, bool flatsLow, std::size_t nl, std::size_t nr) noexcept
    {
        // A plane that leaves one child with everything and the whole box is no split.
        if (!(cost < cost_)) return;
        if ((nl == ax_.n && pos >= ax_.hi) || (nr == ax_.n && pos <= ax_.lo)) return;
        cost_ = cost;
        out_.pos = pos;
        out_.flatsLow = flatsLow;
    }
    double cost() const noexcept { return cost_; }

   private:
    const AxisFrame& ax_;
    Split& out_;
    double cost_ = kNoCost;
};

// Planes at flat triangles lying on the node's own faces, which take the face discount.
template <class Elem>
void considerFlatsOnFaces(const AxisFrame& ax, const Candidates<Elem>& c, CheapestPlane& cheapest)
{
    const double lo = ax.lo, hi = ax.hi, h = ax.h;
    const std::size_t n = ax.n, nflat = c.nflat;
    const Elem* sortedFlats = c.flats;
    if (nflat > 0 && posOf(sortedFlats[0]) == lo) {
        std::size_t k = 0;
        while (k < nflat && posOf(sortedFlats[k]) == lo) ++k;
        const double f = posOf(sortedFlats[0]);
        cheapest.consider(kFacePreference * (((f - lo) + h) * double(float(k)) +
                                             ((hi - f) + h) * double(float(n - k))),
                          posOf(sortedFlats[0]), true, k, n - k);
    }
    if (nflat > 0 && posOf(sortedFlats[nflat - 1]) == hi) {
        std::size_t k = 0;
        while (k < nflat && posOf(sortedFlats[nflat - 1 - k]) == hi) ++k;
        const double f = posOf(sortedFlats[nflat - 1]);
        cheapest.consider(kFacePreference * (((f - lo) + h) * double(float(n - k)) +
                                             ((hi - f) + h) * double(float(k))),
                          posOf(sortedFlats[nflat - 1]), false, n - k, k);
    }
}

// Sweeps every distinct bound of the sorted lists in ascending order and costs the plane
// there, with the flat triangles at it above and then below; +inf ends each list. Without
// flats (kFlats false) their list is all end marker and drops out of every step. Only a cost
// below the best so far, kept at hand, goes on to `cheapest`, which has the last word.
template <bool kFlats, class Elem>
void sweepRuns(const AxisFrame& ax, const Candidates<Elem>& c, CheapestPlane& cheapest)
{
    const double lo = ax.lo, hi = ax.hi, h = ax.h;
    const std::size_t n = ax.n;
    const Elem* sortedStarts = c.starts;
    const Elem* sortedEnds = c.ends;
    const Elem* sortedFlats = c.flats;
    double best = cheapest.cost();
    std::size_t is = 0, ie = 0, iflat = 0;
    for (;;) {
        float p = std::min(posOf(sortedStarts[is]), posOf(sortedEnds[ie]));
        if constexpr (kFlats) p = std::min(p, posOf(sortedFlats[iflat]));
        if (p == INFINITY) break;
        while (posOf(sortedEnds[ie]) <= p) ++ie;
        std::size_t m = 0;
        if constexpr (kFlats)
            while (posOf(sortedFlats[iflat + m]) == p) ++m;
        const std::size_t nl = is + iflat, nr = n - ie - iflat;
        const double l = (double(p) - lo) + h, r = (hi - double(p)) + h;
        const double cost = double(float(nl)) * l + double(float(nr)) * r;
        if (cost < best) {
            cheapest.consider(cost, p, false, nl, nr);
            best = cheapest.cost();
        }
        if (kFlats && m > 0) {
            const double flatsLowCost = double(float(nl + m)) * l + double(float(nr - m)) * r;
            if (flatsLowCost < best) {
                cheapest.consider(flatsLowCost, p, true, nl + m, nr - m);
                best = cheapest.cost();
            }
        }
        while (posOf(sortedStarts[is]) <= p) ++is;
        iflat += m;
    }
}

template <class Elem>
void sweepPlanes(const AxisFrame& ax, const Candidates<Elem>& c, CheapestPlane& cheapest)
{
    setPos(c.starts[c.ns], INFINITY);
    setPos(c.ends[c.ns], INFINITY);
    setPos(c.flats[c.nflat], INFINITY);
    if (c.nflat > 0)
        sweepRuns<true>(ax, c, cheapest);
    else
        sweepRuns<false>(ax, c, cheapest);
}

// ---------------------------------------------------------------------------------------
// The builder

/*
 * Surface-area k-d tree build with perfect splits.
 *
 * Each node evaluates the three axes. An axis first looks for a slab of empty space worth
 * cutting off (more than a tenth of the node on either side); failing that it sweeps every
 * distinct triangle bound in order and costs the plane as NL * L + NR * R, where L and R are
 * half the child surface areas divided by the node's cross-section perimeter (a + b).
 * Cuts at empty space and at flat triangles on the node's faces get a 30% discount, which
 * pulls empty space out early. Triangles cut by the chosen plane go to both children with
 * their bounds re-clipped to each child box in double, so child bounds stay tight.
 *
 * Two ways to hold a node's triangles give the same tree. When the budget has room, the
 * candidate lists are sorted once at the root and kept sorted on the way down, as in Wald and
 * Havran's O(N log N) build: each node's three lists per axis carry the triangle of every
 * position, a split hands each entry to its side in order, and only the straddling
 * triangles, re-clipped, are sorted and merged in. The lists live in one arena used as a
 * stack; a subtree that would overflow it, and the whole build when the arena does not fit
 * the budget, go the other way: the node's references lie in one range of a reference arena,
 * each node gathers and sorts its lists afresh, partitioning is in place, and only the
 * straddling references are copied. Both ways charge the reference arena alike, so the
 * sorted lists only ever add to what the budget sees; a build whose lists leave too little
 * for the nodes starts again without them. Nodes are written depth first, each pair of
 * children next to each other, into storage that grows in 16 MB chunks charged against the
 * caller's budget.
 */
class SahBuilder {
   public:
    SahBuilder(const float* vertices, const int* triangles, int vertexCount, int triangleCount,
               const KDTreeBuildContext& params, std::uint32_t budget) noexcept
        : vertices_(vertices),
          triangles_(triangles),
          vertexCount_(vertexCount),
          triangleCount_(triangleCount),
          params_(params),
          budget_(budget)
    {
        // A quality that is not a number builds as the best quality.
        const double quality = std::isnan(params.quality) ? 1.0 : double(params.quality);
        qualityFactor_ = 10.0 - 9.0 * quality;
    }

    vlkStatus run(KDTreeNode** tree, int* treeSize) noexcept
    {
        if (!allocateWorkspace()) return vlkStatusMemAlloc;
        Box root;
        bool finite = false;
        std::size_t refCount = gatherRefs(root, finite);
        refTop_ = refCount;
        nodeCount_ = 1;
        // The split rule asks recorded + kTraversalShare * C / n < S with C >= S qf k. With
        // finite input every bound lies in its node's box, so no plane costs less than
        // nothing, and a node of n <= kTraversalShare qf k references stays a leaf whatever
        // its planes cost: it need not search them. The margin keeps rounding in the rule's
        // own arithmetic on the leaf's side.
        constexpr double kRoundingMargin = 1.0 + 1e-9;
        if (finite)
            searchAbove_ = static_cast<std::size_t>(kTraversalShare * qualityFactor_ *
                                                    kThresholdScale / kRoundingMargin);
        bool built = false;
        NodeLists rootLists;
        const ListArena arena = finite ? openListArena(refCount, rootLists) : ListArena::kNone;
        if (arena == ListArena::kHeapFailed) return vlkStatusMemAlloc;
        if (arena == ListArena::kOpen) {
            built = buildFromLists(0, rootLists, root, 0);
            if (!built && budget_.refused()) {
                // The sorted lists took budget the nodes needed: build again without them.
                listArena_.release();
                refs_.trim();
                nodes_.trim();
                budget_.clearRefused();
                refCount = gatherRefs(root, finite);
                refTop_ = refCount;
                nodeCount_ = 1;
                built = buildNode(0, 0, refCount, root, 0);
            }
        } else {
            built = buildNode(0, 0, refCount, root, 0);
        }
        if (!built) return vlkStatusMemAlloc;

        // Give back the working arrays before the finished tree is allocated.
        for (ChargedBlock& list : lists_) list.release();
        listArena_.release();
        refs_.release();
        const std::size_t bytes = nodeCount_ * sizeof(KDTreeNode);
        ChargedBlock out;
        if (!out.acquire(budget_, static_cast<std::uint32_t>(bytes),
                         static_cast<std::uint32_t>(bytes)))
            return vlkStatusMemAlloc;
        nodes_.copyTo(out.as<KDTreeNode>(), nodeCount_);
        *tree = static_cast<KDTreeNode*>(out.handOver());
        *treeSize = static_cast<int>(bytes);
        return vlkStatusOk;
    }

   private:
    bool allocateWorkspace() noexcept
    {
        const std::uint32_t t = static_cast<std::uint32_t>(triangleCount_);
        const std::uint32_t v = static_cast<std::uint32_t>(vertexCount_);
        // One extra slot per list for the sweep's end marker; the builder-state charge covers it.
        for (ChargedBlock& list : lists_)
            if (!list.acquire(budget_, 4 * t + 4, 4 * t)) return false;
        // The first reference and node areas: 36 bytes per triangle (a 32-byte Ref each, with
        // room for one in eight to be split across a plane) and 48 bytes per vertex (six
        // 8-byte nodes), each rounded down to whole granules plus one. Both grow by granules.
        const std::uint32_t refBytes = ((kRefBytesPerTriangle * t) & ~(kGranule - 1)) + kGranule;
        const std::uint32_t nodeBytes = ((kNodeBytesPerVertex * v) & ~(kGranule - 1)) + kGranule;
        return refs_.init(budget_, refBytes) && nodes_.init(budget_, nodeBytes);
    }

    // Fills the arena with one reference per usable triangle and sets the root box: the
    // caller's box, or the bounds of all vertices. `finite` tells whether the box and every
    // kept triangle's corners are finite numbers, which the sorted lists need.
    std::size_t gatherRefs(Box& root, bool& finite) noexcept
    {
        if (params_.pBound) {
            for (int k = 0; k < 3; ++k) {
                root.lo[k] = loadUnaligned(params_.pBound + k);
                root.hi[k] = loadUnaligned(params_.pBound + 3 + k);
            }
        } else {
            for (int k = 0; k < 3; ++k) {
                root.lo[k] = INFINITY;
                root.hi[k] = -INFINITY;
            }
            for (int i = 0; i < vertexCount_; ++i)
                for (int k = 0; k < 3; ++k) {
                    const float v = loadUnaligned(vertices_ + 3 * std::size_t(i) + k);
                    root.lo[k] = std::min(root.lo[k], v);
                    root.hi[k] = std::max(root.hi[k], v);
                }
        }
        finite = true;
        for (int k = 0; k < 3; ++k)
            finite = finite && std::isfinite(root.lo[k]) && std::isfinite(root.hi[k]);
        std::size_t count = 0;
        for (int t = 0; t < triangleCount_; ++t) {
            double corner[3][3];
            loadCorners(vertices_, triangles_, t, corner);
            if (isDegenerate(corner)) continue;
            Ref& r = refs_[count];
            r.tri = t;
            r.unused = 0;
            bool inside = true;
            for (int k = 0; k < 3; ++k) {
                const double l = std::min({corner[0][k], corner[1][k], corner[2][k]});
                const double h = std::max({corner[0][k], corner[1][k], corner[2][k]});
                r.lo[k] = static_cast<float>(l);
                r.hi[k] = static_cast<float>(h);
                // NaN corners fail this test too and fall to the clip, which drops them.
                inside = inside && l >= root.lo[k] && h <= root.hi[k];
            }
            if (inside || clipTriangle(corner, root, r.lo, r.hi)) {
                ++count;
                for (int c = 0; c < 3; ++c)
                    for (int k = 0; k < 3; ++k) finite = finite && std::isfinite(corner[c][k]);
            }
        }
        return count;
    }

    // Half the node's surface area times its reference count: the cost of making it a leaf.
    static double leafCost(const Box& box, std::size_t n) noexcept
    {
        const double dx = double(box.hi[0]) - box.lo[0];
        const double dy = double(box.hi[1]) - box.lo[1];
        const double dz = double(box.hi[2]) - box.lo[2];
        return (dx * (dy + dz) + dy * dz) * double(float(n));
    }

    /*
     * Split rule: the cheapest plane splits the node when its surface-area cost plus
     * kTraversalShare thresholds C shared out over the node's n references stays below the cost
     * of the leaf, recorded + kTraversalShare * C / n < S. With C = S (10 - 9 quality) k this is
     * the classic SAH test with a traversal-to-intersection cost ratio of
     * kTraversalShare (10 - 9 quality) k: about 1.5 at quality 1 (deep trees, fast rays) and 15
     * at quality 0 (shallow trees, quick builds), whatever the scale of the scene.
     *
     * The ratio is measured, not guessed. At quality 1 on the four benchmark scenes, against the
     * share of 1 (ratio 0.5) that came before: 40 to 55% of the nodes (spheres 1.66M against
     * 4.87M), a lower expected cost per ray on all four (terrain 50.4 against 51.8, spheres 88.3
     * against 89.6, soup 286 against 320, bunny 43.9 against 44.6), builds 25 to 35% quicker and
     * rays 5 to 90% faster (soup random rays 0.87 against 0.46 million a second). Shares of 2, 4,
     * 5 and 8 were also run: 2 leaves rays slower, 4 and above raise the bunny's cost and slow
     * the terrain's random rays. A plain "recorded < C" keeps every root a leaf, and comparing
     * the cost before its (a + b) factor with C stops at a fixed size in scene units.
     */
    bool worthSplitting(const Split& s, const Box& box, std::size_t n) const noexcept
    {
        const double leaf = leafCost(box, n);
        const double threshold = std::max(kMinExtent, leaf * qualityFactor_ * kThresholdScale);
        return s.recorded + kTraversalShare * threshold / double(float(n)) < leaf;
    }

    // Offers `best` the cheapest plane on `axis` among the candidates `candidatesOn(axis)`
    // gives: a cut of empty space when one is worth making, else the cheapest of the planes
    // at flat faces and of the sweep.
    template <class CandidatesOn>
    void findSplitOnAxis(int axis, const Box& box, std::size_t n, Split& best,
                         CandidatesOn candidatesOn) noexcept
    {
        AxisFrame ax;
        if (!frameAxis(axis, box, n, ax)) return;
        auto c = candidatesOn(axis);
        Split axisBest;
        axisBest.axis = axis;
        const double emptyCost = emptySpaceCost(ax, c, axisBest);
        if (emptyCost < kNoCost) {
            axisBest.recorded = kFacePreference * (ax.ea + ax.eb) * emptyCost;
        } else {
            if (!c.sorted) sortCandidates(c);
            CheapestPlane cheapest(ax, axisBest);
            considerFlatsOnFaces(ax, c, cheapest);
            sweepPlanes(ax, c, cheapest);
            if (!(cheapest.cost() < kNoCost)) return;
            axisBest.recorded = (ax.ea + ax.eb) * cheapest.cost();
        }
        if (axisBest.recorded < best.recorded) best = axisBest;
    }

    // The candidate planes of the references in [begin, end) on `axis`, unsorted.
    Candidates<float> gatherCandidates(int axis, std::size_t begin, std::size_t end) noexcept
    {
        Candidates<float> c{lists_[0].as<float>(), lists_[1].as<float>(), lists_[2].as<float>(),
                            lists_[3].as<float>()};
        for (std::size_t i = begin; i < end; ++i) {
            const Ref& r = refs_[i];
            const float l = r.lo[axis], u = r.hi[axis];
            c.lowest = std::min(c.lowest, l);
            c.highest = std::max(c.highest, u);
            if (l < u) {
                c.starts[c.ns] = l;
                c.ends[c.ns++] = u;
            } else {
                c.flats[c.nflat++] = l;
            }
        }
        // Plain min and max keep the first of equal bounds, which only for a zero can differ
        // from the key order's extreme; look again for a zero of the other sign then.
        if (c.lowest == 0.0f || c.highest == 0.0f)
            for (std::size_t i = begin; i < end; ++i) c.widen(refs_[i].lo[axis], refs_[i].hi[axis]);
        return c;
    }

    // Which side of the split a reference belongs to: -1 below, +1 above, 0 both.
    static int sideOf(const Ref& r, const Split& s)
    {
        const float l = r.lo[s.axis], u = r.hi[s.axis];
        if (l == u) {
            if (l < s.pos) return -1;
            if (l > s.pos) return 1;
            return s.flatsLow ? -1 : 1;
        }
        if (u <= s.pos) return -1;
        if (l >= s.pos) return 1;
        return 0;
    }

    void swapRefs(std::size_t i, std::size_t j) noexcept
    {
        const Ref tmp = refs_[i];
        refs_[i] = refs_[j];
        refs_[j] = tmp;
    }

    // Re-clips the references in [from, to) to `box` in place, dropping any that vanish, and
    // returns the new end of the range.
    std::size_t clipRange(std::size_t from, std::size_t to, const Box& box) noexcept
    {
        std::size_t out = from;
        for (std::size_t i = from; i < to; ++i) {
            Ref r = refs_[i];
            double corner[3][3];
            loadCorners(vertices_, triangles_, r.tri, corner);
            if (clipTriangle(corner, box, r.lo, r.hi)) refs_[out++] = r;
        }
        return out;
    }

    // Reserves the pair of children right after everything written so far and makes `node`
    // the inner node that links to them; returns the pair's index, or 0 when out of memory.
    std::size_t writeInner(std::size_t node, const Split& split) noexcept
    {
        const std::size_t pair = nodeCount_;
        if (pair + 2 > (std::size_t(INT_MAX) >> 3) || !nodes_.reserve(pair + 2)) return 0;
        nodeCount_ += 2;
        const std::size_t pairOffset = (pair - node) * sizeof(KDTreeNode);
        nodes_[node] = innerNode(static_cast<std::int32_t>(pairOffset), split.axis, split.pos);
        return pair;
    }

    // The split of a node of n references, or an invalid one when the node stays a leaf: the
    // cheapest plane of the three axes, when the split rule takes it. candidates(axis) gives
    // the node's candidate planes on an axis.
    template <class CandidatesOf>
    Split chooseSplit(const Box& box, std::size_t n, unsigned depth,
                      CandidatesOf candidates) noexcept
    {
        Split split;
        if (depth < params_.depth && n > searchAbove_)
            for (int axis = 0; axis < 3; ++axis) findSplitOnAxis(axis, box, n, split, candidates);
        if (split.valid() && !worthSplitting(split, box, n)) split.axis = -1;
        return split;
    }

    bool buildNode(std::size_t node, std::size_t begin, std::size_t end, const Box& box,
                   unsigned depth) noexcept
    {
        const std::size_t n = end - begin;
        if (n == 0) {
            nodes_[node] = emptyLeaf();
            return true;
        }
        const Split split =
            chooseSplit(box, n, depth, [&](int a) { return gatherCandidates(a, begin, end); });
        if (!split.valid()) {
            int* tris = lists_[0].as<int>();
            for (std::size_t i = 0; i < n; ++i) tris[i] = refs_[begin + i].tri;
            return writeLeaf(node, tris, n);
        }
        const std::size_t pair = writeInner(node, split);
        if (pair == 0) return false;

        // Partition in place into [below | both | above].
        std::size_t lowEnd = begin, highBegin = end;
        for (std::size_t i = begin; i < highBegin;) {
            const int side = sideOf(refs_[i], split);
            if (side < 0)
                swapRefs(i++, lowEnd++);
            else if (side > 0)
                swapRefs(i, --highBegin);
            else
                ++i;
        }
        const std::size_t straddling = highBegin - lowEnd;
        Box below = box, above = box;
        below.hi[split.axis] = split.pos;
        above.lo[split.axis] = split.pos;

        // Keep a copy of the straddling references for the upper child, then clip the
        // originals to the lower box; the lower child may reorder its range freely.
        const std::size_t savedTop = refTop_;
        if (!refs_.reserve(refTop_ + straddling)) return false;
        for (std::size_t i = 0; i < straddling; ++i) refs_[refTop_ + i] = refs_[lowEnd + i];
        refTop_ += straddling;
        const std::size_t lowerEnd = clipRange(lowEnd, highBegin, below);
        if (!buildNode(pair, begin, lowerEnd, below, depth + 1)) return false;

        // The upper child's range is the re-clipped copies placed just before [above].
        std::size_t upperBegin = highBegin;
        for (std::size_t i = straddling; i-- > 0;) {
            Ref r = refs_[savedTop + i];
            double corner[3][3];
            loadCorners(vertices_, triangles_, r.tri, corner);
            if (clipTriangle(corner, above, r.lo, r.hi)) refs_[--upperBegin] = r;
        }
        refTop_ = savedTop;
        return buildNode(pair + 1, upperBegin, end, above, depth + 1);
    }

    // ------------------------------------------------------------------- sorted lists

    // Where one node's lists of one axis lie in the list arena, as runs of events; each run
    // has one spare slot after it for the sweep's end marker.
    struct AxisLists {
        std::size_t starts, ends, flats;
        std::size_t ns, nf;
    };
    struct NodeLists {
        AxisLists axis[3];
        std::size_t count() const noexcept { return axis[0].ns + axis[0].nf; }
    };
    // A triangle's side of the split, one bit per child that takes its entries as they are;
    // a straddler's go to neither, its re-clipped ones are merged in.
    enum Side : std::uint8_t { kBoth = 0, kBelow = 1, kAbove = 2 };
    enum class ListArena { kOpen, kNone, kHeapFailed };

    // Arena entries a node with these list lengths takes.
    static std::size_t listsSize(const std::size_t ns[3], const std::size_t nf[3]) noexcept
    {
        std::size_t size = 0;
        for (int a = 0; a < 3; ++a) size += 2 * (ns[a] + 1) + nf[a] + 1;
        return size;
    }

    // Lays out lists of these lengths at the top of the arena.
    NodeLists placeLists(const std::size_t ns[3], const std::size_t nf[3]) noexcept
    {
        NodeLists l;
        for (int a = 0; a < 3; ++a) {
            l.axis[a] = {listTop_, listTop_ + ns[a] + 1, listTop_ + 2 * (ns[a] + 1), ns[a], nf[a]};
            listTop_ += 2 * (ns[a] + 1) + nf[a] + 1;
        }
        return l;
    }

    // Sorts the run of n entries at `at`, using the n entries at `spareAt` as scratch.
    void sortRun(std::size_t at, std::size_t n, std::size_t spareAt) noexcept
    {
        if (n < 2 || !sortByKey(list_ + at, list_ + spareAt, n)) return;
        std::memcpy(list_ + at, list_ + spareAt, n * sizeof(Event));
    }

    /*
     * Charges and allocates the list arena and fills the root's lists from the references.
     * The arena is a stack: a node's children sit above it while its subtree is built, so it
     * peaks near four times the root's lists; we ask for kListArenaRoots times them, and settle
     * for half of what the budget still holds when that is less but more than the root needs.
     */
    ListArena openListArena(std::size_t refCount, NodeLists& root) noexcept
    {
        std::size_t ns[3] = {}, nf[3] = {};
        for (std::size_t i = 0; i < refCount; ++i)
            for (int a = 0; a < 3; ++a) ++(refs_[i].lo[a] < refs_[i].hi[a] ? ns : nf)[a];
        const std::size_t rootSize = listsSize(ns, nf);
        const std::size_t least = rootSize + refCount;  // the root and the sort's spare
        constexpr std::size_t kEntryBytes = sizeof(Event);
        std::size_t entries = std::min(kListArenaRoots * rootSize,
                                       std::size_t(budget_.remaining() / 2) / kEntryBytes);
        entries = std::min(entries, std::size_t(0x7FFFFFFF) / kEntryBytes);
        if (entries < least) return ListArena::kNone;
        const std::uint32_t bytes = static_cast<std::uint32_t>(entries * kEntryBytes);
        if (!listArena_.acquire(budget_, bytes, bytes)) return ListArena::kHeapFailed;
        list_ = listArena_.as<Event>();
        listCap_ = entries;
        listTop_ = 0;

        root = placeLists(ns, nf);
        std::size_t fill[3][3] = {};  // per axis: starts, ends, flats written
        for (std::size_t i = 0; i < refCount; ++i) {
            const Ref& r = refs_[i];
            for (int a = 0; a < 3; ++a) {
                const AxisLists& x = root.axis[a];
                if (r.lo[a] < r.hi[a]) {
                    list_[x.starts + fill[a][0]++] = Event{r.lo[a], r.tri};
                    list_[x.ends + fill[a][1]++] = Event{r.hi[a], r.tri};
                } else {
                    list_[x.flats + fill[a][2]++] = Event{r.lo[a], r.tri};
                }
            }
        }
        for (const AxisLists& x : root.axis) {
            sortRun(x.starts, x.ns, listTop_);
            sortRun(x.ends, x.ns, listTop_);
            sortRun(x.flats, x.nf, listTop_);
        }
        return ListArena::kOpen;
    }

    // The node's candidates on `axis`, already sorted; the bounds come from the lists' ends.
    Candidates<Event> listCandidates(const NodeLists& l, int axis) const noexcept
    {
        const AxisLists& x = l.axis[axis];
        Candidates<Event> c{list_ + x.starts, list_ + x.ends, list_ + x.flats, nullptr};
        c.ns = x.ns;
        c.nflat = x.nf;
        c.sorted = true;
        if (x.ns > 0) c.widen(c.starts[0].pos, c.ends[x.ns - 1].pos);
        if (x.nf > 0) c.widen(c.flats[0].pos, c.flats[x.nf - 1].pos);
        return c;
    }

    // Hands the entries of one parent run to the children in order, below-only ones to the
    // run at `toBelow` and above-only ones to the run at `toAbove`; straddlers are dropped.
    void splitRun(std::size_t from, std::size_t n, const std::uint8_t* side, std::size_t toBelow,
                  std::size_t toAbove) noexcept
    {
        const Event* in = list_ + from;
        Event* low = list_ + toBelow;
        Event* high = list_ + toAbove;
        std::size_t nl = 0, nh = 0;
        // Both runs end in a spare slot, so writing one entry past either end is harmless.
        for (std::size_t i = 0; i < n; ++i) {
            const Event e = in[i];
            const std::uint8_t s = side[e.tri];
            low[nl] = e;
            high[nh] = e;
            nl += s & kBelow;
            nh += s >> 1;
        }
    }

    void copyRun(std::size_t from, std::size_t n, std::size_t to) noexcept
    {
        std::memcpy(list_ + to, list_ + from, n * sizeof(Event));
    }

    // Merges the nStr sorted entries at `str` into the run at `to`, whose first nStr slots
    // are free and whose own sorted entries follow them.
    void mergeRun(std::size_t to, std::size_t nStr, std::size_t nOwn, std::size_t str) noexcept
    {
        if (nStr == 0) return;
        Event* run = list_ + to;
        const Event* strs = list_ + str;
        // The run's spare slot stops the scan of its own entries; the sweep resets it.
        run[nStr + nOwn].pos = keyValue(kLastKey);
        std::size_t j = nStr, k = 0;
        for (std::size_t i = 0; i < nStr; ++i) {
            const std::uint32_t key = sortKey(strs[i].pos);
            for (; sortKey(run[j].pos) < key; ++j, ++k) run[k] = run[j];
            run[k++] = strs[i];
        }
    }

    // Turns the node's lists into references at the start of the reference arena, for the
    // build that sorts per node.
    void listsToRefs(const NodeLists& l) noexcept
    {
        int* slot = lists_[1].as<int>();
        std::size_t n = 0;
        for (std::size_t run : {l.axis[0].starts, l.axis[0].flats}) {
            const std::size_t len = run == l.axis[0].starts ? l.axis[0].ns : l.axis[0].nf;
            for (std::size_t i = 0; i < len; ++i) {
                const int t = list_[run + i].tri;
                slot[t] = static_cast<int>(n);
                refs_[n].tri = t;
                refs_[n++].unused = 0;
            }
        }
        for (int a = 0; a < 3; ++a) {
            const AxisLists& x = l.axis[a];
            for (std::size_t i = 0; i < x.ns; ++i) {
                refs_[slot[list_[x.starts + i].tri]].lo[a] = list_[x.starts + i].pos;
                refs_[slot[list_[x.ends + i].tri]].hi[a] = list_[x.ends + i].pos;
            }
            for (std::size_t i = 0; i < x.nf; ++i) {
                Ref& r = refs_[slot[list_[x.flats + i].tri]];
                r.lo[a] = r.hi[a] = list_[x.flats + i].pos;
            }
        }
    }

    bool buildFromLists(std::size_t node, const NodeLists& l, const Box& box,
                        unsigned depth) noexcept
    {
        const std::size_t n = l.count();
        if (n == 0) {
            nodes_[node] = emptyLeaf();
            return true;
        }
        const Split split = chooseSplit(box, n, depth, [&](int a) { return listCandidates(l, a); });
        if (!split.valid()) {
            int* tris = lists_[0].as<int>();
            const AxisLists& x = l.axis[0];
            for (std::size_t i = 0; i < x.ns; ++i) tris[i] = list_[x.starts + i].tri;
            for (std::size_t i = 0; i < x.nf; ++i) tris[x.ns + i] = list_[x.flats + i].tri;
            return writeLeaf(node, tris, n);
        }

        // Sort the node's triangles to their sides by the lists of the split axis: starts at
        // or above the plane go above, ends at or below it below, flats by their position.
        std::uint8_t* side = lists_[3].as<std::uint8_t>();
        const AxisLists& sx = l.axis[split.axis];
        const Event* sEvents = list_ + sx.starts;
        std::size_t firstAbove = 0;
        while (firstAbove < sx.ns && !(sEvents[firstAbove].pos >= split.pos)) ++firstAbove;
        for (std::size_t i = 0; i < firstAbove; ++i) side[sEvents[i].tri] = kBoth;
        for (std::size_t i = firstAbove; i < sx.ns; ++i) side[sEvents[i].tri] = kAbove;
        std::size_t endsBelow = 0;
        for (; endsBelow < sx.ns && list_[sx.ends + endsBelow].pos <= split.pos; ++endsBelow)
            side[list_[sx.ends + endsBelow].tri] = kBelow;
        std::size_t flatBelow[3] = {}, flatAbove[3] = {};
        for (std::size_t i = 0; i < sx.nf; ++i) {
            const float p = list_[sx.flats + i].pos;
            const bool below = p < split.pos || (p == split.pos && split.flatsLow);
            side[list_[sx.flats + i].tri] = below ? kBelow : kAbove;
            ++(below ? flatBelow : flatAbove)[split.axis];
        }
        const std::size_t straddling = sx.ns - endsBelow - (sx.ns - firstAbove);
        const std::size_t nBelow = endsBelow + flatBelow[split.axis];
        const std::size_t nAbove = sx.ns - firstAbove + flatAbove[split.axis];
        for (int a = 0; a < 3; ++a) {
            if (a == split.axis) continue;
            const AxisLists& x = l.axis[a];
            for (std::size_t i = 0; i < x.nf; ++i) {
                const std::uint8_t s = side[list_[x.flats + i].tri];
                flatBelow[a] += s & kBelow;
                flatAbove[a] += s >> 1;
            }
        }

        // Room for both children, each list counted with every straddler, and the scratch
        // of the straddlers' own lists at the far end; without it the subtree sorts per node.
        constexpr std::size_t kScratchRuns = 2 * 3 * 3 + 1;  // per child, axis and list; spare
        const std::size_t scratch = kScratchRuns * straddling;
        std::size_t roomNeeded = scratch;
        for (int a = 0; a < 3; ++a)
            roomNeeded += 2 * (nBelow + straddling) - flatBelow[a] + 3 + 2 * (nAbove + straddling) -
                          flatAbove[a] + 3;
        if (roomNeeded > listCap_ - listTop_) {
            listsToRefs(l);
            return buildNode(node, 0, n, box, depth);
        }

        const std::size_t pair = writeInner(node, split);
        if (pair == 0) return false;
        const std::size_t savedTop = refTop_;
        if (!refs_.reserve(refTop_ + straddling)) return false;

        // Clip the straddlers to both child boxes and sort their lists.
        Box child[2] = {box, box};
        child[0].hi[split.axis] = split.pos;
        child[1].lo[split.axis] = split.pos;
        const std::size_t scratchAt = listCap_ - scratch;
        auto runAt = [&](int c, int a, int k) {
            return scratchAt + std::size_t((c * 3 + a) * 3 + k) * straddling;
        };
        std::size_t strCount[2][3][3] = {};  // per child and axis: starts, ends, flats
        for (std::size_t i = 0; i < firstAbove; ++i) {
            const int t = sEvents[i].tri;
            if (side[t] != kBoth) continue;
            double corner[3][3];
            loadCorners(vertices_, triangles_, t, corner);
            for (int c = 0; c < 2; ++c) {
                float lo[3], hi[3];
                if (!clipTriangle(corner, child[c], lo, hi)) continue;
                for (int a = 0; a < 3; ++a) {
                    std::size_t* count = strCount[c][a];
                    if (lo[a] < hi[a]) {
                        list_[runAt(c, a, 0) + count[0]++] = Event{lo[a], t};
                        list_[runAt(c, a, 1) + count[1]++] = Event{hi[a], t};
                    } else {
                        list_[runAt(c, a, 2) + count[2]++] = Event{lo[a], t};
                    }
                }
            }
        }
        const std::size_t spareAt = runAt(2, 0, 0);
        for (int c = 0; c < 2; ++c)
            for (int a = 0; a < 3; ++a)
                for (int k = 0; k < 3; ++k) sortRun(runAt(c, a, k), strCount[c][a][k], spareAt);

        // Lay out the children and hand each parent run to them, then merge in the straddlers.
        const std::size_t entryTop = listTop_;
        NodeLists kids[2];
        for (int c = 0; c < 2; ++c) {
            const std::size_t own = c == 0 ? nBelow : nAbove;
            const std::size_t* ownFlat = c == 0 ? flatBelow : flatAbove;
            std::size_t ns[3], nf[3];
            for (int a = 0; a < 3; ++a) {
                ns[a] = own - ownFlat[a] + strCount[c][a][0];
                nf[a] = ownFlat[a] + strCount[c][a][2];
            }
            kids[c] = placeLists(ns, nf);
        }
        for (int a = 0; a < 3; ++a) {
            const AxisLists& x = l.axis[a];
            const AxisLists& lo = kids[0].axis[a];
            const AxisLists& hi = kids[1].axis[a];
            const std::size_t* sl = strCount[0][a];
            const std::size_t* sh = strCount[1][a];
            if (a == split.axis) {
                // On the split axis the sides are ranges: starts at or above the plane, ends
                // at or below it and the flats on each side need only be copied. The prefix
                // pass writes nothing above but its spare entry, which the copy then covers.
                const std::size_t above = x.ns - firstAbove, flatsBelow = flatBelow[a];
                splitRun(x.starts, firstAbove, side, lo.starts + sl[0], hi.starts + sh[0]);
                copyRun(x.starts + firstAbove, above, hi.starts + sh[0]);
                copyRun(x.ends, endsBelow, lo.ends + sl[1]);
                splitRun(x.ends + endsBelow, x.ns - endsBelow, side, lo.ends + sl[1] + endsBelow,
                         hi.ends + sh[1]);
                copyRun(x.flats, flatsBelow, lo.flats + sl[2]);
                copyRun(x.flats + flatsBelow, x.nf - flatsBelow, hi.flats + sh[2]);
            } else {
                splitRun(x.starts, x.ns, side, lo.starts + sl[0], hi.starts + sh[0]);
                splitRun(x.ends, x.ns, side, lo.ends + sl[1], hi.ends + sh[1]);
                splitRun(x.flats, x.nf, side, lo.flats + sl[2], hi.flats + sh[2]);
            }
            mergeRun(lo.starts, sl[0], lo.ns - sl[0], runAt(0, a, 0));
            mergeRun(lo.ends, sl[1], lo.ns - sl[1], runAt(0, a, 1));
            mergeRun(lo.flats, sl[2], lo.nf - sl[2], runAt(0, a, 2));
            mergeRun(hi.starts, sh[0], hi.ns - sh[0], runAt(1, a, 0));
            mergeRun(hi.ends, sh[1], hi.ns - sh[1], runAt(1, a, 1));
            mergeRun(hi.flats, sh[2], hi.nf - sh[2], runAt(1, a, 2));
        }

        const std::size_t childTop = listTop_;
        refTop_ += straddling;
        if (!buildFromLists(pair, kids[0], child[0], depth + 1)) return false;
        listTop_ = childTop;
        refTop_ = savedTop;
        const bool built = buildFromLists(pair + 1, kids[1], child[1], depth + 1);
        listTop_ = entryTop;
        return built;
    }

    // Writes the leaf of the n triangles in `tris` (which it sorts).
    bool writeLeaf(std::size_t node, int* tris, std::size_t n) noexcept
    {
        std::sort(tris, tris + n);

        KDTreeNode compact;
        if (compactLeaf(tris, n, compact)) {
            nodes_[node] = compact;
            return true;
        }

        // Longer lists follow the node, padded to whole nodes so every node stays 8-aligned.
        const std::size_t list = nodeCount_;
        const std::size_t slots = (n + 1) / 2;
        if (list + slots > (std::size_t(INT_MAX) >> 3) || !nodes_.reserve(list + slots))
            return false;
        nodeCount_ += slots;
        for (std::size_t s = 0; s < slots; ++s) {
            const int second = 2 * s + 1 < n ? tris[2 * s + 1] : 0;
            nodes_[list + s] = listPair(tris[2 * s], second);
        }
        const std::int32_t offset = static_cast<std::int32_t>((list - node) * sizeof(KDTreeNode));
        nodes_[node] = listLeaf(offset, static_cast<int>(n));
        return true;
    }

    const float* vertices_;
    const int* triangles_;
    int vertexCount_;
    int triangleCount_;
    const KDTreeBuildContext& params_;
    double qualityFactor_;
    std::size_t searchAbove_ = 0;  // nodes of this many references or fewer are always leaves
    BuildBudget budget_;
    ChargedBlock lists_[4];  // candidate starts, ends, flats, and the radix sort's spare
    ChunkedArray<Ref> refs_;
    ChunkedArray<KDTreeNode> nodes_;  // nodes and leaf lists, in final order
    std::size_t refTop_ = 0;
    std::size_t nodeCount_ = 0;
    ChargedBlock listArena_;  // the sorted lists' events
    Event* list_ = nullptr;
    std::size_t listCap_ = 0;
    std::size_t listTop_ = 0;
};

}  // namespace

vlkStatus buildSimpleTree(KDTreeNode** tree, int triangleCount, int* treeSize) noexcept
{
    const long long reported = 4LL * triangleCount + 16;
    const long long bytes = ((reported >> 3) + 1) * 8;
    if (bytes > INT_MAX) return vlkStatusNoMemory;
    auto* root = static_cast<KDTreeNode*>(vlkMalloc(static_cast<int>(bytes)));
    if (!root) return vlkStatusNoMemory;
    std::memset(root, 0, static_cast<std::size_t>(bytes));
    *root = listLeaf(2 * sizeof(KDTreeNode), triangleCount);  // the list starts two nodes after it
    int* list = reinterpret_cast<int*>(root + 2);
    for (int t = 0; t < triangleCount; ++t) list[t] = t;
    *tree = root;
    *treeSize = static_cast<int>(reported);
    return vlkStatusOk;
}

vlkStatus buildSahTree(KDTreeNode** tree, const float* vertices, const int* triangles,
                       int vertexCount, int triangleCount, int* treeSize,
                       const KDTreeBuildContext& params, std::uint32_t budget) noexcept
{
    // The size formula is evaluated in 32-bit unsigned arithmetic, wrap-around included.
    const std::uint32_t t = static_cast<std::uint32_t>(triangleCount);
    const std::uint32_t v = static_cast<std::uint32_t>(vertexCount);
    // Four 4-byte lists and the references per triangle, the vertices, and the fixed part.
    const std::uint32_t needed = 16 * t + kRefBytesPerTriangle * t + 12 * v + kFixedBudgetBytes;
    if (budget < needed) return vlkStatusNoMemory;
    SahBuilder builder(vertices, triangles, vertexCount, triangleCount, params, budget);
    return builder.run(tree, treeSize);
}

}  // namespace vlkr::raytrace
