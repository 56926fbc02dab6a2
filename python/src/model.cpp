#include "model.h"

#include "arrays.h"

#include "convert.h"

#include "host/isolatedimport.h"
#include "host/sceneimport.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

using namespace Brevane::Kvo;

namespace KvoPython {

namespace {

QVector3D colorOf(const py::object &object, const char *what)
{
    const auto three = floats(object, {3}, what);
    return QVector3D(three.data()[0], three.data()[1], three.data()[2]);
}

/// A number of a surface, and from where to where it makes sense.
struct SurfaceNumber
{
    const char *name;
    float ModelSurface::*member;
    float least;
    float most;
};

constexpr float kAny = std::numeric_limits<float>::max();
constexpr SurfaceNumber kSurfaceNumbers[] = {
    {"metalness", &ModelSurface::metalness, 0.0f, 1.0f},
    {"roughness", &ModelSurface::roughness, 0.0f, 1.0f},
    {"normal_scale", &ModelSurface::normalScale, -kAny, kAny},
    {"occlusion_strength", &ModelSurface::occlusionStrength, 0.0f, 1.0f},
    {"alpha_cutoff", &ModelSurface::alphaCutoff, 0.0f, kAny},
};
constexpr std::pair<const char *, QVector3D ModelSurface::*> kSurfaceColors[] = {
    {"base_color", &ModelSurface::baseColor}, {"emission", &ModelSurface::emission}};
constexpr std::pair<const char *, QImage ModelSurface::*> kSurfaceMaps[] = {
    {"base_color_map", &ModelSurface::map_baseColor}, {"metal_roughness_map", &ModelSurface::map_metalRoughness},
    {"normal_map", &ModelSurface::map_normal},        {"occlusion_map", &ModelSurface::map_occlusion},
    {"emission_map", &ModelSurface::map_emission},
};
constexpr std::pair<const char *, bool ModelSurface::*> kSurfaceSwitches[] = {{"two_sided", &ModelSurface::isTwoSided},
                                                                              {"unlit", &ModelSurface::isUnlit}};
constexpr std::pair<const char *, AlphaMode> kAlphaModes[] = {
    {"opaque", AlphaMode::Opaque}, {"mask", AlphaMode::Mask}, {"blend", AlphaMode::Blend}};

void readAlphaMode(ModelSurface *surface, const py::object &value)
{
    const auto mode = value.cast<std::string>();
    for (const auto &[name, alphaMode] : kAlphaModes) {
        if (mode == name) {
            surface->alphaMode = alphaMode;
            return;
        }
    }
    throw py::value_error("alpha_mode is 'opaque', 'mask' or 'blend', not '" + mode + "'");
}

void readSurfaceValue(ModelSurface *surface, const char *name, const py::object &value)
{
    const auto isIt = [name](const char *candidate) { return std::strcmp(candidate, name) == 0; };
    for (const SurfaceNumber &number : kSurfaceNumbers) {
        if (!isIt(number.name))
            continue;
        const auto given = value.cast<float>();
        if (!(given >= number.least && given <= number.most))
            throw py::value_error(std::string(name)
                                  + (number.most == 1.0f ? " is from 0 to 1" : " is a number, and not below 0"));
        surface->*number.member = given;
        return;
    }
    for (const auto &[color, member] : kSurfaceColors) {
        if (isIt(color)) {
            surface->*member = colorOf(value, name);
            return;
        }
    }
    for (const auto &[map, member] : kSurfaceMaps) {
        if (isIt(map)) {
            surface->*member = imageOf(value, name);
            return;
        }
    }
    for (const auto &[flag, member] : kSurfaceSwitches) {
        if (isIt(flag)) {
            surface->*member = value.cast<bool>();
            return;
        }
    }
    if (!isIt("alpha_mode"))
        throw py::type_error(std::string("a surface has no '") + name + "'");
    readAlphaMode(surface, value);
}

} // namespace

UploadedModel::UploadedModel(std::shared_ptr<Gpu> gpu, const ModelData &data, QStringList *warnings)
    : Resource(std::move(gpu)), _all(std::make_unique<GPUModel>())
{
    bool isUploaded = _all->upload(data, warnings);
    const bool hasTransparent = std::any_of(data.items.begin(), data.items.end(), [&](const ModelItem &item) {
        return item.material >= 0 && item.material < data.materials.size() && data.materials[item.material].D < 1.0f;
    });
    if (isUploaded && hasTransparent) {
        _opaque = std::make_unique<GPUModel>();
        isUploaded = _opaque->upload(opaquePartOf(data));
    }
    if (!isUploaded) {
        end();
        throw Error(QStringLiteral("the model cannot be put on the GPU: %1").arg(warnings->join(QLatin1String("; "))));
    }
}

void UploadedModel::free()
{
    _all.reset();
    _opaque.reset();
}

std::shared_ptr<Model> Model::load(const QString &path, bool images, float creaseAngle, bool isolated)
{
    auto model = std::make_shared<Model>();
    ImportReport report;
    {
        const Turn turn;
        ImportOptions options;
        options.loadImages = images;
        options.creaseAngle = creaseAngle;
        model->_data = isolated ? importSceneIsolated(path, options, ImportLimits(), &report)
                                : importScene(path, options, &report);
    }
    raiseSaid();
    raiseWarnings(report.warnings);
    if (!report.ok())
        throw Error(report.error);
    return model;
}

int Model::addMesh(const py::object &vertices, const py::object &triangles, const py::object &normals,
                   const py::object &uvs, const QString &name)
{
    ModelMesh mesh;
    mesh.name = name;
    const auto positions = floats(vertices, {-1, 3}, "vertices");
    const py::ssize_t count = positions.shape(0);
    if (count > std::numeric_limits<int>::max())
        throw py::value_error("too many vertices");
    if (std::any_of(positions.data(), positions.data() + positions.size(), [](float x) { return !std::isfinite(x); }))
        throw py::value_error("vertices are not all finite");
    const auto fill = [](auto &to, const py::array_t<float> &from) {
        to.resize(qsizetype(from.shape(0)));
        if (from.size() > 0)
            std::memcpy(static_cast<void *>(to.data()), from.data(), std::size_t(from.nbytes()));
    };
    fill(mesh.positions, positions);
    if (!normals.is_none())
        fill(mesh.normals, floats(normals, {count, 3}, "normals"));
    if (!uvs.is_none())
        fill(mesh.texCoords, floats(uvs, {count, 2}, "uvs"));
    if (triangles.is_none()) {
        if (count % 3 != 0)
            throw py::value_error("without indices the vertices are triangles: a multiple of three");
        for (py::ssize_t i = 0; i < count; ++i)
            mesh.indices.append(quint32(i));
    } else {
        const auto given = indices(triangles, {-1, 3}, "indices");
        for (py::ssize_t i = 0; i < given.size(); ++i) {
            if (py::ssize_t(given.data()[i]) >= count)
                throw py::value_error("indices hold " + std::to_string(given.data()[i]) + ", but there are "
                                      + std::to_string(count) + " vertices");
            mesh.indices.append(given.data()[i]);
        }
    }
    const Turn turn;
    changed();
    _data.meshes.append(std::move(mesh));
    return int(_data.meshes.size()) - 1;
}

int Model::addMaterial(const QString &name, const py::object &diffuse, const py::object &specular, float shininess,
                       float opacity, const py::object &diffuseMap, const py::object &specularMap)
{
    ModelMaterial material;
    material.name = name;
    material.Kd = colorOf(diffuse, "diffuse");
    material.Ks = colorOf(specular, "specular");
    if (!(opacity >= 0.0f && opacity <= 1.0f))
        throw py::value_error("opacity is from 0 to 1");
    if (!(shininess >= 0.0f && std::isfinite(shininess)))
        throw py::value_error("shininess is 0 or more");
    material.Ns = shininess;
    material.D = opacity;
    material.map_Kd = imageOf(diffuseMap, "diffuse_map");
    material.map_Ks = imageOf(specularMap, "specular_map");
    const Turn turn;
    changed();
    _data.materials.append(std::move(material));
    return int(_data.materials.size()) - 1;
}

void Model::setSurface(int material, const py::dict &values)
{
    const int materials = std::get<1>(counts());
    if (material < 0 || material >= materials)
        throw py::index_error("there is no material " + std::to_string(material) + " among "
                              + std::to_string(materials));
    ModelSurface surface;
    for (const auto &[key, value] : values) {
        const auto name = key.cast<std::string>();
        readSurfaceValue(&surface, name.c_str(), py::reinterpret_borrow<py::object>(value));
    }
    const Turn turn;
    changed();
    _data.materials[material].surface = std::move(surface);
}

int Model::addItem(int mesh, int material, const py::object &transform, quint64 flags)
{
    const auto [meshes, materials, items] = counts();
    if (mesh < 0 || mesh >= meshes)
        throw py::index_error("there is no mesh " + std::to_string(mesh) + " among " + std::to_string(meshes));
    if (material < 0 || material >= materials)
        throw py::index_error("there is no material " + std::to_string(material) + " among "
                              + std::to_string(materials));
    ModelItem item;
    item.mesh = mesh;
    item.material = material;
    item.flags = flags;
    if (!transform.is_none())
        item.transform = matrixOf(transform, "transform");
    const Turn turn;
    changed();
    _data.items.append(item);
    return int(_data.items.size()) - 1;
}

void Model::setOpacity(float opacity, const QString &material)
{
    if (!(opacity >= 0.0f && opacity <= 1.0f))
        throw py::value_error("opacity is from 0 to 1");
    const Turn turn;
    QString error;
    if (!Brevane::Kvo::setOpacity(&_data, material, opacity, &error))
        throw Error(error);
    changed();
}

void Model::scale(float factor)
{
    if (!(factor > 0.0f && std::isfinite(factor)))
        throw py::value_error("a factor is above 0");
    const Turn turn;
    scaleModel(&_data, factor);
    changed();
}

void Model::fit(float side)
{
    float longest = 0.0f;
    {
        const Turn turn;
        longest = longestSideOf(_data);
    }
    if (longest > 0.0f)
        scale(side / longest);
}

void Model::addFloor()
{
    const Turn turn;
    Brevane::Kvo::addFloor(&_data);
    changed();
}

GPUModel::BoundingBox Model::bounds() const
{
    const Turn turn;
    return boxOf(_data);
}

qint64 Model::triangles() const
{
    const Turn turn;
    qint64 count = 0;
    for (const ModelItem &item : _data.items)
        count += _data.meshes.value(item.mesh).indices.size() / 3;
    return count;
}

QStringList Model::materials() const
{
    const Turn turn;
    QStringList names;
    for (const ModelMaterial &material : _data.materials)
        names << material.name;
    return names;
}

std::tuple<int, int, int> Model::counts() const
{
    const Turn turn;
    return {int(_data.meshes.size()), int(_data.materials.size()), int(_data.items.size())};
}

std::shared_ptr<UploadedModel> Model::in(const std::shared_ptr<Gpu> &gpu)
{
    std::erase_if(_uploaded, [](const auto &entry) { return entry.first.expired(); });
    std::shared_ptr<UploadedModel> &uploaded = _uploaded[gpu];
    if (!uploaded || !uploaded->all()) {
        QStringList warnings;
        uploaded = std::make_shared<UploadedModel>(gpu, _data, &warnings);
        for (const QString &warning : std::as_const(warnings))
            qWarning("%s", qPrintable(warning));
    }
    return uploaded;
}

void bindModel(py::module_ &module)
{
    py::class_<Model, std::shared_ptr<Model>>(module, "Model")
        .def(py::init<>())
        .def_static("load", &Model::load, py::arg("path"), py::arg("images"), py::arg("crease_angle"),
                    py::arg("isolated"))
        .def("add_mesh", &Model::addMesh, py::arg("vertices"), py::arg("indices"), py::arg("normals"), py::arg("uvs"),
             py::arg("name"))
        .def("add_material", &Model::addMaterial, py::arg("name"), py::arg("diffuse"), py::arg("specular"),
             py::arg("shininess"), py::arg("opacity"), py::arg("diffuse_map"), py::arg("specular_map"))
        .def("set_surface", &Model::setSurface, py::arg("material"), py::arg("values"))
        .def("add_item", &Model::addItem, py::arg("mesh"), py::arg("material"), py::arg("transform"), py::arg("flags"))
        .def("set_opacity", &Model::setOpacity, py::arg("opacity"), py::arg("material"))
        .def("scale", &Model::scale)
        .def("fit", &Model::fit)
        .def("add_floor", &Model::addFloor)
        .def("bounds",
             [](const Model &model) {
                 const auto box = model.bounds();
                 py::array_t<float> array({2, 3});
                 for (int i = 0; i < 3; ++i) {
                     array.mutable_at(0, i) = box.minimum[i];
                     array.mutable_at(1, i) = box.maximum[i];
                 }
                 return array;
             })
        .def("triangles", &Model::triangles)
        .def("materials",
             [](const Model &model) {
                 py::list names;
                 for (const QString &name : model.materials())
                     names.append(name);
                 return names;
             })
        .def("counts", &Model::counts);
}

} // namespace KvoPython
