#include "host/environmentpass.h"
#include "host/imageinput.h"

// Whoever has models to light also has pictures to light them with.

namespace Brevane::Kvo {

namespace {

QImage readEnvironment(const QString &path, QString *error)
{
    return readImage(path, error);
}

[[maybe_unused]] const bool kIsSet = (EnvironmentPass::setImageReader(readEnvironment), true);

} // namespace

} // namespace Brevane::Kvo

// The name by which programs with static libraries ask for this file.
extern "C" const char kvo_environment_images = 0;
