#include "model/gpumodel.h"

using namespace Brevane::Kvo;

void load(const QString &path)
{
    // BLOCK
}
