#include "gl/glslmacroprocessor.h"

#include "core/hostcode.h"
#include "model/instancedataplan.h"
#include "model/instancedataregistry.h"

#include <QFile>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>

// Programs with static libraries have only those resources that somebody asks for. The macro wants no namespace.
static void initResources()
{
    Q_INIT_RESOURCE(kvo_shaders);
}

namespace Brevane::Kvo {

namespace {

constexpr char16_t kLibraryPath[] = u":/Media/Shaders";
constexpr char16_t kInstanceDataHeader[] = u"InstanceData.glslh";
constexpr int kMaxIncludeDepth = 32;
constexpr int kMaxIncludes = 1000; // files that include each other twice in conditions multiply

const QRegularExpression kVersionLine(QStringLiteral("^\\s*#\\s*version\\s+(\\d+)"));

QString fileInPaths(const QStringList &paths, const QString &fileName, bool *found)
{
    [[maybe_unused]] static const bool areThere = (initResources(), true);
    QStringList places = paths;
    places.append(QString::fromUtf16(kLibraryPath));
    for (const QString &path : std::as_const(places)) {
        QFile file(path + u'/' + fileName);
        if (!file.open(QIODevice::ReadOnly))
            continue;
        *found = true;
        return QString::fromUtf8(file.readAll());
    }
    *found = false;
    return {};
}

/// Resolves the directives of one source, file by file.
class Expansion
{
public:
    Expansion(const QStringList &paths, ProcessedSource &result) : _paths(paths), _result(result) {}

    QString expand(const QString &text, int file, int depth)
    {
        static const QRegularExpression directive(
            QStringLiteral("^\\s*#\\s*(include|instancedata)\\b\\s*(?:[\"<]([^\">]*)[\">])?"));
        const int outerConditions = _conditions;
        QString out;
        const QStringList lines = text.split(u'\n');
        for (qsizetype i = 0; i < lines.size(); ++i) {
            const QString &line = lines[i];
            const bool startsInComment = _inComment;
            followComments(line);
            const bool isLast = i + 1 == lines.size();
            // Most lines are neither: the patterns need not look at them.
            if (!startsInComment && line.contains(u'#')) {
                if (const auto m = kVersionLine.match(line); m.hasMatch()) {
                    if (file != 0)
                        _result.errors.append(
                            QStringLiteral("\"%1\" has a #version line; only the including source may")
                                .arg(_result.fileNames[file]));
                    // Replaced by an empty line: the version stands at the top of the whole text.
                    out += u'\n';
                    continue;
                }
                followConditions(line);
                if (const auto m = directive.match(line); m.hasMatch()) {
                    const QString target = m.captured(2);
                    out += m.captured(1) == QLatin1String("include") ? include(target, depth)
                                                                     : instanceData(target, depth);
                    out += lineDirective(int(i) + 2, file);
                    continue;
                }
            }
            out += line;
            if (!isLast)
                out += u'\n';
        }
        _conditions = outerConditions;
        return out;
    }

    // Before GLSL 3.30 the number given is the line of the directive itself, from then on that of the
    // next line.
    QString lineDirective(int nextLine, int file) const
    {
        const int line = file * GLSLMacroProcessor::kLinesPerFile + nextLine;
        return QStringLiteral("#line %1 %2\n").arg(_version < 330 ? line - 1 : line).arg(file);
    }

    int version() const { return _version; }

    // The version decides how #line counts, so it is looked up before anything is expanded. Gives its
    // line without the line end, with whatever stands behind the number (core, compatibility).
    QString findVersion(const QString &text)
    {
        QString found;
        for (const QString &line : text.split(u'\n')) {
            const bool startsInComment = _inComment;
            followComments(line);
            const auto match = kVersionLine.match(line);
            if (startsInComment || !match.hasMatch())
                continue;
            _version = match.captured(1).toInt();
            found = line.trimmed();
            break;
        }
        _inComment = false;
        return found;
    }

private:
    void followComments(const QString &line)
    {
        if (!_inComment && !line.contains(u'/'))
            return;
        for (qsizetype i = 0; i < line.size(); ++i) {
            const QStringView here = QStringView(line).mid(i, 2);
            if (_inComment) {
                if (here == QLatin1String("*/")) {
                    _inComment = false;
                    ++i;
                }
            } else if (here == QLatin1String("//")) {
                return;
            } else if (here == QLatin1String("/*")) {
                _inComment = true;
                ++i;
            }
        }
    }

    void followConditions(const QString &line)
    {
        static const QRegularExpression condition(QStringLiteral("^\\s*#\\s*(if|ifdef|ifndef|endif)\\b"));
        if (const auto m = condition.match(line); m.hasMatch())
            _conditions += m.captured(1) == QLatin1String("endif") ? -1 : 1;
    }

