#include "host/pipelineschema.h"

#include "core/renderpasshelper.h"
#include "host/passfactory.h"
#include "host/slotname.h"
#include "hostvalues.h"
#include "pipelineversions.h"
#include "slotvaluejson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

QJsonObject ofType(const QString &type)
{
    return {{u"type"_s, type}};
}

QJsonObject reference(const QString &definition)
{
    return {{u"$ref"_s, u"#/$defs/"_s + QString(definition).replace(u' ', u"%20"_s)}};
}

QJsonObject numbers(const QString &type, int least, int most)
{
    return {{u"type"_s, u"array"_s}, {u"items"_s, ofType(type)}, {u"minItems"_s, least}, {u"maxItems"_s, most}};
}

QJsonObject anyOf(const QJsonArray &schemas)
{
    return {{u"anyOf"_s, schemas}};
}

QJsonObject closedObject(const QJsonObject &properties, const QStringList &required = {})
{
    QJsonObject schema{{u"type"_s, u"object"_s}, {u"properties"_s, properties}, {u"additionalProperties"_s, false}};
    if (!required.isEmpty())
        schema[u"required"_s] = QJsonArray::fromStringList(required);
    return schema;
}

// One spelling for each type.
QString typeOf(const QString &slot, const SlotInfo *info)
{
    static const QHash<QString, QString> spellings{
        {u"Float"_s, u"float"_s}, {u"Bool"_s, u"bool"_s}, {u"string"_s, u"QString"_s}};
    const QString type = SlotName::parse(slot).type;
    if (type.isEmpty())
        return info && std::isfinite(info->range.least) ? u"float"_s : u"QVariant"_s;
    return spellings.value(type, type);
}

// The values that each type has in a file. What only links and host values give is not among them.
const QMap<QString, QJsonArray> &valuesOfTypes()
{
    static const QMap<QString, QJsonArray> values{
        {u"float"_s, {ofType(u"number"_s)}},
        {u"int"_s, {ofType(u"integer"_s)}},
        {u"bool"_s, {ofType(u"boolean"_s)}},
        {u"QColor"_s, {ofType(u"string"_s), numbers(u"number"_s, 3, 4)}},
        {u"QRect"_s,
         {numbers(u"integer"_s, 4, 4),
          QJsonObject{{u"type"_s, u"array"_s}, {u"items"_s, numbers(u"integer"_s, 4, 4)}}}},
        {u"QSize"_s, {numbers(u"integer"_s, 2, 2)}},
        {u"QPoint"_s, {numbers(u"integer"_s, 2, 2)}},
        {u"QMatrix4x4"_s, {numbers(u"number"_s, 16, 16)}},
        {u"QVector2D"_s, {numbers(u"number"_s, 2, 2)}},
        {u"QVector3D"_s, {numbers(u"number"_s, 3, 3)}},
        {u"QVector4D"_s, {numbers(u"number"_s, 4, 4)}},
        {u"QString"_s, {ofType(u"string"_s), reference(u"file"_s), reference(u"contentOf"_s)}},
        {u"QList"_s, {ofType(u"array"_s)}},
        {u"QVariant"_s,
         {ofType(u"number"_s), ofType(u"boolean"_s), ofType(u"string"_s), ofType(u"array"_s), reference(u"file"_s),
          reference(u"contentOf"_s)}}};
    return values;
}

// What an input of a type may be besides a value: a link, and the host values that fit, which an editor offers.
QJsonArray sourcesOf(const QString &type)
{
    QJsonArray host;
    const HostValues hosts;
    for (int i = 0; i < hosts.count(); ++i)
        if (slotTypesMatch(hosts.slot(i), u"Kvo_%1_Any"_s.arg(type)))
            host << u'@' + hosts.name(i);
    QJsonArray schemas{reference(u"link"_s), ofType(u"null"_s)};
    if (!host.isEmpty())
        schemas << QJsonObject{{u"enum"_s, host}};
    if (type == u"QRect" || type == u"QVariant" || type == u"QString")
        schemas << reference(u"hostPart"_s);
    return schemas;
}

