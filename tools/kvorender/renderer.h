#pragma once

#include "commandline.h"
#include "host/imageoutput.h"
#include "host/pipeline.h"
#include "host/screentarget.h"
#include "model/gpumodel.h"
#include "session.h"

#include <array>

/// One run of the program: from the command line to the files.
class Renderer
{
public:
    explicit Renderer(const CommandLine &commandLine) : _commandLine(commandLine) {}

    /// The exit code.
    int run();

private:
    using Step = bool (Renderer::*)();

    bool loadPipeline();
    QStringList optionsWithoutEffect() const;
    bool checkOutputs();
    bool openContext();
    bool loadModel();
    bool prepare();
    bool renderFrames();
    bool writePicture();

    bool fail(const QString &message, int exitCode = kFailure);
    void progress(const QString &message) const;
    void observe();
    void dump(const QString &pass);
    bool prepareInspection();
    void inspectLists(const QString &pass);
    void compare(const QString &pass);

    const CommandLine &_commandLine;
    int _exitCode = kSuccess;
    QString _pipelinePath;
    // In this order, so that what lives in the context goes before it.
    Session _session;
    Brevane::Kvo::ScreenTarget _screen;
    Brevane::Kvo::GPUModel _model;
    Brevane::Kvo::GPUModel _opaqueModel; ///< Only for pipelines that ask for it.
    Brevane::Kvo::Pipeline _pipeline;
    Brevane::Kvo::ModelData _modelData; ///< Kept only where lists are inspected, for the names.
    QVector<std::array<Brevane::Kvo::TexturePixels, 2>> _compared; ///< As _commandLine.comparisons.
    QString _listPass; ///< Whose fragment lists are inspected; empty: none.
};
