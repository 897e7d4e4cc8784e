#pragma once

#include <QList>
#include <QVariantList>

#include "TarvHash.h"

// A list field of a record; kept in the hash as a variant list.
template <typename T>
class TarvList : public QList<T>
{
public:
    using QList<T>::QList;
    TarvList() = default;
    TarvList(const QList<T>& list) : QList<T>(list) {} // NOLINT

    QVariantList toVariantList() const
    {
        QVariantList list;
        list.reserve(this->size());
        for (const T& item : *this)
            list.append(TarvFieldTraits<T>::toVariant(item));
        return list;
    }
    static TarvList fromVariantList(const QVariantList& list)
    {
        TarvList result;
        result.reserve(list.size());
        for (const QVariant& item : list)
            result.append(TarvFieldTraits<T>::fromVariant(item));
        return result;
    }
};

template <typename T>
struct TarvFieldTraits<TarvList<T>>
{
    static TarvList<T> fromVariant(const QVariant& value) { return TarvList<T>::fromVariantList(value.toList()); }
    static QVariant toVariant(const TarvList<T>& value) { return value.toVariantList(); }
};