// "sigma in texels (0 to 511 texels)"
QString descriptionOf(const SlotInfo &info)
{
    QString text = QString::fromLatin1(info.meaning);
    const bool isBounded = std::isfinite(info.range.least) && std::isfinite(info.range.most);
    QString range = isBounded ? u"%1 to %2"_s.arg(info.range.least).arg(info.range.most) : QString();
    if (*info.unit)
        range += (range.isEmpty() ? QString() : u" "_s) + QString::fromLatin1(info.unit);
    return range.isEmpty() ? text : u"%1 (%2)"_s.arg(text, range);
}

QJsonObject inputSchema(const QString &slot, const QVariant &defaultValue, const SlotInfo *info)
{
    QJsonObject schema;
    if (info && !info->choices.empty()) {
        QJsonArray names;
        for (const SlotChoice &choice : info->choices)
            names << QString::fromLatin1(choice.name);
        schema = anyOf({QJsonObject{{u"enum"_s, names}}, reference(u"input int"_s)});
    } else {
        schema = reference(u"input "_s + typeOf(slot, info));
    }
    if (info)
        schema[u"description"_s] = descriptionOf(*info);
    QString text;
    if (defaultValue.isValid() && slotValueToJson(defaultValue, &text))
        schema[u"default"_s] = QJsonDocument::fromJson(u"[%1]"_s.arg(text).toUtf8()).array().first();
    return schema;
}

// Editors offer the short names; the full ones are taken.
QJsonObject inputsSchema(const QString &className, const RenderPass &pass, bool takesMore)
{
    const auto *helper = dynamic_cast<const RenderPassHelper *>(&pass);
    QJsonObject brief, full;
    for (int i = 0; i < pass.numInputs(); ++i) {
        const QString slot = pass.inputName(i);
        const QString name = SlotName::parse(slot).name;
        brief[name] = inputSchema(slot, pass.defaultValue(i), helper ? helper->inputInfo(i) : nullptr);
        if (slot != name)
            full[u"^%1$"_s.arg(QString(slot).replace(u"*"_s, u"\\*"_s))] =
                reference(u"inputs of %1/properties/%2"_s.arg(className, name));
    }
    QJsonObject schema = closedObject(brief);
    if (!full.isEmpty())
        schema[u"patternProperties"_s] = full;
    if (takesMore)
        schema[u"additionalProperties"_s] = reference(u"input QVariant"_s);
    return schema;
}

QJsonObject callsSchema(const QVector<PassOperation> &operations)
{
    QJsonObject calls;
    for (const PassOperation &operation : operations) {
        QJsonArray arguments;
        for (const QString &type : operation.argumentTypes)
            arguments << anyOf(valuesOfTypes()[type]);
        const int count = int(arguments.size());
        QJsonObject call{{u"type"_s, u"array"_s}, {u"minItems"_s, count}, {u"maxItems"_s, count}};
        if (count > 0)
            call[u"prefixItems"_s] = arguments;
        calls[operation.name] = call;
    }
    QJsonObject call = closedObject(calls);
    call[u"minProperties"_s] = 1;
    call[u"maxProperties"_s] = 1;
    return {{u"type"_s, u"array"_s}, {u"items"_s, call}};
}

