#include <host/passfactory.h>
#include <host/pipeline.h>
#include <host/pipelinefile.h>
#include <host/pipelineschema.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

// The schema of pipeline files: it takes what loadPipeline takes, and refuses what that refuses by its form.

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

// As much of JSON Schema as ours uses; another keyword fails the test.
class Validator
{
public:
    explicit Validator(const QJsonObject &root) : _root(root) {}

    bool accepts(const QJsonValue &value) { return accepts(_root, value); }

private:
    QJsonObject resolved(QString reference) const
    {
        QJsonValue at = _root;
        reference.replace(u"%20"_s, u" "_s);
        for (const QString &step : reference.mid(2).split(u'/'))
            at = at.toObject().value(step);
        EXPECT_TRUE(at.isObject()) << qPrintable(reference) << " leads nowhere";
        return at.toObject();
    }

    static bool isOfType(const QString &type, const QJsonValue &value)
    {
        if (type == u"integer")
            return value.isDouble() && value.toDouble() == std::floor(value.toDouble());
        return type == u"object"    ? value.isObject()
               : type == u"array"   ? value.isArray()
               : type == u"string"  ? value.isString()
               : type == u"number"  ? value.isDouble()
               : type == u"boolean" ? value.isBool()
                                    : type == u"null" && value.isNull();
    }

    int countOf(const QJsonArray &schemas, const QJsonValue &value)
    {
        return int(std::count_if(schemas.begin(), schemas.end(),
                                 [&](const QJsonValue &schema) { return accepts(schema.toObject(), value); }));
    }

    bool acceptsMembers(const QJsonObject &schema, const QJsonObject &object)
    {
        const QJsonObject properties = schema[u"properties"_s].toObject();
        const QJsonObject patterns = schema[u"patternProperties"_s].toObject();
        for (const QString &key : object.keys()) {
            bool isKnown = properties.contains(key);
            if (isKnown && !accepts(properties[key].toObject(), object[key]))
                return false;
            for (const QString &pattern : patterns.keys()) {
                if (!QRegularExpression(pattern).match(key).hasMatch())
                    continue;
                isKnown = true;
                if (!accepts(patterns[pattern].toObject(), object[key]))
                    return false;
            }
            const QJsonValue more = schema[u"additionalProperties"_s];
            if (!isKnown && (more == QJsonValue(false) || (more.isObject() && !accepts(more.toObject(), object[key]))))
                return false;
        }
        for (const QJsonValue name : schema[u"required"_s].toArray())
            if (!object.contains(name.toString()))
                return false;
        return object.size() >= schema[u"minProperties"_s].toInt(0)
               && object.size() <= schema[u"maxProperties"_s].toInt(1000);
    }

    bool acceptsElements(const QJsonObject &schema, const QJsonArray &array)
    {
        const QJsonArray first = schema[u"prefixItems"_s].toArray();
        for (int i = 0; i < array.size(); ++i) {
            if (i < first.size() && !accepts(first[i].toObject(), array[i]))
                return false;
            if (i >= first.size() && schema.contains(u"items"_s) && !accepts(schema[u"items"_s].toObject(), array[i]))
                return false;
        }
        return array.size() >= schema[u"minItems"_s].toInt(0) && array.size() <= schema[u"maxItems"_s].toInt(1000000);
    }

    bool accepts(const QJsonObject &schema, const QJsonValue &value)
    {
        static const QStringList known{u"$schema"_s,  u"title"_s,    u"description"_s,   u"default"_s,
                                       u"$defs"_s,    u"$ref"_s,     u"type"_s,          u"enum"_s,
                                       u"const"_s,    u"pattern"_s,  u"properties"_s,    u"patternProperties"_s,
                                       u"required"_s, u"items"_s,    u"prefixItems"_s,   u"additionalProperties"_s,
                                       u"minItems"_s, u"maxItems"_s, u"minProperties"_s, u"maxProperties"_s,
                                       u"anyOf"_s,    u"oneOf"_s,    u"allOf"_s,         u"if"_s,
                                       u"then"_s};
        for (const QString &keyword : schema.keys())
            EXPECT_TRUE(known.contains(keyword)) << qPrintable(keyword);
        if (schema.contains(u"$ref"_s) && !accepts(resolved(schema[u"$ref"_s].toString()), value))
            return false;
        if (schema.contains(u"type"_s) && !isOfType(schema[u"type"_s].toString(), value))
            return false;
        if (schema.contains(u"enum"_s) && !schema[u"enum"_s].toArray().contains(value))
            return false;
        if (schema.contains(u"const"_s) && schema[u"const"_s] != value)
            return false;
        if (schema.contains(u"pattern"_s) && value.isString()
            && !QRegularExpression(schema[u"pattern"_s].toString()).match(value.toString()).hasMatch())
            return false;
        if (value.isObject() && !acceptsMembers(schema, value.toObject()))
            return false;
        if (value.isArray() && !acceptsElements(schema, value.toArray()))
            return false;
        if (schema.contains(u"anyOf"_s) && countOf(schema[u"anyOf"_s].toArray(), value) == 0)
            return false;
        if (schema.contains(u"oneOf"_s) && countOf(schema[u"oneOf"_s].toArray(), value) != 1)
            return false;
        const QJsonArray all = schema[u"allOf"_s].toArray();
        if (countOf(all, value) != all.size())
            return false;
        return !schema.contains(u"if"_s) || !accepts(schema[u"if"_s].toObject(), value)
               || accepts(schema[u"then"_s].toObject(), value);
    }

