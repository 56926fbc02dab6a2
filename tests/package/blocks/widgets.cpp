// needs kvo-widgets
#include "host/sceneimport.h"

#include <QApplication>
#include <QDebug>

using namespace Brevane::Kvo;

int main(int argc, char **argv)
{
    const QString path;
    // BLOCK
    return QApplication::exec();
}
