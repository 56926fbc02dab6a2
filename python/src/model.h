#pragma once

#include "gpu.h"

#include "model/gpumodel.h"

#include <map>
#include <tuple>

namespace KvoPython {

/// A model as a GPU has it.
class UploadedModel : public Resource
{
public:
    UploadedModel(std::shared_ptr<Gpu> gpu, const Brevane::Kvo::ModelData &data, QStringList *warnings);
    ~UploadedModel() override { end(); }

    Brevane::Kvo::GPUModel *all() const { return _all.get(); }
    Brevane::Kvo::GPUModel *opaque() const { return _opaque.get(); }

protected:
    void free() override;

private:
    std::unique_ptr<Brevane::Kvo::GPUModel> _all;
    std::unique_ptr<Brevane::Kvo::GPUModel> _opaque;
};

/// A model: plain data, and what contexts have of it.
class Model
{
public:
    Model() = default;
    static std::shared_ptr<Model> load(const QString &path, bool images, float creaseAngle, bool isolated);

    int addMesh(const py::object &vertices, const py::object &indices, const py::object &normals, const py::object &uvs,
                const QString &name);
    int addMaterial(const QString &name, const py::object &diffuse, const py::object &specular, float shininess,
                    float opacity, const py::object &diffuseMap, const py::object &specularMap);
    /// Gives a material its surface in physical terms. \a values: what is not the default, by the names that Python has.
    void setSurface(int material, const py::dict &values);
    int addItem(int mesh, int material, const py::object &transform, quint64 flags);
    void setOpacity(float opacity, const QString &material);
    void scale(float factor);
    void fit(float side);
    void addFloor();

    Brevane::Kvo::GPUModel::BoundingBox bounds() const;
    qint64 triangles() const;
    QStringList materials() const;
    /// Of meshes, materials and items.
    std::tuple<int, int, int> counts() const;

    /// Uploaded where it is not yet. In the context, which is current.
    std::shared_ptr<UploadedModel> in(const std::shared_ptr<Gpu> &gpu);

private:
    void changed() { _uploaded.clear(); }

    Brevane::Kvo::ModelData _data;
    std::map<std::weak_ptr<Gpu>, std::shared_ptr<UploadedModel>, std::owner_less<>> _uploaded;
};

void bindModel(py::module_ &module);

} // namespace KvoPython