    const QJsonObject _root;
};

QJsonObject schema()
{
    static const QJsonObject result = QJsonDocument::fromJson(pipelineSchema()).object();
    return result;
}

QString fileOf(const QString &name)
{
    return u"" KVO_SOURCE_DIR "/pipelines/%1.json"_s.arg(name);
}

QByteArray textOf(const QString &path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(path);
    return file.readAll();
}

// Whether loader and schema agree about a file of one pass.
bool bothAccept(const QByteArray &pass)
{
    const QByteArray text = "{ \"passes\": [ " + pass + " ] }";
    Pipeline pipeline;
    QStringList errors;
    const bool isLoaded = loadPipelineText(text, u"test.json"_s, &pipeline, &errors);
    const QJsonDocument document = QJsonDocument::fromJson(text);
    EXPECT_TRUE(document.isObject()) << text.constData();
    EXPECT_EQ(Validator(schema()).accepts(document.object()), isLoaded) << text.constData() << "\n"
                                                                        << qPrintable(errors.join(u'\n'));
    return isLoaded;
}

} // namespace

TEST(PipelineSchema, TakesAllPipelinesOfTheTree)
{
    for (const PipelineFileInfo &info : listPipelines({u"" KVO_SOURCE_DIR "/pipelines"_s})) {
        const QJsonDocument document = QJsonDocument::fromJson(textOf(info.path));
        EXPECT_TRUE(document.isObject()) << qPrintable(info.path);
        EXPECT_TRUE(Validator(schema()).accepts(document.object())) << qPrintable(info.path);
    }
}

TEST(PipelineSchema, RefusesAFileWithAnyOfItsKeysMisspelt)
{
    const QByteArray text = textOf(fileOf(u"glow"_s));
    static const QRegularExpression kKey(u"\"([A-Za-z]+)\":"_s);
    int tried = 0;
    for (auto match = kKey.globalMatch(QString::fromUtf8(text)); match.hasNext();) {
        const QRegularExpressionMatch key = match.next();
        QString wrong = QString::fromUtf8(text);
        wrong.insert(key.capturedEnd(1), u'x');
        ++tried;
        EXPECT_FALSE(Validator(schema()).accepts(QJsonDocument::fromJson(wrong.toUtf8()).object()))
            << qPrintable(key.captured(1)) << " at " << key.capturedStart(1);
    }
    EXPECT_GT(tried, 20);
}

TEST(PipelineSchema, AgreesWithTheLoader)
{
    EXPECT_TRUE(bothAccept(R"({ "name": "A", "class": "GaussianBlurRenderPass", "inputs": { "BlurRadius": 4 } })"));
    EXPECT_TRUE(
        bothAccept(R"({ "name": "A", "class": "GaussianBlurRenderPass", "inputs": { "Kvo_float_BlurRadius": 4 } })"));
    EXPECT_FALSE(bothAccept(R"({ "name": "A", "class": "GaussianBlurRenderPass", "inputs": { "BlurRadiu": 4 } })"));
    EXPECT_FALSE(bothAccept(R"({ "name": "A", "class": "GaussianBlurRenderPass", "inputs": { "BlurRadius": "4" } })"));
    EXPECT_FALSE(
        bothAccept(R"({ "name": "A", "class": "GaussianBlurRenderPass", "inputs": { "BlurRadius": "@camera" } })"));
    EXPECT_TRUE(
        bothAccept(R"({ "name": "A", "class": "GaussianBlurRenderPass", "inputs": { "BlurRadius": "@near" } })"));
    EXPECT_FALSE(bothAccept(R"({ "name": "A", "class": "GaussianBlurRenderPass", "inputs": { "Input": 3 } })"));
    EXPECT_FALSE(bothAccept(R"({ "name": "A", "class": "GaussianBlurPass" })"));
    EXPECT_FALSE(bothAccept(R"({ "name": "A.B", "class": "GradientRenderPass" })"));
    EXPECT_FALSE(bothAccept(R"({ "class": "GradientRenderPass" })"));
    EXPECT_TRUE(bothAccept(R"({ "name": "A", "class": "BlendRenderPass", "inputs": { "BlendMode": "colorDodge" } })"));
    EXPECT_TRUE(bothAccept(R"({ "name": "A", "class": "BlendRenderPass", "inputs": { "Int_BlendMode": 18 } })"));
    EXPECT_FALSE(bothAccept(R"({ "name": "A", "class": "BlendRenderPass", "inputs": { "BlendMode": "dodge" } })"));
    EXPECT_TRUE(bothAccept(R"({ "name": "A", "class": "BlendRenderPass", "inputs": { "brightness": 1.5 } })"));
    EXPECT_FALSE(bothAccept(R"({ "name": "A", "class": "BlendRenderPass", "inputs": { "brightness": "much" } })"));
    EXPECT_TRUE(bothAccept(R"({ "name": "A", "class": "GradientRenderPass",
                                "inputs": { "Viewport": "@viewport[0, 0, 0.5, 1]", "ColorTop": [1, 0, 0] } })"));
    EXPECT_FALSE(bothAccept(R"({ "name": "A", "class": "GradientRenderPass", "inputs": { "ColorTop": [1, 0] } })"));
    EXPECT_TRUE(bothAccept(R"({ "name": "A", "class": "PrimitiveBuilderRenderPass",
                                "calls": [ { "addCube": [1.5, [0, 0, 0]] } ] })"));
    EXPECT_FALSE(
        bothAccept(R"({ "name": "A", "class": "PrimitiveBuilderRenderPass", "calls": [ { "addCube": [1.5] } ] })"));
    EXPECT_FALSE(
        bothAccept(R"({ "name": "A", "class": "PrimitiveBuilderRenderPass", "calls": [ { "addBall": [1.5] } ] })"));
    EXPECT_TRUE(
        bothAccept(R"({ "name": "A", "class": "ShaderRenderPass", "calls": [ { "addInput": ["Kvo_float_Gain"] } ],
                                "inputs": { "Gain": 2 } })"));
    EXPECT_TRUE(bothAccept(R"({ "name": "A", "class": "TextureLoaderRenderPass",
                                "inputs": { "TexturePath": "@paths.sky" } })"));
}

