#pragma once

#include "support/antialiasingscenes.h"
#include "support/image.h"

#include <algorithm>
#include <cmath>

namespace Brevane::Kvo::Test {

/// SMAA at the ultra preset on the CPU, in float, over tables that are given as images.
class SmaaReference
{
public:
    SmaaReference(const Image<float> &frame, const Image<float> &area, const Image<float> &search)
        : _frame(frame), _area(area), _search(search), _tx(1.0f / float(frame.width)), _ty(1.0f / float(frame.height))
    {}

    /// What predication thresholds by, if anything.
    void setPredicate(const Image<float> *predicate) { _predicate = predicate; }
    void setSubsampleIndices(const std::array<float, 4> &indices) { _indices = indices; }

    Image<float> edges() const
    {
        Image<float> out(_frame.width, _frame.height);
        for (int y = 0; y < out.height; ++y) {
            for (int x = 0; x < out.width; ++x) {
                float thresholds[2] = {0.05f, 0.05f};
                if (_predicate) {
                    const float p = texel(*_predicate, x, y)[0];
                    const float others[2] = {texel(*_predicate, x - 1, y)[0], texel(*_predicate, x, y - 1)[0]};
                    for (int i = 0; i < 2; ++i) {
                        const float near = std::abs(p - others[i]) >= 0.01f ? 1.0f : 0.0f;
                        thresholds[i] = 2.0f * 0.05f * (1.0f - 0.4f * near);
                    }
                }
                const float delta[2] = {contrast(x, y, x - 1, y), contrast(x, y, x, y - 1)};
                float edge[2];
                for (int i = 0; i < 2; ++i)
                    edge[i] = delta[i] >= thresholds[i] ? 1.0f : 0.0f;
                if (edge[0] + edge[1] == 0.0f)
                    continue;
                const float biggest = std::max({delta[0], delta[1], contrast(x, y, x + 1, y), contrast(x, y, x, y + 1),
                                                contrast(x, y, x - 2, y), contrast(x, y, x, y - 2)});
                for (size_t i = 0; i < 2; ++i)
                    out.at(x, y)[i] = edge[i] * (2.0f * delta[i] >= biggest ? 1.0f : 0.0f);
            }
        }
        return out;
    }

    Image<float> weights(const Image<float> &edges) const
    {
        Image<float> out(_frame.width, _frame.height);
        for (int y = 0; y < out.height; ++y)
            for (int x = 0; x < out.width; ++x)
                out.at(x, y) = weightsAt(edges, x, y);
        return out;
    }

    Image<float> blended(const Image<float> &weights) const
    {
        Image<float> out(_frame.width, _frame.height);
        for (int y = 0; y < out.height; ++y) {
            for (int x = 0; x < out.width; ++x) {
                const float right = texel(weights, x + 1, y)[3];
                const float bottom = texel(weights, x, y + 1)[1];
                const float top = texel(weights, x, y)[0];
                const float left = texel(weights, x, y)[2];
                if (right + bottom + left + top < 0.00001f) {
                    out.at(x, y) = _frame.at(x, y);
                    continue;
                }
                const bool horizontal = std::max(right, left) > std::max(bottom, top);
                const float w1 = horizontal ? right : bottom;
                const float w2 = horizontal ? left : top;
                const Coord at = centre(x, y);
                const Coord axis = horizontal ? Coord{_tx, 0} : Coord{0, _ty};
                const auto c1 = filtered<4>(_frame, at.x + axis.x * w1, at.y + axis.y * w1);
                const auto c2 = filtered<4>(_frame, at.x - axis.x * w2, at.y - axis.y * w2);
                for (size_t c = 0; c < 4; ++c)
                    out.at(x, y)[c] = w1 / (w1 + w2) * c1[c] + w2 / (w1 + w2) * c2[c];
            }
        }
        return out;
    }

    static std::array<float, 4> texel(const Image<float> &image, int x, int y)
    {
        return image.at(std::clamp(x, 0, image.width - 1), std::clamp(y, 0, image.height - 1));
    }

private:
    struct Coord
    {
        float x;
        float y;
    };
    struct RG
    {
        float r;
        float g;
    };
    struct Diagonal
    {
        float length;
        float end;
        RG last;
    };

