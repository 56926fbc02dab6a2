#pragma once

#include "gpu.h"
#include "model.h"

#include <pybind11/numpy.h>

#include "gl/texture.h"
#include "host/imageoutput.h"
#include "host/pipeline.h"
#include "host/screentarget.h"

#include <QHash>
#include <QPair>
#include <QSet>
#include <QVariant>

#include <array>
#include <map>

namespace KvoPython {

/// A texture whose texels come from an array.
class TextureObject : public Resource
{
public:
    TextureObject(std::shared_ptr<Gpu> gpu, const py::object &array);
    ~TextureObject() override { end(); }

    Brevane::Kvo::Texture *texture() const { return _texture.get(); }
    void set(const py::object &array);
    py::array read();

protected:
    void free() override;

private:
    std::unique_ptr<Brevane::Kvo::Texture> _texture;
};

/// What a frame is seen with.
struct View
{
    QString camera; ///< As Camera::parse reads it, where there is no matrix.
    bool hasMatrices = false;
    QMatrix4x4 camera_;
    QMatrix4x4 projection;
    float nearPlane = 0.0f;
    float farPlane = 0.0f;
};

class PipelineObject : public Resource
{
public:
    explicit PipelineObject(std::shared_ptr<Gpu> gpu);
    ~PipelineObject() override { end(); }

    /// Does something with the pipeline that may fail, in its context.
    template <typename Work>
    void attempt(Work &&work)
    {
        QString error;
        const bool done = inContext(*gpu(), [&] { return work(pipeline(), &error); });
        if (!done)
            throw Error(error);
    }
    /// Asks it something.
    template <typename Work>
    auto ask(Work &&work)
    {
        return inContext(*gpu(), [&] { return work(pipeline()); });
    }

    void load(const QString &nameOrPath, const QStringList &folders);
    void setTexture(const QString &pass, const QString &slot, const std::shared_ptr<TextureObject> &texture);
    void setSlotModel(const QString &pass, const QString &slot, const std::shared_ptr<Model> &model);
    void call(const QString &pass, const QString &operation, const QStringList &arguments);
    QStringList operations(const QString &pass);
    py::object output(const QString &pass, const QString &slot);

    /// The picture, or nothing where it is not wanted, and the outputs that were named.
    py::dict render(int width, int height, const std::shared_ptr<Model> &model, const py::object &view, int frames,
                    const std::vector<std::pair<QString, QString>> &outputs, bool picture, const py::object &into,
                    const py::object &onPass);

protected:
    void free() override;

private:
    struct Output
    {
        QVariant value;
        std::optional<Brevane::Kvo::TexturePixels> pixels;
    };

    Brevane::Kvo::Pipeline &pipeline();
    Output take(const QString &pass, const QString &slot);
    static py::object objectOf(const Output &output);

    std::unique_ptr<Brevane::Kvo::Pipeline> _pipeline;
    std::unique_ptr<Brevane::Kvo::ScreenTarget> _screen;
    // What slots name is kept for as long as they do.
    std::map<QPair<QString, QString>, std::shared_ptr<TextureObject>> _textures;
    std::map<QPair<QString, QString>, std::shared_ptr<UploadedModel>> _slotModels;
    std::shared_ptr<UploadedModel> _model;
};

void bindPipeline(py::module_ &module);

} // namespace KvoPython