TEST(PipelineSchema, AgreesWithTheLoaderOnVersions)
{
    for (const auto &[version, isGood] :
         {std::pair("1", true), std::pair("2", false), std::pair("0", false), std::pair("1.5", false),
          std::pair("\"1\"", false), std::pair("null", false)}) {
        const QByteArray text = QByteArray(R"({ "version": )") + version
                                + R"(, "passes": [ { "name": "A", "class": "GradientRenderPass" } ] })";
        Pipeline pipeline;
        EXPECT_EQ(Validator(schema()).accepts(QJsonDocument::fromJson(text).object()), isGood) << version;
        EXPECT_EQ(loadPipelineText(text, u"test.json"_s, &pipeline, nullptr), isGood) << version;
    }
}

TEST(PipelineSchema, SaysOfEachClassAndSlotWhatItIs)
{
    const QJsonObject definitions = schema()[u"$defs"_s].toObject();
    const QJsonObject blur = definitions[u"inputs of GaussianBlurRenderPass"_s].toObject()[u"properties"_s].toObject();
    EXPECT_EQ(blur[u"BlurRadius"_s].toObject()[u"description"_s].toString(),
              u"sigma in texels of the target; up to 1 the input passes through (0 to 511 texels)"_s);
    EXPECT_EQ(blur[u"ResolutionDivider"_s].toObject()[u"default"_s].toDouble(), 1.0);
    const QJsonObject gradient = definitions[u"inputs of GradientRenderPass"_s].toObject()[u"properties"_s].toObject();
    EXPECT_EQ(gradient[u"ColorTop"_s].toObject()[u"default"_s].toString(), u"#404040"_s);
    for (const QString &className : passFactory().classNames())
        EXPECT_TRUE(definitions.contains(u"inputs of "_s + className)) << qPrintable(className);
}

// Another reader of schemas, where the system has one.
TEST(PipelineSchema, IsOneForAnotherValidatorToo)
{
    const QString python = QStandardPaths::findExecutable(u"python3"_s);
    if (python.isEmpty() || QProcess::execute(python, {u"-c"_s, u"import jsonschema"_s}) != 0)
        GTEST_SKIP() << "python3-jsonschema is not installed";
    QTemporaryDir folder;
    QFile file(folder.filePath(u"schema.json"_s));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(pipelineSchema());
    file.close();
    const QString script = uR"(
import copy, glob, json, sys
from jsonschema import Draft202012Validator
schema = json.load(open(sys.argv[1]))
Draft202012Validator.check_schema(schema)
validator = Draft202012Validator(schema)
for path in sorted(glob.glob(sys.argv[2] + '/*.json')):
    pipeline = json.load(open(path))
    for error in validator.iter_errors(pipeline):
        sys.exit('%s: %s' % (path, error.message))
    pipeline['passes'][0].setdefault('inputs', {})['NoSuchSlot'] = 1
    # The slots of the programmable pass are the file's.
    if pipeline['passes'][0]['class'] != 'ShaderRenderPass' and validator.is_valid(pipeline):
        sys.exit('%s: a slot that is not there is taken' % path)
)"_s;
    QProcess process;
    process.start(python, {u"-c"_s, script, file.fileName(), u"" KVO_SOURCE_DIR "/pipelines"_s});
    ASSERT_TRUE(process.waitForFinished(120000));
    EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().constData();
}
