// Computes the two look-up tables of SMAA (Jimenez et al., "SMAA: Enhanced Subpixel Morphological
// Antialiasing", 2012) and writes them as C++ arrays. It fails when a table is not the published one,
// bit for bit. Build it without contraction to fused multiply-add: many sample points of the diagonal
// patterns lie exactly on the line that they are tested against.

#include <QByteArray>
#include <QCryptographicHash>
#include <QFile>
#include <QTextStream>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace {

struct Pair
{
    double below = 0.0;
    double above = 0.0;
};

Pair operator+(const Pair &a, const Pair &b)
{
    return {a.below + b.below, a.above + b.above};
}

Pair half(const Pair &a)
{
    return {a.below / 2.0, a.above / 2.0};
}

struct Point
{
    double x;
    double y;
};

// Crossing edges at the ends of an edge line, bit by bit of a pattern.
struct Ends
{
    explicit Ends(int pattern)
        : firstBelow(pattern & 1), secondBelow((pattern >> 1) & 1), firstAbove((pattern >> 2) & 1),
          secondAbove((pattern >> 3) & 1)
    {}
    int firstBelow;
    int secondBelow;
    int firstAbove;
    int secondAbove;
};

constexpr int kWidth = 160;
constexpr int kHeight = 560;
constexpr int kBandHeight = 80;
constexpr int kBands = 7;
constexpr int kDiagonalBands = 5;
constexpr int kOrthogonalBlock = 16;
constexpr int kDiagonalBlock = 20;
constexpr std::array<double, kBands> kOrthogonalOffsets{0.0, -0.25, 0.25, -0.125, 0.125, -0.375, 0.375};
constexpr std::array<Point, kDiagonalBands> kDiagonalOffsets{
    {{0.0, 0.0}, {0.25, -0.25}, {-0.25, 0.25}, {0.125, -0.125}, {-0.125, 0.125}}};

// Area between the segment and the edge line over the pixel column that starts at left.
Pair segment(Point p, Point q, double left)
{
    const double dx = q.x - p.x;
    const double dy = q.y - p.y;
    const double x1 = left;
    const double x2 = left + 1.0;
    const double y1 = p.y + ((dy * (x1 - p.x)) / dx);
    const double y2 = p.y + ((dy * (x2 - p.x)) / dx);
    const bool covers = (x1 >= p.x && x1 < q.x) || (x2 > p.x && x2 <= q.x);
    if (!covers)
        return {};
    const bool oneSided = std::signbit(y1) == std::signbit(y2) || std::abs(y1) < 0.0001 || std::abs(y2) < 0.0001;
    if (oneSided) {
        const double area = (y1 + y2) / 2.0;
        return area < 0.0 ? Pair{std::abs(area), 0.0} : Pair{0.0, area};
    }
    const double crossing = (((-p.y) * dx) / dy) + p.x;
    const double t = crossing - std::floor(crossing);
    const double t1 = crossing > p.x ? (y1 * t) / 2.0 : 0.0;
    const double t2 = crossing < q.x ? (y2 * (1.0 - t)) / 2.0 : 0.0;
    const double larger = std::abs(t1) > std::abs(t2) ? t1 : -t2;
    return larger < 0.0 ? Pair{std::abs(t1), std::abs(t2)} : Pair{std::abs(t2), std::abs(t1)};
}

// Short U shapes get more coverage than their area, up to a length of 32.
Pair smoothed(const Pair &a, const Pair &b, double length)
{
    const double weight = std::min(std::max(length / 32.0, 0.0), 1.0);
    const auto raised = [weight](double area) {
        const double root = std::sqrt(area * 2.0) * 0.5;
        return root + ((area - root) * weight);
    };
    return {raised(a.below) + raised(b.below), raised(a.above) + raised(b.above)};
}

Pair orthogonal(int pattern, double left, double right, double offset)
{
    const double length = left + right + 1.0;
    const double up = 0.5 + offset;
    const double down = (0.5 + offset) - 1.0;
    const Point leftUp{0.0, up};
    const Point leftDown{0.0, down};
    const Point middle{length / 2.0, 0.0};
    const Point rightUp{length, up};
    const Point rightDown{length, down};
    const auto area = [left](Point p, Point q) { return segment(p, q, left); };
    switch (pattern) {
    case 1: return left <= right ? area(leftDown, middle) : Pair{};
    case 4: return left <= right ? area(leftUp, middle) : Pair{};
    case 2: return left >= right ? area(middle, rightDown) : Pair{};
    case 8: return left >= right ? area(middle, rightUp) : Pair{};
    case 3: return smoothed(area(leftDown, middle), area(middle, rightDown), length);
    case 12: return smoothed(area(leftUp, middle), area(middle, rightUp), length);
    case 7:
    case 14: return area(leftUp, rightDown);
    case 11:
    case 13: return area(leftDown, rightUp);
    case 6:
        if (offset == 0.0)
            return area(leftUp, rightDown);
        return half(area(leftUp, rightDown) + (area(leftUp, middle) + area(middle, rightDown)));
    case 9:
        if (offset == 0.0)
            return area(leftDown, rightUp);
        return half(area(leftDown, rightUp) + (area(leftDown, middle) + area(middle, rightUp)));
    default: return {};
    }
}

