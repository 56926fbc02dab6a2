#pragma once

#include "core/renderpass.h"
#include "host/export.h"

#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector3D>
#include <QVector>

#include <map>
#include <memory>
#include <type_traits>
#include <utility>

namespace Brevane::Kvo {

/// A setter of a pass class, beside its slots, that pipeline files can call by name.
struct PassOperation
{
    QString name; ///< As files call it.
    /// Types of the arguments, as the names of slots say them: "float", "int", "bool", "QString",
    /// "QVector3D".
    QStringList argumentTypes;
    /// Calls it with arguments of these types. False for a pass of another class.
    bool (*call)(RenderPass &pass, const QVariantList &arguments);
};

/// Makes passes by the name of their class. It knows the passes of the library; a host adds its own.
class KVO_PIPELINE_EXPORT PassFactory
{
public:
    /// Makes a pass of one class.
    using Maker = std::unique_ptr<RenderPass> (*)();

    /// A new pass, or null for a class that is not known.
    std::unique_ptr<RenderPass> make(const QString &className) const;
    /// Whether there is a class of that name.
    bool knows(const QString &className) const;
    /// All classes, by name.
    QStringList classNames() const;
    /// False when the name is taken.
    bool add(const QString &className, Maker maker);
    /// Lets pipeline files call a setter of a class (see passOperation). False for a class that is not
    /// known, and when the name is taken.
    bool addOperation(const QString &className, const PassOperation &operation);
    /// The operations of a class, in the order of adding.
    QVector<PassOperation> operations(const QString &className) const;

private:
    friend KVO_PIPELINE_EXPORT PassFactory &passFactory();
    PassFactory();
    void addOperations();

    std::map<QString, Maker> _makers;
    std::map<QString, QVector<PassOperation>> _operations;
};

/// The factory of the process.
KVO_PIPELINE_EXPORT PassFactory &passFactory();

/// Makes a class known to pipelines and pipeline files. False when the name is taken.
template <typename Pass>
bool registerPass(const QString &className)
{
    return passFactory().add(className, [] { return std::unique_ptr<RenderPass>(new Pass); });
}

namespace Detail {

template <typename T>
constexpr const char *typeWord()
{
    if constexpr (std::is_same_v<T, float>)
        return "float";
    else if constexpr (std::is_same_v<T, bool>)
        return "bool";
    else if constexpr (std::is_same_v<T, int> || std::is_enum_v<T>)
        return "int";
    else if constexpr (std::is_same_v<T, QVector3D>)
        return "QVector3D";
    else
        static_assert(std::is_same_v<T, QString>, "pipeline files have no text for this type");
    return "QString";
}

template <typename T>
T argument(const QVariant &value)
{
    if constexpr (std::is_enum_v<T>)
        return T(value.toInt());
    else
        return qvariant_cast<T>(value);
}

template <auto method, typename Pass, typename... Arguments, size_t... i>
PassOperation makeOperation(const QString &name, void (Pass::*)(Arguments...), std::index_sequence<i...>)
{
    return {name,
            {QLatin1StringView(typeWord<std::decay_t<Arguments>>())...},
            [](RenderPass &pass, const QVariantList &arguments) {
                auto *target = dynamic_cast<Pass *>(&pass);
                if (!target || arguments.size() != qsizetype(sizeof...(i)))
                    return false;
                (target->*method)(argument<std::decay_t<Arguments>>(arguments[qsizetype(i)])...);
                return true;
            }};
}

template <auto method, typename Pass, typename... Arguments>
PassOperation makeOperation(const QString &name, void (Pass::*pointer)(Arguments...))
{
    return makeOperation<method>(name, pointer, std::index_sequence_for<Arguments...>());
}

} // namespace Detail

/// A setter as pipeline files call it: passOperation<&MyPass::setThing>("setThing"). Enumerations are
/// numbers in the file.
template <auto method>
PassOperation passOperation(const QString &name)
{
    return Detail::makeOperation<method>(name, method);
}

} // namespace Brevane::Kvo
