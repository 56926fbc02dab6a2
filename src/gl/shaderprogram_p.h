#pragma once

#include "gl/contextstate.h"
#include "gl/glslmacroprocessor.h"

#include <QHash>
#include <QVarLengthArray>
#include <QVector>

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
    struct Uniform
    {
        int location;
        unsigned int type;
        int size;
    };
    struct Attribute
    {
        int location;
        bool isInteger;
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

    const GLSLMacroProcessor &processorInUse() const;
    /// How fragment and geometry stages learn the index of a draw; see InstanceData.glslh.
    QString drawIndexDefine() const;
    QString stageTitle(int stage, const QString &sourceName) const;
    void deleteShaders();
    void readInterface();
    void fail(bool whileLinking);
    const Uniform *findUniform(const QString &name) const;
    bool isCurrent(const ShaderProgram *q) const;

    ObjectName name;
    GLSLMacroProcessor *processor = nullptr;
    QVector<Source> sources;
    QVector<Compiled> compiled;
    QStringList fragDataLocations;
    QString log;
    QString label;
    bool compiledWell = false;
    bool linked = false;
    quint64 linkSerial = 0;
    QHash<QString, Uniform> uniforms;
    mutable QHash<QString, int> elementLocations;
    QHash<QString, Attribute> attributes;
    QVarLengthArray<Previous, 4> previous;
};

} // namespace Brevane::Kvo
