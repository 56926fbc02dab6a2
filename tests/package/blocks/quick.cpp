// needs kvo-quick
#include <QQuickWindow>

using namespace Brevane::Kvo;

int main()
{
    // BLOCK
}