    Coord centre(int x, int y) const { return {(float(x) + 0.5f) * _tx, (float(y) + 0.5f) * _ty}; }
    float contrast(int x, int y, int x2, int y2) const
    {
        const auto a = texel(_frame, x, y);
        const auto b = texel(_frame, x2, y2);
        return std::max({std::abs(a[0] - b[0]), std::abs(a[1] - b[1]), std::abs(a[2] - b[2])});
    }
    RG fetch(const Image<float> &image, Coord at, int i = 0, int j = 0) const
    {
        const auto value =
            filtered<2>(image, at.x + float(i) / float(image.width), at.y + float(j) / float(image.height));
        return {value[0], value[1]};
    }
    float searchLength(RG e, float side) const
    {
        return fetch(_search, {(32 * e.r + 66 * side + 0.5f) / 64, (-32 * e.g + 32.5f) / 16}).r;
    }

    // A search along one axis; step is -2 or +2 texels, side 0 or 0.5 of the search table.
    float searched(const Image<float> &edges, Coord at, bool alongX, float direction, float end) const
    {
        RG e = alongX ? RG{0, 1} : RG{1, 0};
        float &p = alongX ? at.x : at.y;
        const float texelSize = alongX ? _tx : _ty;
        const auto goesOn = [&] {
            const float along = alongX ? e.g : e.r;
            const float crossing = alongX ? e.r : e.g;
            return (direction < 0 ? p > end : p < end) && along > 0.8281f && crossing < 1.0f / 64;
        };
        while (goesOn()) {
            e = fetch(edges, at);
            p += direction * 2 * texelSize;
        }
        const RG ordered = alongX ? e : RG{e.g, e.r};
        return p - direction * texelSize * (3.25f - 255.0f / 127.0f * searchLength(ordered, direction < 0 ? 0 : 0.5f));
    }

    RG area(float d1, float d2, float e1, float e2, float index) const
    {
        return fetch(_area, {(std::round(4 * e1) * 16 + std::sqrt(d1) + 0.5f) / 160,
                             (std::round(4 * e2) * 16 + std::sqrt(d2) + 0.5f) / 560 + index / 7});
    }
    RG areaDiagonal(float d1, float d2, float e1, float e2, float index) const
    {
        return fetch(_area, {(e1 * 20 + d1 + 0.5f) / 160 + 0.5f, (e2 * 20 + d2 + 0.5f) / 560 + index / 7});
    }

    static RG decoded(RG e) { return {std::round(e.r * std::abs(5 * e.r - 3.75f)), std::round(e.g)}; }

    Diagonal diagonal(const Image<float> &edges, Coord at, float dx, float dy, bool decode) const
    {
        Diagonal d{-1, 1, {0, 0}};
        if (decode)
            at.x += 0.25f * _tx;
        while (d.length < 15 && d.end > 0.9f) {
            at = {at.x + _tx * dx, at.y + _ty * dy};
            d.length += 1;
            d.last = decode ? decoded(fetch(edges, at)) : fetch(edges, at);
            d.end = 0.5f * d.last.r + 0.5f * d.last.g;
        }
        return d;
    }

    RG diagonalWeights(const Image<float> &edges, Coord at, RG e) const
    {
        RG out{0, 0};
        Diagonal a{0, 0, {0, 0}};
        if (e.r > 0.5f) {
            a = diagonal(edges, at, -1, 1, false);
            a.length += a.last.g > 0.9f ? 1.0f : 0.0f;
        }
        Diagonal b = diagonal(edges, at, 1, -1, false);
        if (a.length + b.length > 2) {
            const RG A = decoded(fetch(edges, {at.x + _tx * (-a.length + 0.25f), at.y + _ty * a.length}, -1, 0));
            const RG B = decoded(fetch(edges, {at.x + _tx * b.length, at.y + _ty * (-b.length - 0.25f)}, 1, 0));
            const RG found = areaDiagonal(a.length, b.length, a.end >= 0.9f ? 0 : 2 * A.g + A.r,
                                          b.end >= 0.9f ? 0 : 2 * B.g + B.r, _indices[2]);
            out = {out.r + found.r, out.g + found.g};
        }
        a = diagonal(edges, at, -1, -1, true);
        b = {0, 0, {0, 0}};
        if (fetch(edges, at, 1, 0).r > 0.5f) {
            b = diagonal(edges, at, 1, 1, true);
            b.length += b.last.g > 0.9f ? 1.0f : 0.0f;
        }
        if (a.length + b.length > 2) {
            const Coord A{at.x - _tx * a.length, at.y - _ty * a.length};
            const Coord B{at.x + _tx * b.length, at.y + _ty * b.length};
            const RG v = fetch(edges, B, 1, 0);
            const float first = 2 * fetch(edges, A, -1, 0).g + fetch(edges, A, 0, -1).r;
            const RG found = areaDiagonal(a.length, b.length, a.end >= 0.9f ? 0 : first,
                                          b.end >= 0.9f ? 0 : 2 * v.g + v.r, _indices[3]);
            out = {out.r + found.g, out.g + found.r};
        }
        return out;
    }

