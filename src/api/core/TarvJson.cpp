#include "TarvJson.h"

#include <vector>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <rapidjson/error/error.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include "CMPath.h"
#include "TarvHash.h"
#include "TrString.h"

namespace TarvJson {

QVariant toVariant(const QJsonValue& value)
{
    if (value.isObject()) {
        QVariantHash hash;
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it)
            hash.insert(it.key(), toVariant(it.value()));
        return hash;
    }
    if (value.isArray()) {
        QVariantList list;
        const QJsonArray array = value.toArray();
        list.reserve(array.size());
        for (const QJsonValue& item : array)
            list.append(toVariant(item));
        return list;
    }
    return value.toVariant();
}

QJsonValue fromVariant(const QVariant& value)
{
    const int type = value.userType();
    if (type == QMetaType::QVariantHash || type == QMetaType::QVariantMap) {
        QJsonObject object;
        const QVariantHash hash = value.toHash();
        for (auto it = hash.begin(); it != hash.end(); ++it)
            object.insert(it.key(), fromVariant(it.value()));
        return object;
    }
    if (type == QMetaType::QVariantList || type == QMetaType::QStringList) {
        QJsonArray array;
        for (const QVariant& item : value.toList())
            array.append(fromVariant(item));
        return array;
    }
    if (type == qMetaTypeId<CMPath>())
        return value.value<CMPath>().toString();
    if (type == qMetaTypeId<TrString>())
        return value.value<TrString>().toString();
    if (type == qMetaTypeId<TarvHash>())
        return fromVariant(value.value<TarvHash>().toVariant());
    return QJsonValue::fromVariant(value);
}

bool parseValue(const QByteArray& text, QJsonValue* value, QString* error)
{
    // Objects and arrays parse as they are, so errors point at the user's
    // text; scalars are wrapped in an array, which shifts offsets by one.
    const QByteArray trimmed = text.trimmed();
    const bool container = trimmed.startsWith('{') || trimmed.startsWith('[');
    TarvError parseError;
    const QVariant parsed = parse(container ? text : '[' + text + ']', parseError, nullptr);
    if (parseError.isError()) {
        if (error) {
            const int at = qBound(1, parseError.offset + (container ? 1 : 0), text.size() + 1);
            *error = QStringLiteral("%1 at character %2").arg(parseError.message).arg(at);
        }
        return false;
    }
    const QJsonValue document = QJsonValue::fromVariant(parsed);
    if (container) {
        if (value)
            *value = document;
        return true;
    }
    const QJsonArray array = document.toArray();
    if (array.size() != 1) {
        if (error)
            *error = array.isEmpty() ? QStringLiteral("no JSON value") : QStringLiteral("more than one JSON value");
        return false;
    }
    if (value)
        *value = array.first();
    return true;
}

bool parseObject(const QByteArray& body, QVariantHash* result, QString* error)
{
    if (body.trimmed().isEmpty()) {
        result->clear();
        return true;
    }
    TarvError parseError;
    const QVariant parsed = parse(body, parseError, nullptr);
    if (parseError.isError()) {
        // Only objects and arrays parse at the top level; say so plainly for
        // the common mistake of sending a bare text or number.
        *error = QStringLiteral("The request body is not valid JSON (at byte %1: %2); it must be one JSON object")
                     .arg(parseError.offset)
                     .arg(parseError.message);
        return false;
    }
    if (parsed.userType() != QMetaType::QVariantHash) {
        *error = QStringLiteral("The request body must be one JSON object, e.g. {\"string_\": \"Kitchen\"}");
        return false;
    }
    *result = parsed.toHash();
    return true;
}

QByteArray toBytes(const QJsonValue& value, bool indented)
{
    const QJsonDocument::JsonFormat format = indented ? QJsonDocument::Indented : QJsonDocument::Compact;
    if (value.isObject())
        return QJsonDocument(value.toObject()).toJson(format).trimmed();
    if (value.isArray())
        return QJsonDocument(value.toArray()).toJson(format).trimmed();
    if (value.isUndefined())
        return QByteArrayLiteral("null");
    const QByteArray wrapped = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return wrapped.mid(1, wrapped.size() - 2);
}

QString toText(const QJsonValue& value, bool indented)
{
    return QString::fromUtf8(toBytes(value, indented));
}

