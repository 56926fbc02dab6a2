#pragma once

#include "gl/bindable.h"
#include "gl/export.h"

#include <QObject>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <concepts>
#include <functional>
#include <memory>

class QMatrix4x4;

namespace Brevane::Kvo {

class GLSLMacroProcessor;
class ShaderProgramPrivate;

/// What a program tells the process-wide handler about a failed compile or link.
struct ShaderFailure
{
    QString label; ///< The program's label, by default empty.
    QString log; ///< As ShaderProgram::log().
    bool whileLinking = false; ///< False for a stage that did not compile.
};

/// A GL program, built from sources.
///
/// Call order: setMacroProcessor where wanted; setFragDataLocations, addShader and addShaderFromFile;
/// compile; link; then bind and setUniform. Every source of a stage is a shader object of its own, so
/// a function that no source defines is a link error that names it. Where one does not compile by itself, since it needs
/// a macro or a variable of a source before it, those of its stage are joined in the order of the calls. Programs agree on the locations of
/// attributes with the same name, for the first 16 names that vertex arrays of the process had before the
/// program was linked; on others the vertex array finds a way, see VertexArrayObject.
///
/// A program that failed stays harmless: bind makes no program current and returns false.
class KVO_GL_EXPORT ShaderProgram : public QObject, public Bindable
{
public:
    /// Without stages; GL makes it when they are linked.
    explicit ShaderProgram(QObject *parent = nullptr);
    ~ShaderProgram() override;

    bool bind() override;
    bool unbind() override;

    /// Compiles all stages. False on failure, see log().
    virtual bool compile();
    /// First half of link: hands the shaders to the driver without waiting.
    virtual bool linkPre();
    /// Waits for the driver where it links in the background.
    virtual bool linkPreWait();
    /// Second half of link: asks for the result and reads the uniforms.
    virtual bool linkPost();
    /// Links; the three steps above in a row.
    virtual bool link();
    /// Asks the driver whether the program can run in the current GL state.
    virtual bool validate();

    /// The processor filters the text of every stage when it is compiled; the caller keeps it, for as
    /// long as the program may compile. Without one a default processor resolves includes from the
    /// shader library.
    void setMacroProcessor(GLSLMacroProcessor *processor);
    /// Adds a source to a stage (GL_VERTEX_SHADER …). \a name shows in log(); it may be empty.
    void addShader(int stage, const QString &source, const QString &name);
    /// The same without a name.
    void addShader(int stage, const QString &source) { addShader(stage, source, QString()); }
    /// Adds a file of the shader library, or of the processor's include paths, to a stage.
    void addShaderFromFile(int stage, const QString &fileName);
    /// The index in the list is the colour number of that fragment output.
    void setFragDataLocations(const QStringList &names);

    /// Lets this program use the GL program of another one that is built from the same texts and may
    /// share too, which makes building it again cheap. The two then have their uniforms in common: only
    /// for programs whose uniforms are all set before each draw. Call it before compile; off at first.
    void setMayShare(bool mayShare);

    /// Compiles and links anew if managed textures have come to lie in pages that the program, which is
    /// not bound, was not built to sample: programs that may share are built for the pages that are in use,
    /// since sampling is what most of a surface costs. True when it did.
    bool refresh();

    /// Keeps a failure of this program from the process-wide failure handler, for owners who try a text
    /// that a driver may refuse and have another one ready. Call it before compile; off at first.
    void setMayFail(bool mayFail);

    /// What compiler and linker said: stage, source name and line, and the numbered source of what
    /// failed. Empty when all went well and the driver had nothing to say.
    QString log() const;

    /// Sets a uniform of the bound program: int, uint, float, double, bool, QPoint, QRect (x, y,
    /// width, height), QSize, QVector2D, QVector3D, QVector4D, QMatrix4x4, QColor (vec4, 0 to 1). The
    /// value is converted to what the program declares (a double for a float, an int for a bool …).
    /// A name that the program lacks is ignored. False when nothing was set.
    bool setUniform(const QString &name, const QVariant &value);
    /// The same for a number, without the cost of a variant.
    bool setUniform(const QString &name, std::integral auto value) { return _setNumber(name, double(value)); }
    /// The same for a number with a fraction.
    bool setUniform(const QString &name, std::floating_point auto value) { return _setNumber(name, double(value)); }
    /// The same for a matrix, without the cost of a variant.
    bool setUniform(const QString &name, const QMatrix4x4 &value);
    /// Sets a float array, from its first element on.
    bool setUniform(const QString &name, const QVector<float> &values);
    /// Whether the linked program has an active uniform of that name.
    bool hasUniform(const QString &name) const;
    /// Location for direct glUniform calls, also of array elements ("name[2]"); -1 when absent.
    int getUniformLocation(const QString &name) const;
    /// Location of an active vertex attribute; -1 when absent.
    int attributeLocation(const QString &name) const;

    /// The GL name; 0 before compile.
    unsigned int programID() const;
    /// Whether there is something to draw with.
    bool isLinked() const;

    /// Names the program in debuggers (KHR_debug) and in messages.
    void setLabel(const QString &label);
    /// See setLabel.
    QString label() const;

    /// Installs a handler that receives every failed compile and link of the process, for developers
    /// of shaders: passes do not look at the results. An empty function removes it.
    static void setFailureHandler(std::function<void(const ShaderFailure &)> handler);

private:
    bool _setNumber(const QString &name, double value);
    bool _setValues(const QString &name, const double *values, int count);

    friend class ShaderProgramPrivate;
    friend class VertexArrayObject;
    Q_DISABLE_COPY(ShaderProgram)

    std::unique_ptr<ShaderProgramPrivate> d;
};

} // namespace Brevane::Kvo
