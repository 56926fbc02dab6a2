#pragma once

#include "shadows/shadowmaplight.h"
#include "shadows/shadowmaprenderdata.h"

#include <array>
#include <optional>

class QMatrix4x4;

namespace Brevane::Kvo {

/// A vector in double precision: frames are snapped to grids far from the origin.
struct DVector
{
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;

    DVector() = default;
    DVector(double x_, double y_, double z_) : x(x_), y(y_), z(z_) {}
    explicit DVector(const QVector3D &v) : x(double(v.x())), y(double(v.y())), z(double(v.z())) {}

    DVector operator+(const DVector &o) const { return {x + o.x, y + o.y, z + o.z}; }
    DVector operator-(const DVector &o) const { return {x - o.x, y - o.y, z - o.z}; }
    DVector operator*(double f) const { return {x * f, y * f, z * f}; }
};

/// The matrices of one light after another, for one camera and one scene.
class LightFrames
{
public:
    static constexpr int kMostLayers = 6;
    static constexpr int kMostCascades = 4;

    /// False, with nothing changed, for a box that is not one.
    bool setBounds(const QVector3D &minimum, const QVector3D &maximum);
    /// False, with nothing changed, for matrices that do not show a finite part of the world.
    bool setCamera(const QMatrix4x4 &projection, const QMatrix4x4 &camera);

    /// Works out the layers of a light; what is wrong with it, or null.
    const char *process(const ShadowMapLight &light);
    int layerCount() const { return _layerCount; }
    const ShadowMapRenderData::Transform &transform(int layer) const { return _transforms[std::size_t(layer)]; }
    /// Whether any light so far needed the scene's box while there was none.
    bool usedDefaultBox() const { return _usedDefaultBox; }

private:
    struct Box
    {
        DVector minimum;
        DVector maximum;

        DVector corner(int i) const;
        double diagonal() const;
    };
    struct Basis
    {
        DVector right;
        DVector up;
        DVector forward;

        explicit Basis(const DVector &direction);
        Basis(const DVector &right_, const DVector &up_, const DVector &forward_);
        DVector of(const DVector &world) const;
        Box of(const Box &world) const;
    };
    struct Polygon
    {
        // A side of a box cut four times has 8 at most; seen edge on it may be bent by rounding, and then a cut
        // makes half as many again of them.
        static constexpr std::size_t kMostCorners = 20;

        Polygon(const Basis &basis, const Box &world, int axis, bool isUpper);
        void cut(double DVector::*coordinate, double sign, double limit);

        std::array<DVector, kMostCorners> corners;
        int count = 0;
    };
    struct View
    {
        std::array<DVector, 4> nearCorners;
        std::array<DVector, 4> farCorners;
        double nearDepth = 0.0;
        double farDepth = 0.0;
    };
    struct Sphere
    {
        DVector center;
        double radius = 0.0;
    };

    const Box &scene();
    const char *processDirectional(const ShadowMapLight &light);
    const char *processSpot(const ShadowMapLight &light);
    const char *processPoint(const ShadowMapLight &light);
    std::array<double, kMostCascades + 1> splits(const ShadowMapLight &light) const;
    Sphere sphereOf(double from, double to) const;
    const char *depthRange(const ShadowMapLight &light, double sceneNear, double sceneFar, double *nearDepth,
                           double *farDepth) const;
    static void takeDepthsOf(const Box &world, const Basis &basis, Box *frame);
    bool addOrthographic(const Basis &basis, const Box &frame);
    bool addPerspective(const Basis &basis, const DVector &position, double halfTangent, double nearDepth,
                        double farDepth);
    bool add(const std::array<double, 16> &columns);

    std::optional<Box> _bounds;
    std::optional<View> _view;
    std::array<ShadowMapRenderData::Transform, kMostLayers> _transforms{};
    int _layerCount = 0;
    bool _usedDefaultBox = false;
};

} // namespace Brevane::Kvo