namespace {

// Qt's own texts for the errors, so that messages shown to users and logged
// read as they always did.
const char illegalValue[] = "illegal value";
const char unterminatedObject[] = "unterminated object";
const char missingNameSeparator[] = "missing name separator";
const char unterminatedArray[] = "unterminated array";
const char illegalNumber[] = "illegal number";
const char illegalEscapeSequence[] = "invalid escape sequence";
const char illegalUtf8String[] = "invalid UTF8 string";
const char unterminatedString[] = "unterminated string";
const char missingObject[] = "object is missing after a comma";
const char deepNesting[] = "too deeply nested document";
const char garbageAtEnd[] = "garbage at the end of the document";
const char terminationByNumber[] = "invalid termination by number";
const char missingValueSeparator[] = "missing value separator";
// QJsonDocument took raw control characters in strings; JSON does not.
const char controlCharacter[] = "control character in string";

// Deeper documents are refused, as QJsonDocument refuses them; it also
// bounds the builder's stack for hostile input.
constexpr std::size_t maxDepth = 1024;

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Builds the variant straight from the reader's events, so no intermediate
// document exists and nothing of a replaced duplicate survives it: a later
// duplicate key simply overwrites the earlier value in the hash.
class VariantBuilder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, VariantBuilder>
{
public:
    QVariant takeResult() { return std::move(m_result); }
    const char* refusal() const { return m_refusal; }
    // Where the reader stopped: inside no container yet, an object or an array.
    bool inDocument() const { return !m_stack.empty(); }
    bool inObject() const { return !m_stack.empty() && m_stack.back().isObject; }

    bool Null() { return add(QVariant::fromValue(nullptr)); }
    bool Bool(bool value) { return add(value); }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool)
    {
        const QByteArray number = QByteArray::fromRawData(text, static_cast<int>(length));
        const bool integral = !number.contains('.') && !number.contains('e') && !number.contains('E');
        bool ok = false;
        if (integral) {
            const qlonglong n = number.toLongLong(&ok);
            if (ok)
                return add(n);
        }
        const double d = number.toDouble(&ok);
        if (!ok)
            return refuse(illegalNumber);
        // Doubles with an exact 64-bit integer value are integers, as
        // QJsonValue stores them ("1.0" and "1e2" read as qlonglong).
        if (d >= -9223372036854775808.0 && d < 9223372036854775808.0 && d == static_cast<double>(static_cast<qint64>(d)))
            return add(static_cast<qlonglong>(d));
        return add(d);
    }
    bool String(const char* text, rapidjson::SizeType length, bool)
    {
        return add(QString::fromUtf8(text, static_cast<int>(length)));
    }
    bool StartObject() { return open(true); }
    bool Key(const char* text, rapidjson::SizeType length, bool)
    {
        m_stack.back().key = QString::fromUtf8(text, static_cast<int>(length));
        return true;
    }
    bool EndObject(rapidjson::SizeType) { return close(); }
    bool StartArray() { return open(false); }
    bool EndArray(rapidjson::SizeType) { return close(); }

private:
    struct Frame
    {
        bool isObject = false;
        QVariantHash hash;
        QVariantList list;
        QString key;
    };

    bool refuse(const char* text)
    {
        m_refusal = text;
        return false;
    }

    bool add(QVariant value)
    {
        // A document is an object or an array; a bare scalar is refused.
        if (m_stack.empty())
            return refuse(illegalValue);
        Frame& top = m_stack.back();
        if (top.isObject)
            top.hash.insert(top.key, std::move(value));
        else
            top.list.append(std::move(value));
        return true;
    }

    bool open(bool isObject)
    {
        if (m_stack.size() >= maxDepth)
            return refuse(deepNesting);
        m_stack.emplace_back();
        m_stack.back().isObject = isObject;
        return true;
    }

    bool close()
    {
        Frame frame = std::move(m_stack.back());
        m_stack.pop_back();
        QVariant value = frame.isObject ? QVariant(std::move(frame.hash)) : QVariant(std::move(frame.list));
        if (m_stack.empty()) {
            m_result = std::move(value);
            return true;
        }
        return add(std::move(value));
    }

    std::vector<Frame> m_stack;
    QVariant m_result;
    const char* m_refusal = nullptr;
};

// The last byte before `offset` that is not white space, or 0.
char lastSignificantBefore(const QByteArray& json, std::size_t offset)
{
    for (std::size_t i = std::min<std::size_t>(offset, static_cast<std::size_t>(json.size())); i > 0; --i) {
        if (!isSpace(json.at(static_cast<int>(i - 1))))
            return json.at(static_cast<int>(i - 1));
    }
    return 0;
}

bool isWordByte(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '+'
        || c == '.';
}

// Whether the bytes before `offset` end in a number being read (as opposed
// to true, false or null): the run of word bytes starts like a number.
bool endsInNumber(const QByteArray& json, std::size_t offset)
{
    std::size_t start = std::min<std::size_t>(offset, static_cast<std::size_t>(json.size()));
    while (start > 0 && isWordByte(json.at(static_cast<int>(start - 1))))
        --start;
    if (start == offset)
        return false;
    const char first = json.at(static_cast<int>(start));
    return (first >= '0' && first <= '9') || first == '-';
}

