#include "pipeline.h"

#include "arrays.h"
#include "convert.h"

#include <pybind11/stl.h>

#include "core/renderpasshelper.h"
#include "core/slotinfo.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/texture.h"
#include "host/camera.h"
#include "host/lights.h"
#include "host/passfactory.h"
#include "host/pipelinefile.h"
#include "host/pipelinegraph.h"
#include "host/slotname.h"
#include "host/slotvalue.h"
#include "shadows/shadowmaprenderdata.h"

#include <epoxy/gl.h>

#include <QColor>
#include <QRect>
#include <QVector2D>
#include <QVector4D>

#include <cstring>
#include <vector>

using namespace Brevane::Kvo;

namespace KvoPython {

namespace {

using Slot = QPair<QString, QString>;

py::object objectOf(const QVariant &value)
{
    const auto tuple = [](auto... numbers) -> py::object { return py::make_tuple(numbers...); };
    switch (value.typeId()) {
    case QMetaType::UnknownType: return py::none();
    case QMetaType::Bool: return py::bool_(value.toBool());
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong: return py::int_(value.toLongLong());
    case QMetaType::Float:
    case QMetaType::Double: return py::float_(value.toDouble());
    case QMetaType::QString: return py::cast(value.toString());
    case QMetaType::QColor: {
        const auto c = value.value<QColor>();
        return tuple(c.redF(), c.greenF(), c.blueF(), c.alphaF());
    }
    case QMetaType::QVector2D: {
        const auto v = value.value<QVector2D>();
        return tuple(v.x(), v.y());
    }
    case QMetaType::QVector3D: {
        const auto v = value.value<QVector3D>();
        return tuple(v.x(), v.y(), v.z());
    }
    case QMetaType::QVector4D: {
        const auto v = value.value<QVector4D>();
        return tuple(v.x(), v.y(), v.z(), v.w());
    }
    case QMetaType::QSize: return tuple(value.toSize().width(), value.toSize().height());
    case QMetaType::QPoint: return tuple(value.toPoint().x(), value.toPoint().y());
    case QMetaType::QRect: {
        const auto r = value.toRect();
        return tuple(r.x(), r.y(), r.width(), r.height());
    }
    case QMetaType::QMatrix4x4: return arrayOf(value.value<QMatrix4x4>());
    case QMetaType::QVariantList: {
        py::list list;
        const QVariantList elements = value.toList();
        for (const QVariant &element : elements)
            list.append(objectOf(element));
        return list;
    }
    default: return py::cast(describeSlotValue(value));
    }
}

// The rows of a picture that GL gave, top first.
void turnRows(unsigned char *pixels, int width, int height)
{
    const std::size_t row = std::size_t(width) * 4;
    std::vector<unsigned char> kept(row);
    for (int y = 0; y < height / 2; ++y) {
        unsigned char *const upper = pixels + std::size_t(y) * row;
        unsigned char *const lower = pixels + std::size_t(height - 1 - y) * row;
        std::memcpy(kept.data(), upper, row);
        std::memcpy(upper, lower, row);
        std::memcpy(lower, kept.data(), row);
    }
}

View viewOf(const py::object &object)
{
    View view;
    if (object.is_none())
        return view;
    if (py::isinstance<py::str>(object)) {
        view.camera = object.cast<QString>();
        return view;
    }
    const auto parts = object.cast<py::tuple>();
    view.hasMatrices = true;
    view.camera_ = matrixOf(parts[0], "view");
    view.projection = matrixOf(parts[1], "projection");
    view.nearPlane = parts[2].cast<float>();
    view.farPlane = parts[3].cast<float>();
    return view;
}

View settled(const View &view, const GPUModel::BoundingBox &bounds, float aspect)
{
    if (view.hasMatrices)
        return view;
    Camera camera;
    QString error;
    if (!Camera::parse(view.camera, bounds, aspect, &camera, &error))
        throw Error(error);
    return {view.camera,      true,           camera.cameraMatrix(), camera.projectionMatrix(aspect),
            camera.nearPlane, camera.farPlane};
}

} // namespace

TextureObject::TextureObject(std::shared_ptr<Gpu> gpu, const py::object &array) : Resource(std::move(gpu))
{
    try {
        set(array);
    } catch (...) {
        end();
        throw;
    }
}

void TextureObject::free()
{
    _texture.reset();
}

void TextureObject::set(const py::object &object)
{
    py::array array = py::array::ensure(object);
    if (!array) {
        PyErr_Clear();
        throw py::type_error("a texture is made of an array");
    }
    const char kind = array.dtype().kind();
    const bool isByte = kind == 'u' && array.itemsize() == 1;
    if (!isByte && kind != 'f')
        throw py::type_error("texels are uint8 or floats, not " + std::string(py::str(array.dtype())));
    const py::ssize_t channels = array.ndim() == 2 ? 1 : array.ndim() == 3 ? array.shape(2) : 0;
    if (channels < 1 || channels > 4 || array.size() == 0)
        throw py::value_error("a texture has shape (h, w) or (h, w, c) of 1 to 4 channels");
    const py::ssize_t height = array.shape(0);
    const py::ssize_t width = array.shape(1);
    // GL's first row is the lowest.
    const py::array turned = array[py::make_tuple(py::slice(py::none(), py::none(), py::int_(-1)))];
    const py::array bytes =
        isByte ? py::array(py::array_t<std::uint8_t, py::array::c_style>::ensure(turned))
               : py::array(py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(turned));
    constexpr GLenum kFormats[] = {GL_RED, GL_RG, GL_RGB, GL_RGBA};
    constexpr GLint kBytes[] = {GL_R8, GL_RG8, GL_RGB8, GL_RGBA8};
    constexpr GLint kFloats[] = {GL_R32F, GL_RG32F, GL_RGB32F, GL_RGBA32F};
    const void *const data = bytes.data();
    inContext(*gpu(), [&] {
        GLint largest = 0;
        glGetIntegerv(GL_MAX_TEXTURE_SIZE, &largest);
        if (width > largest || height > largest)
            throw Error(QStringLiteral("a texture of %1x%2 is more than the %3 that this driver holds")
                            .arg(width)
                            .arg(height)
                            .arg(largest));
        if (!_texture) {
            _texture = std::make_unique<Texture>();
            _texture->setTarget(GL_TEXTURE_2D);
            _texture->setLabel(QStringLiteral("array"));
        }
        const AutoBinder bound(_texture.get());
        const auto i = std::size_t(channels - 1);
        glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
        glTexImage2D(GL_TEXTURE_2D, 0, isByte ? kBytes[i] : kFloats[i], GLsizei(width), GLsizei(height), 0, kFormats[i],
                     isByte ? GL_UNSIGNED_BYTE : GL_FLOAT, data);
        glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
        _texture->setFilter(GL_LINEAR);
        _texture->setWrap(GL_CLAMP_TO_EDGE);
    });
}

py::array TextureObject::read()
{
    TexturePixels pixels;
    inContext(*gpu(), [&] {
        QString error;
        if (!readTexture(_texture.get(), &pixels, &error))
            throw Error(error);
    });
    return arrayOf(pixels);
}

PipelineObject::PipelineObject(std::shared_ptr<Gpu> gpu) : Resource(std::move(gpu))
{
    try {
        inContext(*this->gpu(), [this] { _pipeline = std::make_unique<Pipeline>(); });
    } catch (...) {
        end();
        throw;
    }
}

void PipelineObject::free()
{
    _pipeline.reset();
    _screen.reset();
    _textures.clear();
    _slotModels.clear();
    _model.reset();
}

Pipeline &PipelineObject::pipeline()
{
    if (!_pipeline)
        throw ContextError(QStringLiteral("the context of the pipeline is closed"));
    return *_pipeline;
}

void PipelineObject::load(const QString &nameOrPath, const QStringList &folders)
{
    inContext(*gpu(), [&] {
        QString error;
        const QString path = findPipeline(nameOrPath, pipelineSearchPath(folders), &error);
        if (path.isEmpty())
            throw Error(error);
        // On the side, so that a file with mistakes leaves what there is.
        auto loaded = std::make_unique<Pipeline>();
        QStringList errors;
        if (!loadPipeline(path, loaded.get(), &errors))
            throw Error(errors.join(QLatin1Char('\n')));
        _pipeline = std::move(loaded);
        _textures.clear();
        _slotModels.clear();
        for (const QString &warning : _pipeline->warnings())
            qWarning("%s", qPrintable(warning));
    });
}

void PipelineObject::setTexture(const QString &pass, const QString &slot, const std::shared_ptr<TextureObject> &texture)
{
    if (texture->gpu() != gpu())
        throw Error(QStringLiteral("the texture is of another context"));
    QString fullName;
    attempt([&](Pipeline &p, QString *error) {
        return p.inputSlot(pass, slot, &fullName, nullptr, error)
               && p.setValue(pass, slot, textureToVariant(texture->texture()), error);
    });
    _textures[{pass, fullName}] = texture;
}

void PipelineObject::setSlotModel(const QString &pass, const QString &slot, const std::shared_ptr<Model> &model)
{
    QString fullName;
    std::shared_ptr<UploadedModel> uploaded;
    attempt([&](Pipeline &p, QString *error) {
        uploaded = model->in(gpu());
        return p.inputSlot(pass, slot, &fullName, nullptr, error)
               && p.setValue(pass, slot, QVariant::fromValue(uploaded->all()), error);
    });
    _slotModels[{pass, fullName}] = uploaded;
}

QStringList PipelineObject::operations(const QString &pass)
{
    return ask([&](Pipeline &p) {
        QStringList names;
        const QVector<PassOperation> operations = passFactory().operations(p.className(pass));
        for (const PassOperation &operation : operations)
            names << operation.name;
        return names;
    });
}

void PipelineObject::call(const QString &pass, const QString &name, const QStringList &texts)
{
    attempt([&](Pipeline &p, QString *error) {
        RenderPass *const target = p.pass(pass);
        if (!target) {
            *error = QStringLiteral("there is no pass '%1'%2").arg(pass, nearestNameHint(pass, p.passNames()));
            return false;
        }
        const QString className = p.className(pass);
        QStringList names;
        const QVector<PassOperation> operations = passFactory().operations(className);
        for (const PassOperation &operation : operations)
            names << operation.name;
        const qsizetype index = names.indexOf(name);
        if (index < 0) {
            *error = QStringLiteral("%1 has no operation '%2'%3").arg(className, name, nearestNameHint(name, names));
            return false;
        }
        const QStringList &types = operations[index].argumentTypes;
        if (texts.size() != types.size()) {
            *error = QStringLiteral("%1 takes (%2), not %3 argument(s)")
                         .arg(name, types.join(QLatin1StringView(", ")), QString::number(texts.size()));
            return false;
        }
        QVariantList arguments;
        for (qsizetype i = 0; i < types.size(); ++i) {
            QVariant value;
            // An argument reads like a slot of its type.
            if (!parseSlotValue(QStringLiteral("Kvo_%1_%2").arg(types[i]).arg(i + 1), texts[i], &value, error))
                return false;
            arguments << value;
        }
        return operations[index].call(*target, arguments);
    });
}

PipelineObject::Output PipelineObject::take(const QString &pass, const QString &slot)
{
    QString error;
    Output output;
    QString fullName;
    if (!pipeline().outputSlot(pass, slot, &fullName, &error))
        throw Error(error);
    output.value = pipeline().output(pass, slot, &error);
    const ShadowMapRenderData *const shadows = ShadowMapRenderData::fromVariant(output.value);
    Texture *const texture = textureFromVariant(output.value);
    if (!shadows && !texture) {
        if (slotTypesMatch(fullName, QStringLiteral("Kvo_KvoTexture*_Any")) && fullName.contains(QLatin1Char('*')))
            throw Error(QStringLiteral("'%1.%2' has no texture").arg(pass, slot));
        return output;
    }
    TexturePixels pixels;
    const bool isRead = shadows ? readShadowMaps(shadows, &pixels, &error) : readTexture(texture, &pixels, &error);
    if (!isRead)
        throw Error(QStringLiteral("'%1.%2': %3").arg(pass, slot, error));
    output.pixels = std::move(pixels);
    return output;
}

py::object PipelineObject::objectOf(const Output &output)
{
    return output.pixels ? py::object(arrayOf(*output.pixels)) : KvoPython::objectOf(output.value);
}

py::object PipelineObject::output(const QString &pass, const QString &slot)
{
    const Output taken = inContext(*gpu(), [&] { return take(pass, slot); });
    return objectOf(taken);
}

py::dict PipelineObject::render(int width, int height, const std::shared_ptr<Model> &model, const py::object &object,
                                int frames, const std::vector<std::pair<QString, QString>> &outputs, bool picture,
                                const py::object &into, const py::object &onPass)
{
    if (width < 1 || height < 1)
        throw py::value_error("a picture has at least one pixel");
    if (frames < 1)
        throw py::value_error("there is at least one frame");
    const View wanted = viewOf(object);
    py::array_t<std::uint8_t> image;
    unsigned char *pixels = nullptr;
    if (picture) {
        if (into.is_none()) {
            image = py::array_t<std::uint8_t>({height, width, 4});
        } else {
            if (!py::isinstance<py::array_t<std::uint8_t>>(into))
                throw py::type_error("out is an array of uint8");
            image = py::reinterpret_borrow<py::array_t<std::uint8_t>>(into);
            if (image.ndim() != 3 || image.shape(0) != height || image.shape(1) != width || image.shape(2) != 4
                || !(image.flags() & py::array::c_style) || !image.writeable())
                throw py::value_error("out is a contiguous, writable array of shape (" + std::to_string(height) + ", "
                                      + std::to_string(width) + ", 4)");
        }
        pixels = image.mutable_data();
    }

    std::vector<Output> taken(outputs.size());
    std::exception_ptr failure;
    inContext(*gpu(), [&] {
        Pipeline &p = pipeline();
        QString error;
        for (const auto &[pass, slot] : outputs) {
            QString fullName;
            if (!p.outputSlot(pass, slot, &fullName, &error))
                throw Error(error);
        }
        if (picture && !p.uses(QStringLiteral("screen")))
            throw Error(QStringLiteral("the pipeline makes no picture: none of its inputs is bound to @screen"));
        if (!_screen)
            _screen = std::make_unique<ScreenTarget>();
        if (_screen->size() != QSize(width, height) && !_screen->resize({width, height}, &error))
            throw Error(error);
        _model = model ? model->in(gpu()) : nullptr;
        if (!_model && p.uses(QStringLiteral("model")))
            throw Error(QStringLiteral("the pipeline draws a model: give one"));
        GPUModel *const all = _model ? _model->all() : nullptr;
        p.setModel(all, _model ? _model->opaque() : nullptr);
        const View view =
            settled(wanted, all ? all->sceneBounds() : GPUModel::BoundingBox(), float(width) / float(height));
        p.setCamera(view.camera_, view.projection, view.nearPlane, view.farPlane);
        p.setViewport(QRect(0, 0, width, height));
        p.setScreen(_screen->framebuffer());
        for (int frame = 0; frame < frames; ++frame) {
            const bool isLast = frame == frames - 1;
            if (isLast && (!outputs.empty() || !onPass.is_none())) {
                p.setPassObserver([&](const QString &name, RenderPass *) {
                    if (failure)
                        return;
                    try {
                        for (std::size_t i = 0; i < outputs.size(); ++i)
                            if (outputs[i].first == name)
                                taken[i] = take(name, outputs[i].second);
                        if (!onPass.is_none()) {
                            const py::gil_scoped_acquire acquired;
                            onPass(py::cast(name));
                        }
                    } catch (...) {
                        failure = std::current_exception();
                    }
                });
            }
            _screen->clear();
            const bool isRendered = p.render(nullptr, &error);
            if (isLast)
                p.setPassObserver({});
            if (!isRendered)
                throw Error(error);
        }
        if (picture && !failure) {
            const AutoBinder bound(_screen->framebuffer());
            glReadBuffer(GL_COLOR_ATTACHMENT0);
            // Some drivers turn the rows on their way.
            const bool canTurn = epoxy_has_gl_extension("GL_MESA_pack_invert");
            if (canTurn)
                glPixelStorei(GL_PACK_INVERT_MESA, GL_TRUE);
            glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
            if (canTurn)
                glPixelStorei(GL_PACK_INVERT_MESA, GL_FALSE);
            else
                turnRows(pixels, width, height);
        }
    });
    if (failure)
        std::rethrow_exception(failure);

    py::dict result;
    if (picture)
        result["image"] = image;
    for (std::size_t i = 0; i < outputs.size(); ++i)
        result[py::cast(outputs[i].first + QLatin1Char('.') + outputs[i].second)] = objectOf(taken[i]);
    return result;
}

namespace {

// What a pass says of a slot, which may be nothing.
py::dict described(const SlotInfo *info)
{
    py::dict entry;
    entry["meaning"] = info ? info->meaning : "";
    if (!info)
        return entry;
    entry["unit"] = info->unit;
    entry["format"] = info->format;
    entry["least"] = info->range.least;
    entry["most"] = info->range.most;
    py::list choices;
    for (const SlotChoice &choice : info->choices)
        choices.append(choice.name);
    entry["choices"] = choices;
    return entry;
}

RenderPassHelper *helperOf(Pipeline &pipeline, const QString &pass)
{
    return dynamic_cast<RenderPassHelper *>(pipeline.pass(pass));
}

py::list inputsOf(PipelineObject &self, const QString &pass)
{
    QVector<PassInput> inputs;
    std::vector<const SlotInfo *> infos; // of the class: they stay
    self.ask([&](Pipeline &p) {
        inputs = p.inputs(pass);
        const RenderPassHelper *const helper = helperOf(p, pass);
        for (int i = 0; i < int(inputs.size()); ++i)
            infos.push_back(helper ? helper->inputInfo(i) : nullptr);
    });
    py::list list;
    for (qsizetype i = 0; i < inputs.size(); ++i) {
        const PassInput &input = inputs[i];
        py::dict entry = described(infos[std::size_t(i)]);
        entry["slot"] = input.slot;
        const bool hasSource = input.kind == PassInput::Kind::Link || input.kind == PassInput::Kind::Host;
        entry["value"] = hasSource ? py::object(py::none()) : objectOf(input.value);
        entry["source"] =
            input.kind == PassInput::Kind::Link
                ? py::object(py::cast(input.sourcePass + QLatin1Char('.') + SlotName::parse(input.source).name))
            : input.kind == PassInput::Kind::Host ? py::object(py::cast(input.source))
                                                  : py::object(py::none());
        entry["is_default"] = input.kind == PassInput::Kind::Default;
        list.append(entry);
    }
    return list;
}

py::list outputsOf(PipelineObject &self, const QString &pass)
{
    QStringList names;
    std::vector<const SlotInfo *> infos;
    self.ask([&](Pipeline &p) {
        const RenderPass *const object = p.pass(pass);
        const RenderPassHelper *const helper = helperOf(p, pass);
        for (int i = 0; object && i < object->numOutputs(); ++i) {
            names << object->outputName(i);
            infos.push_back(helper ? helper->outputInfo(i) : nullptr);
        }
    });
    py::list list;
    for (qsizetype i = 0; i < names.size(); ++i) {
        py::dict entry = described(infos[std::size_t(i)]);
        entry["slot"] = names[i];
        list.append(entry);
    }
    return list;
}

const char *meaningOf(PipelineObject &self, const QString &pass)
{
    return self.ask([&](Pipeline &p) {
        const RenderPassHelper *const helper = helperOf(p, pass);
        const PassInfo *const info = helper ? helper->passInfo() : nullptr;
        return info ? info->meaning : "";
    });
}

void save(PipelineObject &self, const QString &path)
{
    QStringList errors;
    if (!self.ask([&](Pipeline &p) { return savePipeline(p, path, &errors); }))
        throw Error(errors.join(QLatin1Char('\n')));
}

py::list timingsOf(PipelineObject &self)
{
    const QVector<PassTiming> timings = self.ask([](Pipeline &p) { return p.timings(true); });
    py::list list;
    for (const PassTiming &timing : timings) {
        py::dict entry;
        entry["pass"] = timing.pass;
        entry["frames"] = timing.cpuSamples;
        entry["cpu_ms"] = timing.cpuMedian;
        entry["gpu_ms"] = timing.gpuSamples > 0 ? py::object(py::float_(timing.gpuMedian)) : py::object(py::none());
        list.append(entry);
    }
    return list;
}

std::vector<QString> listOf(const QStringList &texts)
{
    return {texts.begin(), texts.end()};
}

QStringList stringsOf(const std::vector<QString> &texts)
{
    return {texts.begin(), texts.end()};
}

void setLights(PipelineObject &self, const std::vector<QString> &texts)
{
    self.attempt([&](Pipeline &p, QString *error) {
        QVector<ShadowMapLight> lights(qsizetype(texts.size()));
        for (std::size_t i = 0; i < texts.size(); ++i)
            if (!parseLight(texts[i], &lights[qsizetype(i)], error))
                return false;
        return p.setHostValue(QStringLiteral("lights"), lightsToVariant(lights), error);
    });
}

void setClearColor(PipelineObject &self, const QString &pass, const std::optional<std::array<float, 4>> &color)
{
    self.attempt([&](Pipeline &p, QString *error) {
        const QColor clear = color ? QColor::fromRgbF((*color)[0], (*color)[1], (*color)[2], (*color)[3]) : QColor();
        return p.setClearColor(pass, clear, error);
    });
}

} // namespace

void bindPipeline(py::module_ &module)
{
    py::class_<TextureObject, std::shared_ptr<TextureObject>>(module, "Texture")
        .def(py::init<std::shared_ptr<Gpu>, py::object>())
        .def("set", &TextureObject::set)
        .def("read", &TextureObject::read);

    using Self = PipelineObject;
    py::class_<Self, std::shared_ptr<Self>>(module, "Pipeline")
        .def(py::init<std::shared_ptr<Gpu>>())
        .def("load", [](Self &self, const QString &name,
                        const std::vector<QString> &folders) { self.load(name, stringsOf(folders)); })
        .def("save", &save)
        .def("add",
             [](Self &self, const QString &name, const QString &className) {
                 self.attempt([&](Pipeline &p, QString *error) { return p.add(name, className, error); });
             })
        .def("insert",
             [](Self &self, const QString &name, const QString &className, const QString &to, const QString &toSlot,
                const QString &inputSlot, const QString &outputSlot) {
                 self.attempt([&](Pipeline &p, QString *error) {
                     auto pass = passFactory().make(className);
                     if (!pass) {
                         *error = QStringLiteral("there is no class '%1'%2")
                                      .arg(className, nearestNameHint(className, passFactory().classNames()));
                         return false;
                     }
                     return p.insert(name, std::move(pass), to, toSlot, inputSlot, outputSlot, error);
                 });
             })
        .def("replace",
             [](Self &self, const QString &name, const QString &className) {
                 self.attempt([&](Pipeline &p, QString *error) {
                     auto pass = passFactory().make(className);
                     if (!pass) {
                         *error = QStringLiteral("there is no class '%1'%2")
                                      .arg(className, nearestNameHint(className, passFactory().classNames()));
                         return false;
                     }
                     return p.replace(name, std::move(pass), error);
                 });
             })
        .def("remove",
             [](Self &self, const QString &name) {
                 self.attempt([&](Pipeline &p, QString *error) { return p.remove(name, error); });
             })
        .def("rename",
             [](Self &self, const QString &name, const QString &to) {
                 self.attempt([&](Pipeline &p, QString *error) { return p.rename(name, to, error); });
             })
        .def("connect",
             [](Self &self, const QString &from, const QString &to) {
                 self.attempt([&](Pipeline &p, QString *error) { return p.connect(from, to, error); });
             })
        .def("bind",
             [](Self &self, const QString &pass, const QString &slot, const QString &hostValue) {
                 self.attempt([&](Pipeline &p, QString *error) { return p.bind(pass, slot, hostValue, error); });
             })
        .def("bind_standard", [](Self &self) { return self.ask([](Pipeline &p) { return p.bindStandard(); }); })
        .def("set_text",
             [](Self &self, const QString &pass, const QString &slot, const QString &text) {
                 self.attempt([&](Pipeline &p, QString *error) { return p.setValueText(pass, slot, text, error); });
             })
        .def("set_texture", &Self::setTexture)
        .def("set_model", &Self::setSlotModel)
        .def("set_path",
             [](Self &self, const QString &name, const QString &path) {
                 self.attempt([&](Pipeline &p, QString *error) {
                     return p.setHostValue(QStringLiteral("paths.") + name, path, error);
                 });
             })
        .def("set_lights", &setLights)
        .def("set_clear_color", &setClearColor)
        .def("reset",
             [](Self &self, const QString &pass, const QString &slot) {
                 self.attempt([&](Pipeline &p, QString *error) { return p.reset(pass, slot, error); });
             })
        .def("call", [](Self &self, const QString &pass, const QString &name,
                        const std::vector<QString> &arguments) { self.call(pass, name, stringsOf(arguments)); })
        .def("operations", [](Self &self, const QString &pass) { return listOf(self.operations(pass)); })
        .def("inputs", &inputsOf)
        .def("outputs", &outputsOf)
        .def("meaning", &meaningOf)
        .def("class_name",
             [](Self &self, const QString &pass) { return self.ask([&](Pipeline &p) { return p.className(pass); }); })
        .def("pass_names", [](Self &self) { return listOf(self.ask([](Pipeline &p) { return p.passNames(); })); })
        .def("order", [](Self &self) { return listOf(self.ask([](Pipeline &p) { return p.order(); })); })
        .def("warnings", [](Self &self) { return listOf(self.ask([](Pipeline &p) { return p.warnings(); })); })
        .def("faults", [](Self &self) { return listOf(self.ask([](Pipeline &p) { return p.faults(); })); })
        .def("uses",
             [](Self &self, const QString &name) { return self.ask([&](Pipeline &p) { return p.uses(name); }); })
        .def("graph", [](Self &self) { return self.ask([](Pipeline &p) { return pipelineGraph(p); }); })
        .def("set_timing",
             [](Self &self, bool enabled) { self.ask([&](Pipeline &p) { p.setTimingEnabled(enabled); }); })
        .def("timings", &timingsOf)
        .def("output", &Self::output)
        .def("render", &Self::render, py::arg("width"), py::arg("height"), py::arg("model"), py::arg("view"),
             py::arg("frames"), py::arg("outputs"), py::arg("picture"), py::arg("out"), py::arg("on_pass"));

    module.def("camera_view", [](const QString &text, const py::object &bounds, float aspect) {
        const auto corners = floats(bounds, {2, 3}, "bounds");
        const float *const c = corners.data();
        const View view =
            settled({text, false, {}, {}, 0, 0}, {QVector3D(c[0], c[1], c[2]), QVector3D(c[3], c[4], c[5])}, aspect);
        return py::make_tuple(arrayOf(view.camera_), arrayOf(view.projection), view.nearPlane, view.farPlane);
    });
}

} // namespace KvoPython
