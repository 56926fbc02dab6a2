#pragma once

#include "commandline.h"
#include "gallerypage.h"
#include "host/sceneimport.h"
#include "host/screentarget.h"
#include "model/gpumodel.h"
#include "scene.h"
#include "session.h"

#include <memory>
#include <vector>

/// The program as a maker of galleries: every pipeline on every model, into a page.
class Gallery
{
public:
    explicit Gallery(const CommandLine &commandLine) : _commandLine(commandLine) {}

    /// The exit code.
    int run();

private:
    /// A model, read once, and what has been made of it on the GPU so far.
    struct Model
    {
        struct Variant
        {
            SceneSettings settings;
            Brevane::Kvo::GPUModel whole;
            Brevane::Kvo::GPUModel opaque; ///< Its opaque part, where something of it is transparent.
        };

        QString name; ///< For people.
        QString fileName; ///< Part of the names of pictures.
        Brevane::Kvo::ModelData data;
        std::vector<std::unique_ptr<Variant>> variants;
    };

    bool openFolder();
    bool openContext();
    bool loadModels();
    bool choosePipelines();
    void show(GalleryEntry *entry);
    void describe(const Brevane::Kvo::Pipeline &pipeline, GalleryEntry *entry) const;
    void show(const GalleryEntry &entry, Model *model, GalleryRun *run);
    static Model::Variant *variantOf(Model *model, const SceneSettings &settings, QString *error);
    bool writePage();

    bool fail(const QString &message, int exitCode = kFailure);
    void progress(const QString &message) const;
    QString pathOf(const QString &fileName) const;

    const CommandLine &_commandLine;
    int _exitCode = kSuccess;
    GalleryPage _page;
    // In this order, so that what lives in the context goes before it.
    Session _session;
    Brevane::Kvo::ScreenTarget _screen;
    std::vector<std::unique_ptr<Model>> _models;
};
