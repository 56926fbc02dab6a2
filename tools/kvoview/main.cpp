#include "gl/shaderprogram.h"
#include "host/viewportwidget.h"
#include "messages.h"
#include "viewoptions.h"
#include "window.h"

#include <QApplication>

#include <algorithm>
#include <cstring>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

constexpr const char *kTextOptions[] = {"-h", "--help", "-v", "--version", "--texts"};

// What to read needs no display.
bool asksForText(int argc, char **argv)
{
    return std::any_of(argv + 1, argv + argc, [](const char *argument) {
        return std::any_of(std::begin(kTextOptions), std::end(kTextOptions),
                           [argument](const char *option) { return std::strcmp(argument, option) == 0; });
    });
}

} // namespace

int main(int argc, char **argv)
{
    if (asksForText(argc, argv)) {
        const QCoreApplication application(argc, argv);
        startMessages(u"kvoview"_s);
        ViewOptions options;
        return options.read(QCoreApplication::arguments()).value_or(kUsage);
    }
    ViewportWidget::setDefaultFormat();
    const QApplication application(argc, argv);
    startMessages(u"kvoview"_s);
    QCoreApplication::setOrganizationName(u"kvo"_s);
    ShaderProgram::setFailureHandler([](const ShaderFailure &failure) {
        complain(u"shader program '%1' failed:\n%2"_s.arg(failure.label, failure.log));
    });

    ViewOptions options;
    if (const std::optional<ExitCode> end = options.read(QCoreApplication::arguments()))
        return *end;
    // A run of some frames is for tests and scripts: nothing of it stays.
    const bool isForHands = options.frames == 0;
    Window window(options, isForHands);
    // A window for hands stays, and says what is wrong.
    if (!window.openPipeline(options.pipelines.nameFor(options.model)) && !isForHands)
        return kFailure;
    window.run(options.frames);
    if (!options.model.isEmpty())
        window.openModel(options.model);
    QApplication::exec();
    if (!options.grab.isEmpty() && !window.grab(options.grab)) {
        complain(u"cannot write '%1'"_s.arg(options.grab));
        return kFailure;
    }
    return window.hasFailed() && !isForHands ? kFailure : kSuccess;
}
