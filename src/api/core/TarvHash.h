#pragma once

#include <ostream>
#include <type_traits>

#include <QByteArray>
#include <QDebug>
#include <QMetaType>
#include <QString>
#include <QVariant>
#include <QVariantHash>
#include <QVariantList>

class TarvHash;

// How a field's C++ type is kept inside a record's hash: records as nested
// hashes, enums as integers, lists as variant lists, paths and texts as
// strings. Everything else as Qt stores it.
template <typename T, typename Enable = void>
struct TarvFieldTraits
{
    static T fromVariant(const QVariant& value) { return value.value<T>(); }
    static QVariant toVariant(const T& value) { return QVariant::fromValue(value); }
};

template <typename T>
struct TarvFieldTraits<T, std::enable_if_t<std::is_base_of_v<TarvHash, T>>>
{
    static T fromVariant(const QVariant& value) { return T(value.toHash()); }
    static QVariant toVariant(const T& value) { return value.toVariant(); }
};

template <typename T>
struct TarvFieldTraits<T, std::enable_if_t<std::is_enum_v<T>>>
{
    static T fromVariant(const QVariant& value) { return static_cast<T>(value.toInt()); }
    static QVariant toVariant(const T& value) { return static_cast<int>(value); }
};

template <>
struct TarvFieldTraits<QString>
{
    static QString fromVariant(const QVariant& value) { return value.toString(); }
    static QVariant toVariant(const QString& value) { return value; }
};

template <>
struct TarvFieldTraits<bool>
{
    static bool fromVariant(const QVariant& value) { return value.toBool(); }
    static QVariant toVariant(bool value) { return value; }
};

template <>
struct TarvFieldTraits<qint32>
{
    static qint32 fromVariant(const QVariant& value) { return value.toInt(); }
    static QVariant toVariant(qint32 value) { return value; }
};

template <>
struct TarvFieldTraits<qint64>
{
    static qint64 fromVariant(const QVariant& value) { return value.toLongLong(); }
    static QVariant toVariant(qint64 value) { return value; }
};

// The string-keyed hash of variants under every host record. Implicitly
// shared (copies are cheap); equality compares the whole content.
class TarvHash
{
public:
    TarvHash() = default;
    TarvHash(const QVariantHash& hash); // NOLINT: records convert from hashes implicitly

    bool isEmpty() const { return m_hash.isEmpty(); }
    bool contains(const QString& key) const { return m_hash.contains(key); }
    QVariant value(const QString& key) const { return m_hash.value(key); }
    void insert(const QString& key, const QVariant& value) { m_hash.insert(key, value); }
    void remove(const QString& key) { m_hash.remove(key); }
    QStringList keys() const { return m_hash.keys(); }
    const QVariantHash& hash() const { return m_hash; }

    bool operator==(const TarvHash& other) const { return m_hash == other.m_hash; }
    bool operator!=(const TarvHash& other) const { return m_hash != other.m_hash; }

    // JSON text with the field names as keys; indented for people, compact
    // for the wire.
    QByteArray toJson(bool indented = false) const;
    QString toJsonString() const;
    // Empty hash when the text is not a JSON object.
    static TarvHash fromJson(const QByteArray& json);

    QVariant toVariant() const { return m_hash; }
    operator QVariant() const { return m_hash; } // NOLINT: records travel as variants

protected:
    template <typename T>
    T field(const QString& key) const
    {
        return TarvFieldTraits<T>::fromVariant(m_hash.value(key));
    }
    template <typename T>
    void setField(const QString& key, const T& value)
    {
        m_hash.insert(key, TarvFieldTraits<T>::toVariant(value));
    }
    // For unions: a new view replaces whatever the record held.
    template <typename T>
    void setOnlyField(const QString& key, const T& value)
    {
        m_hash.clear();
        setField(key, value);
    }

private:
    QVariantHash m_hash;
};

std::ostream& operator<<(std::ostream& out, const TarvHash& hash);
QDebug operator<<(QDebug debug, const TarvHash& hash);

Q_DECLARE_METATYPE(TarvHash)

// Record boilerplate: construction from hashes and variants.
#define TARV_RECORD(Class)                                                                                             \
public:                                                                                                                \
    Class() = default;                                                                                                 \
    Class(const QVariantHash& hash) : TarvHash(hash) {} /* NOLINT */                                                   \
    explicit Class(const TarvHash& hash) : TarvHash(hash) {}                                                           \
    static Class fromVariant(const QVariant& value) { return Class(value.toHash()); }

// One field: getter `name()`, chaining setter, and the static key name
// `Key()` ("name").
#define TARV_FIELD(Class, Type, name, setter, Key)                                                                     \
public:                                                                                                                \
    static QString Key() { return QStringLiteral(#name); }                                                             \
    Type name() const { return field<Type>(Key()); }                                                                   \
    Class& setter(const Type& value)                                                                                   \
    {                                                                                                                  \
        setField<Type>(Key(), value);                                                                                  \
        return *this;                                                                                                  \
    }

// One alternative of a union: setting it drops the other alternatives.
#define TARV_UNION_FIELD(Class, Type, name, setter, Key)                                                               \
public:                                                                                                                \
    static QString Key() { return QStringLiteral(#name); }                                                             \
    Type name() const { return field<Type>(Key()); }                                                                   \
    Class& setter(const Type& value)                                                                                   \
    {                                                                                                                  \
        setOnlyField<Type>(Key(), value);                                                                              \
        return *this;                                                                                                  \
    }