struct DiagonalLine
{
    char first; // one of three places of the start point
    char second; // and of the end point
};

struct DiagonalPattern
{
    DiagonalLine one;
    DiagonalLine two; // 0 when the pattern is one line
};

constexpr std::array<DiagonalPattern, 16> kDiagonalPatterns{{
    {{'c', 'c'}, {'b', 'b'}},
    {{'b', 'a'}, {'b', 'b'}},
    {{'a', 'b'}, {'b', 'b'}},
    {{'b', 'b'}, {0, 0}},
    {{'c', 'a'}, {'c', 'b'}},
    {{'c', 'a'}, {'b', 'b'}},
    {{'c', 'b'}, {0, 0}},
    {{'c', 'b'}, {'b', 'b'}},
    {{'a', 'c'}, {'b', 'c'}},
    {{'b', 'c'}, {0, 0}},
    {{'a', 'c'}, {'b', 'b'}},
    {{'b', 'c'}, {'b', 'b'}},
    {{'c', 'c'}, {0, 0}},
    {{'c', 'c'}, {'b', 'c'}},
    {{'c', 'c'}, {'c', 'b'}},
    {{'c', 'c'}, {'b', 'b'}},
}};

Point place(char name, double move)
{
    switch (name) {
    case 'a': return {0.0 + move, 0.0 + move};
    case 'b': return {1.0 + move, 0.0 + move};
    default: return {1.0 + move, 1.0 + move};
    }
}

// Covered share of the unit square at (x, y), by counting samples. An exact area is not the table.
double cover(Point p, Point q, double x, double y)
{
    if (p.x == q.x && p.y == q.y)
        return 1.0;
    constexpr int kSamples = 30;
    const double mx = (p.x + q.x) / 2.0;
    const double my = (p.y + q.y) / 2.0;
    const double a = q.y - p.y;
    const double b = p.x - q.x;
    int count = 0;
    for (int i = 0; i < kSamples; ++i) {
        for (int j = 0; j < kSamples; ++j) {
            const double sx = x + (i / 29.0);
            const double sy = y + (j / 29.0);
            const double side = (a * (sx - mx)) + (b * (sy - my));
            count += side > 0.0;
        }
    }
    return count / 900.0;
}

Pair diagonal(int pattern, int left, int right, Point offset)
{
    const Ends ends(pattern);
    const bool movesFirst = ends.firstBelow + 2 * ends.firstAbove > 0;
    const bool movesSecond = 2 * ends.secondBelow + ends.secondAbove > 0;
    const double length = left + right + 1.0;
    const auto areaOf = [&](const DiagonalLine &line) {
        Point p = place(line.first, 0.0);
        Point q = place(line.second, length);
        if (movesFirst)
            p = {p.x + offset.x, p.y + offset.y};
        if (movesSecond)
            q = {q.x + offset.x, q.y + offset.y};
        return Pair{1.0 - cover(p, q, left + 1.0, left), cover(p, q, left + 1.0, left + 1.0)};
    };
    const DiagonalPattern &lines = kDiagonalPatterns[std::size_t(pattern)];
    const Pair first = areaOf(lines.one);
    return lines.two.first ? half(first + areaOf(lines.two)) : first;
}

