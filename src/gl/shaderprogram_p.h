#pragma once

#include "gl/contextstate.h"
#include "gl/glnames.h"
#include "gl/glslmacroprocessor.h"
#include "gl/linkedprogram.h"
#include "gl/texturemanager.h"

#include <QSet>
#include <QVarLengthArray>
#include <QVector>

#include <array>
#include <vector>

namespace Brevane::Kvo {

class ShaderProgram;

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
        ObjectName shader; // which is in the share group that it was compiled in
        int stage;
        ProcessedSource source;
        QString drawIndexDefines;
        bool isOurs = false; // and of none of the sources
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
    bool readsManagedTextures(ManagedKind kind) const;
    QString stageTitle(int stage, const QString &sourceName, int number = 0) const;
    bool compileStage(Compiled &compiled, const QString &title);
    /// Compiles stages of which a source does not compile by itself, all sources of a stage as one text. False where that
    /// does not do either, with the log as it was.
    bool compileJoined(const QSet<int> &stages, const QList<QPair<QString, QString>> &defines);
    QString textOf(const Source &source, bool *found) const;
    void fail(bool whileLinking);
    const LinkedProgram::Uniform *findUniform(const QString &name) const;
    unsigned int id() const { return program ? program->name.id() : 0; }
    bool isLinked() const { return program && program->linked && program->name.id(); }
    bool isCurrent(const ShaderProgram *q) const;

    QSharedPointer<LinkedProgram> program;
    GLSLMacroProcessor *processor = nullptr;
    QVector<Source> sources;
    std::vector<Compiled> compiled;
    QStringList fragDataLocations;
    QString log;
    QString label;
    bool mayShare = false;
    bool mayFail = false;
    // TextureManager::managedPageClasses it was built for, by kind; -1: all there can be
    std::array<int, 2> managedPages{-1, -1};
    bool compiledWell = false;
    bool wasRefused = false; // with a reason, which will be the same the next time
    QByteArray shareKey; // of the texts that compile processed
    QVarLengthArray<Previous, 4> previous;
};

} // namespace Brevane::Kvo
