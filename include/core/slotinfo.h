#pragma once

#include <limits>
#include <span>

// What the slots of a pass mean, for whoever shows or checks them: documents, editors, pipeline files. A pass
// describes its slots with tables that are made at compile time; nothing of it costs a frame anything.

namespace Brevane::Kvo {

/// What the value of a slot stands for, as far as its type does not say it.
enum class SlotKind : unsigned char {
    Plain, ///< A number, of which there is no more to say.
    Choice, ///< One of the values in SlotInfo::choices.
    Switch, ///< True or false.
    Count, ///< How many: a whole number.
    Index, ///< Which one: a whole number, -1 mostly for none.
    Radius,
    Distance,
    Factor, ///< What something is multiplied with, a weight or a strength.
    Threshold, ///< From where on something happens.
    Divider, ///< What a size is divided by.
    Position, ///< A point.
    Size, ///< Width and height.
    Area, ///< A rectangle, or a list of them.
    Color,
    Matrix,
    Path, ///< Of a file, or of a resource.
    Texture,
    Framebuffer,
    Model,
    Geometry, ///< Vertices to draw.
    List,
    Record, ///< Something that one pass makes and others read.
};

/// A value with a name.
struct SlotChoice
{
    int value; ///< What the slot takes.
    const char *name; ///< "colorDodge": for pipeline files and editors.
    const char *meaning; ///< One line.
};

/// Values that make sense, and by how much an editor moves between them. A pass takes others too: what it makes
/// of them is said with the pass.
struct SlotRange
{
    /// The smallest value; no bound at first.
    double least = -std::numeric_limits<double>::infinity();
    /// The largest value; no bound at first.
    double most = std::numeric_limits<double>::infinity();
    double step = 0.0; ///< 0: whatever suits.

    /// Whether a value is in it, both ends included; not a number is in none.
    constexpr bool contains(double value) const { return value >= least && value <= most; }
};

/// What a slot is. All texts are ASCII and live as long as the program.
struct SlotInfo
{
    const char *name; ///< The slot's full name, as the pass declares it.
    const char *meaning; ///< One line. "none: ..." says what is used where nothing is connected.
    SlotKind kind = SlotKind::Plain; ///< What it is used for.
    const char *unit = ""; ///< "texels"; empty for what has none.
    SlotRange range = {}; ///< Of a number, or of each part of a size or a position.
    std::span<const SlotChoice> choices = {}; ///< Of a number that stands for something.
    const char *format = ""; ///< Of the texture in an output.
    bool hasEffect = true; ///< False: the pass takes the value and never reads it, or never writes the output.
};

/// How far around a pixel a pass reads what it is given, as an upper bound: what a part of a picture needs around
/// it to come out as in the whole.
struct Reach
{
    bool isWholeFrame = false; ///< Any texel may count for any pixel.
    double fixed = 0.0; ///< Texels.
    double perUnit = 0.0; ///< Texels for each unit of the input of that name ...
    const char *slot = nullptr; ///< The input that perUnit speaks of.
    const char *times = nullptr; ///< ... all of it multiplied by the value of this one, where it is above 1.

    /// So many texels, whatever the inputs are.
    static constexpr Reach texels(double count) { return {false, count}; }
    /// Any texel may count for any pixel.
    static constexpr Reach wholeFrame() { return {true}; }
    /// By the value of an input.
    static constexpr Reach of(const char *slot, double perUnit, double fixed, const char *times = nullptr)
    {
        return {false, fixed, perUnit, slot, times};
    }
};

/// What a pass is, and its slots in their order.
struct PassInfo
{
    const char *className; ///< Without the namespace.
    const char *meaning; ///< One line.
    Reach reach; ///< How far it reads around a pixel.
    std::span<const SlotInfo> inputs; ///< In their order.
    std::span<const SlotInfo> outputs; ///< In their order.
};

} // namespace Brevane::Kvo