    std::array<float, 4> weightsAt(const Image<float> &edges, int x, int y) const
    {
        std::array<float, 4> w{};
        const Coord at = centre(x, y);
        RG e{edges.at(x, y)[0], edges.at(x, y)[1]};
        if (e.g > 0.5f) {
            const RG found = diagonalWeights(edges, at, e);
            if (found.r != -found.g) {
                w[0] = found.r;
                w[1] = found.g;
                e.r = 0;
            } else {
                const float row = at.y - 0.125f * _ty;
                const float left = searched(edges, {at.x - 0.25f * _tx, row}, true, -1, at.x - 0.25f * _tx - 64 * _tx);
                const float right = searched(edges, {at.x + 1.25f * _tx, row}, true, 1, at.x + 1.25f * _tx + 64 * _tx);
                const float crossingRow = at.y - 0.25f * _ty;
                const float e1 = fetch(edges, {left, crossingRow}).r;
                const float e2 = fetch(edges, {right, crossingRow}, 1, 0).r;
                const float d1 = std::abs(std::round(left * float(_frame.width) - (float(x) + 0.5f)));
                const float d2 = std::abs(std::round(right * float(_frame.width) - (float(x) + 0.5f)));
                const RG found1 = area(d1, d2, e1, e2, _indices[1]);
                const auto k = cornerShares(d1, d2);
                const Coord a{left, at.y};
                const Coord b{right, at.y};
                const float f1 = 1 - k[0] * fetch(edges, a, 0, 1).r - k[1] * fetch(edges, b, 1, 1).r;
                const float f2 = 1 - k[0] * fetch(edges, a, 0, -2).r - k[1] * fetch(edges, b, 1, -2).r;
                w[0] = found1.r * std::clamp(f1, 0.0f, 1.0f);
                w[1] = found1.g * std::clamp(f2, 0.0f, 1.0f);
            }
        }
        if (e.r > 0.5f) {
            const float column = at.x - 0.125f * _tx;
            const float top = searched(edges, {column, at.y - 0.25f * _ty}, false, -1, at.y - 0.25f * _ty - 64 * _ty);
            const float bottom = searched(edges, {column, at.y + 1.25f * _ty}, false, 1, at.y + 1.25f * _ty + 64 * _ty);
            const float crossingColumn = at.x - 0.25f * _tx;
            const float e1 = fetch(edges, {crossingColumn, top}).g;
            const float e2 = fetch(edges, {crossingColumn, bottom}, 0, 1).g;
            const float d1 = std::abs(std::round(top * float(_frame.height) - (float(y) + 0.5f)));
            const float d2 = std::abs(std::round(bottom * float(_frame.height) - (float(y) + 0.5f)));
            const RG found = area(d1, d2, e1, e2, _indices[0]);
            const auto k = cornerShares(d1, d2);
            const Coord a{at.x, top};
            const Coord b{at.x, bottom};
            const float f1 = 1 - k[0] * fetch(edges, a, 1, 0).g - k[1] * fetch(edges, b, 1, 1).g;
            const float f2 = 1 - k[0] * fetch(edges, a, -2, 0).g - k[1] * fetch(edges, b, -2, 1).g;
            w[2] = found.r * std::clamp(f1, 0.0f, 1.0f);
            w[3] = found.g * std::clamp(f2, 0.0f, 1.0f);
        }
        return w;
    }

    static std::array<float, 2> cornerShares(float d1, float d2)
    {
        const float n1 = d1 <= d2 ? 1.0f : 0.0f;
        const float n2 = d2 <= d1 ? 1.0f : 0.0f;
        return {0.75f * n1 / (n1 + n2), 0.75f * n2 / (n1 + n2)};
    }

    const Image<float> &_frame;
    const Image<float> &_area;
    const Image<float> &_search;
    const Image<float> *_predicate = nullptr;
    std::array<float, 4> _indices{};
    float _tx;
    float _ty;
};

} // namespace Brevane::Kvo::Test
