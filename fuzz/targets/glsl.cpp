#include "fuzz/targets.h"

#include <gl/glslmacroprocessor.h>
#include <gl/shadermessages.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

// A shader text with the library's files to include, and with one that is the text itself: what includes itself.

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

void Fuzz::glsl(const QByteArray &bytes)
{
    static const QTemporaryDir folder;
    const QString text = QString::fromUtf8(bytes);
    QFile self(folder.filePath(u"self"_s));
    if (self.open(QIODevice::WriteOnly))
        self.write(bytes);
    self.close();
    GLSLMacroProcessor processor;
    processor.addIncludePath(folder.path());
    processor.addDefine(u"DEFINED"_s, u"1"_s);
    const ProcessedSource source = processor.process(text, u"fuzz"_s, {{u"MORE"_s, QString()}});
    promise(source.fileNames.size() == source.originals.size(), "each name has its text");
    promise(!source.fileNames.isEmpty() && source.originals[0] == text, "the first text is the source");
    promise(source.definesEnd >= 0 && source.definesEnd <= source.text.size(), "the defines end within the text");
}
