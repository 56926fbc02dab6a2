#include "host/isolatedimport.h"

using namespace Brevane::Kvo;

void load(const QString &path)
{
    // BLOCK
}
