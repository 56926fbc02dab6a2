#pragma once

#include "host/pipeline.h"

#include <QHash>
#include <QPoint>
#include <QRect>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QVector>

/// A part of a picture, and what is drawn to get it.
struct Tile
{
    QRect part; ///< Of the picture, from its upper left.
    QRect window; ///< The part and what passes read around it, from the picture's lower left.

    /// Where the part lies in what is drawn, from the upper left of that.
    QRect partOfWindow(const QSize &picture) const;
};

/// What limits tiles.
struct TileLimits
{
    int target = 0; ///< Longest side of a texture.
    int viewport = 0; ///< Longest side of a viewport.
};

/// How a picture is made of tiles, so that together they are what one piece would be.
class TilePlan
{
public:
    /// A value that a pass takes from the whole frame. Tiles would each have their own, so it is found ahead.
    struct Held
    {
        enum class Kind {
            Output, ///< The output of a pass that looks at all pixels.
            Focus, ///< The distance of what lies at a point.
        };
        Kind kind;
        QString pass;
        QString slot; ///< Of the output.
        QString depthPass, depthSlot; ///< Of the focus.
        QPointF point; ///< Of the focus, in fractions from the lower left.
    };

    /// \a side: of the tiles; 0: what suits. \a pixelsPerUnit: how many pixels a unit of the scene may take at most.
    /// \a prints are outputs whose value is wanted. False, with the pass and the reason, for pipelines whose picture
    /// cannot be put together.
    bool make(const Brevane::Kvo::Pipeline &pipeline, const QSize &picture, int side, const TileLimits &limits,
              double pixelsPerUnit, const QStringList &prints, QString *error);

    QSize picture() const { return _picture; }
    int side() const { return _side; }
    int margin() const { return _margin; }
    /// Of what is drawn for a tile.
    int windowSide() const;
    /// In rows from the upper left.
    QVector<Tile> tiles() const;
    const QVector<Held> &held() const { return _held; }
    /// What is taken for granted.
    const QStringList &warnings() const { return _warnings; }

    /// How far around a pixel the picture depends on its passes' inputs, in pixels. False with pass and reason.
    static bool reachOf(const Brevane::Kvo::Pipeline &pipeline, double pixelsPerUnit, double *reach,
                        QStringList *warnings, QString *error);

private:
    bool check(const Brevane::Kvo::Pipeline &pipeline, const TileLimits &limits, QString *error) const;
    bool findHeld(const Brevane::Kvo::Pipeline &pipeline, const QStringList &prints, QString *error);

    QSize _picture;
    int _side = 0;
    int _margin = 0;
    QVector<Held> _held;
    QStringList _warnings;
};
