#include "model/gpumodel.h"

#include <QDebug>
#include <QVector3D>

using namespace Brevane::Kvo;

struct Atom
{
    QVector3D center;
    QVector3D color;
};

void show(GPUModel &model, const ModelMesh &sphere, const QVector<Atom> &atoms)
{
    // BLOCK
}
