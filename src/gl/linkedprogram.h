#pragma once

#include "gl/glnames.h"

#include <QHash>
#include <QString>

#include <vector>

namespace Brevane::Kvo {

/// The active uniforms of a program by name. Programs ask for each of theirs in every frame, and QHash
/// spends most of that time on hashing and comparing texts; this looks at the length and three characters.
class UniformTable
{
public:
    struct Uniform
    {
        int location;
        unsigned int type;
        int size;
    };

    void insert(const QString &name, const Uniform &uniform);
    const Uniform *find(const QString &name) const;

private:
    struct Entry
    {
        QString name;
        Uniform uniform;
    };
    std::size_t _firstSlot(const QString &name) const;
    void _rebuild();

    std::vector<Entry> _entries;
    std::vector<int> _slots; ///< Indices of entries or -1; a power of two, at least twice as many.
};

/// A GL program and what it says of itself once linked. Programs that allow it share one of these when
/// they are built from the same texts.
struct LinkedProgram
{
    using Uniform = UniformTable::Uniform;
    struct Attribute
    {
        int location;
        int locations; ///< One for each column of a matrix and each element of an array.
        bool isInteger;
    };

    void readInterface();

    ObjectName name;
    bool linked = false;
    quint64 serial = 0;
    UniformTable uniforms;
    QHash<QString, int> elementLocations;
    QHash<QString, Attribute> attributes;
};

} // namespace Brevane::Kvo
