#pragma once

#include "commandline.h"
#include "earlyimport.h"
#include "host/camera.h"
#include "host/imageoutput.h"
#include "host/pipeline.h"
#include "host/screentarget.h"
#include "model/gpumodel.h"
#include "session.h"
#include "tiles.h"

#include <QCache>
#include <QImage>
#include <QSet>

#include <array>
#include <functional>
#include <memory>

/// What became of one picture.
struct Rendered
{
    ExitCode exitCode = kSuccess;
    QStringList errors;
    QImage picture; ///< For CommandLine::output; null: none was asked for, or it could not be made.
    QStringList files; ///< Those that were written.
};

/// Makes pictures, one after another: from the options of each to its files. What pictures share stays loaded: the
/// models used last, in bounded memory, and the pipelines used last. What a picture looks like does not depend on those
/// before it.
class Renderer
{
public:
    struct Settings
    {
        bool debug = false; ///< Report OpenGL errors.
        bool quiet = false; ///< No progress.
        bool collects = false; ///< Errors are for the caller to say; warnings are said once each.
        int cacheMegabytes = 1024; ///< For models.
        std::function<void(const QStringList &)> warn = complainOf;
    };

    explicit Renderer(const Settings &settings);
    ~Renderer();

    /// One run of the program with one picture: says what happens, and gives the exit code.
    int run(const CommandLine &commandLine);

    Rendered render(const CommandLine &commandLine);
    /// Writes a picture that render made. Needs no context, and may run on a thread of its own.
    static void write(Rendered *rendered, const CommandLine &commandLine);
    /// Whether the driver has lost the context; the next picture opens a new one.
    bool isLost() const { return !_session; }

private:
    using Step = bool (Renderer::*)();

    struct Model
    {
        Brevane::Kvo::GPUModel whole;
        Brevane::Kvo::GPUModel opaque; ///< Only for pipelines that ask for it, and models that have other parts.
        bool isAllOpaque = false;
        Brevane::Kvo::ModelData data; ///< Kept only where lists are inspected, for the names.
    };
    struct LoadedPipeline
    {
        QString path;
        Brevane::Kvo::Pipeline pipeline;
        bool remembers = false; ///< Its frames depend on those before, so it makes one picture only.
    };

    bool openContext();
    bool loadPipeline();
    bool setValues(Brevane::Kvo::Pipeline *pipeline);
    QStringList optionsWithoutEffect() const;
    bool checkOutputs();
    bool loadModel();
    void giveModel(Brevane::Kvo::Pipeline *pipeline);
    bool importModel(Model *model, qsizetype *bytes);
    bool prepare();
    bool renderFrames();
    bool takePicture();
    bool planTiles();
    /// The last three for a picture that is made of tiles.
    bool renderTiles();
    Brevane::Kvo::Pipeline *pipelineForTile(QString *error);

    bool fail(const QString &message, ExitCode exitCode = kFailure);
    void warn(const QStringList &warnings);
    void progress(const QString &message) const;
    void written(const QString &file);
    void observe();
    void dump(const QString &pass);
    bool prepareInspection();
    void inspectLists(const QString &pass);
    void compare(const QString &pass);
    bool noteLoss();
    void release();

    Brevane::Kvo::Pipeline &pipeline() { return _loaded->pipeline; }
    const Brevane::Kvo::Pipeline &pipeline() const { return _loaded->pipeline; }

    Settings _settings;
    QSet<QString> _warned;
    std::unique_ptr<EarlyImport> _early; ///< Of the first picture's model, until it is loaded.
    // Of the picture at hand.
    const CommandLine *_commandLine = nullptr;
    Rendered _rendered;
    // In this order, so that what lives in the context goes before it.
    std::unique_ptr<Session> _session;
    std::unique_ptr<Brevane::Kvo::ScreenTarget> _screen;
    QCache<QString, std::shared_ptr<Model>> _models;
    std::shared_ptr<Model> _model;
    QCache<QString, std::shared_ptr<LoadedPipeline>> _pipelines;
    std::shared_ptr<LoadedPipeline> _loaded;
    QVector<std::array<Brevane::Kvo::TexturePixels, 2>> _compared; ///< As CommandLine::comparisons.
    TilePlan _plan;
    bool _isTiled = false;
    Brevane::Kvo::Camera _camera;
    QString _listPass; ///< Whose fragment lists are inspected; empty: none.
};
