#pragma once

#include "commandline.h"
#include "host/camera.h"
#include "host/headlesscontext.h"
#include "host/pipeline.h"
#include "host/screentarget.h"
#include "model/gpumodel.h"

#include <QElapsedTimer>

#include <memory>

/// One run of the program: from the command line to the files.
class Renderer
{
public:
    explicit Renderer(const CommandLine &commandLine);
    ~Renderer();

    /// The exit code.
    int run();

private:
    using Step = bool (Renderer::*)();

    bool loadPipeline();
    bool checkOutputs();
    bool openContext();
    bool loadModel();
    bool prepare();
    bool renderFrames();
    bool writePicture();

    bool fail(const QString &message, int exitCode = kFailure);
    void progress(const QString &message) const;
    void dump(const QString &pass);

    const CommandLine &_commandLine;
    int _exitCode = kSuccess;
    QString _pipelinePath;
    // In this order, so that what lives in the context goes before it.
    std::unique_ptr<Brevane::Kvo::HeadlessContext> _context;
    Brevane::Kvo::ScreenTarget _screen;
    Brevane::Kvo::GPUModel _model;
    Brevane::Kvo::Pipeline _pipeline;
};
