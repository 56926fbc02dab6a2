#pragma once

#include "gl/contextstate.h"
#include "gl/glslmacroprocessor.h"

#include <QHash>
#include <QVarLengthArray>
#include <QVector>

#include <vector>

namespace Brevane::Kvo {

class ShaderProgram;

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

class ShaderProgramPrivate
{
public:
    struct Source
    {
        int stage;
        QString text;
        QString name;
        bool isFile;
    };
    struct Compiled
    {
        unsigned int shader;
        int stage;
        ProcessedSource source;
    };
    struct Previous
    {
        unsigned int name;
        ShaderProgram *program;
    };
    /// Takes a program that goes out of what will be bound again in any context.
    static void forget(const ShaderProgram *program);

    const GLSLMacroProcessor &processorInUse() const;
    /// Lets every stage know the index of a draw, in the sources that are processed and not yet compiled.
    void addDrawIndex();
    bool readsManagedTextures() const;
    QString stageTitle(int stage, const QString &sourceName, int number = 0) const;
    bool compileStage(Compiled &compiled, const QString &title);
    void deleteShaders();
    void fail(bool whileLinking);
    const LinkedProgram::Uniform *findUniform(const QString &name) const;
    unsigned int id() const { return program ? program->name.id() : 0; }
    bool isLinked() const { return program && program->linked && program->name.id(); }
    bool isCurrent(const ShaderProgram *q) const;

    QSharedPointer<LinkedProgram> program;
    GLSLMacroProcessor *processor = nullptr;
    QVector<Source> sources;
    QVector<Compiled> compiled;
    QStringList fragDataLocations;
    QString log;
    QString label;
    bool mayShare = false;
    bool mayFail = false;
    int managedPages = -1; // classes of pages it was built to sample; -1: all there can be
    bool compiledWell = false;
    QByteArray shareKey; // of the texts that compile processed
    QVarLengthArray<Previous, 4> previous;
};

} // namespace Brevane::Kvo
