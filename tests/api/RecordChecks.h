#pragma once

#include <sstream>
#include <type_traits>

#include <QMetaType>
#include <QtTest>

#include <tarv>
#include <model/cmrequest>

// Readable QCOMPARE failures for host records and paths.
#define TARV_RECORD_TO_STRING(Type)                                                                                    \
    inline char* toString(const Type& record) { return qstrdup(record.toJson(false).constData()); }
TARV_RECORD_TO_STRING(TarvHash)
TARV_RECORD_TO_STRING(TarvSystemMember)
TARV_RECORD_TO_STRING(TarvRoles)
TARV_RECORD_TO_STRING(TarvValue)
TARV_RECORD_TO_STRING(TarvGroupingMember)
TARV_RECORD_TO_STRING(TarvGroupingRequest)
TARV_RECORD_TO_STRING(TarvGroupingPersistentGroup)
TARV_RECORD_TO_STRING(TarvSystemMemberTranscoderState)
TARV_RECORD_TO_STRING(TarvActionReply)
TARV_RECORD_TO_STRING(TarvEvent)
TARV_RECORD_TO_STRING(TarvPlayLogicData)
TARV_RECORD_TO_STRING(CMError)
#undef TARV_RECORD_TO_STRING

inline char* toString(const CMPath& path)
{
    return qstrdup(path.toString().toUtf8().constData());
}

template <typename Record>
Record recordFromVariant(const QVariant& variant)
{
    if constexpr (std::is_same_v<Record, TarvHash>)
        return TarvHash(variant.toHash());
    else
        return Record::fromVariant(variant);
}

// Every form a record takes: JSON (compact and indented) parsed back, the
// JSON string, the std::ostream text, the QVariant hash form (explicit and
// implicit) and the plain hash. `record` should have every field set so that
// nested records and lists travel too.
template <typename Record>
void verifyRecordForms(const Record& record)
{
    QVERIFY(!record.isEmpty());
    for (const bool indented : {false, true}) {
        const QByteArray json = record.toJson(indented);
        QCOMPARE(json.contains('\n'), indented);
        TarvError error;
        unsigned int consumed = 0;
        const QVariant parsed = TarvJson::parse(json, error, &consumed);
        QVERIFY2(!error.isError(), qPrintable(error.message));
        QCOMPARE(consumed, static_cast<unsigned int>(json.size()));
        QCOMPARE(parsed.userType(), int(QMetaType::QVariantHash));
        QCOMPARE(Record(parsed.toHash()), record);
        QCOMPARE(recordFromVariant<Record>(parsed), record);
        QCOMPARE(Record(TarvHash::fromJson(json)), record);
    }
    QCOMPARE(record.toJsonString(), QString::fromUtf8(record.toJson(false)));

    std::ostringstream out;
    out << record;
    QCOMPARE(QByteArray::fromStdString(out.str()), record.toJson(false));

    const QVariant variant = record.toVariant();
    QCOMPARE(variant.userType(), int(QMetaType::QVariantHash));
    QCOMPARE(recordFromVariant<Record>(variant), record);
    const QVariant implicit = record;
    QCOMPARE(implicit, variant);
    QCOMPARE(Record(record.hash()), record);
}

// == and != compare the whole content: a copy is equal, and changing any one
// field (`change` alters one) makes it different.
template <typename Record, typename Change>
void verifyWholeContentEquality(const Record& record, Change change)
{
    Record copy = record;
    QVERIFY(copy == record);
    QVERIFY(!(copy != record));
    change(copy);
    QVERIFY(copy != record);
    QVERIFY(!(copy == record));
}