    // In a condition it is for the compiler to see whether the line counts.
    QString error(const QString &message)
    {
        if (_conditions <= 0)
            _result.errors.append(message);
        return QStringLiteral("#error %1\n").arg(message);
    }

    QString include(const QString &target, int depth)
    {
        if (target.isEmpty())
            return error(QStringLiteral("#include needs a file name in quotes"));
        if (_includedForSure.contains(target) || _open.contains(target))
            return {};
        if (++_includes > kMaxIncludes)
            return error(QStringLiteral("there are more than %1 includes").arg(kMaxIncludes));
        if (depth >= kMaxIncludeDepth)
            return error(
                QStringLiteral("includes are nested more than %1 deep at \"%2\"").arg(kMaxIncludeDepth).arg(target));
        bool found = false;
        const QString text = fileInPaths(_paths, target, &found);
        if (!found)
            return error(QStringLiteral("include file \"%1\" was not found").arg(target));
        _result.usesInstanceData = _result.usesInstanceData || target == QString::fromUtf16(kInstanceDataHeader);
        const bool isForSure = _conditions <= 0;
        if (isForSure)
            _includedForSure.insert(target);
        _open.append(target);
        const QString expanded = nested(target, text, depth);
        _open.removeLast();
        // Which of several branches counts is for the compiler to see, and so is what came before.
        const int number = fileNumber(target, text);
        return QStringLiteral("#ifndef KVO_INCLUDED_%1\n#define KVO_INCLUDED_%1 1\n").arg(number) + expanded
               + QStringLiteral("#endif\n");
    }

    QString instanceData(const QString &target, int depth)
    {
        InstanceDataRegistry &registry = InstanceDataRegistry::Instance();
        if (!registry.hasPlan(target))
            return error(QStringLiteral("instance data plan \"%1\" does not exist, there are: %2")
                             .arg(target, registry.planNames().join(QLatin1String(", "))));
        _result.usesInstanceData = true;
        return nested(QStringLiteral("instancedata %1").arg(target), registry.getPlan(target)->glslh(), depth);
    }

    QString nested(const QString &fileName, const QString &text, int depth)
    {
        const int file = fileNumber(fileName, text);
        const bool outerComment = std::exchange(_inComment, false);
        QString expanded = lineDirective(1, file) + expand(text, file, depth + 1);
        _inComment = outerComment;
        if (!expanded.endsWith(u'\n'))
            expanded += u'\n';
        return expanded;
    }

    // The number that #line directives give a file.
    int fileNumber(const QString &fileName, const QString &text)
    {
        const qsizetype known = _result.fileNames.indexOf(fileName, 1);
        if (known > 0)
            return int(known);
        _result.fileNames.append(fileName);
        _result.originals.append(text);
        return int(_result.fileNames.size()) - 1;
    }

    const QStringList &_paths;
    ProcessedSource &_result;
    QSet<QString> _includedForSure; // outside of all conditions
    QStringList _open; // files that the current one is included by, and itself
    int _includes = 0;
    int _conditions = 0; // that the current line stands in
    bool _inComment = false;
    int _version = 150;
};

} // namespace

GLSLMacroProcessor::GLSLMacroProcessor() = default;
GLSLMacroProcessor::~GLSLMacroProcessor() = default;

void GLSLMacroProcessor::addDefine(const QString &name, const QString &value)
{
    if (name.isEmpty()) {
        const HostCode hostCode;
        qWarning("GLSLMacroProcessor::addDefine: a definition without a name is left out");
        return;
    }
    const auto old = std::find_if(_defines.begin(), _defines.end(), [&](const auto &d) { return d.first == name; });
    if (old != _defines.end())
        old->second = value;
    else
        _defines.append({name, value});
}

void GLSLMacroProcessor::addIncludePath(const QString &path)
{
    if (!_includePaths.contains(path))
        _includePaths.append(path);
}

ProcessedSource GLSLMacroProcessor::process(const QString &source, const QString &name,
                                            const QVector<QPair<QString, QString>> &extraDefines) const
{
    ProcessedSource result;
    result.fileNames.append(name);
    result.originals.append(source);

    Expansion expansion(_includePaths, result);
    const QString version = expansion.findVersion(source);
    QString text = version.isEmpty() ? QStringLiteral("#version 150") : version;
    text += u'\n';
    for (const auto &[define, value] : _defines)
        text += QStringLiteral("#define %1 %2\n").arg(define, value);
    for (const auto &[define, value] : extraDefines)
        text += QStringLiteral("#define %1 %2\n").arg(define, value);
    result.definesEnd = text.size();
    text += expansion.lineDirective(1, 0);
    text += expansion.expand(source, 0, 0);
    result.text = text;
    result.version = expansion.version();
    return result;
}

QString GLSLMacroProcessor::readFile(const QString &fileName, bool *found) const
{
    return fileInPaths(_includePaths, fileName, found);
}

} // namespace Brevane::Kvo
