#pragma once

#include "gl/export.h"

#include <QPair>
#include <QString>
#include <QStringList>
#include <QVector>

namespace Brevane::Kvo {

/// The text of one shader source after processing.
struct ProcessedSource
{
    QString text; ///< What goes to the compiler.
    QStringList
        fileNames; ///< Names of the source strings that #line directives and messages use; 0 is the source itself.
    QVector<QString> originals; ///< The unprocessed text behind each of fileNames.
    QStringList errors; ///< What could not be resolved, outside of conditions; empty on success.
    bool usesInstanceData =
        false; ///< Whether an #instancedata line, or an include of InstanceData.glslh, was resolved.
    int version = 150; ///< Of GLSL.
    qsizetype definesEnd = 0; ///< Where in text the defines end: the place for more of them.
};

/// Prepares shader text: puts defines behind the #version line, resolves #include and #instancedata,
/// and keeps #line right, so that messages can be led back to the text as it was written.
///
/// - `#include "name"` is looked for in the include paths in the order they were added, then in
///   ":/Media/Shaders". A file is included once per source: the first time that the compiler comes to it, so
///   that each branch of a condition may include it. Nesting is bounded.
/// - `#instancedata "plan"` becomes the declarations of that plan of the InstanceDataRegistry.
/// - Both are left alone inside comments.
/// - A file or plan that does not exist becomes an #error line that names it; what stands in a branch that the
///   compiler skips is no error.
class KVO_GL_EXPORT GLSLMacroProcessor
{
public:
    /// In the lines that compilers name, those of source string n (see ProcessedSource::fileNames) begin behind n
    /// times this number: not all compilers tell source strings apart. ShaderProgram::log has names and lines.
    static constexpr int kLinesPerFile = 100000;

    GLSLMacroProcessor();
    ~GLSLMacroProcessor();

    /// Adds `#define name value` to every source; a name given again replaces the value, an empty one is left out
    /// with a message.
    void addDefine(const QString &name, const QString &value);
    /// Adds a directory for #include; Qt resource paths (":/…") work too.
    void addIncludePath(const QString &path);

    /// Processes one source. \a extraDefines go behind the processor's own.
    ProcessedSource process(const QString &source, const QString &name,
                            const QVector<QPair<QString, QString>> &extraDefines = {}) const;
    /// The text of a library file, searched like an include; sets \a found.
    QString readFile(const QString &fileName, bool *found) const;

private:
    QVector<QPair<QString, QString>> _defines;
    QStringList _includePaths;
};

} // namespace Brevane::Kvo