QByteArray areaTable()
{
    QByteArray table(2 * kWidth * kHeight, '\0');
    const auto put = [&table](int x, int y, const Pair &areas) {
        const auto toByte = [](double v) { return char(int(std::trunc(255.0 * v))); };
        table[2 * (kWidth * y + x)] = toByte(areas.below);
        table[2 * (kWidth * y + x) + 1] = toByte(areas.above);
    };
    for (int band = 0; band < kBands; ++band) {
        for (int pattern = 0; pattern < 16; ++pattern) {
            const Ends ends(pattern);
            const int u = 3 * ends.firstBelow + ends.firstAbove;
            const int v = 3 * ends.secondBelow + ends.secondAbove;
            for (int i = 0; i < kOrthogonalBlock; ++i) {
                for (int j = 0; j < kOrthogonalBlock; ++j)
                    put(kOrthogonalBlock * u + i, kBandHeight * band + kOrthogonalBlock * v + j,
                        orthogonal(pattern, i * i, j * j, kOrthogonalOffsets[std::size_t(band)]));
            }
            if (band >= kDiagonalBands)
                continue;
            const int du = ends.firstBelow + 2 * ends.firstAbove;
            const int dv = 2 * ends.secondBelow + ends.secondAbove;
            for (int i = 0; i < kDiagonalBlock; ++i) {
                for (int j = 0; j < kDiagonalBlock; ++j)
                    put(kWidth / 2 + kDiagonalBlock * du + i, kBandHeight * band + kDiagonalBlock * dv + j,
                        diagonal(pattern, i, j, kDiagonalOffsets[std::size_t(band)]));
            }
        }
    }
    return table;
}

// What one bilinear fetch between four texels reads in 32nds, for each combination of their edges.
struct Edges
{
    int e[4];
    int code() const { return e[0] + 3 * e[1] + 7 * e[2] + 21 * e[3]; }
};

bool decode(int code, Edges &edges)
{
    for (int bits = 0; bits < 16; ++bits) {
        const Edges candidate{{bits & 1, (bits >> 1) & 1, (bits >> 2) & 1, (bits >> 3) & 1}};
        if (candidate.code() == code) {
            edges = candidate;
            return true;
        }
    }
    return false;
}

int stepsLeft(const Edges &crossing, const Edges &along)
{
    if (!along.e[3])
        return 0;
    return along.e[2] && !crossing.e[1] && !crossing.e[3] ? 2 : 1;
}

int stepsRight(const Edges &crossing, const Edges &along)
{
    if (!along.e[3] || crossing.e[1] || crossing.e[3])
        return 0;
    return along.e[2] && !crossing.e[0] && !crossing.e[2] ? 2 : 1;
}

QByteArray searchTable()
{
    constexpr int kSearchWidth = 64;
    constexpr int kSearchHeight = 16;
    constexpr int kCodes = 33;
    QByteArray table(kSearchWidth * kSearchHeight, '\0');
    for (int y = 0; y < kSearchHeight; ++y) {
        for (int x = 0; x < kSearchWidth; ++x) {
            Edges crossing{};
            Edges along{};
            if (!decode(x % kCodes, crossing) || !decode(kCodes - 1 - y, along))
                continue;
            const int steps = x < kCodes ? stepsLeft(crossing, along) : stepsRight(crossing, along);
            table[kSearchWidth * y + x] = char(127 * steps);
        }
    }
    return table;
}

bool isPublished(const QByteArray &table, const char *name, const char *sha256)
{
    const QByteArray hash = QCryptographicHash::hash(table, QCryptographicHash::Sha256).toHex();
    if (hash == sha256)
        return true;
    std::fprintf(stderr, "%s is not the published table: its SHA-256 is %s, not %s\n", name, hash.constData(), sha256);
    return false;
}

void writeArray(QTextStream &out, const char *name, const QByteArray &table)
{
    out << "const unsigned char " << name << "[" << table.size() << "] = {";
    for (qsizetype i = 0; i < table.size(); ++i)
        out << (i % 32 ? "" : "\n") << int(static_cast<unsigned char>(table[i])) << ',';
    out << "\n};\n\n";
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT.cpp\n", argv[0]);
        return 2;
    }
    const QByteArray area = areaTable();
    const QByteArray search = searchTable();
    const bool areaIsRight =
        isPublished(area, "AreaTex", "35065cef2a02cabcad711d6bf430239ae64e27d71c4e4fa06f29cce2c992f0d2");
    const bool searchIsRight =
        isPublished(search, "SearchTex", "3694eae5e9d44b8ebb4415a13f8c7b94dc08a2fc86658434d771c4610fe5744d");
    if (!areaIsRight || !searchIsRight)
        return 1;
    QFile file(QString::fromLocal8Bit(argv[1]));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text)) {
        std::fprintf(stderr, "%s cannot be written: %s\n", argv[1], qPrintable(file.errorString()));
        return 1;
    }
    QTextStream out(&file);
    out << "// Made by generate_smaa_tables.\n#include \"smaatables/smaatables.h\"\n\nnamespace Brevane::Kvo {\n\n";
    writeArray(out, "kSmaaAreaTable", area);
    writeArray(out, "kSmaaSearchTable", search);
    out << "} // namespace Brevane::Kvo\n";
    out.flush();
    return file.error() == QFile::NoError ? 0 : 1;
}