// The passes of a file; what is said of the inputs of a class goes to \a definitions.
QJsonObject passesSchema(QJsonObject *definitions)
{
    QJsonArray classes, rules;
    for (const QString &className : passFactory().classNames()) {
        const std::unique_ptr<RenderPass> pass = passFactory().make(className);
        const auto *helper = dynamic_cast<const RenderPassHelper *>(pass.get());
        const PassInfo *info = helper ? helper->passInfo() : nullptr;
        QJsonObject oneClass{{u"const"_s, className}};
        if (info && className == QLatin1StringView(info->className))
            oneClass[u"description"_s] = QString::fromLatin1(info->meaning);
        classes << oneClass;

        const QVector<PassOperation> operations = passFactory().operations(className);
        const bool takesMore = std::any_of(operations.begin(), operations.end(), [](const PassOperation &operation) {
            return operation.name == QLatin1StringView("addInput");
        });
        const QString inputs = u"inputs of "_s + className;
        (*definitions)[inputs] = inputsSchema(className, *pass, takesMore);
        const QJsonObject isClass{{u"properties"_s, QJsonObject{{u"class"_s, QJsonObject{{u"const"_s, className}}}}}};
        const QJsonObject follows{
            {u"properties"_s, QJsonObject{{u"inputs"_s, reference(inputs)}, {u"calls"_s, callsSchema(operations)}}}};
        rules << QJsonObject{{u"if"_s, isClass}, {u"then"_s, follows}};
    }
    const QJsonObject name{{u"type"_s, u"string"_s},
                           {u"pattern"_s, u"^[^.@ ]+$"_s},
                           {u"description"_s, u"by which links and messages speak of the pass"_s}};
    QJsonObject pass =
        closedObject({{u"name"_s, name},
                      {u"class"_s, QJsonObject{{u"oneOf"_s, classes}}},
                      {u"clearColor"_s, anyOf(valuesOfTypes()[u"QColor"_s])},
                      {u"calls"_s, QJsonObject{{u"type"_s, u"array"_s},
                                               {u"description"_s, u"operations of the class, called once"_s}}},
                      {u"inputs"_s, ofType(u"object"_s)}},
                     {u"name"_s, u"class"_s});
    pass[u"allOf"_s] = rules;
    return {{u"type"_s, u"array"_s}, {u"minItems"_s, 1}, {u"items"_s, pass}};
}

QJsonObject commonDefinitions()
{
    const QJsonObject text = ofType(u"string"_s);
    const QJsonObject end{{u"type"_s, u"string"_s}, {u"pattern"_s, u"^[^.]+\\..+$"_s}};
    const QJsonObject part{{u"type"_s, u"string"_s}, {u"pattern"_s, u"^@(viewport *\\[|paths\\.)"_s}};
    QJsonObject result{{u"link"_s, closedObject({{u"from"_s, end}}, {u"from"_s})},
                       {u"hostPart"_s, part},
                       {u"file"_s, closedObject({{u"file"_s, text}}, {u"file"_s})},
                       {u"contentOf"_s, closedObject({{u"contentOf"_s, text}}, {u"contentOf"_s})}};
    for (const auto &[type, values] : valuesOfTypes().asKeyValueRange()) {
        QJsonArray schemas = sourcesOf(type);
        for (const QJsonValue value : values)
            schemas << value;
        result[u"input "_s + type] = anyOf(schemas);
    }
    for (const char *type : {"KvoTexture*", "KvoGPUModel*", "KvoDrawBuffers*", "KvoFramebuffer*"})
        result[u"input "_s + QLatin1StringView(type)] = anyOf(sourcesOf(QLatin1StringView(type)));
    return result;
}

} // namespace

QByteArray pipelineSchema()
{
    const QJsonObject light{
        {u"type"_s, u"object"_s},
        {u"properties"_s,
         QJsonObject{{u"type"_s, QJsonObject{{u"enum"_s, QJsonArray{u"directional"_s, u"spot"_s, u"point"_s}}}}}},
        {u"required"_s, QJsonArray{u"type"_s}}};
    QJsonArray versions;
    for (int version = 1; version <= newestFormat(); ++version)
        versions << version;
    const QJsonObject version{{u"enum"_s, versions},
                              {u"description"_s, u"of the format of the file; 1 where it is not said"_s}};
    QJsonObject definitions = commonDefinitions();
    QJsonObject schema = closedObject({{u"$schema"_s, ofType(u"string"_s)},
                                       {u"version"_s, version},
                                       {u"description"_s, ofType(u"string"_s)},
                                       {u"inOnePiece"_s, ofType(u"string"_s)},
                                       {u"lights"_s, QJsonObject{{u"type"_s, u"array"_s}, {u"items"_s, light}}},
                                       {u"passes"_s, passesSchema(&definitions)}},
                                      {u"passes"_s});
    schema[u"$schema"_s] = u"https://json-schema.org/draft/2020-12/schema"_s;
    schema[u"title"_s] = u"A pipeline of render passes"_s;
    schema[u"$defs"_s] = definitions;
    return QJsonDocument(schema).toJson();
}

} // namespace Brevane::Kvo
