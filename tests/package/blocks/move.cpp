#include "model/gpumodel.h"
#include "model/instancedatacollection.h"
#include "model/instancedataplan.h"

#include <algorithm>

using namespace Brevane::Kvo;

void move(GPUModel &model, int item, const QMatrix4x4 &place, QVector3D kd)
{
    // BLOCK
}
