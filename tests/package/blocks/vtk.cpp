// needs kvo-vtk
#include <vtkNew.h>
#include <vtkRenderer.h>

#include <iostream>

using namespace Brevane::Kvo;

void use(vtkRenderer *renderer)
{
    // BLOCK
}