// The reader's error told in QJsonDocument's words, which say what was
// being read: a value, a number, a string or which container.
const char* errorText(rapidjson::ParseErrorCode code, const VariantBuilder& builder, const QByteArray& json,
                      std::size_t offset)
{
    const bool atEnd = offset >= static_cast<std::size_t>(json.size());
    const char here = atEnd ? 0 : json.at(static_cast<int>(offset));
    const char before = offset > 0 && !atEnd ? json.at(static_cast<int>(offset - 1)) : 0;
    if (!builder.inDocument())
        return code == rapidjson::kParseErrorDocumentRootNotSingular ? garbageAtEnd : illegalValue;
    if (code == rapidjson::kParseErrorStringMissQuotationMark)
        return unterminatedString;
    if (atEnd) {
        const char last = json.isEmpty() ? 0 : json.at(json.size() - 1);
        if (endsInNumber(json, offset))
            return terminationByNumber;
        if (isWordByte(last))
            return illegalValue; // inside true, false or null
        if (last == '"')
            return unterminatedString;
        if (code == rapidjson::kParseErrorObjectMissColon)
            return missingNameSeparator;
        return builder.inObject() ? unterminatedObject : unterminatedArray;
    }
    switch (code) {
    case rapidjson::kParseErrorValueInvalid:
        if (before >= 'a' && before <= 'z')
            return illegalValue; // a broken true, false or null
        if (here == ']' || here == '}')
            return before == '-' ? illegalNumber : missingObject;
        if (here == ',' || here == 't' || here == 'f' || here == 'n')
            return illegalValue;
        return illegalNumber;
    case rapidjson::kParseErrorObjectMissName:
        return lastSignificantBefore(json, offset) == ',' ? missingObject : unterminatedObject;
    case rapidjson::kParseErrorObjectMissColon:
        return missingNameSeparator;
    case rapidjson::kParseErrorObjectMissCommaOrCurlyBracket:
        return unterminatedObject;
    case rapidjson::kParseErrorArrayMissCommaOrSquareBracket:
        return here == '}' ? unterminatedArray : missingValueSeparator;
    case rapidjson::kParseErrorStringUnicodeEscapeInvalidHex:
    case rapidjson::kParseErrorStringUnicodeSurrogateInvalid:
    case rapidjson::kParseErrorStringEscapeInvalid:
        // The reader reports a raw control character as a bad escape.
        return static_cast<unsigned char>(here) < 0x20 ? controlCharacter : illegalEscapeSequence;
    case rapidjson::kParseErrorStringInvalidEncoding:
        return illegalUtf8String;
    case rapidjson::kParseErrorNumberTooBig:
    case rapidjson::kParseErrorNumberMissFraction:
    case rapidjson::kParseErrorNumberMissExponent:
        return illegalNumber;
    case rapidjson::kParseErrorDocumentRootNotSingular:
        return garbageAtEnd;
    default:
        return illegalValue;
    }
}

QVariant fail(TarvError& error, unsigned int* consumed, const char* text, std::size_t offset)
{
    error.message = QString::fromLatin1(text);
    error.offset = static_cast<int>(offset);
    if (consumed)
        *consumed = 0;
    return QVariant();
}

} // namespace

QVariant parse(const QByteArray& json, TarvError& error, unsigned int* consumed)
{
    // A UTF-8 byte order mark is skipped, as QJsonDocument skips it.
    std::size_t start = json.startsWith("\xEF\xBB\xBF") ? 3 : 0;
    rapidjson::MemoryStream stream(json.constData() + start, static_cast<std::size_t>(json.size()) - start);
    VariantBuilder builder;
    rapidjson::Reader reader;
    // Iterative: hostile nesting cannot exhaust the call stack. Numbers as
    // text: they are converted the way QJsonDocument converts them. Stop when
    // done: what follows the document is checked here by length, so that a
    // zero byte cannot end the input early.
    constexpr unsigned flags = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag
        | rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseStopWhenDoneFlag;
    const rapidjson::ParseResult result = reader.Parse<flags>(stream, builder);
    if (result.IsError()) {
        std::size_t offset = start + result.Offset();
        const char* text = builder.refusal() ? builder.refusal() : errorText(result.Code(), builder, json, offset);
        if (!builder.inDocument() && text == illegalValue) {
            // Nothing but an object or an array may open a document; the
            // error is just past the first byte that is neither.
            offset = start;
            while (offset < static_cast<std::size_t>(json.size()) && isSpace(json.at(static_cast<int>(offset))))
                ++offset;
            if (offset < static_cast<std::size_t>(json.size()))
                ++offset;
        }
        return fail(error, consumed, text, offset);
    }
    std::size_t end = start + stream.Tell();
    while (end < static_cast<std::size_t>(json.size()) && isSpace(json.at(static_cast<int>(end))))
        ++end;
    if (end != static_cast<std::size_t>(json.size()))
        return fail(error, consumed, garbageAtEnd, end);
    error = TarvError();
    if (consumed)
        *consumed = static_cast<unsigned int>(json.size());
    return builder.takeResult();
}

} // namespace TarvJson
