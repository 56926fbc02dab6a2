#pragma once

#include "commandline.h"
#include "host/camera.h"
#include "host/pipeline.h"
#include "host/screentarget.h"
#include "host/tiledimage.h"
#include "tiles.h"

#include <QHash>

#include <functional>
#include <map>
#include <memory>

/// Makes a picture of tiles, and the files that were asked for, which grow with it.
class TiledPicture
{
public:
    /// Gives the pipeline for the next tile; null with the reason.
    using PipelineSource = std::function<Brevane::Kvo::Pipeline *(QString *error)>;

    TiledPicture(const TilePlan &plan, const CommandLine &commandLine, const Brevane::Kvo::Camera &camera,
                 Brevane::Kvo::ScreenTarget *screen, PipelineSource source);

    /// \a before is called before each tile. False with the reason; no file is there then.
    bool render(const std::function<void(qsizetype tile, qsizetype tiles)> &before, QString *error);

    QStringList files() const { return _files; }
    QStringList faults() const { return _faults; }
    /// Of an output: that of the whole frame, where it is held, else that of the last tile.
    QVariant value(const QString &pass, const QString &slot) const;

private:
    bool hold(QString *error);
    bool holdFocus(const TilePlan::Held &held, QString *error);
    bool holdOutputs(QString *error);
    bool applyHeld(Brevane::Kvo::Pipeline *pipeline, QString *error) const;
    bool draw(const QRect &window, const QSize &picture, const std::function<void(const QString &)> &observer,
              QString *error);
    bool openFiles(QString *error);
    bool write(const Tile &tile, QString *error);
    bool dump(const Tile &tile, const SlotArgument &dump, QString *error);
    bool commit(QString *error);

    const TilePlan &_plan;
    const CommandLine &_commandLine;
    Brevane::Kvo::Camera _camera;
    Brevane::Kvo::ScreenTarget *_screen;
    PipelineSource _source;
    Brevane::Kvo::Pipeline *_pipeline = nullptr;
    bool _isHeld = false;
    QHash<QString, float> _focus; ///< By the pass.
    QHash<QString, QVariant> _outputs; ///< By "Pass.Slot", in full.
    Brevane::Kvo::PngTileWriter _png;
    std::map<QString, std::unique_ptr<Brevane::Kvo::ExrTileWriter>> _exrs; ///< By the file.
    QStringList _files;
    QStringList _faults;
};
